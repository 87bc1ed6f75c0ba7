// The agent's collector link against the reference collector on loopback:
// handshake, reply rules, negotiation, failover, liveness, command framing,
// the data connection and recovery.
#include <gtest/gtest.h>
#include <sys/mman.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdint>
#include <memory>
#include <regex>
#include <string>
#include <thread>
#include <vector>

#include "ServerMessages.h"
#include "ZXDataDispatcher.h"
#include "ZXDataThread.h"
#include "control_connection.h"
#include "reference_collector.h"
#include "test_support.h"

namespace {

using namespace std::chrono_literals;
using zxref::Behaviour;
using zxref::ConnKind;
using zxref::ReferenceCollector;
using zxtest::ScopedApp;
using zxtest::ScopedEnv;
using zxtest::TempDir;

constexpr auto kWait = 10s;
const std::string kModifyError =
    "zx_control_rep:result=Error:<Unable to process modify message because of stop instrument "
    "recieved or startInstrument not recieved.";

auto starts = [](std::string prefix) {
  return [prefix](std::string_view line) { return line.rfind(prefix, 0) == 0; };
};

// An agent home pointing at collectors, and the connection loop on a thread
// of its own, as the control thread runs it.
class LinkTest : public ::testing::Test, protected zxtest::LinkedAgent {};

std::string escape(const std::string &s) {
  static const std::regex special(R"([.^$|()\[\]{}*+?\\])");
  return std::regex_replace(s, special, R"(\$&)");
}

TEST_F(LinkTest, RequestBytesAndAcceptedReply) {
  auto c = zxtest::start_collector();
  ZXProxyInstance_t &a = configure(c->port());
  a.ZXBCISetting.appName.assign("inst");
  a.ZXBCISetting.agentType.assign("PHP");
  a.ZXBCISetting.appServerName.assign("srv");
  a.ZXBCISetting.tierName.assign("tier");
  a.ZXBCISetting.authToken.assign("tok");
  a.agentName.assign("agent");
  a.processID = 4242;
  a.agentStartTime = 1700000000123;
  run_loop();
  auto req = c->wait_for_control_line(starts("zx_ctrl_msg_req:"), kWait);
  ASSERT_TRUE(req);
  const std::string homeDir = home().str();
  const std::string expected =
      escape(
          "zx_ctrl_msg_req:appName=inst;zxAppServerHost=srv;tierName=tier;bciVersion=4.3.0;"
          "bciStartTime=1700000000123;zxHome=" +
          homeDir + ";pid=4242;BCITimeStamp=") +
      R"(\d{13})" +
      escape(
          ";agentType=PHP;serverIp=127.0.0.1;hostName=srv;isAgentLess=N;jvmType=PHP;"
          "javaVersion=1.0;javaHome=/apps/java;machineType=") +
      R"([^;]+)" +
      escape(
          ";requestType=0;lastConnectionTimeStamp=0;connDuration=0;connDestination=;"
          "agentName=agent;supportedProtocols=TCP;authtoken=tok;protoVer=1 ");
  EXPECT_TRUE(std::regex_match(req->text, std::regex(expected))) << req->text;
  EXPECT_EQ(a.ZXBCISetting
                .controlConnectionReqMessage[a.ZXBCISetting.controlConnectionReqMessage_len - 1],
            '\n');

  // Accepted: the connection stays, and commands are answered on it.
  ASSERT_TRUE(c->send_modify("x=1"));
  auto err = c->wait_for_control_line(starts("zx_control_rep:result=Error"), kWait);
  ASSERT_TRUE(err);
  EXPECT_EQ(err->text + "\n", kModifyError + "\n");
  EXPECT_EQ(err->text.size() + 1, 131u);
  EXPECT_EQ(c->snapshot().of(ConnKind::Control).connections, 1u);
  stop_agent();
  EXPECT_EQ(std::string(a.Server.connDestination), "127.0.0.1:" + std::to_string(c->port()));
}

TEST(ControlRequest, SaasFormAndOverlongIdentityStillEndsTheLine) {
  TempDir home;
  ScopedApp app(home.str());
  app->ZXBCISetting.saasMode = 1;
  zxc_servers_t &e0 = app->zxc_server_arr.at_growing(0);
  e0.saasServer = 1;
  app->ZXBCISetting.appName.assign("inst");
  app->ZXBCISetting.agentType.assign("PHP");
  app->ZXBCISetting.projectKey.assign("pk");
  app->ZXBCISetting.saasHost.assign("saas.example");
  app->agentName.assign("agent");
  app->processID = 7;
  snprintf(app->ZXSys.supportedProtocolsString, sizeof app->ZXSys.supportedProtocolsString, "WSS");
  setControlConnectionReqMessage(tlzxApplication);
  std::string req(app->ZXBCISetting.controlConnectionReqMessage,
                  static_cast<size_t>(app->ZXBCISetting.controlConnectionReqMessage_len));
  std::regex expected(
      escape("mor_saas_auth_agent_msg_req:appName=inst;agentVersion=4.3.0;agentStartTime=") +
      R"(\d{13})" +
      escape(";zxHome=" + home.str() +
             ";pid=7;isAgentLess=N;jvmType=PHP;javaVersion=1.0;javaHome=/apps/"
             "java;machineType=") +
      R"([^;]+)" +
      escape(";requestType=0;lastConnectionTimeStamp=0;connDuration=0;connDestination=;"
             "projectKey=pk;protoVer=1;agentType=PHP;supportedProtocols=WSS;agentIp=saas."
             "example;agentHostName=agent\n"));
  EXPECT_TRUE(std::regex_match(req, expected)) << req;

  e0.saasServer = 0;
  app->ZXBCISetting.appName.assign(std::string(5000, 'n').c_str());
  setControlConnectionReqMessage(tlzxApplication);
  const ZXBCISetting_t &bci = app->ZXBCISetting;
  EXPECT_EQ(bci.controlConnectionReqMessage_len, ZX_CONTROL_MSG_SIZE - 1);
  EXPECT_EQ(bci.controlConnectionReqMessage[bci.controlConnectionReqMessage_len - 1], '\n');
}

// Rejections are retried at once, without the retry interval. What each
// reply means is judged below; an accepted one keeps its connection (above).
TEST_F(LinkTest, RejectionsAreRetriedAtOnce) {
  auto c = zxtest::start_collector();
  ZXProxyInstance_t &a = configure(c->port());
  a.retry_policy.time_interval = apr_time_from_sec(60);
  c->update_behaviour([](Behaviour &b) { b.reply = zxref::reply::error(); });
  run_loop();
  ASSERT_TRUE(c->wait_for_connections(ConnKind::Control, 3, 5s));
}

TEST(ReplyJudgement, EveryRuleInItsOrder) {
  TempDir home;
  ScopedApp app(home.str());
  auto judge = [](std::string reply) {
    return handle_zxc_con_res_msg(tlzxApplication, reply.data());
  };
  EXPECT_EQ(judge("zx_ctrl_msg_rep:result=Ok;"), ZX_REPLY_ACCEPTED);
  app->Server.retryForDataConn = 0;
  EXPECT_EQ(judge("zx_ctrl_msg_rep:result=Ok;status=RUNNING"), ZX_REPLY_ACCEPTED);
  EXPECT_EQ(app->Server.retryForDataConn, 1);
  EXPECT_EQ(judge("zx_ctrl_msg_rep:result=Ok;status=NOT_RUNNING;"), ZX_REPLY_ACCEPTED);
  EXPECT_EQ(app->Server.retryForDataConn, 0);
  EXPECT_EQ(judge("zx_ctrl_msg_rep:result=Error:busy;"), ZX_REPLY_REJECTED);
  EXPECT_EQ(judge("zx_ctrl_msg_rep:result=Okay"), ZX_REPLY_REJECTED);
  EXPECT_EQ(judge(""), ZX_REPLY_REJECTED);
  EXPECT_EQ(judge(std::string("\x01\xff garbage")), ZX_REPLY_REJECTED);
  EXPECT_EQ(judge("mor_saas_auth_agent_msg_rep:status=ERROR;reason=key"), ZX_REPLY_REJECTED);

  // A heartbeat echo first: its states apply, too few fields reject.
  EXPECT_EQ(judge("zx_control_req:action=reconnect;heartBeat 3;dataConnState=0;"
                  "AutosensorConnState=0;"),
            ZX_REPLY_ACCEPTED);
  EXPECT_EQ(app->ZXSys.dataConnState, 0);
  EXPECT_EQ(app->ZXSys.autosensorConnState, 0);
  EXPECT_EQ(judge("zx_control_req:action=reconnect;heartBeat 3"), ZX_REPLY_REJECTED);
  // The SaaS endpoint's naming of a collector is judged over WSS in websocket_link_test.
}

TEST_F(LinkTest, ProtocolNegotiation) {
  auto c = zxtest::start_collector();
  ZXProxyInstance_t &a = configure(c->port());
  const std::string port = std::to_string(c->port());
  // Nothing the agent supports: the TCP connection persists.
  c->update_behaviour(
      [](Behaviour &b) { b.reply = zxref::reply::with_protocols(zxref::reply::ok(), "WS:8080"); });
  run_loop();
  ASSERT_TRUE(c->wait_for_connections(ConnKind::Control, 1, kWait));
  ASSERT_TRUE(c->send_modify("x=1"));
  ASSERT_TRUE(c->wait_for_control_line(starts("zx_control_rep:result=Error"), kWait));
  EXPECT_EQ(c->snapshot().of(ConnKind::Control).connections, 1u);

  // Same protocol on another port: the connection is rebuilt at once.
  c->update_behaviour([&](Behaviour &b) {
    b.reply = zxref::reply::with_protocols(zxref::reply::ok(), "WSS:443,TCP:1");
  });
  c->close_connections(ConnKind::Control);
  ASSERT_TRUE(c->wait_for_connections(ConnKind::Control, 3, kWait));

  // Same protocol and port: kept.
  c->update_behaviour([&](Behaviour &b) {
    b.reply = zxref::reply::with_protocols(zxref::reply::ok(), "TCP:" + port);
  });
  ASSERT_TRUE(c->wait_for_connections(ConnKind::Control, 4, kWait));
  // A connection accepted before the new reply took effect is still rebuilt
  // once; the send succeeds on the one that stays.
  ASSERT_TRUE(zxtest::wait_until([&] { return c->send_modify("x=2"); }));
  size_t n = c->snapshot().of(ConnKind::Control).connections;
  ASSERT_TRUE(c->wait_for_control_line(starts("zx_control_rep:result=Error"), kWait, 1));
  EXPECT_EQ(c->snapshot().of(ConnKind::Control).connections, n);
  stop_agent();
  EXPECT_EQ(a.ActiveAgentProtocolIndex, ZX_PROTO_TCP);
}

TEST(ProtocolNegotiation, SwitchesToTheCollectorsFirstSharedProtocol) {
  TempDir home;
  ScopedApp app(home.str());
  upDateAgentSupportedProtocolData(*tlzxApplication, "TCP:7892,WS:8080");
  app->ActiveAgentProtocolIndex = ZX_PROTO_TCP;
  app->control.dstPort = 7892;
  EXPECT_EQ(setProtocolFromResponseMessage(tlzxApplication,
                                           "zx_ctrl_msg_rep:result=Ok;supportedProtocols=WSS:443,"
                                           "WS:8080,TCP:7892"),
            1);
  EXPECT_EQ(app->ActiveAgentProtocolIndex, ZX_PROTO_WS);
  EXPECT_EQ(app->lws_active, 1);
  EXPECT_EQ(setProtocolFromResponseMessage(tlzxApplication, "zx_ctrl_msg_rep:result=Ok;"), 0);
}

TEST_F(LinkTest, FailoverWalksTheListThroughTheEmptyEntry) {
  Behaviour reject;
  reject.reply = zxref::reply::error();
  auto first = zxtest::start_collector(reject);
  auto backup = zxtest::start_collector(reject);
  ZXProxyInstance_t &a = configure(first->port(), "backupZxcHostName=127.0.0.1\nbackupZxcPort=" +
                                                      std::to_string(backup->port()) + "\n");
  a.zx_dr_state = 1;
  ASSERT_EQ(a.ZXBCISetting.num_zxc_config, 2);
  run_loop();
  // 0 (rejects), 1 (rejects), 2 (empty: three failed sockets), back to 0.
  ASSERT_TRUE(first->wait_for_connections(ConnKind::Control, 1, kWait));
  ASSERT_TRUE(backup->wait_for_connections(ConnKind::Control, 1, kWait));
  ASSERT_TRUE(first->wait_for_connections(ConnKind::Control, 2, kWait));
  stop_agent();
  auto requests = [](ReferenceCollector &c) {
    std::vector<zxref::Clock::time_point> at;
    for (const auto &l : c.lines(ConnKind::Control))
      if (l.text.rfind("zx_ctrl_msg_req:", 0) == 0) at.push_back(l.received_at);
    return at;
  };
  auto p = requests(*first);
  auto b = requests(*backup);
  ASSERT_GE(p.size(), 2u);
  ASSERT_GE(b.size(), 1u);
  EXPECT_LT(p[0], b[0]);
  EXPECT_LT(b[0], p[1]);
  if (b.size() > 1) {
    EXPECT_GT(b[1], p[1]) << "the empty entry comes between backup and primary";
  }
  // Three failed sockets on the empty entry; a later pass may have added more.
  EXPECT_GE(a.retry_policy.count, 3);
  EXPECT_EQ(a.Server.requestType, 3);
}

// With failover on, answered heartbeats keep the connection; ten unanswered
// ones drop it.
TEST_F(LinkTest, HeartbeatsKeepOrDropTheConnection) {
  auto c = zxtest::start_collector();
  ZXProxyInstance_t &a = configure(c->port());
  a.zx_dr_state = 1;
  a.retry_policy.heartbeat_reply_timeout_check = 1;
  run_loop();
  ASSERT_TRUE(c->wait_until(
      [](const zxref::History &h) {
        size_t n = 0;
        for (const auto &l : h.lines_of(ConnKind::Control))
          n += l.text.rfind("zx_control_req:action=reconnect;heartBeat", 0) == 0;
        return n >= 30;
      },
      kWait));
  EXPECT_EQ(c->snapshot().of(ConnKind::Control).connections, 1u);
  stop_agent();
  EXPECT_LT(a.heartbeat_count, 10);

  Behaviour silent;
  silent.echo_heartbeats = false;
  auto quiet = zxtest::start_collector(silent);
  a.zxc_server_arr.at_growing(0).zxc_port = quiet->port();
  restart_loop();
  ASSERT_TRUE(
      quiet->wait_for_control_line(starts("zx_control_req:action=reconnect;heartBeat 9;"), kWait));
  ASSERT_TRUE(quiet->wait_for_closed(ConnKind::Control, 1, kWait));
  EXPECT_FALSE(
      quiet->wait_for_control_line(starts("zx_control_req:action=reconnect;heartBeat 10;"), 100ms));
  stop_agent();
  EXPECT_EQ(a.health_check_fail, 1);
}

// Without failover the agent sends no heartbeats and would drop a collector that never
// speaks; the collector's own heartbeats keep that quiet link up.
TEST_F(LinkTest, CollectorHeartbeatsKeepAQuietLink) {
  Behaviour beating;
  beating.heartbeat_interval = 50ms;
  auto c = zxtest::start_collector(beating);
  ZXProxyInstance_t &a = configure(c->port());
  a.ZXSys.zxcHeartBeatThreshold = 300;
  ASSERT_EQ(a.zx_dr_state, 0);
  auto trace_count = [&](const std::string &text) { return zxtest::count_of(trace_log(), text); };
  const std::string dropped = "greater than zxcHeartBeatThreshold";
  run_loop();
  ASSERT_TRUE(c->wait_for_connections(ConnKind::Control, 1, kWait));
  // Five thresholds.
  EXPECT_FALSE(c->wait_until(
      [](const zxref::History &h) {
        return h.of(ConnKind::Control).closed > 0 || h.of(ConnKind::Control).connections > 1;
      },
      1500ms));
  EXPECT_EQ(c->snapshot().of(ConnKind::Control).connections, 1u);
  EXPECT_EQ(trace_count("Control connection established"), 1u);
  EXPECT_EQ(trace_count(dropped), 0u);

  c->update_behaviour([](Behaviour &b) { b.heartbeat_interval = {}; });
  ASSERT_TRUE(c->wait_for_closed(ConnKind::Control, 1, kWait));
  ASSERT_TRUE(c->wait_for_connections(ConnKind::Control, 2, kWait)) << "and reconnects";
  stop_agent();
  EXPECT_GE(trace_count(dropped), 1u);
  EXPECT_GE(trace_count("Control connection established"), 2u);
}

TEST_F(LinkTest, CommandFraming) {
  auto c = zxtest::start_collector();
  configure(c->port());
  run_loop();
  ASSERT_TRUE(c->wait_for_connections(ConnKind::Control, 1, kWait));
  auto errors = [&] {
    size_t n = 0;
    for (const auto &l : c->lines(ConnKind::Control))
      if (l.text == kModifyError) ++n;
    return n;
  };
  // Two commands in one read.
  const std::string modify = zxref::command("modify", "x=1");
  ASSERT_TRUE(c->send(ConnKind::Control, modify + modify));
  ASSERT_TRUE(zxtest::wait_until([&] { return errors() == 2; }, kWait));

  // Garbage, NUL bytes, a line far larger than the buffer, and a command one
  // byte per write (over many reads): the link survives and still answers.
  ASSERT_TRUE(c->send(ConnKind::Control, std::string("\x01\x02garbage\0with nul\n", 19)));
  ASSERT_TRUE(c->send(ConnKind::Control, std::string(600 * 1024, 'x') + "\n"));
  zxref::SendOptions bytewise;
  bytewise.bytes_per_write = 1;
  ASSERT_TRUE(c->send(ConnKind::Control, modify, bytewise));
  ASSERT_TRUE(zxtest::wait_until([&] { return errors() == 3; }, kWait));
  EXPECT_EQ(c->snapshot().of(ConnKind::Control).connections, 1u);
}

TEST_F(LinkTest, RecordsFlowAfterStartAndStopEndsTheRun) {
  auto c = zxtest::start_collector();
  ZXProxyInstance_t &a = configure(c->port());
  a.ZXBCISetting.appName.assign("inst");
  a.ZXBCISetting.appID = 3;
  run_loop();
  start_run(*c, "status=running;testIdx=77");
  auto req = c->lines(ConnKind::Data);
  ASSERT_FALSE(req.empty());
  EXPECT_EQ(req[0].text.rfind("zx_data_msg_req:appName=inst;appID=3;", 0), 0u) << req[0].text;
  EXPECT_NE(req[0].text.find(";testIdx=77;"), std::string::npos);
  auto records = c->records();
  ASSERT_FALSE(records.empty());
  EXPECT_EQ(records[0].number, 99) << "record 99 comes first";
  EXPECT_EQ(records[0].fields.back(), "FPGVersion:1.0");

  EXPECT_EQ(dumpData(tlzxApplication, "7,login,2\n", 10), 0);
  auto r7 = c->wait_for_record(7, kWait);
  ASSERT_TRUE(r7);
  EXPECT_EQ(r7->fields[1], "login");

  ASSERT_TRUE(c->send_stop());
  ASSERT_TRUE(
      c->wait_for_control_line(starts("zx_control_rep:action=stop_instrumentation"), kWait));
  EXPECT_TRUE(c->wait_for_closed(ConnKind::Data, 1, kWait));
  EXPECT_EQ(a.Server.InstrumentationBusy, 0);
  // After the stop a modify is refused again.
  ASSERT_TRUE(c->send_modify("y=1"));
  EXPECT_TRUE(
      c->wait_for_control_line([](std::string_view l) { return l == kModifyError; }, kWait));
}

TEST_F(LinkTest, StopWithoutARunningStatusIsIgnored) {
  auto c = zxtest::start_collector();
  configure(c->port());
  run_loop();
  start_run(*c, "testIdx=1");
  ASSERT_TRUE(c->send_stop());
  ASSERT_TRUE(c->send_modify("z=1"));
  ASSERT_TRUE(c->wait_for_control_line(starts("zx_control_rep:action=modify;result=Ok"), kWait));
  for (const auto &l : c->lines(ConnKind::Control))
    EXPECT_EQ(l.text.find("stop_instrumentation;status=stopping"), std::string::npos);
}

TEST_F(LinkTest, DataConnectionComesBackAfterTheCollectorRestarts) {
  auto c = zxtest::start_collector();
  ZXProxyInstance_t &a = configure(c->port());
  run_loop();
  start_run(*c);
  const std::uint16_t port = c->port();
  c->stop();
  c.reset();

  auto back = zxtest::start_collector({}, port);
  ASSERT_TRUE(back->wait_for_connections(ConnKind::Control, 1, kWait));
  ASSERT_TRUE(back->wait_for_record(99, kWait))
      << "the run goes on without a new start; collector errors: "
      << (back->snapshot().errors.empty() ? "" : back->snapshot().errors[0]);
  EXPECT_EQ(dumpData(tlzxApplication, "7,back,1\n", 9), 0);
  EXPECT_TRUE(back->wait_for_record(7, kWait));
  EXPECT_EQ(a.Server.testRunRunning, 1);
}

std::size_t residentPages(const char *p, std::size_t bytes) {
  const std::size_t page = static_cast<std::size_t>(sysconf(_SC_PAGESIZE));
  std::vector<unsigned char> inCore((bytes + page - 1) / page);
  if (mincore(const_cast<char *>(p), bytes, inCore.data()) != 0) return SIZE_MAX;
  return static_cast<std::size_t>(
      std::count_if(inCore.begin(), inCore.end(), [](unsigned char c) { return c & 1; }));
}

// Hands record 7 number `n` to the send buffers as a host thread would.
int send_numbered(int n, const std::string &pad) {
  const std::string rec = "7,r" + std::to_string(n) + "," + pad + "\n";
  return dumpData(tlzxApplication, rec.data(), static_cast<int>(rec.size()));
}

std::size_t numberedReceived(const ReferenceCollector &c) {
  std::size_t n = 0;
  for (const auto &r : c.records())
    if (r.number == 7 && r.fields.size() > 1 && r.fields[1][0] == 'r') ++n;
  return n;
}

// A host at steady load with a collector that keeps up: every record arrives,
// and of the pool's 16 MB only the few buffers in flight ever become resident.
TEST_F(LinkTest, APoolThatKeepsUpTouchesOnlyAFewBuffers) {
  auto c = zxtest::start_collector();
  ZXProxyInstance_t &a = configure(c->port());
  constexpr int kSize = 65536, kCount = 256;
  a.ZXSys.bciDataBufferMaxSize = kSize;
  a.ZXSys.dataBuffMaxCount = kCount;
  a.ZXSys.zxcBciDataConnectionHeartBeat = 0;
  run_loop();
  start_run(*c);
  ZXSendBufferPool &pool = a.sendBuffers;
  ASSERT_NE(pool.storage.get(), nullptr);
  const std::size_t bytes = std::size_t{kSize} * kCount;
  const std::size_t bufferPages = kSize / static_cast<std::size_t>(sysconf(_SC_PAGESIZE));
  EXPECT_LE(residentPages(pool.storage.get(), bytes), bufferPages) << "mapped, not written";

  // About 75 buffers' worth, a buffer and a bit at a time.
  const std::string pad(190, 'p');
  int n = 0;
  for (int round = 0; round < 60; ++round) {
    for (int i = 0; i < 400; ++i, ++n) ASSERT_EQ(send_numbered(n, pad), 0);
    ASSERT_TRUE(zxtest::wait_until([&] { return readSendCounts(pool).queued == 0; }, kWait));
  }
  EXPECT_LE(residentPages(pool.storage.get(), bytes), 4 * bufferPages);
  ZXSendCounts counts = readSendCounts(pool);
  EXPECT_GE(counts.records, static_cast<unsigned long long>(n));
  EXPECT_EQ(counts.sent, counts.records);
  EXPECT_EQ(counts.lost(), 0u);
  EXPECT_TRUE(zxtest::wait_until(
      [&] { return numberedReceived(*c) == static_cast<std::size_t>(n); }, kWait));
}

// The collector drops the data connection in the middle of a backlog: the
// agent says so once and says once that it is back (at the default level),
// resumes at the next whole line, and every line is accounted for.
TEST_F(LinkTest, BrokenDataConnectionLosesAtMostTheCutLine) {
  auto c = zxtest::start_collector({}, 0, 4096);
  ZXProxyInstance_t &a = configure(c->port());
  a.ZXSys.controlTraceLevel = 0;
  a.ZXSys.zxcBciDataConnectionHeartBeat = 0;
  a.sendBuffers.lossSummaryInterval = 0;  // a summary on every tick that lost something
  run_loop();
  start_run(*c);
  c->update_behaviour([](Behaviour &b) { b.read_data = false; });
  const std::string pad(200, 'p');
  unsigned long long dropped = 0;
  for (int i = 0; i < 100000; ++i) dropped += send_numbered(i, pad) != 0;
  ASSERT_GT(dropped, 0u);
  c->close_connections(ConnKind::Data);
  c->update_behaviour([](Behaviour &b) { b.read_data = true; });
  ASSERT_TRUE(c->wait_for_connections(ConnKind::Data, 2, kWait));
  ASSERT_TRUE(zxtest::wait_until([&] { return readSendCounts(a.sendBuffers).queued == 0; }, kWait));

  const ZXSendCounts counts = zxtest::scanned_send_counts(a);
  EXPECT_EQ(counts.queued, 0u);
  EXPECT_EQ(counts.records, counts.sent + counts.lost());
  EXPECT_EQ(counts.lostPoolFull, dropped);
  EXPECT_LE(counts.lostConnDown, 1u) << "the line cut by the break, if any";
  EXPECT_EQ(counts.lostOversized + counts.lostAtExit, 0u);
  for (const auto &l : c->lines(ConnKind::Data)) {
    if (l.text.rfind("zx_data_msg_req:", 0) == 0 || l.text.rfind("99,", 0) == 0) continue;
    ASSERT_EQ(l.text.rfind("7,r", 0), 0u) << l.text;
    ASSERT_EQ(l.text.size() - l.text.rfind(',') - 1, pad.size()) << l.text;
  }

  // The summaries add up to the whole loss, cause by cause, once the data
  // thread's next tick has written the last one.
  auto summed = [](const std::string &log, const std::string &cause) {
    unsigned long long sum = 0;
    const std::regex number(cause + " (\\d+)");
    for (std::sregex_iterator it(log.begin(), log.end(), number), end; it != end; ++it)
      sum += std::stoull((*it)[1]);
    return sum;
  };
  EXPECT_TRUE(zxtest::wait_until([&] {
    const std::string log = trace_log();
    return summed(log, "send buffers full") == dropped &&
           summed(log, "connection down") == counts.lostConnDown;
  })) << "summed: send buffers full "
      << summed(trace_log(), "send buffers full") << " of " << dropped << ", connection down "
      << summed(trace_log(), "connection down") << " of " << counts.lostConnDown;
  stop_agent();
  const std::string log = trace_log();
  EXPECT_EQ(zxtest::count_of(log, "Data connection lost"), 1u);
  EXPECT_EQ(zxtest::count_of(log, "Data connection established"), 2u);
}

// The exit drain against a collector that has stopped reading: it returns by
// its deadline and counts what could not go out as lost at exit.
TEST_F(LinkTest, ExitDrainKeepsItsDeadlineWhenTheCollectorStalls) {
  auto c = zxtest::start_collector({}, 0, 4096);
  ZXProxyInstance_t &a = configure(c->port());
  // Larger than a socket's send buffer can ever grow (4 MB by default), so
  // a full pool cannot be emptied into the kernel.
  a.ZXSys.bciDataBufferMaxSize = 65536;
  a.ZXSys.dataBuffMaxCount = 512;
  a.ZXSys.zxcBciDataConnectionHeartBeat = 0;
  run_loop();
  start_run(*c);
  c->update_behaviour([](Behaviour &b) { b.read_data = false; });
  const std::string pad(200, 'p');
  for (int i = 0; send_numbered(i, pad) == 0; ++i) ASSERT_LT(i, 1000000);
  const auto budget = 400ms;
  const auto t0 = std::chrono::steady_clock::now();
  EXPECT_EQ(drainSendBuffersForExit(&a, apr_time_now() + apr_time_from_msec(budget.count())),
            zx::Errc::timed_out);
  EXPECT_LT(std::chrono::steady_clock::now() - t0, budget + 150ms);
  ASSERT_TRUE(zxtest::wait_until([&] { return readSendCounts(a.sendBuffers).queued == 0; }, kWait));
  const ZXSendCounts counts = zxtest::scanned_send_counts(a);
  EXPECT_GT(counts.lostAtExit, 0u);
  EXPECT_EQ(counts.records, counts.sent + counts.lost());
  EXPECT_EQ(counts.lostPoolFull, 1u);
  EXPECT_EQ(counts.lostConnDown + counts.lostOversized, 0u);
  EXPECT_GE(zxtest::count_of(trace_log(), " records still queued at the deadline are dropped"), 1u);
}

TEST_F(LinkTest, HandshakeFaultsAndUnreachableCollectors) {
  Behaviour b;
  b.on_control_request = zxref::RequestAction::HalfReplyThenClose;
  auto c = zxtest::start_collector(b);
  configure(c->port());
  run_loop();
  ASSERT_TRUE(c->wait_for_connections(ConnKind::Control, 3, kWait)) << "keeps retrying";
  c->update_behaviour([](Behaviour &x) {
    x.on_control_request = zxref::RequestAction::Reply;
    x.close_on_accept = true;
  });
  size_t accepted = c->snapshot().accepted;
  ASSERT_TRUE(
      c->wait_until([&](const zxref::History &h) { return h.accepted >= accepted + 3; }, kWait));
  stop_agent();

  // A name that does not resolve: the loop retries and stops promptly.
  configure(7, "", "no-such-host.invalid");
  app().retry_policy.time_interval = apr_time_from_sec(60);
  run_loop();
  ASSERT_TRUE(zxtest::wait_until([&] {
    return trace_log().find("Socket was not created") != std::string::npos;
  })) << "the loop reaches its retry wait";
  auto t0 = std::chrono::steady_clock::now();
  stop_agent();
  EXPECT_LT(std::chrono::steady_clock::now() - t0, 5s);
  EXPECT_EQ(dumpData(tlzxApplication, "7,x\n", 4), -99)
      << "no buffers before a run: dropped, never waited";
}

TEST_F(LinkTest, RerouteMovesToTheNewCollectorAndRewritesTheSettings) {
  auto c = zxtest::start_collector();
  auto other = zxtest::start_collector();
  configure(c->port());
  run_loop();
  ASSERT_TRUE(c->wait_for_connections(ConnKind::Control, 1, kWait));
  ASSERT_TRUE(c->send(ConnKind::Control,
                      "zx_control_req:action=reroute_ctrl_con;zxcHost=127.0.0.1;"
                      "zxcPort=" +
                          std::to_string(other->port()) + ";\n"));
  ASSERT_TRUE(other->wait_for_connections(ConnKind::Control, 1, kWait));
  std::string conf = zxtest::read_file(home().path() / "config/zxsettings.conf");
  EXPECT_NE(conf.find("zxcPort=" + std::to_string(other->port()) + "\n"), std::string::npos);
  EXPECT_EQ(conf.find("zxcPort=" + std::to_string(c->port()) + "\n"), std::string::npos);
}

TEST(StartInstrumentation, TimeBase) {
  TempDir home;
  ScopedApp app(home.str());
  Server_t &srv = app->Server;
  // "morEpochDiff" without "TimeStampDiff": both offsets restart, the
  // collector's difference is forgotten.
  srv.diffTimeFromZXC = 99;
  srv.morEpochDiffTime = 5;
  char start[] = "zx_control_req:action=start_instrumentation;note=morEpochDiff;";
  handleReceivedClientMessageFromZXCollector(tlzxApplication, start);
  EXPECT_EQ(srv.diffTimeFromZXC, 0);
  EXPECT_EQ(srv.morEpochDiffTime, 0);
  EXPECT_EQ(srv.originalMorEpochDiffTime, ZX_ORIGINAL_EPOCH_DIFF_MS);
  EXPECT_EQ(srv.InstrumentationBusy, 1);
  EXPECT_EQ(srv.numberOfTestRunsTillNow, 1);

  // Without a control connection the reply fails and flags the link closed.
  srv.diffTimeFromZXC = 0;
  app->ZXSys.closeCtrlConFlag = 0;
  char withDiff[] =
      "zx_control_req:action=start_instrumentation;morEpochDiff=1000;TimeStampDiff=250;";
  handleReceivedClientMessageFromZXCollector(tlzxApplication, withDiff);
  EXPECT_EQ(srv.diffTimeFromZXC, 250);
  EXPECT_EQ(srv.morEpochDiffTime, 1000000 - 250);
  EXPECT_EQ(srv.originalMorEpochDiffTime, 1000000 - 250);
  EXPECT_TRUE(stop_data_thread(&*app).ok());
}

}  // namespace
