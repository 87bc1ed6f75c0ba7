// The BT monitor's counting and report: record 74 text for known counter
// sets, the merge across threads, counting while reports run, and the
// monitor's keywords.
#include <gtest/gtest.h>

#include <atomic>
#include <cstring>
#include <deque>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include "Server.h"
#include "ZXBTMonitor.h"
#include "ZXTDigest.h"
#include "test_support.h"
#include "zxbt_bt_object.h"

namespace {

using zxtest::ScopedApp;

class BTMonitorTest : public ::testing::Test {
 protected:
  BTMonitorTest() {
    app_->ZXBCISetting.tierName.assign("T");
    app_->ZXBCISetting.appServerName.assign("S");
    app_->ZXBCISetting.appName.assign("A");
    app_->ZXBCISetting.tierID = 3;
    app_->ZXBCISetting.appID = 9;
    app_->ZXSettings.zxVectorSeperator = '>';
    EXPECT_EQ(ZXBTMonitorInit(*tlzxApplication), 0);
  }

  BTObject *bt(int id, const char *name) {
    BTObject &o = arena_.emplace_back();
    o.bt_id = id;
    strncpy(o.bt_name, name, sizeof o.bt_name - 1);
    EXPECT_EQ(checkAndIncrementAggrBTDataArray(*tlzxApplication, &o), 0);
    return &o;
  }

  static bool count(BTObject *obj, long long duration, char category, long long cpu = 0,
                    long long wait = 0, long long sync = 0, long long queue = 0) {
    ZXBTTransaction_t tx;
    tx.btObj = obj;
    tx.duration = duration;
    tx.category = category;
    tx.cpuTime = cpu;
    tx.waitTime = wait;
    tx.syncTime = sync;
    tx.queueTime = queue;
    return updateCounterAndDurationForBT(*tlzxApplication, tx);
  }

  // The report's text, or "" when it made none.
  std::string report() {
    std::vector<char> buf(ZXBT_REPORT_BUFFER_SIZE);
    int len = 0;
    if (!generateAndDumpBTMonitoringRecord(*app_, buf.data(), &len, ZXBT_REPORT_BUFFER_SIZE))
      return "";
    return std::string(buf.data(), static_cast<std::size_t>(len));
  }

  static void modify(const std::string &pairs) {
    std::string msg = "zx_control_req:action=modify;" + pairs;
    findStatusFromClientMsg(*tlzxApplication, msg.data());
  }

  ScopedApp app_;
  std::deque<BTObject> arena_;
};

TEST_F(BTMonitorTest, OneNormalTransactionOf120ms) {
  EXPECT_EQ(report(), "") << "no thread has counted anything yet";
  BTObject *login = bt(5, "Login");
  ASSERT_TRUE(count(login, 120, ZXBT_CATEGORY_NORMAL));
  const std::string values =
      "|0.016667 120.000000 120.000000 120 1 0.0 0.000000 120.000000 120.000000 120 1 0.000000 "
      "500000.000000 0 0 0.000000 500000.000000 0 0 0.000000 500000.000000 0 0 0.000000 0.000000 "
      "0.000000 0.000000 1 0.000000 0 0 1 0.000000 0 0 1 0.000000 2147483647 0 1\n";
  EXPECT_EQ(report(), "74,3|9|5:T>S>A>Login" + values + "74,3|9|0:T>S>A>AllTransactions" + values);
  EXPECT_EQ(app_->btMonitor.currentReportingCount, 1);
}

// Three threads on two BTs, every category; the blocks are merged into the
// slots, the slots into the overall record, and every block is reset.
TEST_F(BTMonitorTest, MergesThreadsAndCategories) {
  modify("zxMonitorInterval=10");
  BTObject *cart = bt(2, "Cart");
  BTObject *home = bt(3, "Home");
  std::thread([&] { count(cart, 100, ZXBT_CATEGORY_NORMAL, 2000000, 5, 3, 0); }).join();
  std::thread([&] { count(cart, 400, ZXBT_CATEGORY_SLOW, 4000000, 1, 7, 10); }).join();
  std::thread([&] {
    count(cart, 50, ZXBT_CATEGORY_ERROR);
    count(home, 30, ZXBT_CATEGORY_GENERAL_ONLY, 1000000, 2, 2, 0);
  }).join();

  const std::string expected =
      "74,3|9|2:T>S>A>Cart|0.300000 183.333333 50.000000 400 3 0.0 0.100000 100.000000 "
      "100.000000 100 1 400.000000 400.000000 400 1 0.000000 500000.000000 0 0 50.000000 "
      "50.000000 50 1 33.333333 2.000000 0.000000 4.000000 3 3.333333 0 7 3 2.000000 0 5 3 "
      "3.333333 10 10 3\n"
      "74,3|9|3:T>S>A>Home|0.100000 30.000000 30.000000 30 1 0.0 0.000000 0.000000 "
      "500000.000000 0 0 0.000000 500000.000000 0 0 0.000000 500000.000000 0 0 0.000000 "
      "500000.000000 0 0 0.000000 1.000000 1.000000 1.000000 1 2.000000 2 2 1 2.000000 2 2 1 "
      "0.000000 2147483647 0 1\n"
      "74,3|9|0:T>S>A>AllTransactions|0.400000 145.000000 30.000000 400 4 0.0 0.100000 "
      "100.000000 100.000000 100 1 400.000000 400.000000 400 1 0.000000 500000.000000 0 0 "
      "50.000000 50.000000 50 1 25.000000 1.750000 0.000000 4.000000 4 3.000000 0 7 4 2.000000 "
      "0 5 4 2.500000 10 10 4\n";
  EXPECT_EQ(report(), expected);
  // The threads have ended: their models went with the report.
  EXPECT_EQ(report(), "");
}

TEST_F(BTMonitorTest, SkipsWhatItMustNotCount) {
  BTObject *cart = bt(2, "Cart");
  BTObject others;
  others.bt_id = ZXBT_EXCLUDED_ID;
  EXPECT_FALSE(count(&others, 10, ZXBT_CATEGORY_NORMAL));
  EXPECT_FALSE(count(nullptr, 10, ZXBT_CATEGORY_NORMAL));
  modify("enableBTMonitor=0");
  EXPECT_FALSE(count(cart, 10, ZXBT_CATEGORY_NORMAL));
  EXPECT_EQ(report(), "");
  modify("enableBTMonitor=1");
  // Category 0 creates the block but counts nothing.
  EXPECT_TRUE(count(cart, 10, ZXBT_CATEGORY_NONE));
  EXPECT_NE(report().find("74,3|9|2:T>S>A>Cart|0.000000 0.000000 500000.000000 0 0 0.0"),
            std::string::npos);
}

// A block keeps counting across reports: each report holds only its own
// interval (minima and maxima too), and a BT with a block but nothing new
// still gets its empty record.
TEST_F(BTMonitorTest, EachReportHoldsOnlyItsInterval) {
  BTObject *cart = bt(2, "Cart");
  const std::string cartEmpty =
      "74,3|9|2:T>S>A>Cart|0.000000 0.000000 500000.000000 0 0 0.0 0.000000 0.000000 "
      "500000.000000 0 0 0.000000 500000.000000 0 0 0.000000 500000.000000 0 0 0.000000 "
      "500000.000000 0 0 0.000000 0.000000 0.500000 0.000000 0 0.000000 2147483647 0 0 "
      "0.000000 2147483647 0 0 0.000000 2147483647 0 0\n";
  for (int round = 0; round < 3; ++round) {
    SCOPED_TRACE(round);
    ASSERT_TRUE(count(cart, 500, ZXBT_CATEGORY_VERY_SLOW, 9000000, 4, 4, 6));
    ASSERT_TRUE(count(cart, 100, ZXBT_CATEGORY_ERROR, 1000000, 0, 2, 0));
    const std::string text = report();
    EXPECT_EQ(text.substr(0, text.find('\n') + 1),
              "74,3|9|2:T>S>A>Cart|0.033333 300.000000 100.000000 500 2 0.0 0.016667 0.000000 "
              "500000.000000 0 0 0.000000 500000.000000 0 0 500.000000 500.000000 500 1 "
              "100.000000 100.000000 100 1 50.000000 5.000000 1.000000 9.000000 2 3.000000 2 4 "
              "2 2.000000 0 4 2 3.000000 6 6 2\n");
    EXPECT_EQ(report().substr(0, cartEmpty.size()), cartEmpty);
  }
}

// Request threads count and new BTs grow the slot array while the reporter
// merges: every transaction is reported exactly once, and no report sees an
// update half done (every transaction is alike, so any report with counts
// has exactly their averages).
TEST_F(BTMonitorTest, CountsWhileReporting) {
  BTObject *a = bt(2, "A");
  BTObject *b = bt(300, "B");  // grows the slot array
  constexpr int kThreads = 4, kReports = 100;
  std::atomic<bool> stop{false};
  std::atomic<int> started{0};
  std::atomic<long long> counted{0};
  std::vector<std::thread> threads;
  for (int t = 0; t < kThreads; ++t)
    threads.emplace_back([&] {
      long long n = 0;
      for (; n < 100 || !stop; ++n) {
        count(n % 2 ? a : b, 7, ZXBT_CATEGORY_NORMAL, 0, 3);
        if (n == 100) ++started;
      }
      counted += n;
    });
  std::thread grower([&] {
    std::deque<BTObject> more;
    for (int id = 600; !stop && id < 20000; id += 97) {
      BTObject &o = more.emplace_back();
      o.bt_id = id;
      checkAndIncrementAggrBTDataArray(*tlzxApplication, &o);
    }
  });
  long long reported = 0;
  int torn = 0;
  auto overallCount = [&torn](const std::string &text) {
    const auto at = text.find("AllTransactions|");
    if (at == std::string::npos) return 0LL;
    std::istringstream in(text.substr(at + 16));
    double perSec, avgDuration, minDuration, errorsPerSec, avgNormal, minNormal, avgSync, avgWait;
    long long maxDuration, n, n2, maxNormal, normal, minSync, maxSync, syncs;
    std::string zero;
    in >> perSec >> avgDuration >> minDuration >> maxDuration >> n >> zero >> errorsPerSec >>
        avgNormal >> minNormal >> maxNormal >> normal;
    for (int skip = 0; skip < 16; ++skip) in >> zero;
    in >> n2 >> avgSync >> minSync >> maxSync >> syncs >> avgWait;
    if (n > 0 && (avgDuration != 7 || maxDuration != 7 || normal != n || avgNormal != 7 ||
                  n2 != n || syncs != n || avgWait != 3))
      ++torn;
    return n;
  };
  while (started < kThreads) std::this_thread::yield();
  for (int r = 0; r < kReports; ++r) reported += overallCount(report());
  stop = true;
  for (auto &t : threads) t.join();
  grower.join();
  reported += overallCount(report());
  EXPECT_EQ(reported, counted.load());
  EXPECT_EQ(torn, 0);
}

TEST_F(BTMonitorTest, Keywords) {
  ZXBTMonitor_t &m = app_->btMonitor;
  modify("maxBTCount=0;doNotDiscardFlowPaths=1;enableBTMonitorError=2");
  EXPECT_EQ(m.maxBTCount.load(), 256) << "a count below 1 is refused";
  EXPECT_EQ(m.doNotDisacrdAnyTransaction.load(), 1);
  EXPECT_EQ(m.btMonitorErrorLevel.load(), 2);
  modify("maxBTCount=40;enableBTMonitorError=-1");
  EXPECT_EQ(m.maxBTCount.load(), 40);
  EXPECT_EQ(app_->btManager.config.max_bt_count, 40);
  EXPECT_EQ(m.btMonitorErrorLevel.load(), 2);

  modify("BTAggDataArraySize=100");
  EXPECT_EQ(m.aggDataArraySize.load(), 128) << "the array never shrinks";
  modify("BTAggDataArraySize=1000");
  EXPECT_EQ(m.aggDataArraySize.load(), 1000);
  EXPECT_EQ(btMonitorSlot(m, 999)->count, 0);

  modify("zxVectorSeparator=#;zxMonitorInterval=0");
  EXPECT_STREQ(m.vectorPrefix, "T#S#A#");
  EXPECT_EQ(m.monitorIntervalInSecs.load(), ZXBT_DEFAULT_INTERVAL_SECS);

  const TDigestPercentile_t &td = app_->tDigest.TDigestPercentileBT;
  modify("tDigestPercentileBT=1%205%202%20100%20100%20793%201");
  EXPECT_EQ(td.is_enabled.load(), 1);
  EXPECT_EQ(td.aggregate_time.load(), 300000);
  EXPECT_EQ(td.serialization.load(), 2);
  EXPECT_DOUBLE_EQ(td.delta.load(), 0.01);
  EXPECT_EQ(td.k.load(), 100);
  EXPECT_EQ(td.group_id.load(), 793);
  EXPECT_EQ(td.graph_id.load(), 1);
  modify("tDigestPercentileBT=0%201%201%2050");
  EXPECT_EQ(td.is_enabled.load(), 0);
  EXPECT_EQ(td.aggregate_time.load(), 60000);
  EXPECT_DOUBLE_EQ(td.delta.load(), 0.02);
  EXPECT_EQ(td.group_id.load(), 793) << "absent fields keep their values";
  modify("tDigestPercentileBT=");
  EXPECT_EQ(td.serialization.load(), 1);
  EXPECT_EQ(app_->tDigest.TDigestPercentileIP.is_enabled.load(), 0);
}

}  // namespace
