#include "Server.h"

#include <gtest/gtest.h>

#include <cstring>
#include <set>
#include <string>

#include "ZXFeatureKeywords.h"
#include "ZXFileBasedKeywords.h"
#include "test_support.h"

using zxtest::ScopedApp;

namespace {

std::string start_msg(const std::string &pairs) {
  return "zx_control_req:action=start_instrumentation;" + pairs;
}

void apply(std::string msg) {
  findStatusFromClientMsg(*tlzxApplication, msg.data());
}

TEST(KeywordTable, RowIndicesAndConvertersHoldTheProtocol) {
  std::set<std::string> names;
  for (const auto &row : keywordsMap) names.insert(row.name);
  EXPECT_EQ(names.size(), static_cast<size_t>(ZX_KEYWORD_COUNT));
  // Row indices are part of the protocol (file keyword 0 and 1, ...).
  const std::pair<const char *, int> rows[] = {{"BTRuleConfig", 0},
                                               {"BTTConfig", 1},
                                               {"status", 16},
                                               {"ZXTGFlushInterval", 123},
                                               {"enableCaptureDataOutsideTxn", 132},
                                               {"agenttracelevel", -1},  // case-sensitive
                                               {nullptr, -1}};
  for (auto [name, index] : rows) EXPECT_EQ(NameToIndex(name), index) << (name ? name : "null");

  // Each converter writes exactly its width (little-endian), text padded, never terminated.
  auto written = [](auto fn, const char *value, int len) {
    alignas(8) char buf[16];
    memset(buf, 0xAB, sizeof buf);
    fn(buf, value, len);
    return std::string(buf, static_cast<size_t>(len) + 1);
  };
  using namespace std::string_literals;
  EXPECT_EQ(written(fill_int_data, "65537", 2), "\x01\x00\xAB"s);
  EXPECT_EQ(written(fill_int_data, "-1", 1), "\xFF\xAB"s);
  EXPECT_EQ(written(fill_long_long_data, "4294967296", 8), "\0\0\0\0\x01\0\0\0\xAB"s);
  EXPECT_EQ(written(fill_double_data, "0.25", 8), "\0\0\0\0\0\0\xD0\x3F\xAB"s);
  EXPECT_EQ(written(fill_double_data, "junk", 8), "\0\0\0\0\0\0\0\0\xAB"s);
  EXPECT_EQ(written(fill_char_data, "1", 1), "1\xAB"s);
  EXPECT_EQ(written(fill_char_data, "ab", 10), "ab\0\0\0\0\0\0\0\0\xAB"s);
  EXPECT_EQ(written(fill_char_data, "0123456789ABC", 10), "0123456789\xAB"s);
}

TEST(ClientMessage, FieldParserAndInertRows) {
  ScopedApp app;
  unsigned char before[sizeof(ZXSys_t)];
  memcpy(before, static_cast<const void *>(&app->ZXSys), sizeof before);
  apply(start_msg("ZXTGFlushInterval=5;enableZXTGDataTransfer=1;ZXTGLogPath=/x"));
  EXPECT_EQ(memcmp(before, static_cast<const void *>(&app->ZXSys), sizeof before), 0)
      << "inert rows change nothing";

  apply(start_msg(
      "captureMethodForAllFP=65537;fileBasedKeywordMode=1;zxEnableDebugMode=258;"
      "BCITraceMaxSize=123456789012;autoInstrSampleInterval=7;autoInstrSampleThreshold=9;"
      "autoInstrPct=12.5;status=running;fpVersionID=2.0;maxCharInSeqBlob=77;interfaceTraceLevel=3;"
      "appID=5;TimeStampDiff=-42;setthresholdTime=2;InstrTraceLevel=4;morEpochDiff=1500;"
      "appName=shop;tierName=web;zxAppServerHost=h1;zxAgentDebugLogging=2;testIdx=12;"
      "enableBTMonitor=1;maxBTCount=300"));
  EXPECT_EQ(app->ZXSys.captureMethodForAllFP, 1);
  EXPECT_EQ(app->ZXBCISetting.fileBasedKeywordMode, '1');
  EXPECT_EQ(app->ZXSys.dumpDebugData, 2);
  EXPECT_EQ(app->ZXSys.traceMaxSize, 123456789012LL);
  EXPECT_EQ(app->zxAutoInstrumentation.autoInstrSampleThreshold, 9) << "shared field, last wins";
  EXPECT_EQ(app->zxAutoInstrumentation.autoInstrPct, 12.5);
  EXPECT_STREQ(app->Server.statusValue, "running");
  EXPECT_STREQ(app->Server.fpgVID, "2.0");
  EXPECT_EQ(app->ZXFlowpathGenerator.maxCharactersInSeqBlob, 77);
  EXPECT_EQ(app->ZXInterfaceProcessor.interfaceTraceLevel, 3);
  EXPECT_EQ(app->ZXBCISetting.appID, 5);
  EXPECT_EQ(app->Server.diffTimeFromZXC, -42);
  EXPECT_EQ(app->Server.dumpremainingtstime, 2);
  EXPECT_EQ(app->Server.setInstrumentTraceLevel, '4');

  EXPECT_EQ(app->Server.morEpochDiffTime, 1500000);
  EXPECT_EQ(app->Server.originalMorEpochDiffTime, 1500000);
  EXPECT_EQ(app->Server.changeOriginalTime, 1);
  EXPECT_STREQ(app->ZXBCISetting.appName.get(), "shop");
  EXPECT_STREQ(app->ZXBCISetting.tierName.get(), "web");
  EXPECT_STREQ(app->ZXBCISetting.appServerName.get(), "h1");
  EXPECT_EQ(app->ZXSys.sendLogsToProxy, 2);
  EXPECT_EQ(app->Server.TestRunIDValue, 12);
  EXPECT_STREQ(featureKeywordValue(*tlzxApplication, "maxBTCount"), "300");

  apply(start_msg("morEpochDiff=0"));
  EXPECT_EQ(app->Server.changeOriginalTime, 0);

  zxlb_init_all_keywords(*tlzxApplication);
  EXPECT_EQ(app->Server.morEpochDiffTime, 0) << "a new run starts from the defaults";
  EXPECT_EQ(featureKeywordValue(*tlzxApplication, "maxBTCount"), nullptr);
}

TEST(ClientMessage, WhichMessagesApplyAndWhereTheyStop) {
  ScopedApp app;
  apply("zx_control_req:action=modify;AgentTraceLevel=3");
  EXPECT_EQ(app->ZXSys.agentTraceLevel, 3);

  apply("zx_control_req:action=stop_instrumentation;AgentTraceLevel=4");
  EXPECT_EQ(app->ZXSys.agentTraceLevel, 3) << "other commands apply nothing";

  app->Server.controlCommunicationBusyFlag = 1;
  apply(start_msg("AgentTraceLevel=4"));
  EXPECT_EQ(app->ZXSys.agentTraceLevel, 3) << "a start while busy applies nothing";
  app->Server.controlCommunicationBusyFlag = 0;

  apply(start_msg("agenttracelevel=9;AgentTraceLevel=1;foo;ControlThreadTraceLevel=2"));
  EXPECT_EQ(app->ZXSys.agentTraceLevel, 1) << "unknown keys are skipped";
  EXPECT_EQ(app->ZXSys.controlTraceLevel, 0) << "a token without '=' ends the message";

  apply(start_msg("=5;AgentTraceLevel=2"));
  EXPECT_EQ(app->ZXSys.agentTraceLevel, 1) << "an empty key ends the message";

  app->ZXSys.closeCtrlConFlag = 1;
  apply(start_msg("AgentTraceLevel=2"));
  EXPECT_EQ(app->ZXSys.agentTraceLevel, 1);
}

std::string g_seen;
void record_file_keyword(ZXAppSettings &, char *value, char *keyword, int index) {
  g_seen += std::string(keyword) + "#" + std::to_string(index) + "=" + value + ";";
}

TEST(ClientMessage, FileKeywordsReachTheirReaders) {
  ScopedApp app;
  g_seen.clear();
  registerFileKeywordReader("BTRuleConfig", record_file_keyword);
  registerFileKeywordReader("BTTConfig", record_file_keyword);
  apply(start_msg("BTRuleConfig=rules.txt;BTTConfig=thr.txt;zxModuleFile=ignored"));
  registerFileKeywordReader("BTRuleConfig", nullptr);
  registerFileKeywordReader("BTTConfig", nullptr);
  EXPECT_EQ(g_seen, "BTRuleConfig#0=rules.txt;BTTConfig#1=thr.txt;");
  setFileBasedKeywd(*tlzxApplication, nullptr, nullptr, 0);  // logged, not applied
}

TEST(ClientMessage, HostileMessages) {
  ScopedApp app;
  // Over 1,024 tokens: the ones past the limit are not applied.
  std::string msg = start_msg("");
  for (int i = 0; i < 1100; ++i) msg += "unknownKey" + std::to_string(i) + "=1;";
  msg += "AgentTraceLevel=4";
  apply(msg);
  EXPECT_EQ(app->ZXSys.agentTraceLevel, 0);

  // Long keys and values, a bare "=", a short fixed-width value.
  std::string longkey(5000, 'k');
  apply(start_msg(longkey + "=1;status=" + std::string(500, 's') + ";fpVersionID=1"));
  EXPECT_EQ(std::string(app->Server.statusValue, ZX_STATUS_VALUE_SIZE), std::string(64, 's'));
  EXPECT_EQ(std::string(app->Server.fpgVID, 10), std::string("1\0\0\0\0\0\0\0\0\0", 10));
  apply("zx_control_req:action=modify;=");
  findStatusFromClientMsg(*tlzxApplication, nullptr);
}

}  // namespace
