#include "ZXWebSocketConnection.h"

#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <string>
#include <thread>

#include "reference_collector.h"
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
const std::string kDataRequest = "zx_data_msg_req:appName=a;appID=1;testIdx=3;pid=42\n";

TEST_F(WebSocketConnectionTest, BytesBothWaysAsOneStream) {
  auto c = ws_collector();
  auto ctrl = open(c->port());
  ASSERT_TRUE(ctrl) << err;
  EXPECT_STREQ(ctrl->source().ip, "127.0.0.1");
  EXPECT_GT(ctrl->source().port, 0);
  // The request in two sends, the reply read back whole.
  ASSERT_EQ(ctrl->send_all(kCtrlRequest.data(), 10, err, sizeof err), 0) << err;
  ASSERT_EQ(ctrl->send_all(kCtrlRequest.data() + 10, kCtrlRequest.size() - 10, err, sizeof err), 0);
  EXPECT_EQ(read_line(*ctrl), zxref::reply::ok());

  // More than one message's worth, cut anywhere: every record arrives in order.
  auto data = open(c->port());
  ASSERT_TRUE(data) << err;
  std::string sent = kDataRequest;
  constexpr int kRecords = 20000;
  for (int i = 0; i < kRecords; ++i) sent += "7,r" + std::to_string(i) + ",pad\n";
  std::size_t off = 0;
  while (off < sent.size()) {
    long n = data->send_some(sent.data() + off, std::min<std::size_t>(sent.size() - off, 7777), err,
                             sizeof err);
    ASSERT_GT(n, 0) << err;
    off += static_cast<std::size_t>(n);
  }
  ASSERT_TRUE(
      c->wait_until([](const zxref::History &h) { return h.records.size() >= kRecords; }, 10s));
  const auto records = c->records();
  ASSERT_EQ(records.size(), static_cast<std::size_t>(kRecords));
  for (int i = 0; i < kRecords; ++i) ASSERT_EQ(records[i].fields[1], "r" + std::to_string(i));
}

TEST_F(WebSocketConnectionTest, WakeupEndsAWaitFromAnotherThreadOrTheNextOne) {
  auto c = ws_collector();
  auto conn = open(c->port());
  ASSERT_TRUE(conn) << err;
  conn->wakeup();
  EXPECT_EQ(conn->wait_readable(apr_time_from_sec(10), err, sizeof err), ZXConnection::Wait::Woken);
  EXPECT_EQ(conn->wait_readable(apr_time_from_msec(20), err, sizeof err),
            ZXConnection::Wait::Timeout);

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

TEST_F(WebSocketConnectionTest, StalledReaderMakesSendsReturnEmptyInTime) {
  zxref::Behaviour b;
  b.read_data = false;
  auto c = ws_collector(b);
  auto conn = open(c->port());
  ASSERT_TRUE(conn) << err;
  ASSERT_EQ(conn->send_all(kDataRequest.data(), kDataRequest.size(), err, sizeof err), 0);
  ASSERT_TRUE(c->wait_for_connections(ConnKind::Data, 1, 10s));
  std::string block(256 * 1024, 'x');
  // Kernel buffers fill, then a send takes nothing within its timeout.
  long n = 1;
  auto start = std::chrono::steady_clock::now();
  for (int i = 0; i < 400 && n > 0; ++i)
    n = conn->send_some(block.data(), block.size(), err, sizeof err);
  EXPECT_EQ(n, 0) << err;
  EXPECT_LT(std::chrono::steady_clock::now() - start, 30s);
}

TEST_F(WebSocketConnectionTest, RefusedConnectFailsAtOnceWithItsReason) {
  auto c = ws_collector();
  const int port = c->port();
  c->stop();
  auto start = std::chrono::steady_clock::now();
  EXPECT_FALSE(open(port));
  EXPECT_NE(err[0], '\0');
  EXPECT_LT(std::chrono::steady_clock::now() - start, 3s);
}

}  // namespace
