#include "ZXWebSocketConnection.h"

#include <gtest/gtest.h>
#include <libwebsockets.h>

#include <atomic>
#include <chrono>
#include <string>
#include <thread>
#include <vector>

#include "reference_collector.h"
#include "test_support.h"
#include "zxlb_apr.h"

namespace {

using namespace std::chrono_literals;
using zxref::ConnKind;

std::unique_ptr<zxref::ReferenceCollector> ws_collector(zxref::Behaviour b = {}) {
  zxref::Config config;
  config.transport = zxref::Transport::Ws;
  config.behaviour = std::move(b);
  auto c = std::make_unique<zxref::ReferenceCollector>(std::move(config));
  EXPECT_TRUE(c->start()) << c->error();
  return c;
}

struct WebSocketConnectionTest : ::testing::Test {
  void SetUp() override { lws_set_log_level(LLL_ERR | LLL_WARN, lws_log); }
  zx::AprSession apr;
  std::unique_ptr<ZXConnection> open(int port, const std::function<bool()> &abandon = {}) {
    err[0] = '\0';
    return zx_open_websocket(false, "127.0.0.1", port, apr_time_from_sec(5),
                             apr_time_from_msec(200), {}, err, sizeof err, abandon);
  }
  std::string read_line(ZXConnection &c) {
    std::string got;
    auto until = std::chrono::steady_clock::now() + 5s;
    while (got.find('\n') == std::string::npos && std::chrono::steady_clock::now() < until) {
      if (c.wait_readable(apr_time_from_msec(100), err, sizeof err) != ZXConnection::Wait::Readable)
        continue;
      char buf[64];
      long n = c.receive(buf, sizeof buf, err, sizeof err);
      if (n < 0) break;
      got.append(buf, static_cast<std::size_t>(n));
    }
    return got;
  }
  char err[256] = {};
};

const std::string kCtrlRequest = "zx_ctrl_msg_req:appName=a;tierName=t;protoVer=1 \n";

TEST_F(WebSocketConnectionTest, WakeupEndsAWaitFromAnotherThreadOrTheNextOne) {
  auto c = ws_collector();
  auto conn = open(c->port());
  ASSERT_TRUE(conn) << err;
  conn->wakeup();
  EXPECT_EQ(conn->wait_readable(apr_time_from_sec(10), err, sizeof err), ZXConnection::Wait::Woken);
  // The deadline bounds the wait even when it is due before the library waits.
  for (int i = 0; i < 20; ++i) {
    const auto begin = std::chrono::steady_clock::now();
    EXPECT_EQ(conn->wait_readable(apr_time_from_msec(1), err, sizeof err),
              ZXConnection::Wait::Timeout);
    ASSERT_LT(std::chrono::steady_clock::now() - begin, 5s);
  }

  std::atomic<bool> waiting{false};
  std::thread waker([&] {
    while (!waiting) std::this_thread::yield();
    conn->wakeup();
  });
  auto start = std::chrono::steady_clock::now();
  waiting = true;
  EXPECT_EQ(conn->wait_readable(apr_time_from_sec(10), err, sizeof err), ZXConnection::Wait::Woken);
  EXPECT_LT(std::chrono::steady_clock::now() - start, 5s);
  waker.join();
}

TEST_F(WebSocketConnectionTest, PeerHangUpIsSeenByReadsAndSends) {
  auto c = ws_collector();
  auto conn = open(c->port());
  ASSERT_TRUE(conn) << err;
  ASSERT_EQ(conn->send_all(kCtrlRequest.data(), kCtrlRequest.size(), err, sizeof err), 0);
  EXPECT_EQ(read_line(*conn), zxref::reply::ok());
  ASSERT_EQ(c->close_connections(ConnKind::Control), 1u);
  ASSERT_EQ(conn->wait_readable(apr_time_from_sec(5), err, sizeof err),
            ZXConnection::Wait::Readable);
  char buf[16];
  EXPECT_EQ(conn->receive(buf, sizeof buf, err, sizeof err), -1);
  EXPECT_EQ(conn->send_some("x\n", 2, err, sizeof err), -1);
  EXPECT_EQ(conn->send_all("x\n", 2, err, sizeof err), -2);
}

// WSS handshakes on several threads at once, all through one parsed trust,
// each verified on its own (the library's own verification lost its
// connection when another thread made a context mid-handshake).
TEST_F(WebSocketConnectionTest, ConcurrentWssConnectsShareOneTrust) {
  zxtest::TestPki pki;
  zxref::Config config;
  config.transport = zxref::Transport::Wss;
  config.tls_cert_file = pki.cert_file;
  config.tls_key_file = pki.key_file;
  zxref::ReferenceCollector c(std::move(config));
  ASSERT_TRUE(c.start()) << c.error();
  constexpr int kThreads = 4;
  std::vector<std::unique_ptr<ZXConnection>> conns(kThreads);
  std::vector<std::thread> threads;
  for (int i = 0; i < kThreads; ++i)
    threads.emplace_back([&, i] {
      char e[256] = {};
      conns[i] = zx_open_websocket(true, "127.0.0.1", c.port(), apr_time_from_sec(30),
                                   apr_time_from_msec(200), {pki.ca_file, true}, e, sizeof e, {});
      if (!conns[i]) ADD_FAILURE() << e;
    });
  for (std::thread &t : threads) t.join();
}

}  // namespace
