// The keyword table and the application of collector keyword lists.
//
// Field rows carry (record via setter, byte offset, width, converter); parser
// rows carry a function with its own logic; a row with neither is accepted
// and ignored. Row order is fixed: indices are part of the protocol (the
// file-based keyword handler is told the row index).
//
// Application threads read the fields while the control thread applies a
// message, so the converters store with relaxed atomics of the field's own
// width; the table is checked at compile time so that every numeric row names
// a zx::Relaxed of exactly its width.
#include "Server.h"

#include <cstddef>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <type_traits>
#include <vector>

#include "ZXAppSettings.h"
#include "ZXFeatureKeywords.h"
#include "ZXFileBasedKeywords.h"
#include "zxlb_mt_log.h"
#include "zxlb_utiles.h"

namespace {

// A row's width is its field's size; a number is a zx::Relaxed, text a char
// array (written byte by byte, read by the control thread only).
template <typename Field>
consteval int rowOffset(std::size_t offset, int length) {
  if (static_cast<int>(sizeof(Field)) != length) throw "row width differs from its field";
  if (!zx::is_relaxed_v<Field> && !std::is_array_v<Field>) throw "row names a plain field";
  return static_cast<int>(offset);
}

#define ZX_P(name, parser) \
  { name, -1, 0, parser, nullptr, nullptr }
#define ZX_N(name, offset, length) \
  { name, offset, length, nullptr, nullptr, nullptr }
#define ZX_F(name, record, field, length, conv, setter)                                         \
  {                                                                                             \
    name, rowOffset<decltype(record::field)>(offsetof(record, field), length), length, nullptr, \
        setter, conv                                                                            \
  }

#define ZX_SRV(name, field, length, conv) \
  ZX_F(name, Server_t, field, length, conv, fill_server_info)
#define ZX_SYS(name, field, length, conv) ZX_F(name, ZXSys_t, field, length, conv, fill_ZXSys_info)
#define ZX_BCI(name, field, length, conv) \
  ZX_F(name, ZXBCISetting_t, field, length, conv, fill_ZXBCISetting_info)
#define ZX_AI(name, field, length, conv) \
  ZX_F(name, ZXAutoInstrumentation_t, field, length, conv, fill_ZXAutoInstrumentation_info)

constexpr auto I = fill_int_data;
constexpr auto L = fill_long_long_data;
constexpr auto D = fill_double_data;
constexpr auto C = fill_char_data;
constexpr auto FILE_KW = setFileBasedKeywd;
constexpr auto FEATURE = storeFeatureKeyword;

// Rows whose effect belongs to a folder above this one: the application's
// layers apply them.
void layerKeyword(ZXAppSettings &app, char *value, char *keyword, int index) {
  if (!app.applyLayerKeyword(value, keyword, index))
    ZX_CTRL_LOG(1, "Info", "Keyword [%s] has no handler here; ignored", keyword ? keyword : "");
}
constexpr auto LAYER = layerKeyword;

}  // namespace

const zx_keyword_row_t keywordsMap[ZX_KEYWORD_COUNT] = {
    ZX_P("BTRuleConfig", FILE_KW),
    ZX_P("BTTConfig", FILE_KW),
    ZX_P("BTErrorRules", FILE_KW),
    ZX_P("HTTPStatsCondCfg", FILE_KW),
    ZX_P("ZXHTTPRepHdrCfgListFullFp", FILE_KW),
    ZX_P("ZXHTTPReqHdrCfgListL1Fp", FILE_KW),
    ZX_P("zxExceptionMonFile", FILE_KW),
    ZX_P("zxMethodMonFile", FILE_KW),
    ZX_P("ZXAppLogFile", FILE_KW),
    ZX_P("zxBackendMonFile", FILE_KW),
    ZX_P("zxBackendNamingRulesFile", FILE_KW),
    ZX_P("generateExceptionConfFile", FILE_KW),
    ZX_P("morRBURLFile", FILE_KW),
    ZX_P("ZXEntryPointsFile", FILE_KW),
    ZX_P("ZXInterfaceFile", FILE_KW),
    ZX_P("saveConfigFiles", FILE_KW),
    ZX_SRV("status", statusValue, ZX_STATUS_VALUE_SIZE, C),
    ZX_P("zxFlowpathMasks", LAYER),
    ZX_P("testIdx", parseTestIdx),
    ZX_P("morEpochDiff", parseMorEpochDiff),
    ZX_SRV("TimeStampDiff", diffTimeFromZXC, 8, L),
    ZX_SYS("enableForcedFPChain", enableForcedFlowpathChainMode, 4, I),
    ZX_F("interfaceTraceLevel", ZXInterfaceProcessor_t, interfaceTraceLevel, 4, I,
         fill_ZXInterfaceProcessor_info),
    ZX_P("enableCpuTime", parseEnableCpuTime),
    ZX_P("pwWDir", FEATURE),
    ZX_P("appName", parseAppName),
    ZX_BCI("appID", appID, 4, I),
    ZX_BCI("zxAppServerID", serverID, 4, I),
    ZX_BCI("tierID", tierID, 4, I),
    ZX_P("DBIPName", FEATURE),
    ZX_P("ASSampleInterval", FEATURE),
    ZX_P("ASReportInterval", FEATURE),
    ZX_SRV("fpVersionID", fpgVID, ZX_FPG_VERSION_SIZE, C),
    ZX_SYS("enableBTMonitorTrace", btMonitorTraceLevel, 4, I),
    ZX_P("enableBTMonitor", LAYER),
    ZX_P("maxBTCount", LAYER),
    ZX_P("maxIPCount", FEATURE),
    ZX_P("doNotDiscardFlowPaths", LAYER),
    ZX_F("maxCharInSeqBlob", ZXFlowpathGeneratorSettings_t, maxCharactersInSeqBlob, 4, I,
         fill_ZXFlowpathGenerator_info),
    ZX_P("collectASData", FEATURE),
    ZX_P("zxVectorSeparator", LAYER),
    ZX_SYS("captureExceptionTraceLevel", exceptionTraceLevel, 4, I),
    ZX_SYS("zxMethodMonTraceLevel", methodMonTraceLevel, 4, I),
    ZX_P("enableBTMonitorError", LAYER),
    ZX_P("enableBackendMonitor", FEATURE),
    ZX_SYS("enableBackendMonTrace", backendMonTraceLevel, 4, I),
    ZX_P("genNewMonRecord", FEATURE),
    ZX_SYS("enableThreadMonTraceLevel", threadMonTraceLevel, 4, I),
    ZX_P("BTAggDataArraySize", LAYER),
    ZX_SYS("AppLogTraceLevel", appLogTraceLevel, 4, I),
    ZX_SYS("ControlThreadTraceLevel", controlTraceLevel, 4, I),
    ZX_SYS("AgentTraceLevel", agentTraceLevel, 4, I),
    ZX_SYS("BCITraceMaxSize", traceMaxSize, 8, L),
    ZX_SYS("bciInstrSessionPct", bciInstrSessionPct, 4, I),
    ZX_SYS("enableFPTrace", fpTraceLevel, 4, I),
    ZX_BCI("fileBasedKeywordMode", fileBasedKeywordMode, 1, C),
    ZX_P("instrProfile", LAYER),
    ZX_P("lmd", LAYER),
    ZX_P("size", LAYER),
    ZX_P("tierName", parseTierName),
    ZX_P("zxAppServerHost", parseAppServerHost),
    ZX_SYS("bciMaxNonServiceMethodsPerFP", bciMaxNonServiceMethodsPerFP, 8, L),
    ZX_SRV("numInstrProfile", numInstrProfile, 4, I),
    ZX_SRV("InstrTraceLevel", setInstrumentTraceLevel, 1, C),
    ZX_P("zxHttpHdrCaptureFileList", FILE_KW),
    ZX_P("hdrListForValueAsId", FEATURE),
    ZX_P("ASThresholdMatchCount", FEATURE),
    ZX_P("ASStackComparingDepth", FEATURE),
    ZX_P("zxMonitorInterval", LAYER),
    ZX_P("ASReportDumpMode", FEATURE),
    ZX_P("ASEnableHotspotRecord", FEATURE),
    ZX_P("enableZXSession", LAYER),
    ZX_P("RBCookie", FEATURE),
    ZX_SYS("enableIPResourceURL", enableIPResourceURL, 4, I),
    ZX_P("correlationIDHeader", FEATURE),
    ZX_P("captureHTTPReqFullFp", FEATURE),
    ZX_P("zxILRewritterFile", FILE_KW),
    ZX_P("zxModuleFile", FILE_KW),
    ZX_P("zxProcessesFile", FILE_KW),
    ZX_P("zxPoolFile", FILE_KW),
    ZX_SYS("hashMapClearTime", hashMapClearTime, 4, I),
    ZX_SRV("setthresholdTime", dumpremainingtstime, 4, I),
    ZX_AI("autoInstrMapSize", autoInstrMapSize, 4, I),
    ZX_AI("autoInstrTraceLevel", autoInstrTraceLevel, 4, I),
    ZX_AI("autoInstrMaxAvgDuration", autoInstrDurationThreshold, 4, I),
    ZX_AI("autoDeInstrPct", autoUnInstrPct, 8, D),
    ZX_AI("autoInstrSampleInterval", autoInstrSampleThreshold, 4, I),
    ZX_AI("autoInstrPct", autoInstrPct, 8, D),
    ZX_SYS("zxEnableTxHotspot", zxEnableTxHotspot, 4, I),
    ZX_SYS("zxHelperDepth", zxHelperDepth, 4, I),
    ZX_SYS("zxHotspotThreadLimit", zxHotspotThreadLimit, 4, I),
    ZX_P("zxCriticalFileList", FILE_KW),
    ZX_P("captureHTTPRespFullFp", FEATURE),
    ZX_P("autoInstrClassWeight", FEATURE),
    ZX_P("autoInstrSessionDuration", FEATURE),
    ZX_P("autoInstrRetainChanges", FEATURE),
    ZX_P("blackListForDebugSession", FILE_KW),
    ZX_P("enableAutoInstrSession", FEATURE),
    ZX_AI("autoInstrSampleThreshold", autoInstrSampleThreshold, 4, I),
    ZX_P("MinStackDepthDebugSession", FEATURE),
    ZX_SYS("captureMethodForAllFP", captureMethodForAllFP, 2, I),
    ZX_SYS("zxEnableDebugMode", dumpDebugData, 1, I),
    ZX_SYS("maxHttpBodySize", maxHttpBodySize, 4, I),
    ZX_SYS("BTRuleOverridePolicy", btRuleOverriedPolicy, 4, I),
    ZX_SYS("bciDataBufferMaxSize", bciDataBufferMaxSize, 4, I),
    ZX_SYS("bciDataBufferMaxCount", dataBuffMaxCount, 4, I),
    ZX_SYS("ASDataBufferSize", bciASDataBufferMaxSize, 4, I),
    ZX_SYS("ASDataBufferMaxCount", ASDataBuffMaxCount, 4, I),
    ZX_SYS("ASDataBufferMinCount", ASDataBuffMinCount, 4, I),
    ZX_P("backendErrorDetectionMode", FEATURE),
    ZX_P("instrExceptions", FEATURE),
    ZX_P("zxExceptionFilterList", FEATURE),
    ZX_P("enableExceptionInSeqBlob", FEATURE),
    ZX_P("zxDynamicDiagnosticsConfFile", FILE_KW),
    ZX_P("enableDDAI", FEATURE),
    ZX_SYS("zxcHeartBeatThreshold", zxcHeartBeatThreshold, 8, L),
    ZX_SYS("enableDBBackendName", enableDBBackendName, 4, I),
    ZX_SYS("enableProcessNotificationPhase", enableProcessNotificationPhase, 4, I),
    ZX_SYS("AgentHSTraceLevel", agentHSTraceLevel, 4, I),
    ZX_SYS("AgentADTraceLevel", agentADTraceLevel, 4, I),
    ZX_SYS("AgentPCTraceLevel", agentPCTraceLevel, 4, I),
    ZX_N("enableZXTGDataTransfer", -1, 0),
    ZX_N("bciZXTGDataBufferSetting", -1, 0),
    ZX_N("ZXTGFlushInterval", 1104, 8),
    ZX_N("ZXTGLogPath", -1, 0),
    ZX_SYS("enableUpdateLogMsgForTG", enableUpdateLogMsgForTG, 4, I),
    ZX_P("formatIPResourceURL", FEATURE),
    ZX_SYS("AgentEXTraceLevel", agentEXTraceLevel, 4, I),
    ZX_SYS("enableCallBackException", enableCallBackException, 4, I),
    ZX_P("tDigestPercentileBT", LAYER),
    ZX_P("tDigestPercentileIP", LAYER),
    ZX_P("zxAgentDebugLogging", parseAgentDebugLogging),
    ZX_P("enableCaptureDataOutsideTxn", FEATURE),
};

int NameToIndex(const char *keyword) {
  if (!keyword) return -1;
  for (int i = 0; i < ZX_KEYWORD_COUNT; ++i) {
    if (strcmp(keywordsMap[i].name, keyword) == 0) return i;
  }
  return -1;
}

void fill_int_data(void *target, const char *value, int length) {
  if (!target || !value || length <= 0) return;
  zx::relaxed_store_low_bytes(target, atoi(value), length < 4 ? length : 4);
}

void fill_long_long_data(void *target, const char *value, int length) {
  if (!target || !value || length <= 0) return;
  zx::relaxed_store_low_bytes(target, atoll(value), length < 8 ? length : 8);
}

void fill_double_data(void *target, const char *value, int length) {
  if (!target || !value || length <= 0) return;
  double v = 0;
  if (sscanf(value, "%lf", &v) != 1) v = 0;
  if (length >= 8) {
    zx::relaxed_store_at(target, v);
    return;
  }
  long long bits;
  std::memcpy(&bits, &v, sizeof bits);
  zx::relaxed_store_low_bytes(target, bits, length);
}

void fill_char_data(void *target, const char *value, int length) {
  if (!target || !value || length <= 0) return;
  // The field keeps its width; a short value is padded with zeros instead of
  // copying whatever follows it in the message.
  auto *dst = static_cast<char *>(target);
  size_t n = strnlen(value, static_cast<size_t>(length));
  for (int i = 0; i < length; ++i)
    zx::relaxed_store_at(dst + i, static_cast<size_t>(i) < n ? value[i] : '\0');
}

namespace {

void fill_record(void *base, int index, char *value, bool is_server) {
  if (!value || !base || index < 0 || index >= ZX_KEYWORD_COUNT) return;
  const zx_keyword_row_t &row = keywordsMap[index];
  if (row.offset < 0 || !row.fill_data) return;
  ZX_CTRL_LOG(is_server ? 0 : 2, "Info",
              "idx=%d, keywordsMap[idx].name=%s,  keywordsMap[idx].offset=%d,  "
              "keywordsMap[idx].length=%d ",
              index, row.name, row.offset, row.length);
  row.fill_data(static_cast<char *>(base) + row.offset, value, row.length);
}

template <typename Member>
void fill_member(ZXAppSettings &app, Member ZXAppSettings::*member, int index, char *value,
                 bool is_server) {
  fill_record(&(app.*member), index, value, is_server);
}

}  // namespace

void fill_server_info(ZXAppSettings &app, int index, char *value) {
  fill_member(app, &ZXAppSettings::Server, index, value, true);
}
void fill_ZXSys_info(ZXAppSettings &app, int index, char *value) {
  fill_member(app, &ZXAppSettings::ZXSys, index, value, false);
}
void fill_ZXBCISetting_info(ZXAppSettings &app, int index, char *value) {
  fill_member(app, &ZXAppSettings::ZXBCISetting, index, value, false);
}
void fill_ZXAutoInstrumentation_info(ZXAppSettings &app, int index, char *value) {
  fill_member(app, &ZXAppSettings::zxAutoInstrumentation, index, value, false);
}
void fill_ZXFlowpathGenerator_info(ZXAppSettings &app, int index, char *value) {
  fill_member(app, &ZXAppSettings::ZXFlowpathGenerator, index, value, false);
}
void fill_ZXInterfaceProcessor_info(ZXAppSettings &app, int index, char *value) {
  fill_member(app, &ZXAppSettings::ZXInterfaceProcessor, index, value, false);
}
void fill_ZXDynamicSettings_info(ZXAppSettings &app, int index, char *value) {
  fill_member(app, &ZXAppSettings::ZXDynamicSettings, index, value, false);
}
void fill_ZXASsettings_info(ZXAppSettings &app, int index, char *value) {
  fill_member(app, &ZXAppSettings::ZXASsettings, index, value, false);
}
void fill_ZXBTMonitor_info(ZXAppSettings &app, int index, char *value) {
  fill_member(app, &ZXAppSettings::ZXBTMonitor, index, value, false);
}
void fill_ZXBackendMonitor_info(ZXAppSettings &app, int index, char *value) {
  fill_member(app, &ZXAppSettings::ZXBackendMonitor, index, value, false);
}
void fill_zxAutoSensorUsingStackTrace_info(ZXAppSettings &app, int index, char *value) {
  fill_member(app, &ZXAppSettings::zxAutoSensorUsingStackTrace, index, value, false);
}

void findStatusFromClientMsg(ZXAppSettings &app, char *message) {
  if (!message) return;
  static constexpr char kStart[] = "zx_control_req:action=start_instrumentation";
  static constexpr char kModify[] = "zx_control_req:action=modify";
  bool is_start = strncmp(message, kStart, sizeof kStart - 1) == 0;
  bool is_modify = strncmp(message, kModify, sizeof kModify - 1) == 0;

  // Tokenise a copy: parsers keep pointers only for the duration of the call,
  // and the caller's text stays whole for its own logs.
  std::vector<char> text(message, message + strlen(message) + 1);
  std::vector<char *> tokens(ZX_MAX_MESSAGE_TOKENS);
  int count =
      zxlb_get_tokens_with_multi_delimiter(text.data(), tokens.data(), ZX_MAX_MESSAGE_TOKENS, ";");
  for (int i = 0; i < count; ++i) {
    if (!((is_start && app.Server.controlCommunicationBusyFlag == 0) || is_modify)) continue;
    char key[256];
    char *value = split_key_value(tokens[i], key, sizeof key);
    ZX_CTRL_LOG(1, "Info", "keyword=>Value = [%s=>%s] pair after spliting token",
                value ? key : tokens[i], value ? value : "");
    if (!value || key[0] == '\0') return;
    if (app.ZXSys.closeCtrlConFlag) return;
    int index = NameToIndex(key);
    ZX_CTRL_LOG(1, "Info", "Index of Keyword=[%s] from enum is : [%d]", key, index);
    if (index < 0) {
      ZX_CTRL_LOG(1, "Info", "Index of Keyword is %d, hence continue from loop", index);
      continue;
    }
    const zx_keyword_row_t &row = keywordsMap[index];
    if (row.parser)
      row.parser(app, value, key, index);
    else if (row.setter)
      row.setter(app, index, value);
  }
}

void zxlb_init_all_keywords(ZXAppSettings &app) {
  app.Server.morEpochDiffTime = 0;
  app.Server.originalMorEpochDiffTime = ZX_ORIGINAL_EPOCH_DIFF_MS;
  app.ZXSys.enableForcedFlowpathChainMode = 1;
  app.ZXSys.enableCpuTime = 0;
  fill_char_data(app.Server.fpgVID, "1.0", ZX_FPG_VERSION_SIZE);
  app.ZXSettings.zxVectorSeperator = '>';
  // Feature keywords start each run unset; their features apply defaults.
  for (auto &v : app.featureKeywordValues) v.reset();
}
