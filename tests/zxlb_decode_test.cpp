// The proxy's decoder against a live engine: framing over good and bad
// bytes, a flowpath's life in the proxy's map, the stale-flowpath sweep and
// the exception frame's texts; then replays, cut into reads anywhere, held to
// tracing in process.
#include <gtest/gtest.h>

#include <algorithm>
#include <cstdint>
#include <cstring>
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
#include "zxlb_decode.h"
#include "zxlb_frame_build.h"
#include "zxlb_mem_pool.h"
#include "zxlb_utiles.h"

namespace {

const long long T0 = 1'700'000'000'000LL;  // flowpaths start here; times are relative

template <typename T>
T zeroed() {
  T f;
  std::memset(&f, 0, sizeof f);
  return f;
}

ZXFrameString str(const std::string &s) {
  return {s.data(), s.size()};
}

template <typename T>
std::string frame(ZXFrameType type, const T &fixed, std::initializer_list<ZXFrameString> s = {}) {
  ZXFrameBuffer b;
  EXPECT_TRUE(b.build(type, &fixed, sizeof fixed, s));
  return std::string(b.data(), static_cast<std::size_t>(b.size()));
}

std::string start(long long id, const std::string &header = "", const std::string &url = "/cart") {
  auto f = zeroed<transactionStartVar_t>();
  f.fp_header = static_cast<int>(header.size());
  f.url = static_cast<int>(url.size());
  f.flowpathinstance = id;
  f.startTimeFP = T0;
  return frame(ZX_FRAME_TRANSACTION_START, f, {str(header), str(url)});
}

std::string entry(long long id, const std::string &name, long long at) {
  auto f = zeroed<MethodEntryVar_t>();
  f.flowpathinstance = id;
  f.startTime = T0 + at;
  f.methodName = static_cast<int>(name.size());
  return frame(ZX_FRAME_METHOD_ENTRY, f, {str(name)});
}

std::string exitF(long long id, const std::string &name, long long wall, long long at,
                  int callout = 0, const std::string &query = "") {
  auto f = zeroed<MethodExitVar_t>();
  f.flowpathinstance = id;
  f.duration = wall;
  f.endTime = T0 + at;
  f.cpuTime = -1;
  f.eventType = 1;
  f.isCallout = callout;
  f.methodName = static_cast<int>(name.size());
  f.backend_header = static_cast<int>(query.size());
  return frame(ZX_FRAME_METHOD_EXIT, f, {str(name), str(query)});
}

std::string end(long long id, long long at) {
  auto f = zeroed<transactionEnd_t>();
  f.statuscode = 200;
  f.flowpathinstance = id;
  f.endTime = T0 + at;
  return frame(ZX_FRAME_TRANSACTION_END, f);
}

std::string resetF(long long id) {
  auto f = zeroed<transactionReset_t>();
  f.flowpathinstance = id;
  return frame(ZX_FRAME_TRANSACTION_RESET, f);
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

// An engine set up as the proxy's, with one application process registered.
struct ProxyEngine {
  explicit ProxyEngine(bool publish = true) : app_("", publish) {
    prepare(app(), false);
    index_ = zxProxyApplications().add(app());
    proc_ = zxProxyApplications().addProcess(index_);
  }
  ~ProxyEngine() {
    free_fpi_tls_map(app());
    zxProxyApplications().clear();
  }
  ZXProxyInstance_t &app() { return *app_; }
  std::size_t decode(const std::string &bytes) {
    return decodeFrames(app(), bytes.data(), bytes.size(), proc_);
  }
  ZXPerThreadData_t *fp(long long id) {
    auto it = app_->fpi_tls_map->find(ZXFpiKey{proc_, id});
    return it == app_->fpi_tls_map->end() ? nullptr : it->second;
  }

  zxtest::ScopedApp app_;
  int index_ = 0, proc_ = 0;
};

class DecodeTest : public ::testing::Test, protected ProxyEngine {};

TEST_F(DecodeTest, FramingSkipsNoiseAndBadFramesAndStopsAtAPartialOne) {
  ASSERT_EQ(decode(start(1)), start(1).size());
  ZXPerThreadData_t *r = fp(1);
  ASSERT_NE(r, nullptr);
  const long long seq = r->seqNum;
  const std::string a = entry(1, "A", 1), b = entry(1, "B", 2);
  zxProxyApplications().process(index_, proc_)->data_len = 7;

  // Keep-alives, stray newlines, garbage and a bad header length around two
  // frames back to back: both replayed, in order.
  std::string badHeader = a;
  badHeader[1] = 11;
  const std::string noise = "\n10,\n\nxy" + badHeader.substr(0, 3), tail = "\n10,\n";
  const std::string bytes = noise + a + b + tail;
  ASSERT_EQ(decode(bytes), bytes.size());
  EXPECT_EQ(r->seqNum, seq + 2);
  EXPECT_NE(std::string(r->sequenceBlob).find("_0_1__"), std::string::npos);
  EXPECT_EQ(zxProxyApplications().process(index_, proc_)->data_len, 0);

  // A frame without its "\n", and one of an unknown type: each skipped, and
  // decoding resumes 15 bytes after its "^", here at a good frame.
  std::string noEnd = entry(1, std::string(15 + a.size(), 'x'), 3);
  noEnd.replace(15, a.size(), a);
  noEnd.back() = 'x';
  std::string type9 = noEnd;
  type9.back() = '\n';
  type9[9] = 9;
  // A negative length is consumed whole with no effect.
  std::string negative = b;
  const std::int32_t minus = -1;
  std::memcpy(&negative[ZX_FRAME_FIXED_AT + offsetof(MethodEntryVar_t, methodName)], &minus, 4);
  decode(noEnd + type9 + negative);
  EXPECT_EQ(r->seqNum, seq + 4);

  // A buffer ending inside a frame stops at its "^"; so does one ending
  // inside a keep-alive, or with 13 bytes of a frame.
  EXPECT_EQ(decode("\n" + a + b.substr(0, b.size() - 1)), 1 + a.size());
  EXPECT_EQ(decode(a + "10,"), a.size());
  EXPECT_EQ(decode("z" + b.substr(0, 13)), 1u);
  EXPECT_EQ(r->seqNum, seq + 6);

  // The C entry: unknown application or a short length never crash.
  std::string buf = a;
  EXPECT_EQ(decodeMessage(buf.data(), static_cast<int>(buf.size()), index_, proc_), 0);
  EXPECT_EQ(decodeMessage(buf.data(), static_cast<int>(buf.size()), 99, proc_), 0);
  EXPECT_EQ(readDataMessage(buf.data() + ZX_FRAME_FIXED_AT, 0, 0, index_, proc_), -1);
  EXPECT_EQ(r->seqNum, seq + 7);
}

TEST_F(DecodeTest, ProcessesOfOneApplicationMayReuseAnInstance) {
  // Two processes started together number their flowpaths alike.
  const int second = zxProxyApplications().addProcess(index_);
  const std::string head = start(42) + entry(42, "Cart.load", 1);
  const std::string tail = exitF(42, "Cart.load", 3, 4) + end(42, 20) + resetF(42);
  for (const std::string *part : {&head, &tail})
    for (int proc : {proc_, second}) decodeFrames(app(), part->data(), part->size(), proc);
  const std::string records = zxtest::drain_records(app());
  EXPECT_EQ(zxtest::count_of(records, "\n4,42,"), 2u) << records;
}

TEST_F(DecodeTest, FlowpathLivesInTheMapFromStartToResetOrSweep) {
  const long long before = counterforfpi_tls_map.load();
  decode(start(42, "F") + start(43, "100F_101F_7.1") + entry(42, "Cart.load", 1));
  EXPECT_EQ(counterforfpi_tls_map.load(), before + 2);
  ASSERT_NE(fp(42), nullptr);
  EXPECT_TRUE(fp(42)->tlIsForceDump);
  EXPECT_EQ(fp(43)->firstFlowpathInstance, 100);

  decode(exitF(42, "Cart.load", 3, 4) + end(42, 20));
  ASSERT_NE(fp(42), nullptr) << "the end leaves the entry";
  const std::string records = zxtest::drain_records(app());
  EXPECT_NE(records.find("\n2,42F,"), std::string::npos) << records;
  EXPECT_NE(records.find("\n4,42F,200,"), std::string::npos) << records;

  const unsigned long long lost = zxFramesNotReplayed.load();
  decode(resetF(42) + exitF(42, "Cart.load", 1, 30) + end(42, 31));
  EXPECT_EQ(fp(42), nullptr);
  EXPECT_EQ(zxtest::drain_records(app()), "") << "frames of a reset flowpath are dropped";
  EXPECT_EQ(zxFramesNotReplayed.load(), lost + 2) << "and counted";

  zxtest::ScopedApp other("", false);
  const int otherIndex = zxProxyApplications().add(*other);
  std::string e = entry(43, "X", 1);
  EXPECT_EQ(readDataMessage(e.data() + ZX_FRAME_FIXED_AT, static_cast<long long>(e.size()) - 14, 0,
                            otherIndex, 0),
            -2);
  EXPECT_EQ(zxFramesNotReplayed.load(), lost + 3) << "no map: counted too";

  // A reset sweeps flowpaths older than five minutes, once in five minutes.
  decode(start(1) + start(2) + start(3));
  const long long now = my_gettimeofday();
  fp(1)->fpStartTimeforReset = now - 301'000;
  fp(2)->fpStartTimeforReset = now - 299'000;
  app_->resetTimeInterval = now - 301'000;
  const long long resets = counterforNumofResetCalled.load();

  decode(resetF(3));
  EXPECT_EQ(counterforNumofResetCalled.load(), resets + 1);
  EXPECT_EQ(fp(1), nullptr);
  EXPECT_NE(fp(2), nullptr);
  EXPECT_GE(app_->resetTimeInterval, now);

  // Not again within five minutes.
  fp(2)->fpStartTimeforReset = now - 400'000;
  decode(resetF(77));
  EXPECT_NE(fp(2), nullptr);
}

TEST_F(DecodeTest, ExceptionTextsPairWithTheirOwnLengths) {
  decode(start(5));
  auto f = zeroed<ExceptionEncodeVar_t>();
  f.flowpathInstance = 5;
  const std::string cls = "E", msg = "message", tc = "Thrower", tm = "throwIt", cause = "c",
                    trace = "at x\nat y";
  f.lenofExceptionClassName = 1;
  f.lenofExceptionMessage = 7;
  f.lenofExceptionThrowingClassName = 7;
  f.lenofExceptionThrowingMethodName = 7;
  f.lenofExceptionCause = 1;
  f.lenofExceptionStackTrace = static_cast<int>(trace.size());
  decode(
      frame(ZX_FRAME_EXCEPTION, f, {str(cls), str(msg), str(tc), str(tm), str(cause), str(trace)}));
  ZXPerThreadData_t *r = fp(5);
  EXPECT_STREQ(r->excepClassName.c_str(), "E");
  EXPECT_STREQ(r->excepMessage.c_str(), "message");
  EXPECT_STREQ(r->throwingCName.c_str(), "Thrower");
  EXPECT_STREQ(r->throwingMName.c_str(), "throwIt");
  EXPECT_STREQ(r->exceptionStackTrace.c_str(), "at x\nat y");
}

TEST_F(DecodeTest, FrameStreamSkipsNoiseAndOversizedFramesAcrossReads) {
  // Keep-alives and junk cut into one-byte reads; a partial frame is left at close.
  ZXFrameStream bytewise;
  const std::string noisy = "10,\n\njunk" + start(9) + "10,\n" + start(10).substr(0, 40);
  for (char c : noisy) bytewise.feed(app(), &c, 1, proc_);
  EXPECT_NE(fp(9), nullptr);
  EXPECT_EQ(bytewise.close(), 40u);

  // An oversized frame is skipped without holding its bytes.
  ZXFrameStream stream;
  const std::size_t declared = ZXFrameStream::kMaxFrameBytes + 1;
  std::string big = entry(1, "x", 0).substr(0, 14);
  const auto total = static_cast<std::int32_t>(declared);
  std::memcpy(&big[5], &total, 4);
  stream.feed(app(), big.data(), big.size(), proc_);
  const std::string chunk(1 << 16, '^');
  std::size_t left = declared - big.size();
  for (; left >= chunk.size(); left -= chunk.size()) {
    stream.feed(app(), chunk.data(), chunk.size(), proc_);
    ASSERT_EQ(stream.pending(), 0u);
  }
  const std::string rest = chunk.substr(0, left) + start(8);
  EXPECT_EQ(stream.feed(app(), rest.data(), rest.size(), proc_), 1u);
  EXPECT_EQ(stream.framesOversized(), 1u);
  EXPECT_NE(fp(8), nullptr);
}

// Proxy mode must not change what the collector learns. One script of
// engine calls (the SDK's, with the times given so that both runs see the
// same clock) runs once in an engine that traces it itself, and once in a
// proxy-mode process whose frames, cut into reads anywhere, replay into a
// second engine. Both must write the same flowpaths, names and BT counts;
// only ids and measured times may differ.

constexpr int kThreads = 3;
constexpr int kPerThread = 40;

// One request of kind i % 7 on thread t; times are t0-relative and given.
void request(ZXProxyInstance_t &app, long long t0, int t, int i, std::string &tierHeader) {
  const long long tid = 100 + t;
  const long long at = t0 + 1000LL * i;
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
std::vector<std::string> runScript(ZXProxyInstance_t &app, long long t0) {
  std::vector<std::string> tierHeaders(kThreads);
  std::vector<std::thread> threads;
  for (int t = 0; t < kThreads; ++t)
    threads.emplace_back([&, t] {
      for (int i = 0; i < kPerThread; ++i) request(app, t0, t, i, tierHeaders[t]);
    });
  for (auto &th : threads) th.join();
  return tierHeaders;
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
  ProxyEngine proxy(false);
  ZXFrameStream stream;
  for (std::size_t at = 0; at < frames.size();) {
    const std::size_t n = std::min(cut(), frames.size() - at);
    stream.feed(proxy.app(), frames.data() + at, n, proxy.proc_);
    at += n;
  }
  EXPECT_EQ(stream.close(), 0u) << "bytes left over";
  return learn(zxtest::drain_records(proxy.app()), proxy.app());
}

// The sequence numbers of a thread's outgoing tier headers (own id, first
// id, flowpath index and sequence: only the sequence is the script's).
std::vector<std::string> headerSequences(const std::string &headers) {
  std::vector<std::string> seqs;
  std::istringstream in(headers);
  for (std::string h; std::getline(in, h);) seqs.push_back(h.substr(h.rfind('.')));
  return seqs;
}

TEST(ProxyEquivalence, FramesReplayedInTheProxyWriteWhatTracingInProcessWrites) {
  const long long t0 = my_gettimeofday();
  zxtest::ScopedApp local;
  prepare(*local, false);
  const auto traced = runScript(*local, t0);
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
  const auto sent = runScript(*proc, t0);
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

}  // namespace
