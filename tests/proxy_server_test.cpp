// The proxy server over real sockets, between application processes (raw
// clients, or an in-test application in proxy mode) and the reference
// collector: registration and its failure rules, frames and lines kept whole
// across reads, the relay both ways, the limits, and the program as a person
// starts and stops it.
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <poll.h>
#include <signal.h>
#include <spawn.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstring>
#include <filesystem>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <thread>
#include <vector>

#include "ZXFlowpathGenerator.h"
#include "ZXProxyApplications.h"
#include "ZXProxyConfig.h"
#include "ZXProxyRegistration.h"
#include "ZXProxyServer.h"
#include "ZXProxyServerRecord.h"
#include "ZXProxyWebSocket.h"
#include "ZXWebSocketConnection.h"
#include "reference_collector.h"
#include "test_support.h"
#include "zxlb_frame_build.h"

extern char **environ;

namespace {

using namespace std::chrono_literals;
using zxref::ConnKind;
using zxref::ReferenceCollector;

// A connected stream socket with line reads bounded by a deadline.
class Client {
 public:
  static Client unixSocket(const std::string &path) {
    Client c(::socket(AF_UNIX, SOCK_STREAM, 0));
    sockaddr_un a{};
    a.sun_family = AF_UNIX;
    std::snprintf(a.sun_path, sizeof a.sun_path, "%s", path.c_str());
    if (::connect(c.fd_, reinterpret_cast<sockaddr *>(&a), sizeof a) != 0) c.close();
    return c;
  }
  static Client tcp(int port) {
    Client c(::socket(AF_INET, SOCK_STREAM, 0));
    const int one = 1;  // small writes go out as they are written
    ::setsockopt(c.fd_, IPPROTO_TCP, TCP_NODELAY, &one, sizeof one);
    sockaddr_in a{};
    a.sin_family = AF_INET;
    a.sin_port = htons(static_cast<std::uint16_t>(port));
    a.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    if (::connect(c.fd_, reinterpret_cast<sockaddr *>(&a), sizeof a) != 0) c.close();
    return c;
  }
  Client(Client &&o) noexcept : fd_(std::exchange(o.fd_, -1)), in_(std::move(o.in_)) {}
  ~Client() { close(); }
  bool ok() const { return fd_ >= 0; }
  void close() {
    if (fd_ >= 0) ::close(fd_);
    fd_ = -1;
  }
  bool send(const std::string &bytes) {
    return fd_ >= 0 && ::send(fd_, bytes.data(), bytes.size(), MSG_NOSIGNAL) ==
                           static_cast<ssize_t>(bytes.size());
  }
  // The next line (without "\n"); nullopt at the deadline or when the peer closed.
  std::optional<std::string> line(std::chrono::milliseconds timeout = 10s) {
    const auto deadline = std::chrono::steady_clock::now() + timeout;
    for (;;) {
      if (auto nl = in_.find('\n'); nl != std::string::npos) {
        std::string l = in_.substr(0, nl);
        in_.erase(0, nl + 1);
        return l;
      }
      if (!fill(deadline)) return std::nullopt;
    }
  }
  // True when the peer closes the connection before the deadline.
  bool closedByPeer(std::chrono::milliseconds timeout = 10s) {
    const auto deadline = std::chrono::steady_clock::now() + timeout;
    while (fill(deadline)) in_.clear();
    return eof_;
  }

 private:
  explicit Client(int fd) : fd_(fd) {}
  bool fill(std::chrono::steady_clock::time_point deadline) {
    const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(
        deadline - std::chrono::steady_clock::now());
    pollfd p{fd_, POLLIN, 0};
    if (fd_ < 0 || left.count() <= 0 || ::poll(&p, 1, static_cast<int>(left.count())) <= 0)
      return false;
    char buf[4096];
    const ssize_t n = ::recv(fd_, buf, sizeof buf, 0);
    if (n <= 0) {
      eof_ = true;
      return false;
    }
    in_.append(buf, static_cast<std::size_t>(n));
    return true;
  }
  int fd_;
  std::string in_;
  bool eof_ = false;
};

std::string controlLine(long long pid, const std::string &app = "shop") {
  return "zx_ctrl_msg_req:appName=" + app +
         ";zxAppServerHost=host1;tierName=web;bciVersion=4.3.0;pid=" + std::to_string(pid) +
         ";agentType=PHP;agentName=php-fpm;supportedProtocols=TCP;authtoken=;protoVer=1 \n";
}

std::string dataLine(long long pid, const std::string &app = "shop") {
  return "zx_data_msg_req:appName=" + app +
         ";appID=0;zxAppServerID=0;zxAppServerHost=host1;tierName=web;tierID=0;"
         "ZXCollectorIP=127.0.0.1;ZXCollectorPort=1;testIdx=0;pid=" +
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

// The proxy on its own thread, serving applications that report to a
// reference collector; the links' timings shortened.
class ProxyUnderTest {
 public:
  explicit ProxyUnderTest(ZXProxyServerOptions opt = {}) {
    EXPECT_TRUE(collector.start());
    home.write("config/zxsettings.conf",
               "zxcHost=127.0.0.1\nzxcPort=" + std::to_string(collector.port()) + "\n");
    opt.home = home.str();
    if (opt.socketPath.empty()) opt.port = 0;
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
  Client connect() { return Client::tcp(server->boundPort()); }
  // Registers a control connection and returns it with its process index.
  Client registerProcess(long long pid, int &procIndex, const std::string &app = "shop") {
    Client c = connect();
    EXPECT_TRUE(c.send(controlLine(pid, app)));
    const std::optional<std::string> reply = c.line();
    procIndex = -1;
    if (reply && reply->rfind("zx_ctrl_msg_rep:result=Ok;procIndex=", 0) == 0)
      procIndex = std::stoi(reply->substr(reply->rfind('=') + 1));
    EXPECT_GE(procIndex, 0) << (reply ? *reply : "no reply");
    return c;
  }
  void startRun() {
    ASSERT_TRUE(collector.wait_for_connections(ConnKind::Control, 1, 10s));
    ASSERT_TRUE(collector.send_start("status=running"));
    ASSERT_TRUE(collector.wait_for_record(99, 10s));
  }

  zxtest::TempDir home;
  ReferenceCollector collector;
  std::unique_ptr<ZXProxyServer> server;
  std::thread thread;
};

// A data connection's registration line with its first frames in one send,
// then frames cut anywhere (a byte at a time at the worst), then a frame cut
// short by the connection's end: its bytes are counted lost.
template <typename Connection>
void framesCutAnywhere(ProxyUnderTest &proxy, Connection &data) {
  ASSERT_TRUE(data.send(dataLine(4711) + transactionFrames(1001)));
  ASSERT_TRUE(zxtest::wait_until([&] { return countRecords(proxy.collector, 4) >= 1; }));
  std::string stream;
  for (long long id = 2000; id < 2010; ++id) stream += transactionFrames(id);
  for (std::size_t at = 0, step = 1; at < stream.size(); at += step, step = step % 13 + 1) {
    ASSERT_TRUE(data.send(stream.substr(at, step)));
    if (step == 1) std::this_thread::sleep_for(1ms);  // separate reads, not a wait for a result
  }
  EXPECT_TRUE(zxtest::wait_until([&] {
    return countRecords(proxy.collector, 2) >= 11 && countRecords(proxy.collector, 4) >= 11;
  }));
  const std::string half = transactionFrames(3000).substr(0, 20);
  ASSERT_TRUE(data.send(half));
  data.close();
  EXPECT_TRUE(zxtest::wait_until(
      [&] { return proxy.server->counts().frameBytesLost.load() == half.size(); }));
}

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

TEST(ProxyConfig, ListensOnTcpUnlessASocketPathIsSet) {
  zxtest::TempDir home;
  zxtest::ScopedApp settings(home.str());
  home.write("config/zxsettings.conf", "zxcHost=10.0.0.1\nzxcPort=7000\nproxyPort=7999\n");
  EXPECT_EQ(readZXProxyConfig(*settings), 0);
  EXPECT_EQ(ZXProxy.zxProxyUnixDomainPath.get(), nullptr);
  EXPECT_STREQ(ZXProxy.proxyHost.c_str(), "127.0.0.1");
  EXPECT_EQ(ZXProxy.proxyPort, 7999u);

  zxtest::ScopedApp again(home.str());
  home.write("config/zxsettings.conf", "zxcHost=10.0.0.1\nproxySocketPath=/tmp/p.sock\n");
  EXPECT_EQ(readZXProxyConfig(*again), 0);
  EXPECT_STREQ(ZXProxy.zxProxyUnixDomainPath.c_str(), "/tmp/p.sock");
  EXPECT_EQ(ZXProxy.proxyPort, 7892u);
}

TEST(ProxyServer, RegistrationRulesAndSlots) {
  ProxyUnderTest proxy;
  // A data connection before its process's control connection is closed;
  // the frames that came with it are counted lost.
  Client early = proxy.connect();
  ASSERT_TRUE(early.send(dataLine(100) + "^frames"));
  EXPECT_TRUE(early.closedByPeer());
  EXPECT_TRUE(zxtest::wait_until([&] {
    return proxy.server->counts().frameBytesLost.load() == std::string("\n^frames").size();
  }));
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
  ASSERT_TRUE(zxtest::wait_until([&] { return proxy.server->counts().closed.load() >= 4; }));
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

TEST(ProxyServer, FramesAndLinesSurviveAnyCutIntoReads) {
  ProxyUnderTest proxy;
  int idx = -1;
  // The registration line itself arrives in pieces.
  Client ctrl = proxy.connect();
  const std::string reg = controlLine(4711);
  for (std::size_t at = 0; at < reg.size(); at += 7) {
    ASSERT_TRUE(ctrl.send(reg.substr(at, 7)));
    std::this_thread::sleep_for(1ms);  // separate reads, not a wait for a result
  }
  std::optional<std::string> reply = ctrl.line();
  ASSERT_TRUE(reply);
  EXPECT_EQ(*reply, "zx_ctrl_msg_rep:result=Ok;procIndex=0");
  (void)idx;
  proxy.startRun();
  // The collector's start reaches the process.
  std::optional<std::string> start = ctrl.line();
  ASSERT_TRUE(start);
  EXPECT_EQ(start->rfind("zx_control_req:action=start_instrumentation", 0), 0u) << *start;

  // Registration line and first frames in one write: both handled.
  Client data = proxy.connect();
  framesCutAnywhere(proxy, data);
  EXPECT_EQ(proxy.collector.snapshot().of(ConnKind::Control).connections, 1u);
}

TEST(ProxyServer, RelaysCommandsToProcessesAndLogsToTheCollector) {
  ProxyUnderTest proxy;
  int a = -1, b = -1;
  Client first = proxy.registerProcess(11, a);
  proxy.startRun();
  ASSERT_TRUE(first.line());  // the start
  // A process that registers later gets the kept start once.
  Client later = proxy.registerProcess(12, b);
  std::optional<std::string> kept = later.line();
  ASSERT_TRUE(kept);
  EXPECT_EQ(kept->rfind("zx_control_req:action=start_instrumentation", 0), 0u);

  ASSERT_TRUE(proxy.collector.send_modify("BTRuleFile=1"));
  for (Client *c : {&first, &later}) {
    std::optional<std::string> m = c->line();
    ASSERT_TRUE(m);
    EXPECT_EQ(m->rfind("zx_control_req:action=modify", 0), 0u) << *m;
  }
  // A command naming a process goes to that one only.
  ASSERT_TRUE(proxy.collector.send(
      ConnKind::Control, "zx_control_req:action=abort;procIndex=" + std::to_string(b) + "\n"));
  std::optional<std::string> mine = later.line();
  ASSERT_TRUE(mine);
  EXPECT_NE(mine->find("action=abort"), std::string::npos);
  ASSERT_TRUE(proxy.collector.send_stop());
  std::optional<std::string> stop = first.line();
  ASSERT_TRUE(stop);
  EXPECT_EQ(stop->rfind("zx_control_req:action=stop_instrumentation", 0), 0u) << *stop;

  // Agent log text goes to the collector, wrapped; acknowledgements do not.
  ASSERT_TRUE(first.send("zx_control_rep:action=modify;result=Ok;\nline|AGENT-LOG<x>|boom\n"));
  EXPECT_TRUE(proxy.collector.wait_for_control_line(
      [](std::string_view l) { return l == "line|AGENT-LOG<x>|boom"; }, 10s));
  EXPECT_TRUE(proxy.collector.wait_for_control_line(
      [](std::string_view l) { return l == "</agentLogs>"; }, 10s));
  // The application answered the modify once, for all of its processes.
  std::size_t modifyAcks = 0;
  for (const zxref::Line &l : proxy.collector.lines(ConnKind::Control))
    modifyAcks += l.text == "zx_control_rep:action=modify;result=Ok;";
  EXPECT_EQ(modifyAcks, 1u);
}

// An application process in proxy mode (`extra` choosing its transport)
// traces transactions; the proxy turns them into its application's records.
void transactionsThroughTheProxy(ProxyUnderTest &proxy, const std::string &extra, int protocol) {
  zxtest::LinkedAgent agent;
  const std::string port = std::to_string(proxy.server->boundPort());
  ZXProxyInstance_t &app =
      agent.configure(static_cast<std::uint16_t>(proxy.server->boundPort()),
                      "proxyMode=1\nproxyPort=" + port + "\ninstance=shop\ntier=web\n" + extra);
  EXPECT_EQ(app.linkProtocol(), protocol);
  app.processID = 5150;
  app.ZXSys.bciDataBufferMaxSize = 1 << 16;
  agent.run_loop();
  proxy.startRun();
  ASSERT_TRUE(zxtest::wait_until([&] { return app.Server.testRunRunning.load(); }));
  ASSERT_TRUE(zxtest::wait_until([&] { return proxy.server->counts().registered.load() >= 2; }));
  for (int i = 0; i < 20; ++i) {
    ZXPerThreadData_t *r =
        startFP(&app, nullptr, "/shop/cart", nullptr, 0, nullptr, nullptr, nullptr, 0, 0);
    ASSERT_NE(r, nullptr);
    endFP(&app, r, 200, 0, 0);
    releaseFP(&app, r);
  }
  EXPECT_TRUE(zxtest::wait_until([&] {
    return countRecords(proxy.collector, 2) == 20 && countRecords(proxy.collector, 4) == 20;
  })) << countRecords(proxy.collector, 2)
      << " / " << countRecords(proxy.collector, 4);
  EXPECT_EQ(proxy.collector.snapshot().of(ConnKind::Control).connections, 1u);
  agent.stop_agent();
  proxy.stop();  // its threads log into the agent's trace log
}

TEST(ProxyServer, ARealApplicationProcessThroughTheProxy) {
  ProxyUnderTest proxy;
  transactionsThroughTheProxy(proxy, "", ZX_PROTO_TCP);
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
  EXPECT_EQ(proxy.server->counts().refused.load(), 1u);
  // 200 KB without a line end, and a connection that never registers.
  ASSERT_TRUE(garbage.send(std::string(200 * 1024, 'x')));
  EXPECT_TRUE(garbage.closedByPeer());
  EXPECT_TRUE(silent.closedByPeer());
  // The registered process is untouched and a newcomer fits again.
  proxy.startRun();
  std::optional<std::string> start = good.line();
  ASSERT_TRUE(start);
  EXPECT_EQ(start->rfind("zx_control_req:action=start_instrumentation", 0), 0u);
  int next = -1;
  Client newcomer = proxy.registerProcess(2, next);
  EXPECT_EQ(next, 1);
}

// A process's connection to the proxy over WebSocket, through the agent's own
// transport: each send is one message.
class WsClient {
 public:
  explicit WsClient(int port) {
    char err[256] = {};
    conn_ = zx_open_websocket(false, "127.0.0.1", port, apr_time_from_sec(10),
                              apr_time_from_sec(10), ZXTlsSettings{}, err, sizeof err, {});
    EXPECT_TRUE(conn_) << err;
  }
  bool send(const std::string &message) {
    char err[256] = {};
    return conn_ && conn_->send_all(message.data(), message.size(), err, sizeof err) == 0;
  }
  std::optional<std::string> line() {
    const auto deadline = std::chrono::steady_clock::now() + 10s;
    char err[256] = {};
    while (conn_ && std::chrono::steady_clock::now() < deadline) {
      if (auto nl = in_.find('\n'); nl != std::string::npos) {
        std::string l = in_.substr(0, nl);
        in_.erase(0, nl + 1);
        return l;
      }
      if (conn_->wait_readable(apr_time_from_msec(100), err, sizeof err) ==
          ZXConnection::Wait::Error)
        break;
      char buf[4096];
      const long n = conn_->receive(buf, sizeof buf, err, sizeof err);
      if (n < 0) break;
      in_.append(buf, static_cast<std::size_t>(n));
    }
    return std::nullopt;
  }
  void close() { conn_.reset(); }

 private:
  std::unique_ptr<ZXConnection> conn_;
  std::string in_;
};

ZXProxyServerOptions overWebSocket(const zxtest::TestPki *pki = nullptr) {
  ZXProxyServerOptions opt;
  opt.webSocket = true;
  if (pki) {
    opt.wsCertFile = pki->cert_file;
    opt.wsKeyFile = pki->key_file;
  }
  return opt;
}

TEST(ProxyOverWebSocket, MessagesCutAnywhereAreTheSameStream) {
  ProxyUnderTest proxy(overWebSocket());
  const int port = proxy.server->boundPort();
  WsClient ctrl(port);
  // The registration line itself in pieces.
  const std::string reg = controlLine(4711);
  for (std::size_t at = 0; at < reg.size(); at += 9) ASSERT_TRUE(ctrl.send(reg.substr(at, 9)));
  std::optional<std::string> reply = ctrl.line();
  ASSERT_TRUE(reply);
  EXPECT_EQ(*reply, "zx_ctrl_msg_rep:result=Ok;procIndex=0");
  proxy.startRun();
  std::optional<std::string> start = ctrl.line();
  ASSERT_TRUE(start);
  EXPECT_EQ(start->rfind("zx_control_req:action=start_instrumentation", 0), 0u) << *start;

  // Registration line and first frames in one message; then one message per piece.
  WsClient data(port);
  framesCutAnywhere(proxy, data);
  // The process's control connection is untouched: commands still reach it.
  ASSERT_TRUE(proxy.collector.send_stop());
  std::optional<std::string> stop = ctrl.line();
  ASSERT_TRUE(stop);
  EXPECT_EQ(stop->rfind("zx_control_req:action=stop_instrumentation", 0), 0u) << *stop;
  ctrl.close();
  EXPECT_TRUE(zxtest::wait_until([&] { return proxy.server->counts().openConnections == 0; }));
}

// Holds the proxy's poll thread inside the registration of application
// "hold" until released (at the latest when this goes), while the WebSocket
// side keeps reading: the poll thread falls behind at will.
class PollThreadHold {
 public:
  std::function<void(ZXProxyInstance_t &)> hook() {
    return [state = state_](ZXProxyInstance_t &a) {
      if (std::string_view(a.ZXBCISetting.appName.c_str()) != "hold") return;
      std::unique_lock lk(state->m);
      state->held = true;
      state->cv.notify_all();
      state->cv.wait(lk, [&] { return state->released; });
    };
  }
  PollThreadHold() = default;
  PollThreadHold(const PollThreadHold &) = default;
  ~PollThreadHold() { release(); }
  bool waitHeld() {
    std::unique_lock lk(state_->m);
    return state_->cv.wait_for(lk, 10s, [&] { return state_->held; });
  }
  void release() const {
    std::lock_guard lk(state_->m);
    state_->released = true;
    state_->cv.notify_all();
  }

 private:
  struct State {
    std::mutex m;
    std::condition_variable cv;
    bool held = false, released = false;
  };
  std::shared_ptr<State> state_ = std::make_shared<State>();
};

// A process flooding its data connection while the poll thread is held: the
// proxy stops reading once 4 MB wait for the poll thread, a process that
// starts and exits meanwhile still has its data registration read before its
// control connection's end, and once released every frame is replayed.
TEST(ProxyOverWebSocket, ReadingPausesWhileThePollThreadIsBehindAndLosesNothing) {
  ZXProxyServerOptions opt = overWebSocket();
  PollThreadHold hold;
  opt.onNewApplication = hold.hook();
  ProxyUnderTest proxy(std::move(opt));
  const PollThreadHold releasedBeforeTheProxyStops = hold;
  const int port = proxy.server->boundPort();
  const ZXProxyServerCounts &counts = proxy.server->counts();
  WsClient ctrl(port), exitingCtrl(port);
  ASSERT_TRUE(ctrl.send(controlLine(4711)));
  ASSERT_TRUE(ctrl.line());
  ASSERT_TRUE(exitingCtrl.send(controlLine(5)));
  ASSERT_TRUE(exitingCtrl.line());
  proxy.startRun();
  WsClient data(port);
  ASSERT_TRUE(data.send(dataLine(4711)));
  ASSERT_TRUE(zxtest::wait_until([&] { return counts.registered >= 3; }));

  WsClient holder(port);
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
    WsClient exitingData(port);
    ASSERT_TRUE(exitingData.send(dataLine(5) + transactionFrames(500)));
  }
  exitingCtrl.close();
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

TEST(ProxyOverWebSocket, ARealApplicationProcessOverWss) {
  zxtest::TestPki pki;
  ProxyUnderTest proxy(overWebSocket(&pki));
  transactionsThroughTheProxy(proxy, "proxyConType=3\nzxTlsCaFile=" + pki.ca_file + "\n",
                              ZX_PROTO_WSS);
}

TEST(ProxyConfig, WssWithoutACertificateDoesNotStart) {
  zxtest::TempDir home;
  zxtest::ScopedApp settings(home.str());
  home.write("config/zxsettings.conf", "zxcHost=10.0.0.1\nproxyConType=3\nproxyWsKey=/k.pem\n");
  EXPECT_FALSE(zxProxyInitWrapper(*settings));
}

// The program as a person runs it: foreground, stopped by a signal.
class ProxyProgram {
 public:
  ProxyProgram(const zxtest::TempDir &home) {
    const std::string env = "ZXHOME=" + home.str();
    char *const argv[] = {const_cast<char *>(ZX_PROXY_SERVER_PATH), nullptr};
    char *const envp[] = {const_cast<char *>(env.c_str()), nullptr};
    ok_ = posix_spawn(&pid_, ZX_PROXY_SERVER_PATH, nullptr, nullptr, argv, envp) == 0;
  }
  ~ProxyProgram() {
    if (pid_ > 0 && !exited_) {
      ::kill(pid_, SIGKILL);
      ::waitpid(pid_, nullptr, 0);
    }
  }
  bool ok() const { return ok_; }
  void signal(int sig) { ::kill(pid_, sig); }
  // The exit status once it has exited within the timeout.
  std::optional<int> exitStatus(std::chrono::milliseconds timeout) {
    int status = 0;
    if (!zxtest::wait_until([&] { return ::waitpid(pid_, &status, WNOHANG) == pid_; }, timeout))
      return std::nullopt;
    exited_ = true;
    return WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
  }

 private:
  pid_t pid_ = -1;
  bool ok_ = false;
  bool exited_ = false;
};

TEST(ProxyProgram, UnixSocketServedUntilACleanStop) {
  ReferenceCollector collector;
  ASSERT_TRUE(collector.start());
  zxtest::TempDir home;
  const std::string sock = home.str() + "/proxy.sock";
  home.write("config/zxsettings.conf",
             "zxcHost=127.0.0.1\nzxcPort=" + std::to_string(collector.port()) +
                 "\nproxySocketPath=" + sock + "\n");
  ProxyProgram program(home);
  ASSERT_TRUE(program.ok());
  ASSERT_TRUE(zxtest::wait_until([&] { return Client::unixSocket(sock).ok(); }));
  program.signal(SIGTERM);  // logged and ignored
  program.signal(SIGHUP);
  Client ctrl = Client::unixSocket(sock);
  ASSERT_TRUE(ctrl.send(controlLine(77)));
  std::optional<std::string> reply = ctrl.line();
  ASSERT_TRUE(reply);
  EXPECT_EQ(*reply, "zx_ctrl_msg_rep:result=Ok;procIndex=0");
  EXPECT_TRUE(collector.wait_for_connections(ConnKind::Control, 1, 10s));

  program.signal(SIGINT);
  EXPECT_EQ(program.exitStatus(10s), 0);
  EXPECT_FALSE(std::filesystem::exists(sock));
  EXPECT_TRUE(ctrl.closedByPeer());
  EXPECT_TRUE(collector.wait_for_closed(ConnKind::Control, 1, 10s));
}

}  // namespace
