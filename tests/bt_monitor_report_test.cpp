// The monitoring timer against the reference collector: a run started with
// a one-second interval ships record 74 on the data connection and record 96
// on its own auto-sensor connection, where the collector reads back the same
// percentiles the agent's digests hold; the run's stop ends both.
#include <gtest/gtest.h>

#include <chrono>
#include <map>
#include <sstream>
#include <string>
#include <string_view>
#include <thread>
#include <vector>

#include "reference_collector.h"
#include "tdigest/pwlb_t_digest_quantile.h"
#include "tdigest_record.h"
#include "test_support.h"
#include "zxbt_bt_object.h"

namespace {

using namespace std::chrono_literals;
using zxref::ConnKind;
using zxref::ReferenceCollector;

constexpr auto kWait = 10s;
constexpr int kThreads = 20;

class MonitorReportTest : public ::testing::Test, protected zxtest::LinkedAgent {
 protected:
  MonitorReportTest() {
    EXPECT_TRUE(collector_.start()) << collector_.error();
    ZXProxyInstance_t &a = configure(collector_.port());
    a.ZXSys.bciASDataBufferMaxSize = 4096;
    a.ZXSys.ASDataBuffMaxCount = 8;
    run_loop();
  }

  ReferenceCollector collector_;
};

bool names(const zxref::Record &r, const std::string &suffix) {
  return r.fields.size() > 1 && r.fields[1].find(suffix) != std::string::npos;
}

TEST_F(MonitorReportTest, RunShipsRecords74And96) {
  ReferenceCollector &c = collector_;
  ASSERT_TRUE(c.wait_for_connections(ConnKind::Control, 1, kWait));
  ASSERT_TRUE(
      c.send_start("status=running;tierName=T;appName=A;zxAppServerHost=S;tierID=3;appID=9;"
                   "zxMonitorInterval=1;tDigestPercentileBT=1%200%202%20100%20100%20793%201"));
  ASSERT_TRUE(c.wait_for_connections(ConnKind::AutoSensor, 1, kWait));

  // The auto-sensor request carries the data request's identity fields.
  ASSERT_TRUE(c.wait_for_record(99, kWait));
  const std::string data = c.lines(ConnKind::Data).at(0).text;
  const std::string as = c.lines(ConnKind::AutoSensor).at(0).text;
  const std::string dataWord = "zx_data_msg_req:", asWord = "auto_sensor_thread_hotspot_data_req:";
  ASSERT_EQ(data.rfind(dataWord, 0), 0u);
  EXPECT_EQ(as, asWord + data.substr(dataWord.size()));

  // One transaction per thread: its duration is the digest's point, also for
  // a collector that asked for interval sums.
  char name[ZXBT_NAME_SIZE] = "Login";
  BTObject *login = updateBTObject(*tlzxApplication, name);
  ASSERT_NE(login, nullptr);
  td_histogram_t *expected = nullptr;
  ASSERT_EQ(pwlb_t_digest_init(&expected, 0.01, 100), 0);
  for (int i = 0; i < kThreads; ++i) {
    const long long duration = 10LL * (i + 1) + (i % 3);
    pwlb_t_digest_insert(expected, static_cast<double>(duration), 1);
    std::thread([&] {
      ZXBTTransaction_t tx;
      tx.btObj = login;
      tx.duration = duration;
      tx.category = i % 5 ? ZXBT_CATEGORY_NORMAL : ZXBT_CATEGORY_SLOW;
      EXPECT_TRUE(updateCounterAndDurationForBT(*tlzxApplication, tx));
    }).join();
  }

  // Record 74: every transaction counted once over the intervals.
  auto countOf = [](const zxref::Record &r) {
    const auto bar = r.fields[1].find('|', r.fields[1].find(':'));
    double perSec, avg, min;
    long long max, n = 0;
    std::istringstream(r.fields[1].substr(bar + 1)) >> perSec >> avg >> min >> max >> n;
    return n;
  };
  ASSERT_TRUE(c.wait_until(
      [&](const zxref::History &h) {
        long long n = 0;
        for (const auto &r : h.records)
          if (r.number == 74 && r.kind == ConnKind::Data && names(r, ":T>S>A>Login|"))
            n += countOf(r);
        return n == kThreads;
      },
      kWait));
  const std::vector<zxref::Record> records = c.records();
  bool overall = false;
  for (const auto &r : records) {
    if (r.number != 74) continue;
    EXPECT_EQ(r.fields[1].rfind(names(r, "Login|") ? "3|9|2:T>S>A>Login|" : "3|9|0:T>S>A>AllT", 0),
              0u)
        << r.fields[1];
    overall |= names(r, "AllTransactions|");
  }
  EXPECT_TRUE(overall);

  // Record 96 over the auto-sensor connection: the periods' digests, merged,
  // give the percentiles of the points the agent inserted.
  td_histogram_t *received = nullptr;
  ASSERT_EQ(pwlb_t_digest_init(&received, 0.01, 100), 0);
  std::size_t seen = 0;
  long long weight = 0;
  ASSERT_TRUE(c.wait_until(
      [&](const zxref::History &h) {
        for (; seen < h.records.size(); ++seen) {
          const zxref::Record &r = h.records[seen];
          if (r.number != 96 || !names(r, ":T>S>A>Login")) continue;
          EXPECT_EQ(r.kind, ConnKind::AutoSensor);
          auto decoded = zxref::decode_tdigest_record(r);
          if (!decoded) {
            ADD_FAILURE() << "undecodable record 96";
            continue;
          }
          EXPECT_EQ(decoded->ids, "3|9|793|1");
          weight += static_cast<long long>(decoded->count);
          pwlb_t_digest_merge(received, decoded->digest.get());
        }
        return weight >= kThreads;
      },
      kWait));
  EXPECT_EQ(weight, kThreads);
  for (double q : {0.5, 0.9, 0.99})
    EXPECT_DOUBLE_EQ(pwlb_t_digest_getquantile(received, q), pwlb_t_digest_getquantile(expected, q))
        << "q " << q;
  pwlb_t_digest_destroy(&received);
  pwlb_t_digest_destroy(&expected);
  EXPECT_TRUE(c.wait_until(
      [](const zxref::History &h) {
        for (const auto &r : h.records)
          if (r.number == 96 && names(r, "AllTransactions")) return true;
        return false;
      },
      kWait));

  // The run's stop ends the auto-sensor connection and the timer (stopped
  // before the agent answers).
  ASSERT_TRUE(c.send_stop("status=stopped"));
  EXPECT_TRUE(c.wait_for_control_line(
      [](std::string_view l) {
        return l.rfind("zx_control_rep:action=stop_instrumentation", 0) == 0;
      },
      kWait));
  EXPECT_TRUE(c.wait_for_closed(ConnKind::AutoSensor, 1, kWait));
  std::lock_guard lk(app().monitorTimer.wakeMutex);
  EXPECT_TRUE(app().monitorTimer.stopRequested);
}

}  // namespace
