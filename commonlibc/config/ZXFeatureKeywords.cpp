#include "ZXFeatureKeywords.h"

#include <cstdlib>

#include "Server.h"
#include "ZXAppSettings.h"
#include "ZXFileBasedKeywords.h"
#include "zxlb_mt_log.h"

void setFileBasedKeywd(ZXAppSettings &app, char *value, char *keyword, int index) {
  if (!value || !keyword) {
    ZX_CTRL_LOG(0, "Error", "Invalid argument passed, value=[%s], keyword=[%s], index=[%d]",
                value ? value : "(null)", keyword ? keyword : "(null)", index);
    return;
  }
  ZXFileBasedKeywords(app, value, keyword, index);
}

void parseMorEpochDiff(ZXAppSettings &app, char *value, char *, int) {
  if (!value) return;
  Server_t &server = app.Server;
  server.morEpochDiffTime = atoll(value) * 1000;
  server.originalMorEpochDiffTime = server.morEpochDiffTime;
  server.changeOriginalTime = server.morEpochDiffTime != 0 ? 1 : 0;
  ZX_CTRL_LOG(1, "Info", "Server.changeOriginalTime is=%lld", server.changeOriginalTime);
}

void parseAgentDebugLogging(ZXAppSettings &app, char *value, char *, int) {
  if (value) app.ZXSys.sendLogsToProxy = atoi(value);
}

void parseTestIdx(ZXAppSettings &app, char *value, char *, int) {
  if (value) app.Server.TestRunIDValue = atoi(value);
}

void parseEnableCpuTime(ZXAppSettings &app, char *value, char *, int) {
  if (value) app.ZXSys.enableCpuTime = atoi(value);
}

void parseAppName(ZXAppSettings &app, char *value, char *, int) {
  setAppName(app.ZXBCISetting, value);
}
void parseTierName(ZXAppSettings &app, char *value, char *, int) {
  setTierName(app.ZXBCISetting, value);
}
void parseAppServerHost(ZXAppSettings &app, char *value, char *, int) {
  setAppServerName(app.ZXBCISetting, value);
}

void storeFeatureKeyword(ZXAppSettings &app, char *value, char *, int index) {
  if (!value || index < 0 || index >= ZX_KEYWORD_COUNT) return;
  app.featureKeywordValues[index].assign(value);
}

const char *featureKeywordValue(const ZXAppSettings &app, const char *keyword) {
  int index = NameToIndex(keyword);
  if (index < 0) return nullptr;
  return app.featureKeywordValues[index].get();
}
