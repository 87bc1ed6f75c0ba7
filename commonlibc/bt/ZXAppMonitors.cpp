#include "ZXAppMonitors.h"

#include <cstring>

ZXAppMonitors::ZXAppMonitors() = default;

ZXAppMonitors::~ZXAppMonitors() {
  (void)stopMonitorTimer(this);
}

bool ZXAppMonitors::applyLayerKeyword(char *value, char *keyword, int index) {
  using Parser = void (*)(ZXAppMonitors &, char *, char *, int);
  static constexpr struct {
    const char *name;
    Parser parse;
  } kRows[] = {
      {"enableBTMonitor", parseBTMonitorKeyword},
      {"maxBTCount", parseMaxBTCount},
      {"doNotDiscardFlowPaths", parseDoNotDiscardVal},
      {"enableBTMonitorError", parseBTMonitorErrorLevel},
      {"BTAggDataArraySize", parseBTAggDataArraySize},
      {"zxMonitorInterval", parseMonitorInterval},
      {"zxVectorSeparator", parseVectorSeparator},
      {"tDigestPercentileBT", setTDigestPercentileBT},
      {"tDigestPercentileIP", setTDigestPercentileIP},
  };
  if (keyword) {
    for (const auto &row : kRows) {
      if (std::strcmp(keyword, row.name) == 0) {
        row.parse(*this, value, keyword, index);
        return true;
      }
    }
  }
  return ZXAppLink::applyLayerKeyword(value, keyword, index);
}
