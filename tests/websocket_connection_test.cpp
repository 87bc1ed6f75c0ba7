#include "ZXWebSocketConnection.h"

#include <gtest/gtest.h>
#include <libwebsockets.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstring>
#include <mutex>
#include <string>
#include <thread>

#include "zxlb_apr.h"

namespace {

using namespace std::chrono_literals;

// A WebSocket server on loopback with its own service thread: greets each
// client, keeps what it receives, and on request stops reading or hangs up.
class TinyServer {
 public:
  TinyServer() {
    lws_context_creation_info info{};
    info.port = 0;
    info.iface = "127.0.0.1";
    info.protocols = kProtocols;
    info.user = this;
    info.gid = -1;
    info.uid = -1;
    info.fd_limit_per_thread = 16;
    ctx_ = lws_create_context(&info);
    if (!ctx_) return;
    port_ = lws_get_vhost_listen_port(lws_get_vhost_by_name(ctx_, "default"));
    thread_ = std::thread([this] {
      while (!stopping_) lws_service(ctx_, 0);
    });
  }
  ~TinyServer() {
    stopping_ = true;
    lws_cancel_service(ctx_);
    if (thread_.joinable()) thread_.join();
    if (ctx_) lws_context_destroy(ctx_);
  }
  int port() const { return port_; }

  bool wait_received(std::size_t n, std::chrono::milliseconds within = 5s) {
    std::unique_lock lk(mu_);
    return cv_.wait_for(lk, within, [&] { return received_.size() >= n; });
  }
  std::string received() {
    std::lock_guard lk(mu_);
    return received_;
  }
  void stop_reading() { command(Command::Pause); }
  void hang_up() { command(Command::HangUp); }

 private:
  enum class Command { None, Pause, HangUp };
  void command(Command c) {
    command_ = c;
    lws_cancel_service(ctx_);
  }

  static int callback(lws *wsi, lws_callback_reasons reason, void *, void *in, std::size_t len) {
    auto *self = static_cast<TinyServer *>(lws_context_user(lws_get_context(wsi)));
    switch (reason) {
      case LWS_CALLBACK_ESTABLISHED:
        self->client_ = wsi;
        lws_callback_on_writable(wsi);
        break;
      case LWS_CALLBACK_SERVER_WRITEABLE: {
        unsigned char buf[LWS_PRE + 8];
        std::memcpy(buf + LWS_PRE, "hello\n", 6);
        lws_write(wsi, buf + LWS_PRE, 6, LWS_WRITE_TEXT);
        break;
      }
      case LWS_CALLBACK_RECEIVE: {
        std::lock_guard lk(self->mu_);
        self->received_.append(static_cast<const char *>(in), len);
        self->cv_.notify_all();
        break;
      }
      case LWS_CALLBACK_EVENT_WAIT_CANCELLED: {
        Command c = self->command_.exchange(Command::None);
        if (self->client_ && c == Command::Pause) lws_rx_flow_control(self->client_, 0);
        if (self->client_ && c == Command::HangUp) {
          lws_set_timeout(self->client_, PENDING_TIMEOUT_CLOSE_SEND, LWS_TO_KILL_SYNC);
          self->client_ = nullptr;
        }
        break;
      }
      case LWS_CALLBACK_CLOSED:
        if (self->client_ == wsi) self->client_ = nullptr;
        break;
      default:
        break;
    }
    return 0;
  }
  static constexpr lws_protocols kProtocols[] = {
      {"test", callback, 0, 0, 0, nullptr, 0},
      {nullptr, nullptr, 0, 0, 0, nullptr, 0},
  };

  lws_context *ctx_ = nullptr;
  int port_ = 0;
  std::thread thread_;
  std::atomic<bool> stopping_{false};
  std::atomic<Command> command_{Command::None};
  lws *client_ = nullptr;  // service thread only
  std::mutex mu_;          // guards received_
  std::condition_variable cv_;
  std::string received_;
};

struct WebSocketConnectionTest : ::testing::Test {
  zx::AprSession apr;
  std::unique_ptr<ZXConnection> open(int port, const std::function<bool()> &abandon = {}) {
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

TEST_F(WebSocketConnectionTest, BytesBothWaysAsOneStream) {
  TinyServer server;
  auto c = open(server.port());
  ASSERT_TRUE(c) << err;
  EXPECT_STREQ(c->source().ip, "127.0.0.1");
  EXPECT_GT(c->source().port, 0);
  EXPECT_EQ(read_line(*c), "hello\n");

  // More than one message's worth, in pieces of odd sizes: the server sees
  // every byte in order.
  std::string sent;
  for (int i = 0; sent.size() < 600 * 1024; ++i) sent += "line " + std::to_string(i) + "\n";
  ASSERT_EQ(c->send_all(sent.data(), 1000, err, sizeof err), 0) << err;
  std::size_t off = 1000;
  while (off < sent.size()) {
    long n = c->send_some(sent.data() + off, sent.size() - off, err, sizeof err);
    ASSERT_GT(n, 0) << err;
    off += static_cast<std::size_t>(n);
  }
  ASSERT_TRUE(server.wait_received(sent.size()));
  EXPECT_EQ(server.received(), sent);
}

TEST_F(WebSocketConnectionTest, WakeupEndsAWaitFromAnotherThreadOrTheNextOne) {
  TinyServer server;
  auto c = open(server.port());
  ASSERT_TRUE(c) << err;
  EXPECT_EQ(read_line(*c), "hello\n");

  c->wakeup();
  EXPECT_EQ(c->wait_readable(apr_time_from_sec(10), err, sizeof err), ZXConnection::Wait::Woken);
  EXPECT_EQ(c->wait_readable(apr_time_from_msec(20), err, sizeof err), ZXConnection::Wait::Timeout);

  std::atomic<bool> waiting{false};
  std::thread waker([&] {
    while (!waiting) std::this_thread::yield();
    c->wakeup();
  });
  auto start = std::chrono::steady_clock::now();
  waiting = true;
  EXPECT_EQ(c->wait_readable(apr_time_from_sec(10), err, sizeof err), ZXConnection::Wait::Woken);
  EXPECT_LT(std::chrono::steady_clock::now() - start, 5s);
  waker.join();
}

TEST_F(WebSocketConnectionTest, PeerHangUpIsSeenByReadsAndSends) {
  TinyServer server;
  auto c = open(server.port());
  ASSERT_TRUE(c) << err;
  EXPECT_EQ(read_line(*c), "hello\n");
  server.hang_up();
  ASSERT_EQ(c->wait_readable(apr_time_from_sec(5), err, sizeof err), ZXConnection::Wait::Readable);
  char buf[16];
  EXPECT_EQ(c->receive(buf, sizeof buf, err, sizeof err), -1);
  EXPECT_EQ(c->send_some("x\n", 2, err, sizeof err), -1);
  EXPECT_EQ(c->send_all("x\n", 2, err, sizeof err), -2);
}

TEST_F(WebSocketConnectionTest, StalledReaderMakesSendsReturnEmptyInTime) {
  TinyServer server;
  auto c = open(server.port());
  ASSERT_TRUE(c) << err;
  EXPECT_EQ(read_line(*c), "hello\n");
  server.stop_reading();
  std::string block(256 * 1024, 'x');
  // Kernel buffers fill, then a send takes nothing within its timeout.
  long n = 1;
  auto start = std::chrono::steady_clock::now();
  for (int i = 0; i < 400 && n > 0; ++i)
    n = c->send_some(block.data(), block.size(), err, sizeof err);
  EXPECT_EQ(n, 0) << err;
  EXPECT_LT(std::chrono::steady_clock::now() - start, 30s);
}

TEST_F(WebSocketConnectionTest, FailedAndAbandonedConnectsReturnInTime) {
  // Nothing listening: refused at once.
  int fd = ::socket(AF_INET, SOCK_STREAM, 0);
  sockaddr_in a{};
  a.sin_family = AF_INET;
  a.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  socklen_t len = sizeof a;
  ASSERT_EQ(::bind(fd, reinterpret_cast<sockaddr *>(&a), len), 0);
  ASSERT_EQ(::getsockname(fd, reinterpret_cast<sockaddr *>(&a), &len), 0);
  const int port = ntohs(a.sin_port);
  EXPECT_FALSE(open(port));
  EXPECT_NE(err[0], '\0');

  // A listener that never answers the upgrade: the stop ends the wait.
  ASSERT_EQ(::listen(fd, 4), 0);
  auto start = std::chrono::steady_clock::now();
  auto stopAt = start + 200ms;
  EXPECT_FALSE(open(port, [&] { return std::chrono::steady_clock::now() >= stopAt; }));
  EXPECT_LT(std::chrono::steady_clock::now() - start, 3s);
  ::close(fd);
}

}  // namespace
