// The encoders as a proxy-mode application process uses them: frames queued
// whole in the send buffers, read back byte for byte, and counted as frames
// however the buffers cut them.
#include <gtest/gtest.h>

#include <cstring>
#include <random>
#include <string>

#include "ZXDataDispatcher.h"
#include "test_support.h"
#include "zxlb_encode.h"
#include "zxlb_frame_build.h"

namespace {

struct ProxyApp {
  zxtest::ScopedApp app;
  explicit ProxyApp(int bufferSize = 4096, int buffers = 16) {
    app->ZXSys.proxyMode = 1;
    app->ZXSys.bciDataBufferMaxSize = bufferSize;
    app->ZXSys.dataBuffMaxCount = buffers;
    EXPECT_EQ(buff_list_init(&*app), 0);
    EXPECT_TRUE(app->sendBuffers.framed);
  }
};

template <typename T>
T fixedOf(const std::string &frame) {
  T t;
  std::memcpy(&t, frame.data() + ZX_FRAME_FIXED_AT, sizeof t);
  return t;
}

msgHdr_t headerOf(const std::string &frame) {
  msgHdr_t h;
  std::memcpy(&h, frame.data() + 1, sizeof h);
  return h;
}

TEST(Encode, FramesByteForByte) {
  ProxyApp p;
  MethodEntryEncode(&*p.app, 7, 1234, 55, "Cart.load1", nullptr, "", 1700000000000LL);
  transactionEndEncode(&*p.app, 500, 1234, -9);
  transactionResetEncode(&*p.app, 1234);
  const std::string all = zxtest::drain_records(*p.app);
  ASSERT_EQ(all.size(), 73u + 39u + 23u);

  const std::string entry = all.substr(0, 73);
  EXPECT_EQ(entry.front(), '^');
  EXPECT_EQ(entry[13], '|');
  EXPECT_EQ(entry.back(), '\n');
  const msgHdr_t h = headerOf(entry);
  EXPECT_EQ(h.header_len, 12);
  EXPECT_EQ(h.total_len, 73);
  EXPECT_EQ(h.msg_type, ZX_FRAME_METHOD_ENTRY);
  const auto e = fixedOf<MethodEntryVar_t>(entry);
  EXPECT_EQ(e.mid, 7);
  EXPECT_EQ(e.flowpathinstance, 1234);
  EXPECT_EQ(e.threadId, 55);
  EXPECT_EQ(e.startTime, 1700000000000LL);
  EXPECT_EQ(e.methodName, 10);
  EXPECT_EQ(e.query_string, 0);
  EXPECT_EQ(e.urlParameter, 0);
  EXPECT_EQ(entry.substr(14 + 48, 10), "Cart.load1");
  for (int at : {4, 5, 6, 7, 44, 45, 46, 47}) EXPECT_EQ(entry[14 + at], 0) << "padding " << at;

  const std::string end = all.substr(73, 39);
  EXPECT_EQ(headerOf(end).msg_type, ZX_FRAME_TRANSACTION_END);
  const auto t = fixedOf<transactionEnd_t>(end);
  EXPECT_EQ(t.statuscode, 500);
  EXPECT_EQ(t.endTime, 0) << "negative numbers go out as 0";
  for (int at = 4; at < 8; ++at) EXPECT_EQ(end[14 + at], 0);
  EXPECT_EQ(headerOf(all.substr(112)).total_len, 23);
}

TEST(Encode, ExceptionStringsAndLengthsInTheirOwnOrders) {
  ProxyApp p;
  ExceptionDataEncode(&*p.app, 9, 10, "Cls", "message", "ThrowingCls", "throwingM", "cause!", 42,
                      "stack");
  const std::string f = zxtest::drain_records(*p.app);
  const auto x = fixedOf<ExceptionEncodeVar_t>(f);
  EXPECT_EQ(x.lineNumber, 42);
  EXPECT_EQ(x.lenofExceptionClassName, 3);
  EXPECT_EQ(x.lenofExceptionThrowingClassName, 11);
  EXPECT_EQ(x.lenofExceptionThrowingMethodName, 9);
  EXPECT_EQ(x.lenofExceptionMessage, 7);
  EXPECT_EQ(x.lenofExceptionCause, 6);
  EXPECT_EQ(x.lenofExceptionStackTrace, 5);
  EXPECT_EQ(f.substr(14 + 48, f.size() - 15 - 48), "ClsmessageThrowingClsthrowingMcause!stack");
}

// Frames written in place and frames split over a buffer's end, at every
// offset and with strings present and absent, read back as the same frames
// queued into one buffer that holds them all.
TEST(Encode, FramesCutByBuffersReadBackWhole) {
  const auto encodeAll = [](ZXAppLink *app) {
    for (int i = 0; i < 90; ++i) {
      const std::string name(static_cast<std::size_t>(i % 23), static_cast<char>('a' + i % 26));
      const std::string other(static_cast<std::size_t>(i % 41), 'z');
      const char *maybe = i % 3 ? other.c_str() : nullptr;
      MethodEntryEncode(app, i, 77, i, name.c_str(), maybe, nullptr, 1000 + i);
      MethodExitEncode(app, i, 200, 1, 0, i, i, 77, -1, name.c_str(), maybe, 3, 2000 + i,
                       i % 2 ? "phase" : nullptr);
      if (i % 10 == 0)
        ExceptionDataEncode(app, 77, 5, "C", name.c_str(), maybe, "m", nullptr, i, "s");
    }
  };
  ProxyApp cut(200, 256), whole(1 << 16, 1);  // no frame longer than a buffer
  encodeAll(&*cut.app);
  encodeAll(&*whole.app);
  const std::string expected = zxtest::drain_records(*whole.app);
  ASSERT_GT(expected.size(), 200u * 50u);
  EXPECT_EQ(zxtest::drain_records(*cut.app), expected);
  EXPECT_EQ(readSendCounts(cut.app->sendBuffers).lost(), 0u);
}

// Frames of every size cut anywhere by the buffers, sent in chunks of any
// size: every frame is counted sent exactly once, and a connection lost in
// the middle of one discards just its rest.
TEST(Encode, FramedPoolCountsFramesNotNewlines) {
  ProxyApp p(128, 64);
  std::mt19937 rng(7);
  int frames = 0;
  for (int i = 0; i < 40; ++i) {
    // Ids and names full of newline bytes, which a line count would see.
    const std::string name(rng() % 60, '\n');
    MethodEntryEncode(&*p.app, 1, 0x0A0A0A0A0A, 10, name.c_str(), nullptr, nullptr, 10);
    ++frames;
    if (i % 7 == 0) {
      ASSERT_EQ(dumpData(&*p.app, "\n", 1), 0);  // the data heartbeat
      ++frames;
    }
  }
  ZXSendBufferPool &pool = p.app->sendBuffers;
  movePartialToReadList(pool);
  std::lock_guard send(pool.sendLock);
  bool cut = false;
  while (nioSettings_t *b = sendBufferHead(pool)) {
    const int left = b->use_len - b->send_len;
    if (!cut && pool.midLine) {
      // The connection drops here: the frame in progress is lost whole, in
      // as many buffers as it spans.
      markBufferDiscarded(pool, b, bytesToUnitEnd(pool, b), ZXSendLoss::ConnDown);
      cut = !pool.midLine;
      continue;
    }
    markBufferSent(pool, b, std::min<int>(left, 1 + static_cast<int>(rng() % 50)));
  }
  const ZXSendCounts c = readSendCounts(pool);
  EXPECT_TRUE(cut);
  EXPECT_EQ(c.records, static_cast<unsigned long long>(frames));
  EXPECT_EQ(c.lostConnDown, 1u);
  EXPECT_EQ(c.lostOversized, 0u);
  EXPECT_EQ(c.sent + c.lostConnDown, c.records);
  EXPECT_EQ(c.queued, 0u);
}

TEST(Encode, APoolWithoutRoomDropsAndCountsWholeFrames) {
  ProxyApp p(128, 2);
  for (int i = 0; i < 20; ++i) transactionResetEncode(&*p.app, i + 1);
  const ZXSendCounts c = readSendCounts(p.app->sendBuffers);
  EXPECT_EQ(c.records, 20u);
  EXPECT_EQ(c.lostPoolFull, 20u - 256u / 23u);
  const std::string kept = zxtest::drain_records(*p.app);
  EXPECT_EQ(kept.size(), 23u * (256u / 23u)) << "only whole frames are kept";
}

TEST(Encode, LongStringsGoWholeUpToTheLimitThenAreCut) {
  ProxyApp p(1 << 21, 2);
  const std::string trace(200000, 't');
  const std::string huge(ZX_FRAME_MAX_STRING + 10, 'h');
  const unsigned long long cutBefore = zxFrameStringsCut.load();
  ExceptionDataEncode(&*p.app, 1, 1, "C", huge.c_str(), nullptr, nullptr, nullptr, 0,
                      trace.c_str());
  EXPECT_EQ(zxFrameStringsCut.load() - cutBefore, 1u);
  const std::string f = zxtest::drain_records(*p.app);
  ASSERT_EQ(f.size(), 15 + 48 + 1 + ZX_FRAME_MAX_STRING + trace.size());
  EXPECT_EQ(fixedOf<ExceptionEncodeVar_t>(f).lenofExceptionMessage,
            static_cast<std::int32_t>(ZX_FRAME_MAX_STRING));
  EXPECT_EQ(f[f.size() - 2], 't');
  EXPECT_EQ(f.back(), '\n');
}

}  // namespace
