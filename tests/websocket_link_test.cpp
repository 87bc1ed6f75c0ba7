// The agent's WebSocket transport: its connection's waits, hang-ups and
// certificate checks, and the collector link over it end to end, as the agent
// reaches it by negotiation or SaaS in the field.
#include <gtest/gtest.h>
#include <libwebsockets.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <string>
#include <thread>
#include <vector>

#include "ZXDataDispatcher.h"
#include "ZXWebSocketConnection.h"
#include "flowpath_decode.h"
#include "tdigest_record.h"
#include "test_support.h"
#include "zx_sdk.h"
#include "zxbt_bt_object.h"
#include "zxlb_apr.h"

namespace {

using namespace std::chrono_literals;
using zxref::Behaviour;
using zxref::ConnKind;
using zxref::ReferenceCollector;
using zxref::Transport;

constexpr auto kWait = 30s;

std::unique_ptr<ReferenceCollector> start_on(Transport t, const zxtest::TestPki::Pair &cert = {},
                                             Behaviour b = {}, std::uint16_t port = 0) {
  zxref::Config config;
  config.transport = t;
  config.tls_cert_file = cert.cert_file;
  config.tls_key_file = cert.key_file;
  config.port = port;
  config.behaviour = std::move(b);
  auto c = std::make_unique<ReferenceCollector>(std::move(config));
  EXPECT_TRUE(c->start()) << c->error();
  return c;
}

// A TCP collector whose only part is to offer another transport and port.
std::unique_ptr<ReferenceCollector> offering(const std::string &protocols) {
  Behaviour b;
  b.reply = zxref::reply::with_protocols(zxref::reply::ok(), protocols);
  return zxtest::start_collector(b);
}

const char *name_of(Transport t) {
  return t == Transport::Tcp ? "TCP" : t == Transport::Ws ? "WS" : "WSS";
}

// The library's notices, formatted in one buffer for every context, race
// between the collectors' threads; the agent keeps to errors and warnings.
void quiet_websockets() {
  lws_set_log_level(LLL_ERR | LLL_WARN, lws_log);
}

// One connection at a time, opened directly.
struct WsConnection : ::testing::Test {
  void SetUp() override { quiet_websockets(); }
  std::unique_ptr<ZXConnection> open(int port, bool tls = false, const ZXTlsSettings &s = {}) {
    err[0] = '\0';
    return zx_open_websocket(tls, "127.0.0.1", port, apr_time_from_sec(5), apr_time_from_msec(200),
                             s, err, sizeof err, {});
  }
  zx::AprSession apr;
  zxtest::TestPki pki;
  char err[512] = {};
};

// A wakeup ends a wait from another thread or the next one, a deadline bounds
// it even when due before the library waits, and a peer's hang-up fails reads
// and sends alike.
TEST_F(WsConnection, WaitsEndAndHangUpsAreSeen) {
  auto c = start_on(Transport::Ws);
  auto conn = open(c->port());
  ASSERT_TRUE(conn) << err;
  conn->wakeup();
  EXPECT_EQ(conn->wait_readable(apr_time_from_sec(10), err, sizeof err), ZXConnection::Wait::Woken);
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
  const auto start = std::chrono::steady_clock::now();
  waiting = true;
  EXPECT_EQ(conn->wait_readable(apr_time_from_sec(10), err, sizeof err), ZXConnection::Wait::Woken);
  EXPECT_LT(std::chrono::steady_clock::now() - start, 5s);
  waker.join();

  const std::string request = "zx_ctrl_msg_req:appName=a;tierName=t;protoVer=1 \n";
  ASSERT_EQ(conn->send_all(request.data(), request.size(), err, sizeof err), 0);
  std::string got;
  char buf[64];
  while (got.find('\n') == std::string::npos &&
         conn->wait_readable(apr_time_from_sec(5), err, sizeof err) == ZXConnection::Wait::Readable)
    if (long n = conn->receive(buf, sizeof buf, err, sizeof err); n >= 0)
      got.append(buf, static_cast<std::size_t>(n));
  EXPECT_EQ(got, zxref::reply::ok());
  ASSERT_EQ(c->close_connections(ConnKind::Control), 1u);
  ASSERT_EQ(conn->wait_readable(apr_time_from_sec(5), err, sizeof err),
            ZXConnection::Wait::Readable);
  EXPECT_EQ(conn->receive(buf, sizeof buf, err, sizeof err), -1);
  EXPECT_EQ(conn->send_some("x\n", 2, err, sizeof err), -1);
  EXPECT_EQ(conn->send_all("x\n", 2, err, sizeof err), -2);
}

// Certificates the agent must refuse unless told otherwise, each refusal
// naming OpenSSL's reason; the test CA trusted through the CA file or
// OpenSSL's own variable, and not otherwise.
TEST_F(WsConnection, CertificatesAreVerifiedUnlessTurnedOffExplicitly) {
  const struct {
    const char *what;
    zxtest::TestPki::Pair cert;
    const char *reason;
  } cases[] = {
      {"unknown CA", pki.unknown_ca(), "certificate"},
      {"wrong host", pki.wrong_host(), "mismatch"},
      {"expired", pki.expired(), "expired"},
  };
  for (const auto &k : cases) {
    SCOPED_TRACE(k.what);
    auto c = start_on(Transport::Wss, k.cert);
    EXPECT_FALSE(open(c->port(), true, {pki.ca_file, true}));
    EXPECT_NE(std::string(err).find(k.reason), std::string::npos) << err;
    EXPECT_TRUE(open(c->port(), true, {pki.ca_file, false})) << err;
    // Connections share the parsed trust, not the leniency.
    EXPECT_FALSE(open(c->port(), true, {pki.ca_file, true}));
  }

  auto c = start_on(Transport::Wss, {pki.cert_file, pki.key_file});
  {
    zxtest::ScopedEnv store("SSL_CERT_FILE", "/nonexistent");
    zxtest::ScopedEnv dir("SSL_CERT_DIR", "/nonexistent");
    EXPECT_FALSE(open(c->port(), true));
    EXPECT_TRUE(open(c->port(), true, {pki.ca_file, true})) << err;
  }
  zxtest::ScopedEnv store("SSL_CERT_FILE", pki.ca_file.c_str());
  EXPECT_TRUE(open(c->port(), true)) << err;

  // Handshakes on several threads at once, each verified on its own (the
  // library's own verification lost its connection when another thread made
  // a context mid-handshake).
  std::vector<std::thread> threads;
  for (int i = 0; i < 4; ++i)
    threads.emplace_back([&] {
      char e[256] = {};
      if (!zx_open_websocket(true, "127.0.0.1", c->port(), apr_time_from_sec(30),
                             apr_time_from_msec(200), {pki.ca_file, true}, e, sizeof e, {}))
        ADD_FAILURE() << e;
    });
  for (std::thread &t : threads) t.join();
}

class WsLinkTest : public ::testing::Test, protected zxtest::LinkedAgent {
 protected:
  void SetUp() override { quiet_websockets(); }
  // The agent supports every transport and trusts the test CA.
  std::string settings(const std::string &more = "") const {
    return "ZXC_COMM_PROTOCOL=TCP:7892,WS:80,WSS:443\nzxTlsCaFile=" + pki.ca_file + "\n" + more;
  }
  zxtest::TestPki::Pair good() const { return {pki.cert_file, pki.key_file}; }
  // TLS handshakes under the sanitizers on a busy machine take seconds.
  ZXProxyInstance_t &link_to(std::uint16_t port, const std::string &extra) {
    ZXProxyInstance_t &a = configure(port, extra);
    a.linkTimings.connectTimeout = apr_time_from_sec(15);
    return a;
  }

  zxtest::TestPki pki;
};

// One script through the SDK, the link negotiated onto each transport (TCP
// on another port): every transport brings the same flowpaths, and the
// auto-sensor connection follows the link with the BT's record 96.
class SameRecords : public WsLinkTest, public ::testing::WithParamInterface<Transport> {};

TEST_P(SameRecords, OverEveryTransport) {
  auto c = start_on(GetParam(), good());
  auto entry = offering(std::string(name_of(GetParam())) + ":" + std::to_string(c->port()));
  ZXProxyInstance_t &a = link_to(entry->port(), settings());
  a.ZXSys.bciDataBufferMaxSize = 1 << 16;
  a.ZXSys.bciASDataBufferMaxSize = 4096;
  a.ZXSys.ASDataBuffMaxCount = 8;
  run_loop();
  zx_set_init_pause_ms(0);
  zx_init();
  start_run(*c,
            "status=running;tierName=T;appName=A;zxAppServerHost=S;tierID=3;appID=9;"
            "zxMonitorInterval=1;tDigestPercentileBT=1%200%202%20100%20100%20793%201");
  EXPECT_EQ(a.ActiveAgentProtocolIndex, static_cast<int>(GetParam()) + 1);

  constexpr int kCount = 20;
  std::vector<std::string> expected;
  for (int i = 0; i < kCount; ++i) {
    const std::string url = "/cart/add?sku=" + std::to_string(i);
    zxBTHandle bt = zx_bt_begin(url.c_str(), nullptr);
    ASSERT_NE(bt, nullptr);
    zx_method_entry(bt, "Cart.add");
    zx_ip_http_callout_end(bt, zx_ip_http_callout_begin(bt, "stock.svc", "/reserve"));
    zx_method_exit(bt, "Cart.add");
    EXPECT_EQ(zx_bt_end(bt, 200 + i % 3), 0);
    zx_bt_release(bt);
    expected.push_back(url + " /cart/add " + std::to_string(200 + i % 3) + " Cart.add stock.svc");
  }

  // What the collector decodes, without ids and times.
  auto seen = [&] {
    zxref::FlowpathStore store;
    for (const zxref::Record &r : c->records()) store.add(r);
    std::vector<std::string> out;
    for (const zxref::Flowpath &f : store.finished()) {
      if (!f.header) continue;
      const zxref::CallTree tree = zxref::build_call_tree(zxref::parse_blob(f.blob).entries);
      std::string line =
          f.header->url + " " + store.names().bt(f.bt_id) + " " + std::to_string(f.status);
      for (const zxref::CallNode &root : tree.roots)
        for (const zxref::CallNode &m : root.children) {
          line += " " + store.names().method(m.method_id);
          for (const auto &co : m.callouts) line += " " + store.names().method(co.method_id);
        }
      out.push_back(line);
    }
    std::sort(out.begin(), out.end());
    return out;
  };
  std::sort(expected.begin(), expected.end());
  EXPECT_TRUE(zxtest::wait_until([&] { return seen().size() >= expected.size(); }, kWait));
  EXPECT_EQ(seen(), expected);
  zx_data_counters_t counts{};
  ASSERT_EQ(zx_data_counters_get(&counts, sizeof counts), 0);
  EXPECT_EQ(counts.records, counts.sent + counts.queued);

  // A BT's digest over the auto-sensor connection, whole and decodable.
  char name[ZXBT_NAME_SIZE] = "Login";
  ZXBTTransaction_t tx;
  tx.btObj = updateBTObject(a, name);
  ASSERT_NE(tx.btObj, nullptr);
  tx.duration = 42;
  tx.category = ZXBT_CATEGORY_NORMAL;
  ASSERT_TRUE(updateCounterAndDurationForBT(a, tx));
  EXPECT_TRUE(c->wait_until(
      [](const zxref::History &h) {
        for (const zxref::Record &r : h.records) {
          if (r.number != 96 || r.fields.size() < 2 ||
              r.fields[1].find(":T>S>A>Login") == std::string::npos)
            continue;
          EXPECT_EQ(r.kind, ConnKind::AutoSensor);
          const auto decoded = zxref::decode_tdigest_record(r);
          return decoded && decoded->count == 1;
        }
        return false;
      },
      kWait));
}

INSTANTIATE_TEST_SUITE_P(Transports, SameRecords,
                         ::testing::Values(Transport::Tcp, Transport::Ws, Transport::Wss),
                         [](const auto &p) { return std::string(name_of(p.param)); });

TEST_F(WsLinkTest, SaasRetriesAnErrorThenLeadsOverWssToTheNamedCollectorWhichMayOfferTcp) {
  // The named collector speaks WSS and offers TCP elsewhere: the link ends
  // on TCP, having switched back.
  auto tcp = zxtest::start_collector();
  Behaviour named;
  named.reply =
      zxref::reply::with_protocols(zxref::reply::ok(), "TCP:" + std::to_string(tcp->port()));
  auto wss = start_on(Transport::Wss, good(), named);
  // The endpoint refuses the key at first, and is asked again.
  Behaviour saas;
  saas.reply = "mor_saas_auth_agent_msg_rep:status=ERROR;reason=unknown project\n";
  auto endpoint = start_on(Transport::Wss, good(), saas);

  link_to(endpoint->port(), settings("zxProjectKey=key-42\nzxSaasURL=127.0.0.1:" +
                                     std::to_string(endpoint->port()) + "\n"));
  run_loop();
  ASSERT_TRUE(endpoint->wait_for_connections(ConnKind::Control, 2, kWait));
  endpoint->update_behaviour([&](Behaviour &b) {
    b.reply = "mor_saas_auth_agent_msg_rep:status=OK;zxcHost=127.0.0.1;zxcPort=" +
              std::to_string(wss->port()) + "\n";
  });
  auto request = endpoint->wait_for_control_line(
      [](std::string_view l) { return l.starts_with("mor_saas_auth_agent_msg_req:"); }, kWait);
  ASSERT_TRUE(request);
  EXPECT_NE(request->text.find(";projectKey=key-42;"), std::string::npos);
  EXPECT_TRUE(wss->wait_for_control_line(
      [](std::string_view l) { return l.starts_with("zx_ctrl_msg_req:"); }, kWait));
  start_run(*tcp);
  EXPECT_EQ(app().ActiveAgentProtocolIndex, 1);
}

TEST_F(WsLinkTest, UnverifiedCollectorIsRetriedLikeAnUnreachableOne) {
  auto bad = start_on(Transport::Wss, pki.wrong_host());
  auto entry = offering("WSS:" + std::to_string(bad->port()));
  link_to(entry->port(), settings());
  run_loop();
  // Negotiated to WSS, refused there, back to the entry on TCP.
  ASSERT_TRUE(entry->wait_for_connections(ConnKind::Control, 2, kWait));
  stop_agent();
  EXPECT_EQ(bad->snapshot().of(ConnKind::Control).connections, 0u);
}

int send_numbered(int n, const std::string &pad) {
  const std::string rec = "7,r" + std::to_string(n) + "," + pad + "\n";
  return dumpData(tlzxApplication, rec.data(), static_cast<int>(rec.size()));
}

// A WSS collector killed mid-run is reconnected on its port; stalled, it
// costs the host nothing and every drop is counted.
TEST_F(WsLinkTest, WssCollectorKilledThenStalled) {
  auto wss = start_on(Transport::Wss, good());
  const std::uint16_t port = wss->port();
  auto entry = offering("WSS:" + std::to_string(port));
  ZXProxyInstance_t &a = link_to(entry->port(), settings());
  a.ZXSys.zxcBciDataConnectionHeartBeat = 0;
  run_loop();
  start_run(*wss);
  for (int i = 0; i < 50; ++i) ASSERT_EQ(send_numbered(i, "before"), 0);
  ASSERT_TRUE(
      wss->wait_until([](const zxref::History &h) { return h.records.size() >= 50; }, kWait));
  wss->stop();
  wss = start_on(Transport::Wss, good(), {}, port);
  start_run(*wss);
  for (int i = 0; i < 50; ++i) ASSERT_EQ(send_numbered(i, "after"), 0);
  EXPECT_TRUE(wss->wait_until(
      [](const zxref::History &h) {
        return std::count_if(h.records.begin(), h.records.end(), [](const zxref::Record &r) {
                 return r.number == 7 && r.fields.size() > 2 && r.fields[2] == "after";
               }) == 50;
      },
      kWait));

  wss->update_behaviour([](Behaviour &b) { b.read_data = false; });
  const std::string pad(200, 'p');
  // Producers never wait: the pool fills, then records are dropped. The
  // data thread may still free a buffer or two while the socket's buffers
  // fill, so drops are counted until there are enough, not from the first.
  const auto t0 = std::chrono::steady_clock::now();
  for (int n = 0; readSendCounts(a.sendBuffers).lostPoolFull < 100; ++n) {
    send_numbered(n, pad);
    ASSERT_LT(n, 1000000);
  }
  EXPECT_LT(std::chrono::steady_clock::now() - t0, 5s);
  const ZXSendCounts counts = readSendCounts(a.sendBuffers);
  EXPECT_EQ(counts.records, counts.sent + counts.queued + counts.lost());
}

TEST_F(WsLinkTest, HandshakeThatNeverCompletesDoesNotHoldTheExit) {
  // Accepts and says nothing: the TLS handshake waits for ever.
  int fd = ::socket(AF_INET, SOCK_STREAM, 0);
  sockaddr_in addr{};
  addr.sin_family = AF_INET;
  addr.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  socklen_t len = sizeof addr;
  ASSERT_EQ(::bind(fd, reinterpret_cast<sockaddr *>(&addr), len), 0);
  ASSERT_EQ(::listen(fd, 8), 0);
  ASSERT_EQ(::getsockname(fd, reinterpret_cast<sockaddr *>(&addr), &len), 0);
  const int port = ntohs(addr.sin_port);
  ZXProxyInstance_t &a =
      link_to(static_cast<std::uint16_t>(port),
              settings("zxProjectKey=k\nzxSaasURL=127.0.0.1:" + std::to_string(port) + "\n"));
  a.linkTimings.connectTimeout = apr_time_from_sec(60);
  run_loop();
  int peer = -1;
  ASSERT_TRUE(zxtest::wait_until(
      [&] { return (peer = ::accept4(fd, nullptr, nullptr, SOCK_NONBLOCK)) >= 0; }, kWait));
  const auto t0 = std::chrono::steady_clock::now();
  stop_agent();
  EXPECT_LT(std::chrono::steady_clock::now() - t0, 1s);
  ::close(peer);
  ::close(fd);
}

}  // namespace
