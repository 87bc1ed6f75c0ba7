// The proxy's decoder against a live engine: framing over good and bad
// bytes, a flowpath's life in the proxy's map, the stale-flowpath sweep and
// the exception frame's texts. Replays cut into reads anywhere, call-outs
// among them, are held to tracing in process by proxy_equivalence_test.
#include <gtest/gtest.h>

#include <cstring>
#include <string>

#include "ZXDataDispatcher.h"
#include "ZXFlowpathGenerator.h"
#include "ZXFrameStream.h"
#include "ZXMethodManager.h"
#include "ZXProxyApplications.h"
#include "test_support.h"
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

class DecodeTest : public ::testing::Test {
 protected:
  DecodeTest() {
    app_->ZXSys.bciDataBufferMaxSize = 1 << 17;
    app_->ZXSys.dataBuffMaxCount = 32;
    EXPECT_EQ(buff_list_init(&app()), 0);
    initPerThreadSlots(&app());
    setMethodHashMapNode(&app(), "Cart.load|0\n");
    ZXBTConfigModelInit(app());
    app_->Server.testRunRunning = 1;
    create_fpi_tls_map(app());
    index_ = zxProxyApplications().add(app());
    proc_ = zxProxyApplications().addProcess(index_);
  }
  ~DecodeTest() override {
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

  decode(resetF(42) + exitF(42, "Cart.load", 1, 30) + end(42, 31));
  EXPECT_EQ(fp(42), nullptr);
  EXPECT_EQ(zxtest::drain_records(app()), "") << "frames of a reset flowpath are dropped";

  zxtest::ScopedApp other("", false);
  const int otherIndex = zxProxyApplications().add(*other);
  std::string e = entry(43, "X", 1);
  EXPECT_EQ(readDataMessage(e.data() + ZX_FRAME_FIXED_AT, static_cast<long long>(e.size()) - 14, 0,
                            otherIndex, 0),
            -2);

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

}  // namespace
