// What the BT t-digests are fed: every counted transaction's response time,
// so that the percentiles read from record 96 at the collector are those of
// the durations themselves; the interval-sum feed behind its setting; and the
// bounded per-thread rings, which drop and count what does not fit.
#include <gtest/gtest.h>

#include <algorithm>
#include <chrono>
#include <cmath>
#include <cstdio>
#include <map>
#include <random>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include "Server.h"
#include "ZXBTMonitor.h"
#include "reference_collector.h"
#include "tdigest/pwlb_t_digest_quantile.h"
#include "tdigest_record.h"
#include "test_support.h"
#include "zxbt_bt_object.h"

namespace {

using namespace std::chrono_literals;
using zxref::ConnKind;

constexpr auto kWait = 20s;
constexpr const char *kPercentiles = "tDigestPercentileBT=1%200%202%20100%20100%20793%201";

BTObject *newBT(const char *name) {
  char buf[ZXBT_NAME_SIZE] = {};
  snprintf(buf, sizeof buf, "%s", name);
  return updateBTObject(*tlzxApplication, buf);
}

bool count(BTObject *bt, long long duration) {
  ZXBTTransaction_t tx;
  tx.btObj = bt;
  tx.duration = duration;
  tx.category = ZXBT_CATEGORY_NORMAL;
  return updateCounterAndDurationForBT(*tlzxApplication, tx);
}

// How far the estimate's rank among the sorted samples is from q; samples
// equal to the estimate may rank anywhere in their run.
double rank_error(const std::vector<long long> &sorted, double estimate, double q) {
  const auto n = static_cast<double>(sorted.size());
  const double below = static_cast<double>(
      std::lower_bound(sorted.begin(), sorted.end(), std::ceil(estimate)) - sorted.begin());
  const double upTo = static_cast<double>(
      std::upper_bound(sorted.begin(), sorted.end(), std::floor(estimate)) - sorted.begin());
  if (q < below / n) return below / n - q;
  if (q > upTo / n) return q - upTo / n;
  return 0;
}

// Per BT name, the merged digest of every record 96 received so far.
struct Received {
  std::map<std::string, td_histogram_t *> digests;
  std::size_t seen = 0;
  ~Received() {
    for (auto &[name, h] : digests) pwlb_t_digest_destroy(&h);
  }
  void take(const zxref::History &h) {
    for (; seen < h.records.size(); ++seen) {
      const zxref::Record &r = h.records[seen];
      if (r.number != 96) continue;
      auto decoded = zxref::decode_tdigest_record(r);
      if (!decoded || !decoded->digest) continue;
      const std::string name = decoded->name.substr(decoded->name.rfind('>') + 1);
      td_histogram_t *&into = digests[name];
      if (!into) pwlb_t_digest_init(&into, 0.01, 100);
      pwlb_t_digest_merge(into, decoded->digest.get());
    }
  }
  long long weight(const std::string &name) const {
    const auto it = digests.find(name);
    return it == digests.end() ? 0 : pwlb_t_digest_get_data_count(it->second);
  }
};

class FeedToCollectorTest : public ::testing::Test, protected zxtest::LinkedAgent {
 protected:
  FeedToCollectorTest() { EXPECT_TRUE(collector_.start()) << collector_.error(); }

  void start(const std::string &extraSettings) {
    configure(collector_.port(), extraSettings);
    run_loop();
    ASSERT_TRUE(collector_.wait_for_connections(ConnKind::Control, 1, kWait));
    ASSERT_TRUE(collector_.send_start(std::string("status=running;tierName=T;appName=A;") +
                                      "zxAppServerHost=S;zxMonitorInterval=1;" + kPercentiles));
    ASSERT_TRUE(collector_.wait_for_record(99, kWait));
  }

  zxref::ReferenceCollector collector_;
};

// Several threads serve three BTs with skewed, known durations; the digests
// the collector merges from the periods' records give their percentiles.
TEST_F(FeedToCollectorTest, PercentilesAreThoseOfTheResponseTimes) {
  start("");
  const char *names[] = {"Login", "Cart", "Search"};
  std::vector<BTObject *> bts;
  for (const char *name : names) bts.push_back(newBT(name));
  for (BTObject *bt : bts) ASSERT_NE(bt, nullptr);

  constexpr int kThreads = 4, kPerThread = 1500;
  std::vector<std::vector<long long>> drawn(kThreads);
  std::vector<std::thread> threads;
  for (int t = 0; t < kThreads; ++t) {
    threads.emplace_back([&, t] {
      std::mt19937_64 rng(static_cast<unsigned>(t + 1));
      std::lognormal_distribution<double> ms(4, 0.8);
      for (int i = 0; i < kPerThread; ++i) {
        // BT b's times are scaled by b + 1, so the BTs differ.
        const int b = i % 3;
        const long long d = std::llround(ms(rng) * (b + 1));
        drawn[t].push_back(d);
        EXPECT_TRUE(count(bts[b], d));
      }
    });
  }
  for (std::thread &th : threads) th.join();

  std::map<std::string, std::vector<long long>> exact;
  for (int t = 0; t < kThreads; ++t)
    for (int i = 0; i < kPerThread; ++i) {
      exact[names[i % 3]].push_back(drawn[t][i]);
      exact["AllTransactions"].push_back(drawn[t][i]);
    }
  Received got;
  ASSERT_TRUE(collector_.wait_until(
      [&](const zxref::History &h) {
        got.take(h);
        for (const auto &[name, times] : exact)
          if (got.weight(name) < static_cast<long long>(times.size())) return false;
        return true;
      },
      kWait));
  for (auto &[name, times] : exact) {
    EXPECT_EQ(got.weight(name), static_cast<long long>(times.size())) << name;
    std::sort(times.begin(), times.end());
    for (double q : {0.5, 0.9, 0.99}) {
      const double v = pwlb_t_digest_getquantile(got.digests[name], q);
      EXPECT_LT(rank_error(times, v, q), 0.01) << name << " q " << q << " value " << v;
    }
  }
  EXPECT_EQ(app().btMonitor.responseTimesDropped.load(), 0);
}

// With tDigestIntervalSumsBT each report inserts one point per thread: its
// duration total in that interval, so the points add up to the durations and
// there is one per record 74 of the BT (one thread).
TEST_F(FeedToCollectorTest, IntervalSumsOnRequest) {
  start("tDigestIntervalSumsBT=1\n");
  ASSERT_TRUE(app().tDigestIntervalSumsBT.load());
  BTObject *bt = newBT("Login");
  ASSERT_NE(bt, nullptr);
  constexpr int kTransactions = 200;
  long long total = 0;
  for (int i = 1; i <= kTransactions; ++i) {
    ASSERT_TRUE(count(bt, i));
    total += i;
  }
  // Every interval's record 74 first (their counts add up), then its points.
  Received got;
  long long intervals = 0;
  ASSERT_TRUE(collector_.wait_until(
      [&](const zxref::History &h) {
        got.take(h);
        long long counted = 0;
        intervals = 0;
        for (const zxref::Record &r : h.records) {
          if (r.number != 74 || r.fields.size() < 2) continue;
          const std::string &f = r.fields[1];
          if (f.find(">Login|") == f.npos) continue;
          ++intervals;
          double perSec, avg, min;
          long long max, n = 0;
          std::istringstream(f.substr(f.rfind('|') + 1)) >> perSec >> avg >> min >> max >> n;
          counted += n;
        }
        return counted == kTransactions && got.weight("Login") >= intervals;
      },
      kWait));
  EXPECT_EQ(got.weight("Login"), intervals);
  EXPECT_LT(intervals, kTransactions) << "points are sums, not response times";
  td_histogram_t *h = got.digests["Login"];
  const int n = td_centroid_count(h);
  double sum = 0;
  for (int i = 0; i < n; ++i) sum += h->nodes()[i].mean * h->nodes()[i].count;
  EXPECT_NEAR(sum, static_cast<double>(total), 0.5);
}

// No timer: the rings fill until a report drains them.
class FeedRingTest : public ::testing::Test {
 protected:
  FeedRingTest() {
    EXPECT_EQ(ZXBTMonitorInit(*app_), 0);
    app_->tDigest.TDigestPercentileBT.is_enabled = 1;
    bt_ = newBT("Login");
  }

  long long report() {
    std::vector<char> buf(ZXBT_REPORT_BUFFER_SIZE);
    int len = 0;
    generateAndDumpBTMonitoringRecord(*app_, buf.data(), &len, ZXBT_REPORT_BUFFER_SIZE);
    return weight();
  }
  long long weight() {
    td_histogram_t *h = app_->btMonitor.aggBTDataArr[bt_->bt_id].tdigest_key.load();
    return h ? pwlb_t_digest_get_data_count(h) : 0;
  }

  zxtest::ScopedApp app_;
  BTObject *bt_ = nullptr;
};

// A full ring drops and counts; a drain makes room again; a thread's points
// outlive it until the report that drops its model.
TEST_F(FeedRingTest, DropsWhatDoesNotFitAndKeepsExitedThreads) {
  ASSERT_NE(bt_, nullptr);
  std::thread([&] {
    for (int i = 0; i < ZXBT_FEED_RING_SIZE + 100; ++i) ASSERT_TRUE(count(bt_, 5));
  }).join();
  EXPECT_EQ(report(), ZXBT_FEED_RING_SIZE);
  EXPECT_EQ(app_->btMonitor.responseTimesDropped.load(), 100);
  EXPECT_TRUE(app_->btMonitor.threadModels.empty()) << "the exited thread's model is dropped";

  for (int i = 0; i < 10; ++i) ASSERT_TRUE(count(bt_, 7));
  EXPECT_EQ(drainResponseTimes(*app_), 10);
  EXPECT_EQ(weight(), ZXBT_FEED_RING_SIZE + 10);
  EXPECT_EQ(app_->btMonitor.responseTimesDropped.load(), 100);
}

// The legacy feed leaves the rings alone: two threads, one point each.
TEST_F(FeedRingTest, IntervalSumsAreOnePointPerThread) {
  ASSERT_NE(bt_, nullptr);
  app_->tDigestIntervalSumsBT = true;
  for (int t = 0; t < 2; ++t)
    std::thread([&] {
      for (int i = 0; i < 50; ++i) ASSERT_TRUE(count(bt_, 10));
    }).join();
  EXPECT_EQ(report(), 2);
  td_histogram_t *h = app_->btMonitor.aggBTDataArr[bt_->bt_id].tdigest_key.load();
  ASSERT_NE(h, nullptr);
  EXPECT_DOUBLE_EQ(pwlb_t_digest_getquantile(h, 0.5), 500.0);
  EXPECT_EQ(app_->btMonitor.responseTimesDropped.load(), 0);
}

}  // namespace
