// Proxy mode must not change what the collector learns. One script of
// engine calls (the SDK's, with the times given so that both runs see the
// same clock) runs once in an engine that traces it itself, and once in a
// proxy-mode process whose frames, cut into reads anywhere, replay into a
// second engine. Both must write the same flowpaths, names and BT counts;
// only ids and measured times may differ.
#include <gtest/gtest.h>

#include <algorithm>
#include <cstdint>
#include <functional>
#include <map>
#include <random>
#include <set>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include "ZXBTMonitor.h"
#include "ZXCallOut.h"
#include "ZXDataDispatcher.h"
#include "ZXFlowpathGenerator.h"
#include "ZXFrameStream.h"
#include "ZXMethodManager.h"
#include "ZXProxyApplications.h"
#include "flowpath_decode.h"
#include "test_support.h"
#include "zx_tier_callout.h"
#include "zxbt_rule_parser.h"
#include "zxlb_mem_pool.h"
#include "zxlb_utiles.h"

namespace {

constexpr int kThreads = 3;
constexpr int kPerThread = 40;

// One request of kind i % 7 on thread t; times are T0-relative and given.
void request(ZXProxyInstance_t &app, long long T0, int t, int i, std::string &tierHeader) {
  const long long tid = 100 + t;
  const long long at = T0 + 1000LL * i;
  auto entry = [&](ZXPerThreadData_t *r, const char *m, long long ms) {
    zxMethodEntry(&app, nullptr, r, m, "/test", nullptr, tid, nullptr, 0, at + ms);
  };
  auto exit = [&](ZXPerThreadData_t *r, const char *m, long long ms) {
    zxMethodExit(&app, nullptr, r, m, -1, 200, nullptr, -1, tid, 0, 0, 1, 0, at + ms);
  };
  const int kind = i % 7;
  static const char *const urls[] = {"/shop/cart",   "/shop/checkout", "/shop/checkout",
                                     "/shop/search", "/shop/cart",     "/shop/cart",
                                     "/shop/cart"};
  // A forced flowpath brings its own id; a chained one its caller's header.
  const std::string forced = std::to_string(700000 + 1000 * t + i) + "F";
  const char *header = kind == 4 ? forced.c_str() : kind == 5 ? "9000_9001F_7.1" : nullptr;
  ZXPerThreadData_t *r =
      startFP(&app, header, urls[kind], nullptr, 0, nullptr, nullptr, nullptr, 0, at);
  ASSERT_NE(r, nullptr);
  int status = 200;
  long long end = 10;
  switch (kind) {
    case 0:
    case 4:
    case 5: {  // nested methods and a database call-out
      entry(r, "Cart.load", 1);
      entry(r, "Cart.price", 2);
      exit(r, "Cart.price", 4);
      methodPropProperties *db =
          beginCallOut(&app, r, ZXCallOutKind::Database, "orders-db", "SELECT * FROM cart");
      endCallOut(&app, r, ZXCallOutKind::Database, db);
      exit(r, "Cart.load", 8);
      break;
    }
    case 1: {  // an HTTP call-out to a tier that joins the chain
      entry(r, "Checkout.pay", 1);
      methodPropProperties *http =
          beginCallOut(&app, r, ZXCallOutKind::Http, "payments.internal:8443", nullptr);
      if (const char *h = getTierCallOut(r)) tierHeader += std::string(h) + "\n";
      endCallOut(&app, r, ZXCallOutKind::Http, http);
      exit(r, "Checkout.pay", 20);
      end = 25;
      break;
    }
    case 2:  // a method that throws, and the request fails
      entry(r, "Checkout.validate", 1);
      zxMethodExitException(&app, nullptr, r, "Checkout.validate", -1, 500, nullptr, 3, 0, tid, 0,
                            0, 3);
      status = 500;
      break;
    case 3:  // slow
      entry(r, "Search.run", 1);
      exit(r, "Search.run", 3500);
      end = 3600;
      break;
    case 6:  // very slow, and an HTTP call-out inside a method
      entry(r, "Cart.sync", 1);
      {
        methodPropProperties *http =
            beginCallOut(&app, r, ZXCallOutKind::Http, "stock.internal:80", nullptr);
        endCallOut(&app, r, ZXCallOutKind::Http, http);
      }
      exit(r, "Cart.sync", 9000);
      end = 9100;
      break;
  }
  endFP(&app, r, status, 0, at + end);
  releaseFP(&app, r);
}

// The script on kThreads threads; each thread's outgoing tier headers, in call order.
std::vector<std::string> runScript(ZXProxyInstance_t &app, long long T0) {
  std::vector<std::string> tierHeaders(kThreads);
  std::vector<std::thread> threads;
  for (int t = 0; t < kThreads; ++t)
    threads.emplace_back([&, t] {
      for (int i = 0; i < kPerThread; ++i) request(app, T0, t, i, tierHeaders[t]);
    });
  for (auto &th : threads) th.join();
  return tierHeaders;
}

// An engine ready to trace (or, in proxy mode, to send frames).
void prepare(ZXProxyInstance_t &app, bool proxyMode) {
  app.ZXSys.proxyMode = proxyMode ? 1 : 0;
  app.ZXSys.bciDataBufferMaxSize = 1 << 20;
  app.ZXSys.dataBuffMaxCount = 64;
  app.dataThreadRunning = true;  // so that new names are announced
  ASSERT_EQ(buff_list_init(&app), 0);
  initPerThreadSlots(&app);
  if (!proxyMode) {
    setMethodHashMapNode(&app, "Cart.load|0\n");
    ZXBTConfigModelInit(app);
    create_fpi_tls_map(app);
  }
  app.Server.testRunRunning = 1;
}

// What the collector learns from a record stream, ids, thread ids and
// measured times left out: every method and BT by name.
struct Learned {
  std::multiset<std::string> flowpaths;       // one line each
  std::set<std::string> methods, bts;         // records 5 and 7
  std::map<std::string, std::string> counts;  // record 74 values by BT name
};

std::string blobText(const std::string &blob, const zxref::NameBook &names) {
  const zxref::ParsedBlob parsed = zxref::parse_blob(blob);
  std::ostringstream out;
  if (parsed.skipped) out << "skipped " << parsed.skipped << ";";
  for (const zxref::BlobEntry &e : parsed.entries) {
    out << names.method(e.method_id);
    switch (e.type) {
      case zxref::BlobEntry::Type::Entry:
        out << " in@" << e.ms;
        break;
      case zxref::BlobEntry::Type::Exit:
        // An exit by exception carries no wall time over the wire: the
        // proxy measures it by its own clock.
        out << " out" << e.event << "#" << e.seq;
        if (e.event == ZX_FP_EVENT_EXIT) out << "/" << e.ms;
        break;
      case zxref::BlobEntry::Type::CallOut:
        out << " callout" << e.kind << (e.error ? "E" : "") << "#" << e.seq << ":" << e.resource
            << ":" << e.status << ":" << e.resource_url;
        break;
    }
    out << ";";
  }
  return out.str();
}

Learned learn(const std::string &records, ZXProxyInstance_t &app) {
  Learned l;
  zxref::FlowpathStore store;
  std::istringstream in(records);
  for (std::string line; std::getline(in, line);)
    if (auto r = zxref::parse_record(line)) {
      EXPECT_TRUE(store.add(*r)) << line;
    }
  EXPECT_EQ(store.malformed(), 0u);
  EXPECT_EQ(store.open_count(), 0u);
  const zxref::NameBook &names = store.names();
  for (const auto &[id, name] : names.methods) l.methods.insert(name);
  for (const auto &[id, name] : names.bts) l.bts.insert(name);
  for (const zxref::Flowpath &fp : store.finished()) {
    std::ostringstream o;
    const auto &h = *fp.header;
    o << names.bt(h.bt_id) << " " << h.url << (h.forced ? " forced" : "");
    if (h.first_instance)
      o << " chain " << h.first_instance << "/" << h.prev_instance << "@" << h.position;
    o << " corr=" << h.correlation << " sid=" << h.sid << " page=" << h.page_id
      << " type=" << h.fp_type << " queue=" << h.queue_ms << " | status=" << fp.status
      << " category=" << fp.category << " resp=" << fp.resp_ms << " bt=" << names.bt(fp.bt_id)
      << " | " << blobText(fp.blob, names);
    l.flowpaths.insert(o.str());
  }
  std::vector<char> buf(1 << 16);
  int len = 0;
  if (generateAndDumpBTMonitoringRecord(app, buf.data(), &len, static_cast<int>(buf.size()))) {
    std::istringstream r74(std::string(buf.data(), static_cast<std::size_t>(len)));
    for (std::string line; std::getline(r74, line);) {
      const auto colon = line.find(':'), bar = line.find('|', colon);
      if (line.rfind("74,", 0) == 0 && colon != std::string::npos && bar != std::string::npos)
        l.counts[line.substr(colon + 1, bar - colon - 1)] = line.substr(bar + 1);
    }
  }
  return l;
}

// A proxy's engine that replays `frames`, read `cut` bytes at a time.
Learned replay(const std::string &frames, const std::function<std::size_t()> &cut) {
  zxtest::ScopedApp proxy("", false);
  prepare(*proxy, false);
  const int app = zxProxyApplications().add(*proxy);
  const int process = zxProxyApplications().addProcess(app);
  {
    ZXFrameStream stream;
    for (std::size_t at = 0; at < frames.size();) {
      const std::size_t n = std::min(cut(), frames.size() - at);
      stream.feed(*proxy, frames.data() + at, n, process);
      at += n;
    }
    EXPECT_EQ(stream.close(), 0u) << "bytes left over";
  }
  Learned l = learn(zxtest::drain_records(*proxy), *proxy);
  free_fpi_tls_map(*proxy);
  zxProxyApplications().clear();
  return l;
}

// The sequence numbers of a thread's outgoing tier headers (own id, first
// id, flowpath index and sequence: only the sequence is the script's).
std::vector<std::string> headerSequences(const std::string &headers) {
  std::vector<std::string> seqs;
  std::istringstream in(headers);
  for (std::string h; std::getline(in, h);) seqs.push_back(h.substr(h.rfind('.')));
  return seqs;
}

}  // namespace

TEST(ProxyEquivalence, FramesReplayedInTheProxyWriteWhatTracingInProcessWrites) {
  const long long T0 = my_gettimeofday();
  zxtest::ScopedApp local;
  prepare(*local, false);
  const auto traced = runScript(*local, T0);
  const Learned expected = learn(zxtest::drain_records(*local), *local);
  free_fpi_tls_map(*local);
  ASSERT_EQ(expected.flowpaths.size(), static_cast<std::size_t>(kThreads * kPerThread));
  ASSERT_EQ(expected.bts.size(), 3u);
  ASSERT_FALSE(expected.counts.empty());
  // Every kind of request the script makes is there to compare.
  for (const char *feature : {" forced", " chain ", "callout1#", "callout10#", " out3#",
                              "status=500", "category=11", "category=12"})
    EXPECT_TRUE(std::any_of(expected.flowpaths.begin(), expected.flowpaths.end(),
                            [&](const std::string &f) { return f.find(feature) != f.npos; }))
        << feature;

  zxtest::ScopedApp proc("", false);
  prepare(*proc, true);
  const auto sent = runScript(*proc, T0);
  const std::string frames = zxtest::drain_records(*proc);
  EXPECT_EQ(readSendCounts(proc->sendBuffers).lost(), 0u);
  for (int t = 0; t < kThreads; ++t) {
    EXPECT_EQ(headerSequences(sent[t]), headerSequences(traced[t]));
    EXPECT_EQ(headerSequences(sent[t]).size(), (kPerThread + 5) / 7u);
  }

  std::mt19937 rng(7);
  std::uniform_int_distribution<std::size_t> anyCut(1, 300);
  const std::pair<const char *, std::function<std::size_t()>> splits[] = {
      {"one read", [] { return SIZE_MAX; }},
      {"random reads", [&] { return anyCut(rng); }},
      {"byte by byte", [] { return std::size_t{1}; }},
  };
  for (const auto &[name, cut] : splits) {
    SCOPED_TRACE(name);
    const Learned got = replay(frames, cut);
    EXPECT_EQ(got.flowpaths, expected.flowpaths);
    EXPECT_EQ(got.methods, expected.methods);
    EXPECT_EQ(got.bts, expected.bts);
    EXPECT_EQ(got.counts, expected.counts);
  }
}
