// The flowpath generator: instance ids and their masks, blob entries against
// the printf formats they replace, records 2/3/4 byte for byte with the
// discarding rules, the flush threshold, the method limit, a whole flowpath
// from start to end and to the stop walk, and transactions that outlive a
// profile swap or a stop.
#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstdio>
#include <functional>
#include <memory>
#include <regex>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include "Server.h"
#include "ZXBTMonitor.h"
#include "ZXDataDispatcher.h"
#include "ZXDataThread.h"
#include "ZXFlowpathGenerator.h"
#include "ZXMethodManager.h"
#include "ZXProxyInstance.h"
#include "ZXRunTimeChangeHandle.h"
#include "ZXSessionCookie.h"
#include "flowpath_decode.h"
#include "reference_collector.h"
#include "test_support.h"
#include "zx_sdk.h"
#include "zxbt_bt_object.h"
#include "zxlb_mem_pool.h"
#include "zxlb_utiles.h"

namespace {

using namespace std::chrono_literals;
using zxtest::ScopedApp;

class FlowpathTest : public ::testing::Test {
 protected:
  FlowpathTest() {
    app_->ZXSys.bciDataBufferMaxSize = 1 << 17;
    app_->ZXSys.dataBuffMaxCount = 8;
    EXPECT_EQ(buff_list_init(&*app_), 0);
    rec_->tlThreadId = 7;
    rec_->flowpathInstance = 5001;
    rec_->tlIsFPCaptured = 1;
    rec_->tlBTObj = &bt_;
    bt_.bt_id = 4;
  }
  ZXProxyInstance_t &app() { return *app_; }
  // Every record sent since the last call.
  std::string records() { return zxtest::drain_records(app()); }
  std::string blob() const { return std::string(rec_->sequenceBlob, rec_->sequenceBlobLen); }
  void entry(int mid, long long t, int pageID = -1, int async = 0, const char *url = "") {
    updateFPSeqBlob(&app(), rec_.get(), mid, t, ZX_FP_EVENT_ENTRY, pageID, -1, async,
                    rec_->tlThreadId, url, 0);
  }
  void exit(int mid, long long wall, long long cpu = -1, int event = ZX_FP_EVENT_EXIT,
            int capture = 0) {
    updateFPSeqBlob(&app(), rec_.get(), mid, wall, event, -1, cpu, 0, rec_->tlThreadId, nullptr,
                    capture);
  }
  int complete(int category) {
    rec_->sequenceBlobLock.lock();
    int n = dumpCompleteFlowpathSeqBlock(&app(), rec_.get(), category, 3, 250);
    rec_->sequenceBlobLock.unlock();
    return n;
  }

  ScopedApp app_;
  BTObject bt_;
  std::unique_ptr<ZXPerThreadData_t> rec_ = std::make_unique<ZXPerThreadData_t>();
};

// Ids that share low bits and runs that wrap, past several growths: every
// erase (a backward shift) must leave the rest of its run findable.
TEST(FlowpathIdTable, FindsEveryRunningIdThroughGrowthAndErases) {
  ZXFpiToTLS table;
  std::vector<std::unique_ptr<ZXPerThreadData_t>> recs;
  std::vector<long long> ids;
  for (int i = 0; i < 700; ++i) {
    recs.push_back(std::make_unique<ZXPerThreadData_t>());
    ids.push_back((1700000000000LL << 22) + 2 * i + 1);
    ASSERT_TRUE(table.put(ids.back(), recs.back().get()));
  }
  EXPECT_EQ(table.size(), 700u);
  for (int i = 0; i < 700; i += 3) table.erase(ids[i], recs[i].get());
  for (int i = 0; i < 700; ++i) ASSERT_EQ(table.find(ids[i]), i % 3 ? recs[i].get() : nullptr) << i;
  EXPECT_EQ(table.find(ids[1] + 1), nullptr);

  // A forced id taken over by a second flowpath: the first one's end must not
  // drop the second one's entry.
  ZXPerThreadData_t other;
  ASSERT_TRUE(table.put(ids[1], &other));
  table.erase(ids[1], recs[1].get());
  EXPECT_EQ(table.find(ids[1]), &other);
  table.erase(ids[1], &other);
  EXPECT_EQ(table.find(ids[1]), nullptr);
  for (int i = 0; i < 700; ++i) table.erase(ids[i], recs[i].get());
  EXPECT_EQ(table.size(), 0u);
}

// The blob lock under real contention: every waiter path (spin, yield, nap)
// must still exclude, or the plain counter loses increments (and the thread
// sanitizer sees the race).
TEST(BlobLock, ExcludesUnderContention) {
  ZXBlobLock lock;
  long long counter = 0;
  constexpr int kThreads = 4, kRounds = 20000;
  std::vector<std::thread> threads;
  for (int t = 0; t < kThreads; ++t)
    threads.emplace_back([&] {
      for (int i = 0; i < kRounds; ++i) {
        std::lock_guard lk(lock);
        ++counter;
        if (i % 1000 == 0) std::this_thread::yield();  // a holder descheduled
      }
    });
  for (auto &t : threads) t.join();
  EXPECT_EQ(counter, static_cast<long long>(kThreads) * kRounds);
}

TEST_F(FlowpathTest, InstanceIdsStepTheCounterTwiceUnderTheMasks) {
  ZXFlowpathIdSettings_t &s = app().ZXFlowpathIds;
  EXPECT_GT(generate_flowpath_instance(&app()), 0) << "the default masks give positive ids";
  app().ZXSys.rSeq = 0;
  s.flowPathInstanceInitialID = 1000;
  s.timeStampMask = 0;
  s.seqNumMask = 0xFFFF;
  EXPECT_EQ(generate_flowpath_instance(&app()), 1001);
  EXPECT_EQ(generate_flowpath_instance(&app()), 1003);
  app().ZXSys.rSeq = 0x1FFFF;  // the mask wraps the counter
  EXPECT_EQ(generate_flowpath_instance(&app()), 1000);

  ASSERT_EQ(parse_flowpath_mask(&app(), "0%20FF%2016%20ffff%20x%20y"), 0);
  EXPECT_EQ(s.timeStampMask, 0xFF);
  EXPECT_EQ(s.seqNoDigits, 16);
  EXPECT_EQ(s.seqNumMask, 0xFFFF);
  app().Server.morEpochDiffTime = 5000;
  long long before = my_gettimeofday() - 5000;
  long long id = generate_flowpath_instance(&app());
  long long after = my_gettimeofday() - 5000;
  long long stamp = (id - 1000) >> 16;
  EXPECT_TRUE(stamp == (before & 0xFF) || stamp == (after & 0xFF)) << id;
  EXPECT_EQ((id - 1000) & 0xFFFF, 2);

  // The keyword applying them is judged in settings_race_test.
  EXPECT_EQ(parse_flowpath_mask(&app(), "0%201%202"), -1);
  EXPECT_EQ(s.seqNoDigits, 16) << "a short value changes nothing";
  char text[] = "a%20b%20c";
  char *parts[2];
  EXPECT_EQ(tokenize_flowpathmasks(text, parts, "%20", 2), 2);
  EXPECT_STREQ(parts[0], "a");
  EXPECT_STREQ(parts[1], "b%20c") << "the last piece keeps the rest";
}

TEST_F(FlowpathTest, BlobEntriesMatchTheirPrintfFormats) {
  struct Case {
    const char *want;
    std::function<void()> append;
  };
  const long long big = 9223372036854775807LL;
  char oracle[128];
  std::snprintf(oracle, sizeof oracle, "%d:%lld_%d_%lld_%lld___", -3, 7LL, 4, big, -0LL);
  std::vector<Case> cases = {
      {"12_0_40_6_", [&] { entry(12, 40, 6); }},
      {"12:7:1:/cart?x=1_0_40__", [&] { entry(12, 40, -1, 1, "/cart?x=1"); }},
      {"12:7_0_40__", [&] { entry(12, 40); }},
      {"12:7_1_95____", [&] { exit(12, 95); }},
      {"12:7_1_95_0___", [&] { exit(12, 95, 0); }},
      {"12:7_3_95_8___", [&] { exit(12, 95, 8, 3); }},
      {"12:7_4_95____", [&] { exit(12, 95, -1, 4); }},
      {"12:7_1_95____", [&] { exit(12, 95, -1, 1, 1); }},  // notification phase off
      {"", [&] { exit(12, 95, -1, 2); }},
      {oracle, [&] { exit(-3, big, 0, 4); }},
  };
  for (const Case &c : cases) {
    rec_->sequenceBlobLen = 0;
    c.append();
    EXPECT_EQ(blob(), c.want);
  }
  // Every digit count, at its edges.
  for (long long v = 1; v <= big / 10; v *= 10) {
    for (long long n : {v - 1, v, 10 * v - 1, v + v / 3, -v, 10 * v, big - v}) {
      std::snprintf(oracle, sizeof oracle, "5:7_1_%lld____", n);
      rec_->sequenceBlobLen = 0;
      exit(5, n);
      ASSERT_EQ(blob(), oracle);
    }
  }
  app().ZXSys.enableProcessNotificationPhase = 1;
  rec_->seqNum = 33;
  rec_->sequenceBlobLen = 0;
  exit(12, 95, -1, 1, 1);
  exit(12, 95, 2, 1, 1);
  EXPECT_EQ(blob(), "12:7_1:33_95____12:7_1:33_95_2___") << "entries follow without separator";
  EXPECT_EQ(records(), "") << "nothing goes out below the threshold";
}

TEST_F(FlowpathTest, CallOutEntriesByTypeAndStatus) {
  methodPropProperties db{}, six{}, http{};
  db.methodId = 20, db.type = 2;
  six.methodId = 21, six.type = 6;
  http.methodId = 22, http.type = 1;
  rec_->seqNum = 5;
  auto callout = [&](const methodPropProperties &m, long long resource) {
    updateFPSeqBlobWithTierCallOutRecord(&app(), rec_.get(), 300, 45, &m, resource);
  };
  callout(db, 9);
  callout(six, 9);
  rec_->tierCallOutSeqNum = 8;
  callout(http, 9);
  EXPECT_EQ(rec_->tierCallOutSeqNum, 0);
  callout(http, 9);
  EXPECT_EQ(blob(), "T5:20:45:10:9:300_T5:21:45:8:0:300_T8:22:45:1:0:300_T5:22:45:1:0:300_");

  rec_->sequenceBlobLen = 0;
  rec_->tlStatusCode = 503;
  app().ZXSys.enableIPResourceURL = 1;
  callout(db, 9);
  callout(six, 9);
  callout(http, 9);
  EXPECT_EQ(blob(), "E5:20:45:10:9:300:503_E5:21:45:8:0:300:503_E5:22:45:1:0:300:503:9_");
}

TEST_F(FlowpathTest, HeaderAndBlocksByteForByte) {
  rec_->tlFlowPathTimeStampInMS = 1700000000999;
  std::snprintf(rec_->tlURL, sizeof rec_->tlURL, "/shop/cart");
  std::snprintf(rec_->tlURLParameters, sizeof rec_->tlURLParameters, "id=3");
  std::snprintf(rec_->tlCorrelationIdHeader, sizeof rec_->tlCorrelationIdHeader, "corr-1");
  rec_->zxSessionId = 77;
  rec_->morSID = 123;
  rec_->ZXPageID = 9;
  rec_->tlFlowpathType = 2;
  rec_->qTimeInMS = -1;
  rec_->tlStatusCode = 200;
  entry(12, 40);
  rec_->sequenceBlobLock.lock();
  dumpIncompleteFlowpathSeqBlock(&app(), rec_.get());
  rec_->sequenceBlobLock.unlock();
  exit(12, 95);
  EXPECT_EQ(complete(11), 1);
  EXPECT_EQ(records(),
            "2,5001,1700000000,7,7.1,4,/shop/cart?id=3,,77,000000000000000000123,9,,2,-1\n"
            "3,5001,12:7_0_40__\n"
            "4,5001,200,11,3,250,4,2,12:7_1_95____\n");

  // Chained and forced: every id gets its F; the position is the caller's.
  rec_->tlIsFPHeaderDumped = 0;
  rec_->sequenceBlobLen = 0;
  rec_->tlIsForceDump = 1;
  rec_->firstFlowpathInstance = 11;
  rec_->prevFlowpathInstance = 22;
  rec_->prevTierSeq.assign("3.2");
  rec_->morSID = 0;
  rec_->tlURLParameters[0] = '\0';
  app().ZXFlowpathIds.captureCorrelationEnabled = 1;
  EXPECT_EQ(complete(10), 1);
  EXPECT_EQ(records(),
            "2,5001F:11F:22F,1700000000,7,3.2.1,4,/shop/cart,corr-1,77,0,9,,2,-1\n"
            "4,5001F,200,10,3,250,4,2,\n");
}

TEST_F(FlowpathTest, DiscardedFlowpathsWriteNothingOrEndWithMinus99) {
  rec_->tlIsFPCaptured = 0;
  EXPECT_EQ(complete(10), 0) << "uncaptured and normal";
  EXPECT_EQ(complete(11), 1) << "slow ones are kept";
  std::string slow = records();
  EXPECT_NE(slow.find("\n4,5001,0,11,"), std::string::npos) << slow;

  rec_->tlIsFPHeaderDumped = 0;
  app().btMonitor.doNotDisacrdAnyTransaction = 1;
  EXPECT_EQ(complete(10), 1);
  app().btMonitor.doNotDisacrdAnyTransaction = 0;
  records();
  EXPECT_EQ(complete(10), 1) << "a header went out, so the end follows";
  EXPECT_EQ(records(), "4,5001,-99,10,3,250,4,0,\n");

  rec_->tlIsFPCaptured = 1;
  rec_->tlIsBTExcluded = 1;
  EXPECT_EQ(complete(157), 1);
  EXPECT_EQ(records(), "4,5001,-99,157,3,250,4,0,\n");
  rec_->tlIsFPHeaderDumped = 0;
  EXPECT_EQ(complete(157), 0);
  EXPECT_EQ(records(), "");
}

TEST_F(FlowpathTest, FullBlobIsFlushedAsRecord3AndContinuesEmpty) {
  EXPECT_EQ(getMaxCharactersInSeqBlob(), 13312);
  const std::string one = "12:7_0_40__";  // 11 bytes: 1210 stay below 13312, 1211 reach it
  std::string all;
  for (int i = 0; i < 1210; ++i) entry(12, 40), all += one;
  EXPECT_EQ(rec_->sequenceBlobLen, 13310);
  EXPECT_EQ(records(), "");
  entry(12, 40), all += one;
  EXPECT_EQ(rec_->sequenceBlobLen, 0);
  entry(12, 41);
  complete(10);
  EXPECT_EQ(records(), "2,5001,0,7,7.1,4,,,0,0,0,,0,0\n3,5001," + all +
                           "\n4,5001,0,10,3,250,4,0,12:7_0_41__\n");
}

TEST_F(FlowpathTest, MethodsPastTheLimitWriteNeitherEntryNorExit) {
  app().ZXSys.bciMaxNonServiceMethodsPerFP = 2;
  methodPropProperties service{}, plain{}, callout{};
  service.methodId = 1, service.isEntryPoint = 1;
  plain.methodId = 2;
  callout.methodId = 3, callout.isEntryPoint = 8;
  const long long t0 = rec_->tlFlowPathTimeStampInMS = 1000;
  zxMethodEntryEx(&app(), rec_.get(), &service, t0);
  for (int i = 0; i < 4; ++i) zxMethodEntryEx(&app(), rec_.get(), &plain, t0 + 1 + i);
  for (int i = 0; i < 4; ++i) zxMethodExitEx(&app(), rec_.get(), &plain, 5, -1);
  zxMethodEntryEx(&app(), rec_.get(), &plain, t0 + 9);  // still past the limit
  zxMethodExitEx(&app(), rec_.get(), &plain, 1, -1);
  zxMethodExitEx(&app(), rec_.get(), &service, 10, -1);
  EXPECT_EQ(blob(), "1:7_0_0__2:7_0_1__2:7_0_2__2:7_1_5____2:7_1_5____1:7_1_10____");
  EXPECT_EQ(rec_->seqNum, 3);

  // An uncaptured flowpath still records call-outs, with their call-out entry.
  rec_->tlFlowPathTimeStampInMS = my_gettimeofday() - 10;
  rec_->sequenceBlobLen = 0;
  rec_->tlNonServiceMethodCount = 0;
  rec_->tlIsFPCaptured = 0;
  const long long t1 = rec_->tlFlowPathTimeStampInMS;
  zxMethodEntryEx(&app(), rec_.get(), &plain, t1 + 2);
  zxMethodEntryEx(&app(), rec_.get(), &callout, t1 + 3);
  zxMethodExitEx(&app(), rec_.get(), &callout, 1, -1);
  EXPECT_TRUE(std::regex_match(blob(), std::regex("3:7_0_3__3:7_1_1____T4:3:1:1:0:[0-9]+_")))
      << blob();
}

class FlowpathRunTest : public FlowpathTest {
 protected:
  FlowpathRunTest() {
    initPerThreadSlots(&app());
    app().methodIDGlobal = 1;
    app().allSlow = 3000;
    app().allVerySlow = 5000;
    app().maxStates = 128;
    EXPECT_EQ(ZXBTConfigModelInit(*tlzxApplication), 0);
    app().Server.testRunRunning = 1;
  }
  // The data thread's stop step: every busy flowpath written as incomplete.
  // What a run's stop writes: every flowpath still running, as incomplete.
  void stopWalk() {
    dumpFpFromBusyList(
        &app(),
        [](ZXPerThreadData_t *r, void *user) {
          dumpIncompleteFPAtTestStop(static_cast<ZXAppTracing *>(user), r);
        },
        static_cast<ZXAppTracing *>(&app()));
  }
  // Transactions counted by the BT monitor since the last call.
  long long counted() {
    std::vector<char> buf(ZXBT_REPORT_BUFFER_SIZE);
    int len = 0;
    if (!generateAndDumpBTMonitoringRecord(app(), buf.data(), &len, ZXBT_REPORT_BUFFER_SIZE))
      return 0;
    const std::string text(buf.data(), static_cast<std::size_t>(len));
    const auto at = text.find("AllTransactions|");
    if (at == std::string::npos) return 0;
    std::istringstream in(text.substr(at + 16));
    double perSec, avg, min;
    long long max, n = 0;
    in >> perSec >> avg >> min >> max >> n;
    return n;
  }
  void method(ZXPerThreadData_t *r, const char *name) {
    zxMethodEntry(&app(), nullptr, r, name, nullptr, nullptr, 0, nullptr, 0, 0);
    zxMethodExit(&app(), nullptr, r, name, -1, 200, nullptr, -1, 0, 0, 0, 1, 0, 0);
  }
};

TEST_F(FlowpathRunTest, ForcedFlowpathFromStartToEnd) {
  app().Server.testRunRunning = 0;
  EXPECT_EQ(startFP(&app(), nullptr, "/a", nullptr, 0, nullptr, nullptr, nullptr, -1, 0), nullptr);
  app().Server.testRunRunning = 1;

  ZXPerThreadData_t *r =
      startFP(&app(), "123F", "/a", nullptr, 0, nullptr, nullptr, "c1", 4, 1700000000500);
  ASSERT_NE(r, nullptr);
  ASSERT_NE(r->tlBTObj, nullptr);
  EXPECT_EQ(findFPFromInstance(&app(), "123"), r);
  EXPECT_EQ(r->flowpathInstance, 123);
  EXPECT_EQ(r->tlIsForceDump, 1);
  endFP(&app(), r, 200, 0, 1700000000520);
  EXPECT_EQ(r->tlDuration, 20);
  EXPECT_EQ(findFPFromInstance(&app(), "123"), nullptr);
  EXPECT_EQ(r->hasMapNodePtr, nullptr) << "the method table reference was dropped";
  const std::string bt = std::to_string(r->tlBTObj->bt_id.load());
  const std::string tid = std::to_string(r->tlThreadId);
  // The new BT announces itself (record 7) first.
  EXPECT_EQ(records(), "7," + bt + ",/a\n2,123F,1700000000," + tid + "," + tid + ".1," + bt +
                           ",/a,,0,0,0,,0,4\n" + "4,123F,200,10,0,20," + bt + ",0,1:" + tid +
                           "_0_0__1:" + tid + "_1_20____\n");
  reset(&app(), r);
  EXPECT_EQ(app().gBusyTLSCnt, 0);
}

// The stop writes what runs and leaves each slot to its owner, whose later
// calls write and count nothing more.
TEST_F(FlowpathRunTest, StopWritesRunningFlowpathsAndLeavesTheSlotsToTheirOwners) {
  ZXPerThreadData_t *running =
      startFP(&app(), "77", "/b", nullptr, 0, nullptr, nullptr, nullptr, -1, 0);
  ZXPerThreadData_t *ended =
      startFP(&app(), "78", "/b", nullptr, 0, nullptr, nullptr, nullptr, -1, 0);
  ASSERT_TRUE(running && ended);
  endFP(&app(), ended, 200, 0, 0);
  records();
  stopWalk();
  std::string out = records();
  const std::string tid = std::to_string(running->tlThreadId);
  EXPECT_NE(out.find("\n3,77,1:" + tid + "_0_0__\n"), std::string::npos) << out;
  EXPECT_FALSE(std::regex_search(out, std::regex("(^|\n)[234],78,")))
      << "an ended flowpath is not written again: " << out;
  EXPECT_EQ(findFPFromInstance(&app(), "77"), nullptr);
  EXPECT_EQ(app().gBusyTLSCnt, 2) << "the owners have not let go yet";
  EXPECT_EQ(running->flowpathInstance, 77) << "not reset under its owner";

  method(running, "late.method");
  endFP(&app(), running, 200, 0, 0);
  endFP(&app(), ended, 200, 0, 0);
  stopWalk();
  EXPECT_EQ(records(), "") << "no record 4 after the stop's record 3, no second end";
  EXPECT_EQ(counted(), 1) << "only the flowpath that ended before the stop";
  reset(&app(), running);
  reset(&app(), ended);
  EXPECT_EQ(app().gBusyTLSCnt, 0);
  EXPECT_EQ(app().methodHashMapNode->ref_count.load(), 0);
}

// The owner keeps calling while the stop walk writes its flowpath out.
TEST_F(FlowpathRunTest, StopWhileOwnersAreInsideTheirTransactions) {
  constexpr int kOwners = 3;
  app().ZXSys.bciMaxNonServiceMethodsPerFP = 20;  // small blobs: no flush before the stop
  std::atomic<int> busy{0};
  std::atomic<bool> stopped{false};
  std::vector<std::string> ids(kOwners);
  std::vector<std::thread> owners;
  for (int t = 0; t < kOwners; ++t)
    owners.emplace_back([&, t] {
      ZXPerThreadData_t *r =
          startFP(&app(), nullptr, "/race", nullptr, 0, nullptr, nullptr, nullptr, -1, 0);
      ASSERT_NE(r, nullptr);
      ids[t] = r->flowpathInstanceStr;
      ++busy;
      const auto deadline = std::chrono::steady_clock::now() + 10s;
      // Events before, during and after the stop.
      for (int after = 0; after < 50 && std::chrono::steady_clock::now() < deadline;)
        if (stopped.load()) {
          method(r, "after.stop");
          ++after;
        } else {
          method(r, "before.stop");
        }
      endFP(&app(), r, 200, 0, 0);
      reset(&app(), r);
    });
  ASSERT_TRUE(zxtest::wait_until([&] { return busy.load() == kOwners; }));
  stopWalk();
  stopped = true;
  for (auto &o : owners) o.join();
  const std::string out = records();
  for (const std::string &id : ids) {
    EXPECT_TRUE(std::regex_search(out, std::regex("(^|\n)3," + id + ",[^\n]*\n"))) << out;
    EXPECT_FALSE(std::regex_search(out, std::regex("(^|\n)4," + id + ","))) << out;
  }
  EXPECT_EQ(counted(), 0);
  EXPECT_EQ(app().gBusyTLSCnt, 0);
}

// Names resolved by one flowpath must not outlive its table: the next one on
// the same slot, after a profile swap, resolves them in the new table.
TEST_F(FlowpathRunTest, NamesResolveInTheTableOfTheirOwnFlowpath) {
  ZXPerThreadData_t *r = startFP(&app(), "601", "/a", nullptr, 0, nullptr, nullptr, nullptr, -1, 0);
  ASSERT_NE(r, nullptr);
  methodPropProperties *before = findOrAddMethod(&app(), r, "app.Cart.load", 0, 0);
  ASSERT_NE(before, nullptr);
  for (const char *other : {"app.A", "app.B", "app.C", "app.D", "app.E"})
    ASSERT_NE(findOrAddMethod(&app(), r, other, 0, 0), nullptr);
  EXPECT_EQ(findOrAddMethod(&app(), r, "app.Cart.load", 0, 0), before)
      << "pushed out of the recent names, found again in the table";
  EXPECT_EQ(findOrAddMethod(&app(), r, "app.E", 0, 0)->methodId, before->methodId + 5);
  endFP(&app(), r, 200, 0, 0);
  EXPECT_EQ(findOrAddMethod(&app(), r, "app.Cart.load", 0, 0), nullptr)
      << "an ended flowpath holds no table";
  reset(&app(), r);

  ASSERT_EQ(setMethodHashMapNode(&app(), "app.Cart.load|1|0|cart\n"), 0);
  ZXPerThreadData_t *next = nullptr;
  for (int i = 0; i <= ZX_TLS_BLOCK_SIZE && next != r; ++i) {
    if (next) reset(&app(), next);  // given back slots are taken again last
    next = startFP(&app(), "602", "/a", nullptr, 0, nullptr, nullptr, nullptr, -1, 0);
  }
  ASSERT_EQ(next, r) << "the same slot again";
  methodPropProperties *after = findOrAddMethod(&app(), next, "app.Cart.load", 0, 0);
  ASSERT_NE(after, nullptr);
  EXPECT_EQ(after->isEntryPoint, 1) << "the new table's record";
  EXPECT_EQ(after->methodId, before->methodId);
  endFP(&app(), next, 200, 0, 0);
  reset(&app(), next);
}

TEST_F(FlowpathRunTest, SessionCookieDecidesCapture) {
  char keyword[] = "zx_control_req:action=modify;enableZXSession=1%200%200";
  findStatusFromClientMsg(*tlzxApplication, keyword);
  app().ZXSys.bciInstrSessionPct = 0;  // no session is instrumented
  records();
  const std::string now = std::to_string(my_gettimeofday());
  // A session already under way and not instrumented: a normal flowpath of
  // it leaves no record at all.
  ZXPerThreadData_t *r = startFP(&app(), nullptr, "/quiet", nullptr, 0, ("9:1:" + now).c_str(),
                                 nullptr, nullptr, -1, 0);
  ASSERT_NE(r, nullptr);
  EXPECT_EQ(r->tlIsFPCaptured, 0);
  EXPECT_EQ(r->zxSessionId, 9);
  endFP(&app(), r, 200, 0, 0);
  reset(&app(), r);
  EXPECT_EQ(records().find("\n4,"), std::string::npos);
  zx_set_session_settings(*tlzxApplication, ZXSessionSettings_t{});
}

// SDK calls to records at the reference collector over real runs: a
// transaction that runs across the collector's stop and the next run's
// start, which installs a profile that retires its method table, and the
// next transaction decoded as the collector shows it.
class FlowpathAcrossRuns : public ::testing::Test, protected zxtest::LinkedAgent {
 protected:
  // Records 2, 3 and 4 of flowpath `id` received so far, by record number.
  static std::vector<int> recordsOf(const zxref::History &h, const std::string &id) {
    std::vector<int> numbers;
    for (const zxref::Record &r : h.records)
      if (r.number >= 2 && r.number <= 4 && r.fields.size() > 1 && r.fields[1] == id)
        numbers.push_back(r.number);
    return numbers;
  }
  static bool received(zxref::ReferenceCollector &c, int number, const std::string &id) {
    return c.wait_until(
        [&](const zxref::History &h) {
          const auto n = recordsOf(h, id);
          return std::find(n.begin(), n.end(), number) != n.end();
        },
        10s);
  }
};

TEST_F(FlowpathAcrossRuns, TransactionRunsAcrossAStopAndANewStart) {
  zxref::ReferenceCollector c;
  ASSERT_TRUE(c.start()) << c.error();
  home().write("instrProfile.txt", "Shop.Checkout.pay|0|0\n");  // saved by an earlier run
  ZXProxyInstance_t &a = start_sdk_run(c);

  zxBTHandle bt = zx_bt_begin("/pay", nullptr);
  ASSERT_NE(bt, nullptr);
  const std::string id = bt->flowpathInstanceStr;
  zx_method_entry(bt, "Pay.run");
  zxIPCallOutHandle backend = zx_ip_http_callout_begin(bt, "pay.backend", "/charge");
  ASSERT_NE(backend, nullptr);

  ASSERT_TRUE(c.send_stop("status=stopped"));
  ASSERT_TRUE(received(c, 3, id)) << "the stop writes the running flowpath as incomplete";
  // The next run's profile redefines the backend, so the record the
  // call-out holds is left in the retired table alone.
  home().write("instrProfile.txt", "pay.backend|8|1|-|payments\n");
  const std::size_t replies = c.lines(zxref::ConnKind::Control).size();
  ASSERT_TRUE(c.send_start("status=running"));
  ASSERT_TRUE(c.wait_for_control_line(
      [](std::string_view l) {
        return l.rfind("zx_control_rep:action=start_instrumentation", 0) == 0;
      },
      10s, replies))
      << "answered once the profile is installed";
  checkAndDeleteNode(&a);
  EXPECT_EQ(retiredNodeCount(&a), 1) << "the transaction still holds its table";

  zx_ip_http_callout_end(bt, backend);
  zx_method_exit(bt, "Pay.run");
  zx_method_entry(bt, "Pay.receipt");
  zx_method_exit(bt, "Pay.receipt");
  EXPECT_EQ(zx_bt_end(bt, 200), 0);
  zxBTHandle next = zx_bt_begin("/cart/add?sku=9", nullptr);
  ASSERT_NE(next, nullptr);
  EXPECT_NE(next, bt) << "the slot is not handed out while its owner holds it";
  EXPECT_EQ(zx_bt_release(bt), 0);
  // With no flowpath holding it, the control thread frees it on an idle poll.
  EXPECT_TRUE(zxtest::wait_until([&] { return retiredNodeCount(&a) == 0; }));

  const std::string nextId = next->flowpathInstanceStr;
  zx_method_entry(next, "Cart.add");
  zx_ip_http_callout_end(next, zx_ip_http_callout_begin(next, "stock.svc", "/reserve"));
  zx_method_exit(next, "Cart.add");
  EXPECT_EQ(zx_bt_end(next, 200), 0);
  EXPECT_EQ(zx_bt_release(next), 0);
  ASSERT_TRUE(received(c, 4, nextId));
  // Records go out in order, so a record 4 of the old flowpath would be here.
  EXPECT_EQ(recordsOf(c.snapshot(), id), (std::vector<int>{2, 3})) << "written once, by the stop";
  EXPECT_EQ(a.gBusyTLSCnt, 0);

  // Decoded as the collector shows it: header, names and the call tree.
  zxref::FlowpathStore store;
  for (const zxref::Record &r : c.records()) store.add(r);
  const zxref::NameBook &names = store.names();
  auto fp =
      std::find_if(store.finished().begin(), store.finished().end(),
                   [&](const zxref::Flowpath &f) { return std::to_string(f.instance) == nextId; });
  ASSERT_NE(fp, store.finished().end());
  ASSERT_TRUE(fp->header.has_value());
  EXPECT_EQ(fp->header->url, "/cart/add?sku=9");
  EXPECT_EQ(names.bt(fp->bt_id), "/cart/add");
  EXPECT_EQ(fp->status, 200);
  const zxref::ParsedBlob blob = zxref::parse_blob(fp->blob);
  EXPECT_EQ(blob.skipped, 0u) << fp->blob;
  const zxref::CallTree tree = zxref::build_call_tree(blob.entries);
  ASSERT_EQ(tree.roots.size(), 1u) << fp->blob;
  EXPECT_EQ(names.method(tree.roots[0].method_id), "Profiler.Morvane.BeginRequest");
  ASSERT_EQ(tree.roots[0].children.size(), 1u) << fp->blob;
  const zxref::CallNode &add = tree.roots[0].children[0];
  EXPECT_EQ(names.method(add.method_id), "Cart.add");
  ASSERT_EQ(add.callouts.size(), 1u) << fp->blob;
  EXPECT_EQ(add.callouts[0].kind, 1);
  EXPECT_EQ(names.method(add.callouts[0].method_id), "stock.svc");
  EXPECT_TRUE(std::any_of(names.methods.begin(), names.methods.end(), [](const auto &n) {
    return n.second == "Shop.Checkout.pay";
  })) << "the saved profile was loaded at the first run's start";
  zx_free();
}

}  // namespace
