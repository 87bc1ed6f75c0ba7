#include "ZXDataDispatcher.h"

#include <gtest/gtest.h>
#include <sys/mman.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstddef>
#include <cstdio>
#include <cstring>
#include <set>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include "ZXDataThread.h"
#include "test_support.h"
#include "zx_sdk.h"

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
  int dump(const std::string &s) {
    return dumpData(tlzxApplication, s.data(), static_cast<int>(s.size()));
  }
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
  EXPECT_EQ(dumpData(tlzxApplication, nullptr, 4), 0);
  EXPECT_EQ(dumpData(tlzxApplication, "abc", 0), 0);
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

  // More than the room and the next buffer hold: dropped whole, never cut.
  EXPECT_EQ(dump("head\n"), 0);
  EXPECT_EQ(dump(std::string(27, 'z') + "\n"), -3);
  EXPECT_EQ(drops(), 1);
  EXPECT_EQ(dump(std::string(26, 'y') + "\n"), 0) << "what fits the room and one buffer is kept";
  EXPECT_EQ(drainAll(), "head\n" + std::string(26, 'y') + "\n");
  EXPECT_EQ(pool().counters.lostOversized.load(), 1u);
}

// Records handed over together are each kept or dropped as on their own: a
// header that fits goes out even when the end behind it cannot.
TEST_F(SendBuffers, RecordsTogetherAreStoredOneByOne) {
  init(16, 2);
  const std::string head = "2,head\n", big = std::string(40, 'e') + "\n", end = "4,end\n";
  ZXRecordSpan spans[] = {{head.data(), static_cast<int>(head.size())},
                          {big.data(), static_cast<int>(big.size())},
                          {end.data(), static_cast<int>(end.size())},
                          {nullptr, 3}};
  EXPECT_EQ(dumpRecords(tlzxApplication, spans, 4), -3) << "the first failure";
  EXPECT_EQ(pool().counters.records.load(), 3u) << "the null record counts for nothing";
  EXPECT_EQ(pool().counters.lostOversized.load(), 1u);
  EXPECT_EQ(drainAll(), head + end);

  const std::string fill(15, 'f');
  ASSERT_EQ(dump(fill + "\n"), 0);
  ASSERT_EQ(dump(fill), 0);
  EXPECT_EQ(dumpRecords(tlzxApplication, spans, 1), -1) << "no buffer left";
  EXPECT_EQ(pool().counters.lostPoolFull.load(), 1u);
  EXPECT_EQ(dumpRecords(nullptr, spans, 1), -99);
}

// A sent buffer goes back where the next producer takes it, so a pool that
// keeps up cycles through two buffers, not all of them; the rest of the
// storage is never touched.
TEST_F(SendBuffers, TheBufferSentLastIsFilledNext) {
  init(4096, 64);
  std::set<const char *> used;
  const std::string rec = std::string(99, 'r') + "\n";
  for (int i = 0; i < 1000; ++i) {
    ASSERT_EQ(dump(rec), 0);
    if (nioSettings_t *b = sendBufferHead(pool())) used.insert(b->buff);
    drain();
  }
  EXPECT_EQ(used.size(), 2u);
  const std::size_t page = static_cast<std::size_t>(sysconf(_SC_PAGESIZE));
  std::vector<unsigned char> inCore(64 * 4096 / page);
  ASSERT_EQ(mincore(pool().storage.get(), 64 * 4096, inCore.data()), 0);
  EXPECT_LE(std::count_if(inCore.begin(), inCore.end(), [](unsigned char p) { return p & 1; }),
            static_cast<long>(3 * 4096 / page));
  EXPECT_EQ(sizes(), std::make_pair(64, 0));
}

// Every line handed to the pool is counted once where it ends up, and the
// invariant holds against the bytes actually queued.
TEST_F(SendBuffers, EveryLineIsCountedWhereItEnds) {
  init(16, 2);
  auto expectCounts = [this](unsigned long long records, unsigned long long sent,
                             unsigned long long queued, unsigned long long poolFull,
                             unsigned long long connDown, unsigned long long oversized) {
    ZXSendCounts c = zxtest::scanned_send_counts(*app_);
    EXPECT_EQ(c.records, records);
    EXPECT_EQ(c.sent, sent);
    EXPECT_EQ(c.queued, queued);
    EXPECT_EQ(readSendCounts(pool()).queued, queued);
    EXPECT_EQ(c.lostPoolFull, poolFull);
    EXPECT_EQ(c.lostConnDown, connDown);
    EXPECT_EQ(c.lostOversized, oversized);
    EXPECT_EQ(c.lostAtExit, 0u);
  };
  EXPECT_EQ(dump("a\nbb\nccc\n"), 0);  // three lines in one call
  EXPECT_EQ(dump("dddd\n"), 0);
  EXPECT_EQ(dump("eeeeeeeeeeee\n"), 0);  // split over both buffers
  expectCounts(5, 0, 5, 0, 0, 0);
  EXPECT_EQ(dump("ffffff\n"), -1) << "no free buffer behind the filling one";
  EXPECT_EQ(dump("1\n2\n" + std::string(30, 'x') + "\n"), -3);
  expectCounts(9, 0, 5, 1, 0, 3);

  // A partial send, then the rest of the buffer thrown away: the lines whose
  // "\n" went out are sent, the others lost.
  nioSettings_t *b = sendBufferHead(pool());
  ASSERT_NE(b, nullptr);
  EXPECT_EQ(markBufferSent(pool(), b, 5), 11);  // "a\nbb\n"
  expectCounts(9, 2, 3, 1, 0, 3);
  EXPECT_EQ(markBufferDiscarded(pool(), b, 11, ZXSendLoss::ConnDown), 0);
  expectCounts(9, 2, 1, 1, 2, 3);
  {
    std::lock_guard send(pool().sendLock);
    EXPECT_EQ(discardQueued(pool(), ZXSendLoss::ConnDown), 1u) << "the partly filled buffer too";
  }
  expectCounts(9, 2, 0, 1, 3, 3);

  zx_data_counters_t out;
  std::memset(&out, 0xab, sizeof out);
  EXPECT_EQ(zx_data_counters_get(&out, offsetof(zx_data_counters_t, lost_pool_full)), 0);
  EXPECT_EQ(out.records, 9u);
  EXPECT_EQ(out.sent, 2u);
  EXPECT_EQ(out.queued, 0u);
  EXPECT_EQ(out.lost_pool_full, 0xababababababababull) << "beyond the caller's size";
  EXPECT_EQ(zx_data_counters_get(&out, sizeof out), 0);
  EXPECT_EQ(out.lost_conn_down, 3u);
  EXPECT_EQ(out.lost_oversized, 3u);
  EXPECT_EQ(zx_data_counters_get(nullptr, sizeof out), -1);
  unsigned long long records = 0, dropped = 0;
  zx_data_counters(&records, &dropped);
  EXPECT_EQ(records, 9u);
  EXPECT_EQ(dropped, 7u);
}

// Without a data thread the exit drain cannot send: it returns at once and
// counts everything queued as lost at exit.
TEST_F(SendBuffers, ExitDrainWithoutADataThread) {
  init(16, 4);
  EXPECT_EQ(drainSendBuffersForExit(nullptr, apr_time_now()), zx::Errc::bad_input);
  EXPECT_EQ(drainSendBuffersForExit(&*app_, apr_time_now() + apr_time_from_sec(30)), zx::Ok);
  EXPECT_EQ(dump("0123456789ABCDE\n"), 0);
  EXPECT_EQ(dump("x\ny\n"), 0);
  const auto t0 = std::chrono::steady_clock::now();
  EXPECT_EQ(drainSendBuffersForExit(&*app_, apr_time_now() + apr_time_from_sec(30)),
            zx::Errc::timed_out);
  EXPECT_LT(std::chrono::steady_clock::now() - t0, std::chrono::seconds(5));
  ZXSendCounts c = zxtest::scanned_send_counts(*app_);
  EXPECT_EQ(c.lostAtExit, 3u);
  EXPECT_EQ(c.queued, 0u);
  EXPECT_EQ(sizes(), std::make_pair(4, 0));
}

TEST_F(SendBuffers, FullPoolDropsWholeRecordsAndLogsOncePerThousand) {
  zxtest::TempDir dir;
  zxtest::ScopedTraceKey key(zxlb_init_mt_trace_log_ex(dir.str().c_str(), "t.log", 1, 0));
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
