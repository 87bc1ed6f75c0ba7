// The reference collector over WebSocket and TLS-wrapped WebSocket: the same protocol
// handling as over TCP, whatever way the bytes are cut into messages.
#include <gtest/gtest.h>

#include <memory>
#include <string>
#include <vector>

#include <libwebsockets.h>

#include "ZXSocketManager.h"
#include "reference_collector.h"
#include "test_support.h"
#include "zxlb_apr.h"

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

// The agent's end, over the agent's own connection for the protocol (1 TCP,
// 2 WS, 3 WSS): over WS each send goes out as one message; what arrives is
// one byte stream.
class Client {
 public:
  Client(int protocol, std::uint16_t port, const std::string &ca_file = "") {
    ZXTlsSettings tls;
    tls.caFile = ca_file;
    char err[256] = "";
    const apr_interval_time_t timeout = apr_time_from_sec(5);
    conn_ =
        zx_open_connection(protocol, "127.0.0.1", port, timeout, timeout, err, sizeof err, {}, tls);
    EXPECT_TRUE(conn_) << err;
  }
  void send(const std::string &message) {
    char err[256] = "";
    ASSERT_TRUE(conn_);
    EXPECT_EQ(conn_->send_all(message.data(), message.size(), err, sizeof err), 0) << err;
  }
  // Waits until `text` has arrived, consuming everything up to and including
  // it; with an empty `text`, until the peer closes.
  bool wait_for(const std::string &text) {
    char buf[4096], err[256];
    for (const auto deadline = Clock::now() + kWait; conn_ && Clock::now() < deadline;) {
      const auto at = text.empty() ? std::string::npos : received_.find(text);
      if (at != std::string::npos) {
        received_.erase(0, at + text.size());
        return true;
      }
      if (conn_->wait_readable(apr_time_from_msec(50), err, sizeof err) ==
          ZXConnection::Wait::Error)
        return text.empty();
      const long n = conn_->receive(buf, sizeof buf, err, sizeof err);
      if (n < 0) return text.empty();
      received_.append(buf, static_cast<std::size_t>(n));
    }
    return false;
  }

 private:
  zx::AprSession apr_;  // the connection's pools need APR
  std::unique_ptr<ZXConnection> conn_;
  std::string received_;
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
  std::unique_ptr<Client> connect(ReferenceCollector &c) {
    return std::make_unique<Client>(tls() ? 3 : 2, c.port(), tls() ? pki.ca_file : "");
  }

  TestPki pki;
};

TEST_P(WsFixture, ControlConnectionGetsReplyCommandsAndHeartbeats) {
  auto c = start();
  for (int conn = 0; conn < 2; ++conn) {
    auto client = connect(*c);
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
  Client(1, tcp->port()).send(stream);
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
  EXPECT_TRUE(control->wait_for(""));
  EXPECT_TRUE(c->wait_for_closed(ConnKind::Control, 1, kWait));
}

// A client that connects and never finishes its handshake does not hold up stop().
TEST_P(WsFixture, StopsWhileAHandshakeIsUnfinished) {
  auto c = start();
  // The start of a TLS record, or of an upgrade request.
  Client held_open(1, c->port());
  held_open.send(tls() ? std::string("\x16\x03\x01\x02", 4) : "GET / HTTP/1.1\r\n");
  const auto t0 = Clock::now();
  c->stop();
  EXPECT_LT(Clock::now() - t0, 2s);
}

INSTANTIATE_TEST_SUITE_P(Transports, WsFixture, ::testing::Values(Transport::Ws, Transport::Wss),
                         [](const auto &p) { return p.param == Transport::Ws ? "Ws" : "Wss"; });

TEST(WssCollector, RefusesToStartWithoutAUsableCertificate) {
  TestPki pki;
  zxref::Config config;
  config.transport = Transport::Wss;
  EXPECT_FALSE(ReferenceCollector(config).start());
  config.tls_cert_file = pki.cert_file;
  config.tls_key_file = pki.ca_file;  // not the key
  ReferenceCollector wrong_key(config);
  EXPECT_FALSE(wrong_key.start());
  EXPECT_NE(wrong_key.error(), "");
}

}  // namespace
