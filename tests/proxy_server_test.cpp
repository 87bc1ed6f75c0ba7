// The proxy server over real sockets, between application processes (raw
// clients, or an in-test application in proxy mode) and the reference
// collector: registration and its failure rules, frames and lines kept whole
// across reads, the relay both ways, and the limits, over each transport.
#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <thread>

#include "ZXFlowpathGenerator.h"
#include "ZXProxyApplications.h"
#include "ZXProxyConfig.h"
#include "ZXProxyRegistration.h"
#include "ZXProxyServer.h"
#include "ZXProxyServerRecord.h"
#include "ZXProxyWebSocket.h"
#include "ZXSocketManager.h"
#include "reference_collector.h"
#include "test_support.h"
#include "zxlb_apr.h"
#include "zxlb_frame_build.h"

namespace {

using namespace std::chrono_literals;
using zxref::ConnKind;
using zxref::ReferenceCollector;

// A process's connection to the proxy through the agent's own transports,
// with line reads bounded by a deadline. Over WebSocket each send is one message.
class Client {
 public:
  Client(int protocol, int port, const ZXTlsSettings &tls = {}) {
    char err[256] = {};
    conn_ = zx_open_connection(protocol, "127.0.0.1", port, apr_time_from_sec(10),
                               apr_time_from_sec(10), err, sizeof err, {}, tls);
    EXPECT_TRUE(conn_) << err;
  }
  void close() { conn_.reset(); }
  bool send(const std::string &bytes) {
    char err[256];
    return conn_ && conn_->send_all(bytes.data(), bytes.size(), err, sizeof err) == 0;
  }
  // The next line (without "\n"); nullopt at the deadline or when the peer closed.
  std::optional<std::string> line() {
    const auto deadline = std::chrono::steady_clock::now() + 10s;
    for (;;) {
      if (auto nl = in_.find('\n'); nl != std::string::npos) {
        std::string l = in_.substr(0, nl);
        in_.erase(0, nl + 1);
        return l;
      }
      if (!fill(deadline)) return std::nullopt;
    }
  }
  // Whether a line starting with `prefix` comes next.
  bool next(std::string_view prefix) {
    const std::optional<std::string> l = line();
    EXPECT_TRUE(l && l->starts_with(prefix)) << (l ? *l : "no line") << ", wanted " << prefix;
    return l && l->starts_with(prefix);
  }
  // True when the peer closes the connection within 10 s.
  bool closedByPeer() {
    const auto deadline = std::chrono::steady_clock::now() + 10s;
    while (fill(deadline)) in_.clear();
    return eof_;
  }

 private:
  bool fill(std::chrono::steady_clock::time_point deadline) {
    char err[256], buf[4096];
    while (conn_ && !eof_ && std::chrono::steady_clock::now() < deadline) {
      if (conn_->wait_readable(apr_time_from_msec(100), err, sizeof err) ==
          ZXConnection::Wait::Timeout)
        continue;
      const long n = conn_->receive(buf, sizeof buf, err, sizeof err);
      eof_ = n < 0;
      if (n > 0) {
        in_.append(buf, static_cast<std::size_t>(n));
        return true;
      }
    }
    return false;
  }
  std::unique_ptr<ZXConnection> conn_;
  std::string in_;
  bool eof_ = false;
};

std::string controlLine(long long pid, const std::string &app = "shop") {
  return "zx_ctrl_msg_req:appName=" + app +
         ";zxAppServerHost=host1;tierName=web;bciVersion=4.3.0;pid=" + std::to_string(pid) +
         ";agentType=PHP;agentName=php-fpm;supportedProtocols=TCP;authtoken=;protoVer=1 \n";
}

std::string dataLine(long long pid) {
  return "zx_data_msg_req:appName=shop;appID=0;zxAppServerID=0;zxAppServerHost=host1;tierName=web;"
         "tierID=0;ZXCollectorIP=127.0.0.1;ZXCollectorPort=1;testIdx=0;pid=" +
         std::to_string(pid) + ";agentName=php-fpm\n\n";
}

template <typename T>
std::string frame(ZXFrameType type, T fixed, std::initializer_list<ZXFrameString> s = {}) {
  ZXFrameBuffer b;
  EXPECT_TRUE(b.build(type, &fixed, sizeof fixed, s));
  return std::string(b.data(), static_cast<std::size_t>(b.size()));
}

// One whole transaction as an application process sends it.
std::string transactionFrames(long long id, const std::string &url = "/cart") {
  transactionStartVar_t start{};
  start.url = static_cast<int>(url.size());
  start.flowpathinstance = id;
  transactionEnd_t end{};
  end.statuscode = 200;
  end.flowpathinstance = id;
  transactionReset_t reset{};
  reset.flowpathinstance = id;
  return frame(ZX_FRAME_TRANSACTION_START, start, {{"", 0}, {url.data(), url.size()}}) +
         frame(ZX_FRAME_TRANSACTION_END, end) + frame(ZX_FRAME_TRANSACTION_RESET, reset);
}

std::size_t countRecords(const ReferenceCollector &c, int number) {
  std::size_t n = 0;
  for (const zxref::Record &r : c.records()) n += r.number == number;
  return n;
}

constexpr const char *kStart = "zx_control_req:action=start_instrumentation";

// The proxy on its own thread, listening over `protocol` (WSS with the test
// PKI's server certificate), serving applications that report to a reference
// collector; the links' timings shortened.
class ProxyUnderTest {
 public:
  explicit ProxyUnderTest(ZXProxyServerOptions opt = {}, int protocol = ZX_PROTO_TCP,
                          const zxtest::TestPki *pki = nullptr)
      : protocol_(protocol) {
    EXPECT_TRUE(collector.start());
    home.write("config/zxsettings.conf",
               "zxcHost=127.0.0.1\nzxcPort=" + std::to_string(collector.port()) + "\n");
    opt.home = home.str();
    opt.port = 0;
    opt.webSocket = protocol != ZX_PROTO_TCP;
    if (pki) {
      opt.wsCertFile = pki->cert_file;
      opt.wsKeyFile = pki->key_file;
      tls_.caFile = pki->ca_file;
    }
    opt.onNewApplication = [more = std::move(opt.onNewApplication)](ZXProxyInstance_t &a) {
      ZXLinkTimings_t &t = a.linkTimings;
      t.retryInterval = t.ctrlPollTimeout = apr_time_from_msec(20);
      t.dataConnRetryInterval = t.dataIoTimeout = apr_time_from_msec(50);
      t.dataTick = apr_time_from_msec(5);
      a.ZXSys.bciDataBufferMaxSize = 1 << 16;
      a.ZXSys.dataBuffMaxCount = 16;
      if (more) more(a);
    };
    server = std::make_unique<ZXProxyServer>(std::move(opt));
    thread = std::thread([this] { server->run(); });
    EXPECT_TRUE(zxtest::wait_until([&] { return server->counts().listening.load(); }));
  }
  ~ProxyUnderTest() { stop(); }
  void stop() {
    server->stop();
    if (thread.joinable()) thread.join();
  }
  const ZXProxyServerCounts &counts() const { return server->counts(); }
  Client connect() { return Client(protocol_, server->boundPort(), tls_); }
  // Registers a control connection and returns it with its process index.
  Client registerProcess(long long pid, int &procIndex, const std::string &app = "shop") {
    Client c = connect();
    EXPECT_TRUE(c.send(controlLine(pid, app)));
    const std::optional<std::string> reply = c.line();
    procIndex = -1;
    if (reply && reply->starts_with("zx_ctrl_msg_rep:result=Ok;procIndex="))
      procIndex = std::stoi(reply->substr(reply->rfind('=') + 1));
    EXPECT_GE(procIndex, 0) << (reply ? *reply : "no reply");
    return c;
  }
  void startRun() {
    ASSERT_TRUE(collector.wait_for_connections(ConnKind::Control, 1, 10s));
    ASSERT_TRUE(collector.send_start("status=running"));
    ASSERT_TRUE(collector.wait_for_record(99, 10s));
  }

  zx::AprSession apr;
  zxtest::TempDir home;
  ReferenceCollector collector;
  std::unique_ptr<ZXProxyServer> server;
  std::thread thread;

 private:
  int protocol_;
  ZXTlsSettings tls_;
};

TEST(ProxyRegistration, ParsesTheKeysAndCountsTheUnknown) {
  const ZXProxyRequest r = parseProxyRequest(
      "zx_data_msg_req:appName=a=b;appID=7;tierID=x;pid=42;bogus=1;noValue;;agentName=n\r\n");
  EXPECT_EQ(r.con_type, ZX_PROXY_CON_DATA);
  EXPECT_EQ(r.appName, "a=b");  // split at the first "=" only
  EXPECT_EQ(r.appID, 7);
  EXPECT_EQ(r.tierID, 0);  // no number
  EXPECT_EQ(r.pid, 42);
  EXPECT_EQ(r.agentName, "n");
  EXPECT_EQ(r.invalidPairs, 2);
  EXPECT_EQ(proxyConType("auto_sensor_thread_hotspot_data_req:pid=1"), ZX_PROXY_CON_AS);
  EXPECT_EQ(parseProxyRequest("zx_ctrl_msg_re:pid=1").con_type, ZX_PROXY_CON_NONE);
  std::string many = "zx_ctrl_msg_req:";
  for (int i = 0; i < 200; ++i) many += "pid=" + std::to_string(i) + ";";
  EXPECT_EQ(parseProxyRequest(many).pid, 127);  // at most 128 fields
}

TEST(ProxyConfig, SocketPathReplacesTcpAndWssNeedsACertificate) {
  zxtest::TempDir home;
  zxtest::ScopedApp settings(home.str());
  home.write("config/zxsettings.conf", "zxcHost=10.0.0.1\nzxcPort=7000\nproxyPort=7999\n");
  EXPECT_EQ(readZXProxyConfig(*settings), 0);
  EXPECT_EQ(ZXProxy.zxProxyUnixDomainPath.get(), nullptr);
  EXPECT_EQ(ZXProxy.proxyPort, 7999u);

  zxtest::ScopedApp again(home.str());
  home.write("config/zxsettings.conf", "zxcHost=10.0.0.1\nproxySocketPath=/tmp/p.sock\n");
  EXPECT_EQ(readZXProxyConfig(*again), 0);
  EXPECT_STREQ(ZXProxy.zxProxyUnixDomainPath.c_str(), "/tmp/p.sock");

  zxtest::ScopedApp wss(home.str());
  home.write("config/zxsettings.conf", "zxcHost=10.0.0.1\nproxyConType=3\nproxyWsKey=/k.pem\n");
  EXPECT_FALSE(zxProxyInitWrapper(*wss));
}

TEST(ProxyServer, RegistrationRulesAndSlots) {
  ProxyUnderTest proxy;
  // A data connection before its process's control connection is closed;
  // the frames that came with it are counted lost.
  Client early = proxy.connect();
  ASSERT_TRUE(early.send(dataLine(100) + "^frames"));
  EXPECT_TRUE(early.closedByPeer());
  EXPECT_TRUE(zxtest::wait_until(
      [&] { return proxy.counts().frameBytesLost.load() == std::string("\n^frames").size(); }));
  // So is a connection of no known type.
  Client odd = proxy.connect();
  ASSERT_TRUE(odd.send("hello proxy\n"));
  EXPECT_TRUE(odd.closedByPeer());

  int a = -1, b = -1, again = -1, c = -1;
  Client first = proxy.registerProcess(100, a);
  Client second = proxy.registerProcess(200, b);
  EXPECT_EQ(a, 0);
  EXPECT_EQ(b, 1);
  // The same pid again reuses its slot; the old connection is let go.
  Client reconnect = proxy.registerProcess(100, again);
  EXPECT_EQ(again, a);
  EXPECT_TRUE(first.closedByPeer());
  // A slot freed by a hang-up goes to the next process.
  second.close();
  ASSERT_TRUE(zxtest::wait_until([&] { return proxy.counts().closed.load() >= 4; }));
  Client third = proxy.registerProcess(300, c);
  EXPECT_EQ(c, b);
  // All of them are one application to the collector.
  EXPECT_EQ(proxy.server->applicationCount(), 1u);
  ASSERT_TRUE(proxy.collector.wait_for_connections(ConnKind::Control, 1, 10s));
  int other = -1;
  Client elsewhere = proxy.registerProcess(400, other, "billing");
  EXPECT_EQ(other, 0);
  EXPECT_TRUE(proxy.collector.wait_for_connections(ConnKind::Control, 2, 10s));
  EXPECT_EQ(proxy.server->applicationCount(), 2u);
}

TEST(ProxyServer, LimitsAndMisbehavingClientsStayTheirOwn) {
  ZXProxyServerOptions opt;
  opt.maxDescriptors = 4;  // the listener and three connections
  opt.registrationTimeout = apr_time_from_msec(200);
  ProxyUnderTest proxy(opt);
  int idx = -1;
  Client good = proxy.registerProcess(1, idx);
  Client silent = proxy.connect();
  Client garbage = proxy.connect();
  Client beyond = proxy.connect();
  EXPECT_TRUE(beyond.closedByPeer());
  EXPECT_EQ(proxy.counts().refused.load(), 1u);
  // 200 KB without a line end, and a connection that never registers.
  ASSERT_TRUE(garbage.send(std::string(200 * 1024, 'x')));
  EXPECT_TRUE(garbage.closedByPeer());
  EXPECT_TRUE(silent.closedByPeer());
  // The registered process is untouched and a newcomer fits again.
  proxy.startRun();
  EXPECT_TRUE(good.next(kStart));
  int next = -1;
  Client newcomer = proxy.registerProcess(2, next);
  EXPECT_EQ(next, 1);
}

// Each transport the proxy listens on: TCP, WS and WSS.
class ProxyOver : public ::testing::TestWithParam<int> {
 protected:
  std::unique_ptr<ProxyUnderTest> start(ZXProxyServerOptions opt = {}) {
    if (GetParam() == ZX_PROTO_WSS) pki.emplace();
    return std::make_unique<ProxyUnderTest>(std::move(opt), GetParam(), pki ? &*pki : nullptr);
  }
  std::optional<zxtest::TestPki> pki;
};

INSTANTIATE_TEST_SUITE_P(
    Transports, ProxyOver, ::testing::Values(ZX_PROTO_TCP, ZX_PROTO_WS, ZX_PROTO_WSS),
    [](const auto &p) {
      return std::string(p.param == ZX_PROTO_TCP ? "TCP" : p.param == ZX_PROTO_WS ? "WS" : "WSS");
    });

// Lines and frames cut anywhere across reads (or messages) are the same
// stream; a frame cut short by the connection's end is counted lost.
TEST_P(ProxyOver, FramesAndLinesSurviveAnyCut) {
  std::unique_ptr<ProxyUnderTest> proxy = start();
  ReferenceCollector &collector = proxy->collector;
  Client ctrl = proxy->connect();
  const std::string reg = controlLine(4711);
  for (std::size_t at = 0; at < reg.size(); at += 7) {
    ASSERT_TRUE(ctrl.send(reg.substr(at, 7)));
    std::this_thread::sleep_for(1ms);  // separate reads, not a wait for a result
  }
  std::optional<std::string> reply = ctrl.line();
  ASSERT_TRUE(reply);
  EXPECT_EQ(*reply, "zx_ctrl_msg_rep:result=Ok;procIndex=0");
  proxy->startRun();
  EXPECT_TRUE(ctrl.next(kStart));

  // Registration line and first frames in one send, then pieces of 1 to 13 bytes.
  Client data = proxy->connect();
  ASSERT_TRUE(data.send(dataLine(4711) + transactionFrames(1001)));
  ASSERT_TRUE(zxtest::wait_until([&] { return countRecords(collector, 4) >= 1; }));
  std::string stream;
  for (long long id = 2000; id < 2010; ++id) stream += transactionFrames(id);
  for (std::size_t at = 0, step = 1; at < stream.size(); at += step, step = step % 13 + 1) {
    ASSERT_TRUE(data.send(stream.substr(at, step)));
    if (step == 1) std::this_thread::sleep_for(1ms);  // separate reads, not a wait for a result
  }
  EXPECT_TRUE(zxtest::wait_until(
      [&] { return countRecords(collector, 2) >= 11 && countRecords(collector, 4) >= 11; }));
  const std::string half = transactionFrames(3000).substr(0, 20);
  ASSERT_TRUE(data.send(half));
  data.close();
  EXPECT_TRUE(
      zxtest::wait_until([&] { return proxy->counts().frameBytesLost.load() == half.size(); }));

  // The process's control connection is untouched: commands still reach it.
  ASSERT_TRUE(collector.send_stop());
  EXPECT_TRUE(ctrl.next("zx_control_req:action=stop_instrumentation"));
  EXPECT_EQ(collector.snapshot().of(ConnKind::Control).connections, 1u);
  ctrl.close();
  EXPECT_TRUE(zxtest::wait_until([&] { return proxy->counts().openConnections == 0; }));
}

// Two processes of one application: commands reach each, their text reaches
// the collector.
TEST_P(ProxyOver, RelaysCommandsToProcessesAndLogsToTheCollector) {
  std::unique_ptr<ProxyUnderTest> owned = start();
  ProxyUnderTest &proxy = *owned;
  int a = -1, b = -1;
  Client first = proxy.registerProcess(11, a);
  proxy.startRun();
  ASSERT_TRUE(first.line());  // the start
  // A data connection that ends leaves its process registered (its slot
  // is not free for the next one).
  {
    Client data = proxy.connect();
    ASSERT_TRUE(data.send(dataLine(11)));
    ASSERT_TRUE(zxtest::wait_until([&] { return proxy.counts().registered.load() == 2; }));
  }
  ASSERT_TRUE(zxtest::wait_until([&] { return proxy.counts().closed.load() == 1; }));
  // A process that registers later gets the kept start once.
  Client later = proxy.registerProcess(12, b);
  EXPECT_EQ(b, a + 1);
  EXPECT_TRUE(later.next(kStart));
  ASSERT_TRUE(proxy.collector.send_modify("BTRuleFile=1"));
  EXPECT_TRUE(first.next("zx_control_req:action=modify"));
  EXPECT_TRUE(later.next("zx_control_req:action=modify"));
  // A command naming a process goes to that one only.
  ASSERT_TRUE(proxy.collector.send(
      ConnKind::Control, "zx_control_req:action=abort;procIndex=" + std::to_string(b) + "\n"));
  EXPECT_TRUE(later.next("zx_control_req:action=abort"));
  ASSERT_TRUE(proxy.collector.send_stop());
  EXPECT_TRUE(first.next("zx_control_req:action=stop_instrumentation"));

  // Agent log text goes to the collector, wrapped; acknowledgements do not.
  ASSERT_TRUE(first.send("zx_control_rep:action=modify;result=Ok;\nline|AGENT-LOG<x>|boom\n"));
  for (std::string_view want : {"line|AGENT-LOG<x>|boom", "</agentLogs>"})
    EXPECT_TRUE(
        proxy.collector.wait_for_control_line([&](std::string_view l) { return l == want; }, 10s));
  // The application answered the modify once, for all of its processes.
  std::size_t modifyAcks = 0;
  for (const zxref::Line &l : proxy.collector.lines(ConnKind::Control))
    modifyAcks += l.text == "zx_control_rep:action=modify;result=Ok;";
  EXPECT_EQ(modifyAcks, 1u);
}

// An application process in proxy mode traces transactions; the proxy turns
// them into its application's records.
TEST_P(ProxyOver, ARealApplicationProcessThroughTheProxy) {
  std::unique_ptr<ProxyUnderTest> proxy = start();
  zxtest::LinkedAgent agent;
  const int port = proxy->server->boundPort();
  ZXProxyInstance_t &app = agent.configure(static_cast<std::uint16_t>(port),
                                           "proxyMode=1\nproxyPort=" + std::to_string(port) +
                                               "\ninstance=shop\ntier=web\n" +
                                               "proxyConType=" + std::to_string(GetParam()) +
                                               (pki ? "\nzxTlsCaFile=" + pki->ca_file : "") + "\n");
  EXPECT_EQ(app.linkProtocol(), GetParam());
  app.processID = 5150;
  app.ZXSys.bciDataBufferMaxSize = 1 << 16;
  agent.run_loop();
  proxy->startRun();
  ASSERT_TRUE(zxtest::wait_until([&] { return app.Server.testRunRunning.load(); }));
  ASSERT_TRUE(zxtest::wait_until([&] { return proxy->counts().registered.load() >= 2; }));
  for (int i = 0; i < 20; ++i) {
    ZXPerThreadData_t *r =
        startFP(&app, nullptr, "/shop/cart", nullptr, 0, nullptr, nullptr, nullptr, 0, 0);
    ASSERT_NE(r, nullptr);
    endFP(&app, r, 200, 0, 0);
    releaseFP(&app, r);
  }
  const ReferenceCollector &c = proxy->collector;
  EXPECT_TRUE(zxtest::wait_until([&] {
    return countRecords(c, 2) == 20 && countRecords(c, 4) == 20;
  })) << countRecords(c, 2)
      << " / " << countRecords(c, 4);
  EXPECT_EQ(c.snapshot().of(ConnKind::Control).connections, 1u);
  agent.stop_agent();
  proxy->stop();  // its threads log into the agent's trace log
}

// Holds the proxy's poll thread inside the registration of application
// "hold" until released (at the latest when a copy goes), while the WebSocket
// side keeps reading: the poll thread falls behind at will.
class PollThreadHold {
 public:
  std::function<void(ZXProxyInstance_t &)> hook() const {
    return [s = state_](ZXProxyInstance_t &a) {
      if (std::string_view(a.ZXBCISetting.appName.c_str()) != "hold") return;
      s->held = true;
      zxtest::wait_until([&] { return s->released.load(); }, 60s);
    };
  }
  PollThreadHold() = default;
  PollThreadHold(const PollThreadHold &) = default;
  ~PollThreadHold() { release(); }
  bool waitHeld() const {
    return zxtest::wait_until([&] { return state_->held.load(); });
  }
  void release() const { state_->released = true; }

 private:
  struct State {
    std::atomic<bool> held{false}, released{false};
  };
  std::shared_ptr<State> state_ = std::make_shared<State>();
};

// A process flooding its data connection while the poll thread is held: the
// proxy stops reading once 4 MB wait for the poll thread, a process that
// starts and exits meanwhile still has its data registration read before its
// control connection's end, and once released every frame is replayed.
TEST(ProxyOverWebSocket, ReadingPausesWhileThePollThreadIsBehindAndLosesNothing) {
  ZXProxyServerOptions opt;
  PollThreadHold hold;
  opt.onNewApplication = hold.hook();
  ProxyUnderTest proxy(std::move(opt), ZX_PROTO_WS);
  const PollThreadHold releasedBeforeTheProxyStops = hold;
  const ZXProxyServerCounts &counts = proxy.counts();
  Client ctrl = proxy.connect(), exitingCtrl = proxy.connect();
  ASSERT_TRUE(ctrl.send(controlLine(4711)));
  ASSERT_TRUE(ctrl.line());
  ASSERT_TRUE(exitingCtrl.send(controlLine(5)));
  ASSERT_TRUE(exitingCtrl.line());
  proxy.startRun();
  Client data = proxy.connect();
  ASSERT_TRUE(data.send(dataLine(4711)));
  ASSERT_TRUE(zxtest::wait_until([&] { return counts.registered >= 3; }));

  Client holder = proxy.connect();
  ASSERT_TRUE(holder.send(controlLine(99, "hold")));
  ASSERT_TRUE(hold.waitHeld());
  const std::string message = transactionFrames(1, "/" + std::string(128 << 10, 'u'));
  constexpr int kMessages = 64;  // twice the pause's threshold
  std::atomic<int> sent{0};
  std::thread flood([&] {
    for (int i = 0; i < kMessages && data.send(message); ++i) ++sent;
  });
  EXPECT_TRUE(zxtest::wait_until([&] { return counts.wsReadPauses > 0; }));
  {
    Client exitingData = proxy.connect();
    ASSERT_TRUE(exitingData.send(dataLine(5) + transactionFrames(500)));
  }
  exitingCtrl.close();
  // A command relayed meanwhile goes out before the poll thread has read
  // what the exited process sent: its end is not hastened by the send.
  ASSERT_TRUE(proxy.collector.send_modify("BTRuleFile=1"));
  ASSERT_TRUE(proxy.collector.wait_for_control_line(
      [](std::string_view l) { return l == "zx_control_rep:action=modify;result=Ok;"; }, 10s));
  hold.release();
  flood.join();
  EXPECT_EQ(sent, kMessages);
  EXPECT_TRUE(zxtest::wait_until(
      [&] { return counts.framesReplayed == 3ull * (kMessages + 1) || counts.frameBytesLost > 0; },
      30s));
  EXPECT_EQ(counts.framesReplayed, 3ull * (kMessages + 1));
  EXPECT_EQ(counts.frameBytesLost, 0u);
  EXPECT_LE(counts.wsQueuedPeak, ZXProxyWsListener::kMaxPendingIn + message.size());
}

}  // namespace
