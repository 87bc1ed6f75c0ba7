#include "ZXSupportedProtocols.h"

#include <gtest/gtest.h>

#include "test_support.h"

using zxtest::ScopedApp;

namespace {

TEST(AgentProtocols, ThreeSlotsMapReplacedAndNamesJoined) {
  ScopedApp app;
  upDateAgentSupportedProtocolData(*tlzxApplication, "TCP:7000,WS:8080,WSS:443,TCP:9");
  auto &list = app->supportedProtocols;
  EXPECT_EQ(list.array[0], ZX_PROTO_TCP);
  EXPECT_EQ(list.array[1], ZX_PROTO_WS);
  EXPECT_EQ(list.array[2], ZX_PROTO_WSS);
  EXPECT_EQ(list.array[3], ZX_PROTO_NONE) << "a fourth protocol gets no slot";
  EXPECT_EQ(list.portOf(ZX_PROTO_TCP), 9) << "but replaces the map entry";
  EXPECT_EQ(app->ZXBCISetting.zxc_TCP_Port, 9);
  EXPECT_EQ(app->ZXBCISetting.zxc_WS_Port, 8080);
  EXPECT_EQ(app->ZXBCISetting.zxc_WSS_Port, 443);
  EXPECT_STREQ(app->ZXSys.supportedProtocolsString, "TCP,WS,WSS,TCP");

  // A rebuild starts from scratch; unknown and lower-case names are ignored.
  upDateAgentSupportedProtocolData(*tlzxApplication, "tcp:1,HTTP:80,WSS:8443");
  EXPECT_EQ(list.array[0], ZX_PROTO_WSS);
  EXPECT_EQ(list.array[1], ZX_PROTO_NONE);
  EXPECT_EQ(list.portOf(ZX_PROTO_TCP), -1);
  EXPECT_STREQ(app->ZXSys.supportedProtocolsString, "WSS");
}

TEST(AgentProtocols, OneProtocolDefaults) {
  ScopedApp app;
  updateANYAgentSupportedProtocolData(*tlzxApplication, ZX_PROTO_TCP);
  EXPECT_EQ(app->supportedProtocols.portOf(ZX_PROTO_TCP), 7892);
  app->ZXBCISetting.zxcPort = 9000;
  updateANYAgentSupportedProtocolData(*tlzxApplication, ZX_PROTO_TCP);
  EXPECT_EQ(app->supportedProtocols.portOf(ZX_PROTO_TCP), 9000);
  updateANYAgentSupportedProtocolData(*tlzxApplication, ZX_PROTO_WSS);
  EXPECT_EQ(app->supportedProtocols.portOf(ZX_PROTO_WSS), 443);
  EXPECT_STREQ(app->ZXSys.supportedProtocolsString, "WSS");
  updateANYAgentSupportedProtocolData(*tlzxApplication, ZX_PROTO_WS);
  EXPECT_STREQ(app->ZXSys.supportedProtocolsString, "");
}

TEST(AgentProtocols, HostileLists) {
  ScopedApp app;
  std::string many;
  for (int i = 0; i < 200; ++i) many += "WSS:" + std::to_string(i) + ",";
  upDateAgentSupportedProtocolData(*tlzxApplication, many.c_str());
  EXPECT_LT(strlen(app->ZXSys.supportedProtocolsString),
            static_cast<size_t>(ZX_SUPPORTED_PROTOCOLS_STRING_SIZE));
  EXPECT_EQ(app->supportedProtocols.portOf(ZX_PROTO_WSS), 9) << "at most 10 tokens are read";
  upDateAgentSupportedProtocolData(*tlzxApplication, ",,,:,TCP,:9");
  EXPECT_EQ(app->supportedProtocols.portOf(ZX_PROTO_TCP), 0);
  upDateAgentSupportedProtocolData(*tlzxApplication, nullptr);
  EXPECT_STREQ(app->ZXSys.supportedProtocolsString, "");
}

}  // namespace
