// An application process in proxy mode, against stand-ins for the proxy: the
// reference collector (the control protocol is the collector's; the data
// connection carries frames it does not read as records) and a bare
// unix-domain listener. The host's calls never wait on the proxy.
#include <gtest/gtest.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <apr_time.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstring>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "ZXCallOut.h"
#include "ZXDataThread.h"
#include "ZXFlowpathGenerator.h"
#include "reference_collector.h"
#include "test_support.h"
#include "zxlb_frame_layout.h"
#include "zxlb_mem_pool.h"

namespace {

using namespace std::chrono_literals;
using zxref::ConnKind;
using zxref::ReferenceCollector;
using zxtest::ScopedApp;

// Runs the link of `agent` in proxy mode against the proxy at `endpoint`
// (settings lines) until its data connection is up.
ZXProxyInstance_t &startProxyApp(zxtest::LinkedAgent &agent, std::uint16_t port,
                                 const std::string &endpoint) {
  ZXProxyInstance_t &app = agent.configure(port, "proxyMode=1\n" + endpoint);
  EXPECT_TRUE(app.sendsEventsToProxy());
  app.ZXSys.bciDataBufferMaxSize = 1 << 16;
  agent.run_loop();
  return app;
}

void startRun(ReferenceCollector &proxy) {
  ASSERT_TRUE(proxy.wait_for_connections(ConnKind::Control, 1, 10s));
  ASSERT_TRUE(proxy.send_start());
  ASSERT_TRUE(proxy.wait_for_connections(ConnKind::Data, 1, 10s));
}

// One transaction with two methods and a database call-out; its wall time.
std::chrono::nanoseconds transaction(ZXProxyInstance_t &app, int i) {
  const auto t0 = std::chrono::steady_clock::now();
  ZXPerThreadData_t *r =
      startFP(&app, nullptr, "/shop/cart", nullptr, 0, nullptr, nullptr, nullptr, 0, 0);
  if (r) {
    zxMethodEntry(&app, nullptr, r, "Cart.load", nullptr, nullptr, 1, nullptr, 0, 0);
    zxMethodExit(&app, nullptr, r, "Cart.load", -1, 200, nullptr, -1, 1, 0, 0, 1, 0, 0);
    methodPropProperties *db = beginCallOut(&app, r, ZXCallOutKind::Database, "db", "select 1");
    endCallOut(&app, r, ZXCallOutKind::Database, db);
    endFP(&app, r, i % 10 ? 200 : 500, 0, 0);
    releaseFP(&app, r);
  }
  return std::chrono::steady_clock::now() - t0;
}

std::chrono::nanoseconds medianOf(std::vector<std::chrono::nanoseconds> v) {
  std::nth_element(v.begin(), v.begin() + v.size() / 2, v.end());
  return v[v.size() / 2];
}

std::chrono::nanoseconds run(ZXProxyInstance_t &app, int n) {
  std::vector<std::chrono::nanoseconds> times;
  for (int i = 0; i < n; ++i) times.push_back(transaction(app, i));
  return medianOf(times);
}

TEST(ProxyMode, StalledProxyCostsTheHostNothingAndAReturningOneGetsFramesAgain) {
  ReferenceCollector proxy;
  ASSERT_TRUE(proxy.start());
  const std::uint16_t port = proxy.port();
  zxtest::LinkedAgent agent;
  ZXProxyInstance_t &app = startProxyApp(agent, port, "proxyPort=" + std::to_string(port) + "\n");
  startRun(proxy);
  ASSERT_TRUE(zxtest::wait_until([&] { return app.Server.testRunRunning.load(); }));

  // Healthy: every frame reaches the proxy.
  const auto healthy = run(app, 1000);
  ASSERT_TRUE(zxtest::wait_until([&] {
    const ZXSendCounts c = readSendCounts(app.sendBuffers);
    return c.queued == 0;
  }));
  EXPECT_EQ(readSendCounts(app.sendBuffers).lost(), 0u);
  EXPECT_GT(proxy.snapshot().of(ConnKind::Data).lines, 0u);

  // Stalled: the proxy accepts and never reads; the buffers fill and frames
  // are dropped and counted, never waited for.
  proxy.update_behaviour([](zxref::Behaviour &b) { b.read_data = false; });
  const auto stalled = run(app, 20000);
  const ZXSendCounts s = readSendCounts(app.sendBuffers);
  EXPECT_GT(s.lostPoolFull, 0u);
  EXPECT_EQ(s.records, s.sent + s.queued + s.lost());
  EXPECT_LE(stalled.count(), 2 * std::max<long long>(healthy.count(), 1000))
      << "healthy median " << healthy.count() << " ns";

  // Gone and back on the same port: the application reconnects and frames
  // flow again.
  proxy.stop();
  zxref::Config again;
  again.port = port;
  ReferenceCollector back(again);
  ASSERT_TRUE(back.start());
  startRun(back);
  const std::size_t before = back.snapshot().of(ConnKind::Data).lines;
  ASSERT_TRUE(zxtest::wait_until([&] {
    run(app, 10);
    return back.snapshot().of(ConnKind::Data).lines > before + 10;
  }));
  agent.stop_agent();
}

// A listener on a unix-domain socket that answers the control request as a
// proxy does and keeps whatever the data connection sends after its request.
class UnixProxy {
 public:
  explicit UnixProxy(std::string path) : path_(std::move(path)) {
    fd_ = ::socket(AF_UNIX, SOCK_STREAM, 0);
    sockaddr_un a{};
    a.sun_family = AF_UNIX;
    std::snprintf(a.sun_path, sizeof a.sun_path, "%s", path_.c_str());
    ok_ = fd_ >= 0 && ::bind(fd_, reinterpret_cast<sockaddr *>(&a), sizeof a) == 0 &&
          ::listen(fd_, 4) == 0;
    if (ok_) thread_ = std::thread([this] { serve(); });
  }
  ~UnixProxy() {
    ::shutdown(fd_, SHUT_RDWR);
    ::close(fd_);
    if (thread_.joinable()) thread_.join();
    ::unlink(path_.c_str());
  }
  bool ok() const { return ok_; }
  std::string data() {
    std::lock_guard lk(mu_);
    return data_;
  }

 private:
  static std::string readLine(int c) {
    std::string line;
    char ch;
    while (::read(c, &ch, 1) == 1 && ch != '\n') line += ch;
    return line;
  }
  void serve() {
    const int ctrl = ::accept(fd_, nullptr, nullptr);
    if (ctrl < 0) return;
    const std::string request = readLine(ctrl);
    const std::string reply = "zx_ctrl_msg_rep:result=Ok;procIndex=0\n" +
                              zxref::command("start_instrumentation", "") + "\n";
    if (request.rfind("zx_ctrl_msg_req:", 0) == 0) (void)!::write(ctrl, reply.data(), reply.size());
    const int data = ::accept(fd_, nullptr, nullptr);
    if (data >= 0) {
      if (readLine(data).rfind("zx_data_msg_req:", 0) == 0) (void)readLine(data);
      char buf[4096];
      for (long n; (n = ::read(data, buf, sizeof buf)) > 0;) {
        std::lock_guard lk(mu_);
        data_.append(buf, static_cast<std::size_t>(n));
      }
      ::close(data);
    }
    ::close(ctrl);
  }
  std::string path_;
  int fd_ = -1;
  bool ok_ = false;
  std::thread thread_;
  std::mutex mu_;
  std::string data_;
};

// The frame types in `stream`, in order; stops at a partial frame.
std::vector<int> frameTypes(const std::string &stream) {
  std::vector<int> types;
  for (std::size_t at = 0; at + ZX_FRAME_OVERHEAD <= stream.size();) {
    if (stream[at] != ZX_FRAME_START) {
      ++at;
      continue;
    }
    msgHdr_t h;
    std::memcpy(&h, stream.data() + at + 1, sizeof h);
    if (at + static_cast<std::size_t>(h.total_len) > stream.size()) break;
    types.push_back(h.msg_type);
    at += static_cast<std::size_t>(h.total_len);
  }
  return types;
}

TEST(ProxyMode, UnixDomainSocketWhenAPathIsSet) {
  zxtest::TempDir dir;
  const std::string path = dir.str() + "/proxy.sock";
  UnixProxy proxy(path);
  ASSERT_TRUE(proxy.ok());
  zxtest::LinkedAgent agent;
  // The TCP endpoint leads nowhere: only the socket path can work.
  ZXProxyInstance_t &app = startProxyApp(agent, 1, "proxyPort=1\nproxySocketPath=" + path + "\n");
  ASSERT_TRUE(zxtest::wait_until([&] { return app.Server.testRunRunning.load(); }));
  ASSERT_TRUE(zxtest::wait_until([&] {
    std::lock_guard lk(app.dataConnLock);
    return app.zxcDataSocket != nullptr;
  }));
  transaction(app, 1);
  const std::vector<int> expected{ZX_FRAME_TRANSACTION_START, ZX_FRAME_METHOD_ENTRY,
                                  ZX_FRAME_METHOD_EXIT,       ZX_FRAME_METHOD_EXIT,
                                  ZX_FRAME_TRANSACTION_END,   ZX_FRAME_TRANSACTION_RESET};
  EXPECT_TRUE(zxtest::wait_until([&] { return frameTypes(proxy.data()) == expected; }))
      << "frames seen: " << frameTypes(proxy.data()).size();
  agent.stop_agent();
}

// An application in proxy mode with no link: what the host's threads queue
// is taken out of the send buffers by the test, as the data thread would.
struct UnlinkedProxyApp {
  ScopedApp app;
  explicit UnlinkedProxyApp(int bufferSize = 1 << 16, int buffers = 256) {
    app->ZXSys.proxyMode = 1;
    app->ZXSys.bciDataBufferMaxSize = bufferSize;
    app->ZXSys.dataBuffMaxCount = buffers;
    app->Server.testRunRunning = 1;
    initPerThreadSlots(&*app);
    EXPECT_EQ(buff_list_init(&*app), 0);
  }
  ZXPerThreadData_t *start() {
    return startFP(&*app, nullptr, "/shop/cart", nullptr, 0, nullptr, nullptr, nullptr, 0, 0);
  }
  void pair(ZXPerThreadData_t *r, const std::string &name) {
    zxMethodEntry(&*app, nullptr, r, name.c_str(), nullptr, nullptr, 1, nullptr, 0, 0);
    zxMethodExit(&*app, nullptr, r, name.c_str(), -1, 200, nullptr, -1, 1, 0, 0, 1, 0, 0);
  }
};

// A method frame's name (entry or exit), else empty.
std::string methodName(const char *frame, int type) {
  const bool entry = type == ZX_FRAME_METHOD_ENTRY;
  if (!entry && type != ZX_FRAME_METHOD_EXIT) return {};
  std::int32_t len;
  std::memcpy(
      &len,
      frame + ZX_FRAME_FIXED_AT +
          (entry ? offsetof(MethodEntryVar_t, methodName) : offsetof(MethodExitVar_t, methodName)),
      sizeof len);
  return std::string(
      frame + ZX_FRAME_FIXED_AT + (entry ? sizeof(MethodEntryVar_t) : sizeof(MethodExitVar_t)),
      static_cast<std::size_t>(len));
}

TEST(ProxyMode, StagedFramesReachTheBuffersWholeAndInEachThreadsOrder) {
  UnlinkedProxyApp p;
  constexpr int kThreads = 4, kTransactions = 30, kPairs = 40;
  std::atomic<int> running{kThreads};
  std::vector<std::thread> hosts;
  for (int t = 0; t < kThreads; ++t)
    hosts.emplace_back([&, t] {
      int n = 0;
      for (int x = 0; x < kTransactions; ++x) {
        ZXPerThreadData_t *r = p.start();
        ASSERT_NE(r, nullptr);
        for (int m = 0; m < kPairs; ++m, ++n) {
          std::string name = "t" + std::to_string(t) + "." + std::to_string(n);
          // Now and then a frame larger than a stage, which bypasses it.
          if (m == x % kPairs) name += "." + std::string(ZXFrameStage::kBytes, 'x');
          p.pair(r, name);
          // A tick's take mid-stage for sure, besides the drainer's racing ones.
          if (m == kPairs / 2 && x % 2) movePartialToReadList(p.app->sendBuffers);
        }
        // The last thread leaves its last transaction open and exits.
        if (t == kThreads - 1 && x == kTransactions - 1) break;
        endFP(&*p.app, r, 200, 0, 0);
        releaseFP(&*p.app, r);
      }
      --running;
    });
  // The data thread's ticks, taking staged frames while hosts stage more.
  std::string stream;
  while (running.load() > 0) stream += zxtest::drain_records(*p.app);
  for (std::thread &h : hosts) h.join();
  stream += zxtest::drain_records(*p.app);

  std::vector<int> next(kThreads, 0);  // each thread's next method, entry then exit
  std::vector<bool> exitDue(kThreads, false);
  unsigned long long frames = 0, starts = 0, ends = 0;
  std::size_t at = 0;
  while (at < stream.size()) {
    ASSERT_EQ(stream[at], ZX_FRAME_START) << "at " << at;
    msgHdr_t h;
    std::memcpy(&h, stream.data() + at + 1, sizeof h);
    ASSERT_LE(at + static_cast<std::size_t>(h.total_len), stream.size());
    ASSERT_EQ(stream[at + static_cast<std::size_t>(h.total_len) - 1], ZX_FRAME_END);
    ++frames;
    starts += h.msg_type == ZX_FRAME_TRANSACTION_START;
    ends += h.msg_type == ZX_FRAME_TRANSACTION_END;
    const std::string name = methodName(stream.data() + at, h.msg_type);
    if (!name.empty()) {
      const int t = std::stoi(name.substr(1));
      const int n = std::stoi(name.substr(name.find('.') + 1));
      ASSERT_EQ(n, next[t]) << "thread " << t;
      ASSERT_EQ(h.msg_type == ZX_FRAME_METHOD_EXIT, exitDue[t]) << "thread " << t;
      if (exitDue[t]) ++next[t];
      exitDue[t] = !exitDue[t];
    }
    at += static_cast<std::size_t>(h.total_len);
  }
  for (int t = 0; t < kThreads; ++t) EXPECT_EQ(next[t], kTransactions * kPairs);
  EXPECT_EQ(starts, static_cast<unsigned long long>(kThreads * kTransactions));
  EXPECT_EQ(ends, starts - 1);
  const ZXSendCounts c = readSendCounts(p.app->sendBuffers);
  EXPECT_EQ(c.records, frames);
  EXPECT_EQ(c.sent, frames);
  EXPECT_EQ(c.lost(), 0u);
}

TEST(ProxyMode, StagedFramesAreCountedByTheExitDrainAndByAFullPool) {
  {
    // A flowpath that never ends: its staged frames are lost at exit, counted.
    UnlinkedProxyApp p;
    ZXPerThreadData_t *r = p.start();
    ASSERT_NE(r, nullptr);
    for (int i = 0; i < 10; ++i) p.pair(r, "Cart.load");
    EXPECT_EQ(readSendCounts(p.app->sendBuffers).records, 0u) << "staged, not yet handed over";
    EXPECT_FALSE(drainSendBuffersForExit(&*p.app, apr_time_now() + apr_time_from_msec(50)).ok());
    const ZXSendCounts c = readSendCounts(p.app->sendBuffers);
    EXPECT_EQ(c.lostAtExit, 21u);
    EXPECT_EQ(c.records, 21u);
  }
  // One buffer, never sent: each handover that does not fit drops its
  // frames whole and counts every one.
  UnlinkedProxyApp p(4096, 1);
  for (int x = 0; x < 20; ++x) {
    ZXPerThreadData_t *r = p.start();
    ASSERT_NE(r, nullptr);
    for (int i = 0; i < 20; ++i) p.pair(r, "Cart.load");
    endFP(&*p.app, r, 200, 0, 0);
    releaseFP(&*p.app, r);
  }
  const ZXSendCounts c = readSendCounts(p.app->sendBuffers);
  EXPECT_GT(c.lostPoolFull, 0u);
  EXPECT_EQ(c.records, 20u * (1 + 40 + 2));
  EXPECT_EQ(c.records, c.queued + c.lostPoolFull);
}

}  // namespace
