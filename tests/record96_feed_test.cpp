// What the BT t-digests are fed: every counted transaction's response time,
// so that the percentiles read from record 96 at the collector are those of
// the durations themselves; the interval sums behind their setting; and the
// bounded per-thread rings, which drop and count what does not fit.
#include <gtest/gtest.h>

#include <algorithm>
#include <chrono>
#include <cmath>
#include <cstdio>
#include <map>
#include <optional>
#include <random>
#include <string>
#include <thread>
#include <vector>

#include "ZXBTMonitor.h"
#include "ZXTDigest.h"
#include "collector_protocol.h"
#include "reference_collector.h"
#include "tdigest/pwlb_t_digest_quantile.h"
#include "tdigest_record.h"
#include "test_support.h"
#include "zxbt_bt_object.h"

namespace {

using namespace std::chrono_literals;
using zxref::ConnKind;

constexpr auto kWait = 20s;

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

// Several threads serve three BTs with skewed, known durations; the digests
// the collector merges from the periods' records 96 give their percentiles.
TEST(Record96FeedTest, PercentilesAreThoseOfTheResponseTimes) {
  zxref::ReferenceCollector collector;
  ASSERT_TRUE(collector.start()) << collector.error();
  zxtest::LinkedAgent agent;
  agent.configure(collector.port());
  agent.run_loop();
  ASSERT_TRUE(collector.wait_for_connections(ConnKind::Control, 1, kWait));
  ASSERT_TRUE(collector.send_start(
      "status=running;tierName=T;appName=A;zxAppServerHost=S;zxMonitorInterval=1;"
      "tDigestPercentileBT=1%200%202%20100%20100%20793%201"));
  ASSERT_TRUE(collector.wait_for_record(99, kWait));

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
        const long long d = std::llround(ms(rng) * (i % 3 + 1));
        drawn[t].push_back(d);
        EXPECT_TRUE(count(bts[i % 3], d));
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

  std::map<std::string, td_histogram_ptr> got;
  std::size_t seen = 0;
  ASSERT_TRUE(collector.wait_until(
      [&](const zxref::History &h) {
        for (; seen < h.records.size(); ++seen) {
          auto r = h.records[seen].number == 96 ? zxref::decode_tdigest_record(h.records[seen])
                                                : std::nullopt;
          if (!r || !r->digest) continue;
          td_histogram_ptr &into = got[r->name.substr(r->name.rfind('>') + 1)];
          if (!into) into.reset(td_new(0.01, 100));
          td_merge(into.get(), r->digest.get());
        }
        for (const auto &[name, times] : exact)
          if (!got[name] || td_total_count(got[name].get()) < static_cast<double>(times.size()))
            return false;
        return true;
      },
      kWait));
  for (auto &[name, times] : exact) {
    EXPECT_EQ(td_total_count(got[name].get()), static_cast<double>(times.size())) << name;
    std::sort(times.begin(), times.end());
    for (double q : {0.5, 0.9, 0.99}) {
      const double v = td_value_at(got[name].get(), q);
      EXPECT_LT(rank_error(times, v, q), 0.01) << name << " q " << q << " value " << v;
    }
  }
  EXPECT_EQ(agent.app().btMonitor.responseTimesDropped.load(), 0);
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

// Interval sums leave the rings alone: two threads, one point each.
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

// Digests of every response time run to kilobytes: a period's records that
// outgrow the report buffer go out in several buffers, none left out; with
// nowhere to flush, what does not fit is counted.
TEST_F(FeedRingTest, ReportsLargerThanABufferAreFlushedNotDropped) {
  constexpr int kBTs = 24, kPoints = 2000;
  std::vector<BTObject *> bts;
  for (int b = 0; b < kBTs; ++b) {
    bts.push_back(newBT(("Page" + std::to_string(b)).c_str()));
    ASSERT_NE(bts.back(), nullptr);
  }
  auto feed = [&] {
    for (int i = 0; i < kPoints; ++i) {
      for (BTObject *bt : bts) ASSERT_TRUE(count(bt, i));
      if (i % 100 == 0) drainResponseTimes(*app_);
    }
  };
  static std::vector<std::string> flushed;
  flushed.clear();
  auto report = [](ZXAppMonitors &app, ZXRecordFlush flush) {
    std::vector<char> buf(ZXBT_REPORT_BUFFER_SIZE);
    int len = 0;
    EXPECT_TRUE(
        generateAndDumpTDigestDataForBT(app, buf.data(), &len, ZXBT_REPORT_BUFFER_SIZE, flush));
    flushed.emplace_back(buf.data(), static_cast<std::size_t>(len));
  };

  feed();
  report(*app_, [](ZXAppMonitors &, const char *data, int len) {
    flushed.emplace_back(data, static_cast<std::size_t>(len));
  });
  EXPECT_GE(flushed.size(), 2u) << "the records outgrow one buffer";
  zxref::StreamDecoder decoder;
  std::vector<zxref::Frame> frames;
  decoder.feed("auto_sensor_thread_hotspot_data_req:\n", frames);
  for (const std::string &chunk : flushed) decoder.feed(chunk, frames);
  std::map<std::string, double> weights;
  for (const zxref::Frame &f : frames)
    if (f.type == zxref::Frame::Type::Record)
      if (auto r = zxref::decode_tdigest_record(f.record))
        weights[r->name.substr(r->name.rfind('>') + 1)] = r->count;
  ASSERT_EQ(weights.size(), kBTs + 1u) << "every BT and AllTransactions";
  for (const auto &[name, weight] : weights)
    EXPECT_EQ(weight, name == "AllTransactions" ? kBTs * kPoints : kPoints) << name;
  EXPECT_EQ(app_->tDigest.records96Dropped.load(), 0);

  feed();
  flushed.clear();
  report(*app_, nullptr);
  EXPECT_GT(app_->tDigest.records96Dropped.load(), 0);
}

}  // namespace
