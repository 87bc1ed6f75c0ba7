// The collector link over WebSocket and TLS-wrapped WebSocket, end to end:
// the agent reaches them by negotiation or SaaS, as it would in the field.
#include <gtest/gtest.h>
#include <libwebsockets.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <string>
#include <vector>

#include "ZXDataDispatcher.h"
#include "ZXWebSocketConnection.h"
#include "flowpath_decode.h"
#include "tdigest_record.h"
#include "test_support.h"
#include "zx_sdk.h"
#include "zxbt_bt_object.h"

namespace {

using namespace std::chrono_literals;
using zxref::Behaviour;
using zxref::ConnKind;
using zxref::ReferenceCollector;
using zxref::Transport;

constexpr auto kWait = 30s;

std::unique_ptr<ReferenceCollector> start_on(Transport t, const zxtest::TestPki::Pair &cert,
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

class WsLinkTest : public ::testing::Test, protected zxtest::LinkedAgent {
 protected:
  // The library's notices, formatted in one buffer for every context, race
  // between the collectors' threads; the agent keeps to errors and warnings.
  void SetUp() override { lws_set_log_level(LLL_ERR | LLL_WARN, lws_log); }
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

// One script through the SDK; every transport must bring the same flowpaths.
class SameRecords : public WsLinkTest, public ::testing::WithParamInterface<Transport> {};

TEST_P(SameRecords, OverEveryTransport) {
  auto c = start_on(GetParam(), good());
  std::unique_ptr<ReferenceCollector> entry;
  std::uint16_t first = c->port();
  if (GetParam() != Transport::Tcp) {
    entry = offering(std::string(name_of(GetParam())) + ":" + std::to_string(c->port()));
    first = entry->port();
  }
  ZXProxyInstance_t &a = link_to(first, settings());
  a.ZXSys.bciDataBufferMaxSize = 1 << 16;
  run_loop();
  zx_set_init_pause_ms(0);
  zx_init();
  start_run(*c);
  EXPECT_EQ(a.ActiveAgentProtocolIndex, GetParam() == Transport::Tcp  ? 1
                                        : GetParam() == Transport::Ws ? 2
                                                                      : 3);

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
}

INSTANTIATE_TEST_SUITE_P(Transports, SameRecords,
                         ::testing::Values(Transport::Tcp, Transport::Ws, Transport::Wss),
                         [](const auto &p) { return std::string(name_of(p.param)); });

// The auto-sensor connection follows the link onto WebSocket: record 96 of a
// one-second monitor interval arrives over it, whole and decodable.
class AutoSensorOver : public WsLinkTest, public ::testing::WithParamInterface<Transport> {};

TEST_P(AutoSensorOver, WebSocketCarriesRecord96) {
  auto c = start_on(GetParam(), good());
  auto entry = offering(std::string(name_of(GetParam())) + ":" + std::to_string(c->port()));
  ZXProxyInstance_t &a = link_to(entry->port(), settings());
  a.ZXSys.bciASDataBufferMaxSize = 4096;
  a.ZXSys.ASDataBuffMaxCount = 8;
  run_loop();
  start_run(*c,
            "status=running;tierName=T;appName=A;zxAppServerHost=S;tierID=3;appID=9;"
            "zxMonitorInterval=1;tDigestPercentileBT=1%200%202%20100%20100%20793%201");
  ASSERT_TRUE(c->wait_for_connections(ConnKind::AutoSensor, 1, kWait));
  char name[ZXBT_NAME_SIZE] = "Login";
  BTObject *login = updateBTObject(a, name);
  ASSERT_NE(login, nullptr);
  ZXBTTransaction_t tx;
  tx.btObj = login;
  tx.duration = 42;
  tx.category = ZXBT_CATEGORY_NORMAL;
  ASSERT_TRUE(updateCounterAndDurationForBT(a, tx));
  ASSERT_TRUE(c->wait_until(
      [](const zxref::History &h) {
        for (const zxref::Record &r : h.records) {
          if (r.number != 96 || r.fields.size() < 2 ||
              r.fields[1].find(":T>S>A>Login") == std::string::npos)
            continue;
          EXPECT_EQ(r.kind, ConnKind::AutoSensor);
          auto decoded = zxref::decode_tdigest_record(r);
          return decoded && decoded->count == 1;
        }
        return false;
      },
      kWait));
}

INSTANTIATE_TEST_SUITE_P(Transports, AutoSensorOver,
                         ::testing::Values(Transport::Ws, Transport::Wss),
                         [](const auto &p) { return std::string(name_of(p.param)); });

TEST_F(WsLinkTest, SaasRetriesAnErrorThenLeadsOverWssToTheNamedCollectorWhichMayOfferTcp) {
  // The named collector speaks WSS and offers TCP elsewhere: the link ends
  // on TCP, having switched back.
  auto tcp = zxtest::start_collector();
  Behaviour named;
  named.reply =
      zxref::reply::with_protocols(zxref::reply::ok(), "TCP:" + std::to_string(tcp->port()));
  auto wss = start_on(Transport::Wss, good(), named);
  // The endpoint refuses the key at first: logged, and asked again.
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
      [](std::string_view l) { return l.rfind("mor_saas_auth_agent_msg_req:", 0) == 0; }, kWait);
  ASSERT_TRUE(request);
  EXPECT_NE(request->text.find(";projectKey=key-42;"), std::string::npos);
  auto atNamed = wss->wait_for_control_line(
      [](std::string_view l) { return l.rfind("zx_ctrl_msg_req:", 0) == 0; }, kWait);
  ASSERT_TRUE(atNamed);
  start_run(*tcp);
  EXPECT_EQ(app().ActiveAgentProtocolIndex, 1);
  const std::string log = trace_log();
  EXPECT_NE(log.find("Error Received: 'mor_saas_auth_agent_msg_rep:status=ERROR"),
            std::string::npos);
  EXPECT_NE(log.find("Closing Control Connection with SAAS and going to make connection with ZXC"),
            std::string::npos);
  EXPECT_NE(log.find("Hence Switching Protocol"), std::string::npos);
}

TEST_F(WsLinkTest, ChangedPortReconnectsThere) {
  auto target = zxtest::start_collector();
  auto entry = offering("TCP:" + std::to_string(target->port()));
  link_to(entry->port(), settings());
  run_loop();
  start_run(*target);
  EXPECT_NE(trace_log().find("Protocols are same but port of protocol are differenet"),
            std::string::npos);
}

// Certificates the agent must refuse unless told otherwise; each refusal
// names OpenSSL's reason.
TEST_F(WsLinkTest, CertificatesAreVerifiedUnlessTurnedOffExplicitly) {
  zx::AprSession apr;
  zxtest::ScopedTraceKey trace(zxlb_init_mt_trace_log_ex(home().str().c_str(), "wss.log", 1, 100));
  char err[512];
  auto connect = [&](const ReferenceCollector &c, ZXTlsSettings tls) {
    err[0] = '\0';
    return zx_open_websocket(true, "127.0.0.1", c.port(), apr_time_from_sec(5),
                             apr_time_from_msec(200), tls, err, sizeof err, {});
  };
  struct Case {
    const char *what;
    zxtest::TestPki::Pair cert;
    const char *reason;
  } cases[] = {
      {"unknown CA", pki.unknown_ca(), "certificate"},
      {"wrong host", pki.wrong_host(), "mismatch"},
      {"expired", pki.expired(), "expired"},
  };
  for (const Case &k : cases) {
    SCOPED_TRACE(k.what);
    auto c = start_on(Transport::Wss, k.cert);
    EXPECT_FALSE(connect(*c, {pki.ca_file, true}));
    EXPECT_NE(std::string(err).find(k.reason), std::string::npos) << err;
    auto lenient = connect(*c, {pki.ca_file, false});
    EXPECT_TRUE(lenient) << err;
    // Connections share the parsed trust, not the leniency.
    EXPECT_FALSE(connect(*c, {pki.ca_file, true}));
  }
  const std::string log = zxtest::read_file(home().path() / "wss.log_0");
  EXPECT_EQ(zxtest::count_of(log, "Certificate verification is off"), 3u);

  // The test CA is trusted through the CA file, or through OpenSSL's own
  // variable, and not otherwise.
  auto c = start_on(Transport::Wss, good());
  {
    zxtest::ScopedEnv store("SSL_CERT_FILE", "/nonexistent");
    zxtest::ScopedEnv dir("SSL_CERT_DIR", "/nonexistent");
    EXPECT_FALSE(connect(*c, {}));
    EXPECT_TRUE(connect(*c, {pki.ca_file, true})) << err;
  }
  zxtest::ScopedEnv store("SSL_CERT_FILE", pki.ca_file.c_str());
  EXPECT_TRUE(connect(*c, {})) << err;
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
  EXPECT_NE(trace_log().find("certificate not accepted"), std::string::npos);
}

// Faults over WSS.
class WssFaults : public WsLinkTest {
 protected:
  ZXProxyInstance_t &link(ReferenceCollector &wss, ReferenceCollector &entry) {
    ZXProxyInstance_t &a = link_to(entry.port(), settings());
    a.ZXSys.zxcBciDataConnectionHeartBeat = 0;
    run_loop();
    start_run(wss);
    return a;
  }
};

int send_numbered(int n, const std::string &pad) {
  const std::string rec = "7,r" + std::to_string(n) + "," + pad + "\n";
  return dumpData(tlzxApplication, rec.data(), static_cast<int>(rec.size()));
}

TEST_F(WssFaults, CollectorKilledMidRunIsReconnected) {
  auto wss = start_on(Transport::Wss, good());
  const std::uint16_t port = wss->port();
  auto entry = offering("WSS:" + std::to_string(port));
  link(*wss, *entry);
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
}

TEST_F(WssFaults, StalledCollectorCostsTheHostNothingAndDropsAreCounted) {
  auto wss = start_on(Transport::Wss, good());
  auto entry = offering("WSS:" + std::to_string(wss->port()));
  ZXProxyInstance_t &a = link(*wss, *entry);
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
