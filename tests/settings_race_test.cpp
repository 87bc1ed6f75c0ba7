// Settings changed by the collector while application threads trace: every
// field a "modify" writes is read lock-free on the hot paths, which must be
// free of data races (this suite earns its keep under ThreadSanitizer) and
// must see the new values.
#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <string>
#include <thread>
#include <vector>

#include "ZXProxyInstance.h"
#include "reference_collector.h"
#include "test_support.h"
#include "zx_sdk.h"

namespace {

using namespace std::chrono_literals;
using zxref::ConnKind;

constexpr auto kWait = 10s;
constexpr int kModifies = 24;
constexpr long kBatch = 40;
const std::string kModifyOk = "zx_control_rep:action=modify;result=Ok;";

// Keywords read on the SDK's paths (flowpath start and end, method events,
// call-outs, BT classification and counting, trace-log gates), with values
// that alternate by round. Widths 1, 2, 4 and 8 and the id masks are among
// them. Trace levels stay 0: a line written by both sides would order them
// through the log's lock and hide the very races this test looks for.
std::string modifyPairs(int round) {
  const bool odd = round % 2 != 0;
  return std::string(
             "ControlThreadTraceLevel=0;AgentTraceLevel=0;enableFPTrace=0;enableBTMonitorTrace=0;"
             "BCITraceMaxSize=10485760;morEpochDiff=0;enableBTMonitor=1") +
         ";bciMaxNonServiceMethodsPerFP=" + (odd ? "1" : "50000") +
         ";maxCharInSeqBlob=" + (odd ? "40" : "8000") + ";zxFlowpathMasks=0%201FFFFFFFFFF%20" +
         (odd ? "21%201FFFFF" : "22%203FFFFF") + ";bciInstrSessionPct=" + (odd ? "50" : "100") +
         ";captureMethodForAllFP=" + (odd ? "1" : "0") + ";zxEnableDebugMode=" + (odd ? "1" : "0") +
         ";enableIPResourceURL=" + (odd ? "1" : "0") +
         ";enableProcessNotificationPhase=" + (odd ? "1" : "0") +
         ";zxEnableTxHotspot=" + (odd ? "0" : "1") + ";doNotDiscardFlowPaths=" + (odd ? "1" : "0");
}

// One transaction as a host reports it; the URL names the flowpath.
void transaction(const char *url) {
  zxBTHandle bt = zx_bt_begin(url, nullptr);
  if (!bt) return;
  zx_method_entry(bt, "Race.handle");
  zx_method_entry(bt, "Race.work");
  zx_ip_http_callout_end(bt, zx_ip_http_callout_begin(bt, "stock.svc", "/reserve"));
  zx_method_exit(bt, "Race.work");
  zx_method_exit(bt, "Race.handle");
  zx_bt_end(bt, 200);
  zx_bt_release(bt);
}

class SettingsRace : public ::testing::Test, protected zxtest::LinkedAgent {};

TEST_F(SettingsRace, ModifyWhileTwoThreadsTrace) {
  zxref::ReferenceCollector c;
  ASSERT_TRUE(c.start()) << c.error();
  ZXProxyInstance_t &a = start_sdk_run(c);

  // Each round two threads run a batch of transactions while the collector's
  // "modify" lands among them; batches stay small enough for the send
  // buffers, so no record is dropped.
  auto modifyReplies = [&](std::size_t n) {
    return c.wait_until(
        [&](const zxref::History &h) {
          std::size_t ok = 0;
          for (const zxref::Line &l : h.lines_of(ConnKind::Control)) ok += l.text == kModifyOk;
          return ok >= n;
        },
        kWait);
  };
  long total = 1;  // with the final one below
  for (int round = 0; round < kModifies; ++round) {
    ASSERT_TRUE(c.send_modify(modifyPairs(round)));
    std::thread other([] {
      for (long i = 0; i < kBatch; ++i) transaction("/race/b");
    });
    for (long i = 0; i < kBatch; ++i) transaction("/race/a?x=1");
    other.join();
    total += 2 * kBatch;
    ASSERT_TRUE(modifyReplies(static_cast<std::size_t>(round) + 1)) << "round " << round;
  }

  // The last round (odd) is in force.
  EXPECT_EQ(a.ZXSys.controlTraceLevel, 0);
  EXPECT_EQ(a.ZXSys.bciMaxNonServiceMethodsPerFP, 1);
  EXPECT_EQ(a.ZXFlowpathGenerator.maxCharactersInSeqBlob, 40);
  EXPECT_EQ(a.ZXFlowpathIds.seqNoDigits, 21);
  EXPECT_EQ(a.ZXFlowpathIds.seqNumMask, 0x1FFFFF);
  EXPECT_EQ(a.ZXSys.bciInstrSessionPct, 50);
  EXPECT_EQ(a.ZXSys.captureMethodForAllFP, 1);
  EXPECT_EQ(a.ZXSys.dumpDebugData, 1);
  EXPECT_EQ(a.ZXSys.zxEnableTxHotspot, 0);
  EXPECT_EQ(a.btMonitor.doNotDisacrdAnyTransaction.load(), 1);

  // And they act: a blob past 40 characters goes out early as record 3.
  ASSERT_TRUE(c.send_modify("bciMaxNonServiceMethodsPerFP=50000"));
  ASSERT_TRUE(modifyReplies(kModifies + 1));
  transaction("/race/final");
  // The final flowpath's id from its header, then its records 3 and 4.
  std::string id;
  auto recordOf = [&](int number) {
    return c.wait_until(
        [&](const zxref::History &h) {
          for (const zxref::Record &r : h.records) {
            const auto &f = r.fields;
            if (number == 2 && r.number == 2 && f.size() > 6 && f[6] == "/race/final") id = f[1];
            if (number != 2 && r.number == number && f.size() > 1 && f[1] == id) return true;
          }
          return number == 2 && !id.empty();
        },
        kWait);
  };
  ASSERT_TRUE(recordOf(2)) << "transactions still reach the collector";
  EXPECT_TRUE(recordOf(3)) << "the blob limit applies";
  EXPECT_TRUE(recordOf(4));
  // Every transaction arrived, none dropped for want of a buffer.
  EXPECT_TRUE(c.wait_until(
      [&](const zxref::History &h) {
        return std::count_if(h.records.begin(), h.records.end(),
                             [](const zxref::Record &r) { return r.number == 4; }) >= total;
      },
      kWait));
  EXPECT_EQ(a.ZXSys.discardCount.load(), 0);
}

// The names a keyword replaces are read by every thread's trace lines when
// lines are gathered for the proxy: a replaced name must never be freed
// under such a line.
TEST(PublishedNames, ReplacedWhileTraceLinesReadThem) {
  zxtest::TempDir home;
  zxtest::ScopedApp app(home.str());
  zxtest::ScopedTraceKey key(zxlb_init_mt_trace_log_ex(home.str().c_str(), "trace.log", 1, 100));
  ASSERT_NE(app->agentLogBuffer, nullptr);
  app->ZXSys.sendLogsToProxy = 2;
  app->Server.InstrumentationBusy = 1;
  std::atomic<bool> stop{false};
  std::atomic<long> lines{0};
  std::thread reader([&] {
    while (!stop.load()) {
      app->agentLogBuffer[0] = '\0';  // keeps each line short
      zxlb_mt_trace_log(key.get(), nullptr, 0, "TEST", "Info", "f", 1, "fn", "line");
      lines.fetch_add(1);
    }
  });
  for (int i = 0; i < 200; ++i) {
    const std::string n = std::to_string(i);
    std::string msg = "zx_control_req:action=modify;appName=app" + n + ";tierName=tier" + n +
                      ";zxAppServerHost=host" + n;
    findStatusFromClientMsg(*tlzxApplication, msg.data());
    const long seen = lines.load();
    ASSERT_TRUE(zxtest::wait_until([&] { return lines.load() > seen; }));
  }
  stop = true;
  reader.join();
  EXPECT_STREQ(app->ZXBCISetting.tierName.c_str(), "tier199");
  EXPECT_NE(std::string(app->agentLogBuffer.get()).find("AGENT-LOG<tier199_host199_app199>"),
            std::string::npos);
}

}  // namespace
