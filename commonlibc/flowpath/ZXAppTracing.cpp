#include "ZXAppTracing.h"

#include <cstring>

#include "ZXFeatureKeywords.h"

ZXAppTracing::ZXAppTracing() = default;

ZXAppTracing::~ZXAppTracing() = default;

bool ZXAppTracing::applyLayerKeyword(char *value, char *keyword, int index) {
  using Parser = void (*)(ZXAppTracing &, char *, char *, int);
  static constexpr struct {
    const char *keyword;
    Parser parse;
  } rows[] = {
      {"zxFlowpathMasks", parseZXFlowpathMasks},
      {"enableZXSession", parseEnableZXSession},
      {"instrProfile", parseInstrProfile},
      {"lmd", parseInstrProfile},
      {"size", parseInstrProfile},
  };
  if (keyword) {
    for (const auto &row : rows) {
      if (std::strcmp(keyword, row.keyword) != 0) continue;
      row.parse(*this, value, keyword, index);
      return true;
    }
  }
  return ZXAppRules::applyLayerKeyword(value, keyword, index);
}

void create_fpi_tls_map(ZXAppTracing &app) {
  if (!app.fpi_tls_map) app.fpi_tls_map = std::make_unique<ZXFpiTlsMap>();
}

void free_fpi_tls_map(ZXAppTracing &app) {
  if (!app.fpi_tls_map) return;
  for (auto &[id, record] : *app.fpi_tls_map) reset(&app, record);
  app.fpi_tls_map.reset();
}
