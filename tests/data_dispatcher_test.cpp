#include "ZXDataDispatcher.h"

#include <gtest/gtest.h>

#include <cstdio>
#include <sstream>
#include <string>
#include <thread>

#include "test_support.h"

using zxtest::ScopedApp;

namespace {

class SendBuffers : public ::testing::Test {
 protected:
  // Small buffers make every boundary reachable with short records.
  void init(int size, int count) {
    app_->ZXSys.bciDataBufferMaxSize = size;
    app_->ZXSys.dataBuffMaxCount = count;
    ASSERT_EQ(buff_list_init(&*app_), 0);
  }
  int dump(const std::string &s) { return dumpData(s.data(), static_cast<int>(s.size())); }
  long long drops() { return app_->ZXSys.discardCount.load(); }
  std::pair<int, int> sizes() {
    std::lock_guard lk(pool().bufferMoveLock);
    return {pool().writeListSize, pool().readListSize};
  }
  // Plays the data thread: sends every queued buffer in chunks of `chunk`.
  std::string drain(int chunk = 1 << 30) {
    std::string out;
    while (nioSettings_t *b = sendBufferHead(pool())) {
      int left;
      do {
        int n = std::min(chunk, b->use_len - b->send_len);
        out.append(b->buff + b->send_len, static_cast<size_t>(n));
        left = markBufferSent(pool(), b, n);
      } while (left > 0);
    }
    return out;
  }
  // Flushes the partly filled buffer too.
  std::string drainAll() {
    movePartialToReadList(pool());
    return drain();
  }
  ZXSendBufferPool &pool() { return app_->sendBuffers; }

  ScopedApp app_;
};

TEST_F(SendBuffers, NoPoolBadSettingsAndReinit) {
  EXPECT_EQ(dump("x\n"), -99) << "no pool yet";
  EXPECT_EQ(drops(), 1);
  app_->ZXSys.dataBuffMaxCount = 0;
  EXPECT_EQ(buff_list_init(&*app_), -1);
  init(16, 3);
  EXPECT_EQ(dump("0123456789ABCDEF"), 0);
  app_->ZXSys.dataBuffMaxCount = 50;
  EXPECT_EQ(buff_list_init(&*app_), 0);
  EXPECT_EQ(sizes(), std::make_pair(2, 1)) << "a second init keeps the pool and its contents";
}

TEST_F(SendBuffers, ExactFillSplitAndOversizedRecords) {
  init(16, 3);
  EXPECT_EQ(dumpData(nullptr, 4), 0);
  EXPECT_EQ(dumpData("abc", 0), 0);
  EXPECT_EQ(sizes(), std::make_pair(3, 0)) << "null and empty records are no-ops";

  EXPECT_EQ(dump("0123456789ABCDE\n"), 0);
  EXPECT_EQ(sizes(), std::make_pair(2, 1)) << "an exactly full buffer is queued at once";
  EXPECT_EQ(drain(), "0123456789ABCDE\n");
  EXPECT_EQ(sizes(), std::make_pair(3, 0)) << "a sent buffer returns to the free list";

  EXPECT_EQ(dump("first-rec\n"), 0);
  EXPECT_EQ(dump("second-rec\n"), 0);  // 6 bytes in one buffer, 5 in the next
  EXPECT_EQ(sizes(), std::make_pair(2, 1));
  // A rest of exactly one buffer fills and queues that one too.
  EXPECT_EQ(dump("0123456789abcdef0123456789\n"), 0);
  EXPECT_EQ(sizes(), std::make_pair(0, 3));
  EXPECT_EQ(drainAll(), "first-rec\nsecond-rec\n0123456789abcdef0123456789\n");
  EXPECT_EQ(drops(), 0);

  // More than the next buffer holds: the line is cut and closed by "\n".
  EXPECT_EQ(dump("head"), 0);
  EXPECT_EQ(dump(std::string(40, 'z')), -3);
  EXPECT_EQ(drops(), 1);
  EXPECT_EQ(drainAll(), "head" + std::string(12, 'z') + "\n");
}

TEST_F(SendBuffers, FullPoolDropsWholeRecordsAndLogsOncePerThousand) {
  zxtest::TempDir dir;
  zxtest::ScopedTraceKey key(
      zxlb_init_mt_trace_log_ex(dir.str().c_str(), "t.log", 1, 0, app_->control_pool.get()));
  app_->ZXSys.controlTraceLevel = 1;
  init(16, 2);
  EXPECT_EQ(dump("0123456789ABCDEF"), 0);
  EXPECT_EQ(dump("0123456789"), 0);
  for (int i = 0; i < 1999; ++i) ASSERT_EQ(dump("toolong\n"), -1);
  EXPECT_EQ(drops(), 1999);
  EXPECT_EQ(dump("fits\n"), 0) << "a record that still fits is taken";
  EXPECT_EQ(dump("x"), 0);
  EXPECT_EQ(sizes(), std::make_pair(0, 2));
  EXPECT_EQ(dump("y"), -2) << "nothing being filled while a buffer is sent";
  EXPECT_EQ(drops(), 2000);

  std::string log = zxtest::read_file(dir.path() / "t.log_0");
  size_t lines = 0;
  for (size_t at = 0; (at = log.find("records dropped", at)) != std::string::npos; ++at) ++lines;
  EXPECT_EQ(lines, 2u) << "the 999th and the 1999th drop";

  EXPECT_EQ(drain(), "0123456789ABCDEF0123456789fits\nx");
  EXPECT_EQ(dump("again\n"), 0) << "sent buffers are reused";
}

// Two producers against a slow, chunked sender over a tiny pool: drops,
// splits and buffer reuse all happen, yet every accepted record arrives
// whole and in its producer's order.
TEST_F(SendBuffers, ConcurrentProducersNeverInterleaveOrLoseAcceptedRecords) {
  init(64, 4);
  constexpr int kPerProducer = 20000;
  std::atomic<int> running{2};
  int accepted[2] = {0, 0};
  auto producer = [&](int id) {
    for (int seq = 0; seq < kPerProducer; ++seq) {
      // At most 45 bytes: below one buffer, so no record is ever cut short.
      std::string pad(static_cast<size_t>(seq % 37), static_cast<char>('a' + id));
      std::string rec = std::to_string(id) + ":" + std::to_string(seq) + ":" + pad + "\n";
      if (dump(rec) == 0) ++accepted[id];
    }
    running.fetch_sub(1);
  };
  std::thread p0(producer, 0), p1(producer, 1);
  std::string out;
  while (running.load() > 0) out += drain(7);
  p0.join();
  p1.join();
  out += drainAll();

  int last[2] = {-1, -1};
  int delivered[2] = {0, 0};
  std::istringstream lines(out);
  std::string line;
  while (std::getline(lines, line)) {
    int id = -1, seq = -1;
    char pad[64] = {};
    ASSERT_GE(sscanf(line.c_str(), "%d:%d:%63s", &id, &seq, pad), 2) << line;
    ASSERT_TRUE(id == 0 || id == 1) << line;
    ASSERT_GT(seq, last[id]) << line;
    ASSERT_EQ(std::string(pad), std::string(static_cast<size_t>(seq % 37), 'a' + id)) << line;
    last[id] = seq;
    ++delivered[id];
  }
  ASSERT_FALSE(out.empty());
  EXPECT_EQ(out.back(), '\n');
  EXPECT_EQ(delivered[0], accepted[0]);
  EXPECT_EQ(delivered[1], accepted[1]);
  EXPECT_EQ(drops() + delivered[0] + delivered[1], 2 * kPerProducer);
  EXPECT_EQ(sizes(), std::make_pair(4, 0));
}

}  // namespace
