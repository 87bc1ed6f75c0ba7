// The reference collector over WebSocket and TLS-wrapped WebSocket: the same protocol
// handling as over TCP, reached through a plain libwebsockets client.
#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include <atomic>
#include <cstdlib>
#include <deque>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include <libwebsockets.h>

#include "reference_collector.h"
#include "test_support.h"

namespace {

using zxref::Clock;
using zxref::ConnKind;
using zxref::ReferenceCollector;
using zxref::Transport;
using zxtest::TestPki;
using namespace std::chrono_literals;

constexpr auto kWait = 10s;
const std::string kCtrlRequest = "zx_ctrl_msg_req:appName=app;tierName=t;protoVer=1 \n";
const std::string kDataRequest = "zx_data_msg_req:appName=app;appID=1;testIdx=3;pid=42\n";

// A loopback connection that has sent `bytes`; the caller closes it.
int send_over_tcp(std::uint16_t port, const std::string &bytes) {
  const int fd = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
  sockaddr_in addr{};
  addr.sin_family = AF_INET;
  addr.sin_port = htons(port);
  addr.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  EXPECT_EQ(::connect(fd, reinterpret_cast<sockaddr *>(&addr), sizeof addr), 0);
  EXPECT_EQ(::send(fd, bytes.data(), bytes.size(), MSG_NOSIGNAL),
            static_cast<ssize_t>(bytes.size()));
  return fd;
}

// The agent's end: one connection on a service thread of its own. Messages go out whole,
// in order; what arrives is kept as one byte stream.
class WsClient {
  template <typename F>
  auto locked(F f) {
    std::lock_guard lock(mu_);
    return f();
  }

 public:
  // An empty ca_file means plain WS.
  WsClient(std::uint16_t port, const std::string &ca_file, std::string path)
      : port_(port), tls_(!ca_file.empty()), path_(std::move(path)) {
    lws_context_creation_info info{};
    info.port = CONTEXT_PORT_NO_LISTEN;
    info.protocols = kProtocols;
    info.user = this;
    if (tls_) {
      info.options = LWS_SERVER_OPTION_DO_SSL_GLOBAL_INIT;
      info.client_ssl_ca_filepath = ca_file.c_str();
    }
    ctx_ = lws_create_context(&info);
    EXPECT_NE(ctx_, nullptr);
    if (ctx_ != nullptr) thread_ = std::thread([this] { run(); });
  }
  ~WsClient() {
    stop_ = true;
    if (ctx_ == nullptr) return;
    lws_cancel_service(ctx_);
    thread_.join();
    lws_context_destroy(ctx_);
  }
  WsClient(const WsClient &) = delete;
  WsClient &operator=(const WsClient &) = delete;

  void send(std::string message) {
    locked([&] { outgoing_.push_back(std::move(message)); });
    lws_cancel_service(ctx_);
  }
  bool wait_open() {
    return zxtest::wait_until([&] { return locked([&] { return open_ || closed_; }); }) &&
           locked([&] { return open_; });
  }
  bool wait_closed() {
    return zxtest::wait_until([&] { return locked([&] { return closed_; }); });
  }
  // Waits until `text` has arrived; everything up to and including it is consumed.
  bool wait_for(const std::string &text) {
    return zxtest::wait_until([&] {
      return locked([&] {
        const auto at = received_.find(text);
        if (at != std::string::npos) received_.erase(0, at + text.size());
        return at != std::string::npos;
      });
    });
  }

 private:
  void run() {
    lws_client_connect_info ci{};
    ci.context = ctx_;
    ci.address = "127.0.0.1";
    ci.port = port_;
    ci.path = path_.c_str();
    ci.host = ci.origin = "localhost";
    ci.ssl_connection = tls_ ? LCCSCF_USE_SSL : 0;
    ci.pwsi = &wsi_;
    if (lws_client_connect_via_info(&ci) == nullptr) locked([&] { closed_ = true; });
    while (!stop_ && lws_service(ctx_, 0) >= 0) {
    }
  }

  static int callback(lws *wsi, lws_callback_reasons reason, void *, void *in, std::size_t len) {
    auto *self = static_cast<WsClient *>(lws_context_user(lws_get_context(wsi)));
    return self == nullptr ? 0 : self->on_event(wsi, reason, in, len);
  }
  int on_event(lws *wsi, lws_callback_reasons reason, void *in, std::size_t len) {
    switch (reason) {
      case LWS_CALLBACK_CLIENT_ESTABLISHED:
        locked([&] { open_ = true; });
        break;
      case LWS_CALLBACK_CLIENT_RECEIVE:
        locked([&] { received_.append(static_cast<const char *>(in), len); });
        break;
      case LWS_CALLBACK_EVENT_WAIT_CANCELLED:
        if (wsi_ != nullptr) lws_callback_on_writable(wsi_);
        break;
      case LWS_CALLBACK_CLIENT_WRITEABLE: {
        std::string m;
        const bool more = locked([&] {
          if (outgoing_.empty()) return false;
          m = std::move(outgoing_.front());
          outgoing_.pop_front();
          return !outgoing_.empty();
        });
        if (m.empty()) break;
        std::vector<unsigned char> buf(LWS_PRE + m.size());
        std::copy(m.begin(), m.end(), buf.begin() + LWS_PRE);
        if (lws_write(wsi, buf.data() + LWS_PRE, m.size(), LWS_WRITE_TEXT) < 0) return -1;
        if (more) lws_callback_on_writable(wsi);
        break;
      }
      case LWS_CALLBACK_CLIENT_CONNECTION_ERROR:
      case LWS_CALLBACK_CLIENT_CLOSED:
        wsi_ = nullptr;
        locked([&] { closed_ = true; });
        break;
      default:
        break;
    }
    return 0;
  }

  static constexpr lws_protocols kProtocols[] = {
      {"zx-test-client", callback, 0, 65536, 0, nullptr, 0},
      {nullptr, nullptr, 0, 0, 0, nullptr, 0},
  };

  int port_;
  bool tls_;
  std::string path_;
  lws_context *ctx_ = nullptr;
  std::thread thread_;
  std::atomic<bool> stop_{false};
  lws *wsi_ = nullptr;  // service thread only

  std::mutex mu_;  // guards what follows
  std::deque<std::string> outgoing_;
  std::string received_;
  bool open_ = false;
  bool closed_ = false;
};

// The library's notices would bury the test output; warnings and errors stay.
class QuietLibrary : public ::testing::Environment {
 public:
  void SetUp() override { lws_set_log_level(LLL_ERR | LLL_WARN, nullptr); }
};
const auto *const kQuiet = ::testing::AddGlobalTestEnvironment(new QuietLibrary);

struct WsFixture : ::testing::TestWithParam<Transport> {
  bool tls() const { return GetParam() == Transport::Wss; }

  std::unique_ptr<ReferenceCollector> start(zxref::Behaviour b = {}) {
    zxref::Config config;
    config.transport = GetParam();
    config.behaviour = std::move(b);
    if (tls()) {
      config.tls_cert_file = pki.cert_file;
      config.tls_key_file = pki.key_file;
    }
    auto c = std::make_unique<ReferenceCollector>(std::move(config));
    EXPECT_TRUE(c->start()) << c->error();
    return c;
  }
  std::unique_ptr<WsClient> connect(ReferenceCollector &c, const std::string &path = "/") {
    auto client = std::make_unique<WsClient>(c.port(), tls() ? pki.ca_file : "", path);
    EXPECT_TRUE(client->wait_open());
    return client;
  }

  TestPki pki;
};

TEST_P(WsFixture, ControlConnectionGetsReplyCommandsAndHeartbeats) {
  auto c = start();
  // Any path, no sub-protocol.
  for (const char *path : {"/", "/any/path?x=1"}) {
    auto client = connect(*c, path);
    // The request split inside its line, a heartbeat in the same message as its end.
    client->send(kCtrlRequest.substr(0, 20));
    client->send(kCtrlRequest.substr(20) + "zx_control_req:action=reconnect;heartBeat 7;\n");
    EXPECT_TRUE(client->wait_for(zxref::reply::ok()));
    EXPECT_TRUE(client->wait_for(zxref::heartbeat_echo(7)));
    ASSERT_TRUE(c->send_start("status=running"));
    EXPECT_TRUE(client->wait_for(zxref::command("start_instrumentation", "status=running")));
  }
  const auto lines = c->lines(ConnKind::Control);
  ASSERT_EQ(lines.size(), 4u);
  EXPECT_EQ(lines[0].text + "\n", kCtrlRequest);
  EXPECT_NE(lines[0].conn_id, lines[2].conn_id);
}

// Whatever way the bytes are cut into messages, the records are those a TCP read of the
// same bytes gives.
TEST_P(WsFixture, RecordsDecodeAsOverTcp) {
  const std::vector<std::string> messages = {
      kDataRequest,
      "99,NewConnection,FPGVersion:1.0\n\n5,17,a/b.c\n6,18,x\n7,19,y\n",  // several lines
      "8,20,split/", "in/the/", "middle\n"};
  std::string stream;
  for (const auto &m : messages) stream += m;

  auto tcp = zxtest::start_collector();
  ::close(send_over_tcp(tcp->port(), stream));
  auto c = start();
  auto client = connect(*c);
  for (const auto &m : messages) client->send(m);

  auto five_records = [](const zxref::History &h) { return h.records.size() >= 5; };
  ASSERT_TRUE(tcp->wait_until(five_records, kWait));
  ASSERT_TRUE(c->wait_until(five_records, kWait));
  const auto want = tcp->records();
  const auto got = c->records();
  ASSERT_EQ(got.size(), want.size());
  for (std::size_t i = 0; i < got.size(); ++i) {
    EXPECT_EQ(got[i].number, want[i].number);
    EXPECT_EQ(got[i].fields, want[i].fields);
  }
  const auto h = c->snapshot();
  EXPECT_EQ(h.of(ConnKind::Data).blank_lines, 1u);
  EXPECT_EQ(h.of(ConnKind::Data).bytes, stream.size());
}

// The collector's own beat runs off the library's timer, not off traffic.
TEST_P(WsFixture, StallsBeatsAndClosesWhenTold) {
  zxref::Behaviour b;
  b.read_data = false;
  b.reply_bytes_per_write = 3;
  b.heartbeat_interval = 20ms;
  auto c = start(b);
  auto data = connect(*c);
  data->send(kDataRequest);
  ASSERT_TRUE(c->wait_for_connections(ConnKind::Data, 1, kWait));
  data->send("5,17,a/b.c\n");
  auto control = connect(*c);
  control->send(kCtrlRequest);
  // Each three-byte piece of the reply is a message of its own and still reads whole.
  EXPECT_TRUE(control->wait_for(zxref::reply::ok()));
  EXPECT_TRUE(control->wait_for(zxref::heartbeat_echo(1)));
  EXPECT_TRUE(control->wait_for(zxref::heartbeat_echo(3)));
  EXPECT_TRUE(c->records().empty());

  c->update_behaviour([](zxref::Behaviour &bb) { bb.read_data = true; });
  EXPECT_TRUE(c->wait_for_record(5, kWait).has_value());

  EXPECT_EQ(c->close_connections(ConnKind::Control), 1u);
  EXPECT_TRUE(control->wait_closed());
  EXPECT_TRUE(c->wait_for_closed(ConnKind::Control, 1, kWait));
}

// A client that connects and never finishes its handshake does not hold up stop().
TEST_P(WsFixture, StopsWhileAHandshakeIsUnfinished) {
  auto c = start();
  // The start of a TLS record, or of an upgrade request.
  const int fd =
      send_over_tcp(c->port(), tls() ? std::string("\x16\x03\x01\x02", 4) : "GET / HTTP/1.1\r\n");
  const auto t0 = Clock::now();
  c->stop();
  EXPECT_LT(Clock::now() - t0, 2s);
  ::close(fd);
}

INSTANTIATE_TEST_SUITE_P(Transports, WsFixture, ::testing::Values(Transport::Ws, Transport::Wss),
                         [](const auto &p) { return p.param == Transport::Ws ? "Ws" : "Wss"; });

bool verifies(const TestPki &pki, const std::string &cert, const std::string &host) {
  const std::string cmd = "openssl verify -CAfile '" + pki.ca_file + "' -verify_ip " + host + " '" +
                          cert + "' >/dev/null 2>&1";
  return std::system(cmd.c_str()) == 0;
}

// The collector refuses TLS without a usable certificate, and the certificates the
// agent's TLS tests rely on fail for the reason their names give.
TEST(WssCertificates, CollectorRefusesUnusableOnesAndTestPkiFailsAsNamed) {
  TestPki pki;
  zxref::Config config;
  config.transport = Transport::Wss;
  EXPECT_FALSE(ReferenceCollector(config).start());
  config.tls_cert_file = pki.cert_file;
  config.tls_key_file = pki.ca_file;  // not the key
  ReferenceCollector wrong_key(config);
  EXPECT_FALSE(wrong_key.start());
  EXPECT_NE(wrong_key.error(), "");

  EXPECT_TRUE(verifies(pki, pki.cert_file, "127.0.0.1"));
  EXPECT_FALSE(verifies(pki, pki.unknown_ca().cert_file, "127.0.0.1"));
  EXPECT_FALSE(verifies(pki, pki.wrong_host().cert_file, "127.0.0.1"));
  EXPECT_TRUE(verifies(pki, pki.wrong_host().cert_file, "192.0.2.1"));
  EXPECT_FALSE(verifies(pki, pki.expired().cert_file, "127.0.0.1"));
}

}  // namespace
