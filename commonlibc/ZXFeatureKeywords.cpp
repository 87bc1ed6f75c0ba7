#include "ZXFeatureKeywords.h"

#include <cstdlib>

#include "Server.h"
#include "ZXFileBasedKeywords.h"
#include "ZXMethodManager.h"
#include "ZXProxyInstance.h"
#include "zxlb_mt_log.h"

void setFileBasedKeywd(char *value, char *keyword, int index) {
  if (!value || !keyword) {
    ZX_CTRL_LOG(0, "Error", "Invalid argument passed, value=[%s], keyword=[%s], index=[%d]",
                value ? value : "(null)", keyword ? keyword : "(null)", index);
    return;
  }
  ZXFileBasedKeywords(value, keyword, index);
}

void setInstProfile(char *value, char *keyword, int index) {
  storeFeatureKeyword(value, keyword, index);
  setInstrProfileKeyword(keyword, value);
}

void parseMorEpochDiff(char *value, char *, int) {
  if (!value || !tlzxApplication) return;
  Server_t &server = tlzxApplication->Server;
  server.morEpochDiffTime = atoll(value) * 1000;
  server.originalMorEpochDiffTime = server.morEpochDiffTime;
  server.changeOriginalTime = server.morEpochDiffTime != 0 ? 1 : 0;
  ZX_CTRL_LOG(1, "Info", "Server.changeOriginalTime is=%lld", server.changeOriginalTime);
}

void parseAgentDebugLogging(char *value, char *, int) {
  if (value && tlzxApplication) tlzxApplication->ZXSys.sendLogsToProxy = atoi(value);
}

void parseTestIdx(char *value, char *, int) {
  if (value && tlzxApplication) tlzxApplication->Server.TestRunIDValue = atoi(value);
}

void parseEnableCpuTime(char *value, char *, int) {
  if (value && tlzxApplication) tlzxApplication->ZXSys.enableCpuTime = atoi(value);
}

void parseAppName(char *value, char *, int) {
  setAppName(value);
}
void parseTierName(char *value, char *, int) {
  setTierName(value);
}
void parseAppServerHost(char *value, char *, int) {
  setAppServerName(value);
}

void storeFeatureKeyword(char *value, char *, int index) {
  if (!value || !tlzxApplication || index < 0 || index >= ZX_KEYWORD_COUNT) return;
  tlzxApplication->featureKeywordValues[index].assign(value);
}

const char *featureKeywordValue(const char *keyword) {
  int index = NameToIndex(keyword);
  if (index < 0 || !tlzxApplication) return nullptr;
  return tlzxApplication->featureKeywordValues[index].get();
}
