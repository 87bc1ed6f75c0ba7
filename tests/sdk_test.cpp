// The SDK as a host uses it: neutral results on bad arguments (counted, and
// logged only as rate-limited lines and summaries), parked handles, call-out
// depths and slot give-back over many transactions. The whole path from SDK
// calls to records at the collector is flowpath_generator_test's.
#include <gtest/gtest.h>

#include <algorithm>
#include <chrono>
#include <regex>
#include <string>
#include <thread>
#include <vector>

#include "ZXProxyInstance.h"
#include "test_support.h"
#include "zx_sdk.h"
#include "zx_sdk_log.h"
#include "zxbt_bt_object.h"
#include "zxlb_mem_pool.h"

namespace {

using namespace std::chrono_literals;
using zxtest::ScopedApp;

// An agent with a run going and the send buffers read back directly.
class SdkTest : public ::testing::Test {
 protected:
  SdkTest() : app_(home_.str()) {
    app().ZXSys.bciDataBufferMaxSize = 1 << 17;
    app().ZXSys.dataBuffMaxCount = 8;
    EXPECT_EQ(buff_list_init(&app()), 0);
    initPerThreadSlots(&app());
    app().methodIDGlobal = 1;
    app().maxStates = 128;
    app().allSlow = 3000;
    app().allVerySlow = 5000;
    EXPECT_EQ(ZXBTConfigModelInit(*tlzxApplication), 0);
    app().dataThreadRunning = true;
    app().Server.testRunRunning = 1;
    zx_set_init_pause_ms(0);
    zx_init();
  }
  ~SdkTest() override { zx_free(); }
  ZXProxyInstance_t &app() { return *app_; }
  std::string records() { return zxtest::drain_records(app()); }
  // The method id announced for `name` in record 5, or -1.
  static int idOf(const std::string &records, const std::string &name) {
    std::smatch m;
    if (!std::regex_search(records, m, std::regex("(^|\n)5," + name + ",([0-9]+)\n"))) return -1;
    return std::stoi(m[2]);
  }
  std::string sdkLog() {
    return zxtest::read_file(home_.path() / "logs" /
                             ("zx_sdk_" + std::to_string(getpid()) + ".log"));
  }
  // Transactions of BT `id` counted in every thread's monitor model.
  int btCount(int id) {
    int n = 0;
    std::lock_guard lk(app().controlThreadTmpLock);
    for (auto &[tid, model] : app().btMonitor.threadModels) {
      std::lock_guard mk(model->lockForBT);
      if (id < static_cast<int>(model->btmDataArray.size()) && model->btmDataArray[id])
        n += static_cast<int>(model->btmDataArray[id]->counted());
    }
    return n;
  }

  zxtest::TempDir home_;
  ScopedApp app_;
};

TEST(SdkBeforeInit, EveryCallIsNeutral) {
  EXPECT_EQ(zx_bt_begin("/a", nullptr), nullptr);
  EXPECT_EQ(zx_bt_end(bt_int_to_handle(12345), 200), 0);
  EXPECT_EQ(zx_bt_release(nullptr), 0);
  EXPECT_EQ(zx_bt_get("x"), nullptr);
  zx_bt_store(nullptr, "x");
  zx_method_entry(nullptr, "m");
  zx_method_exit(nullptr, "m");
  EXPECT_EQ(zx_ip_db_callout_begin(nullptr, "db", "q"), nullptr);
  EXPECT_EQ(zx_ip_db_callout_end(nullptr, nullptr), 0);
  EXPECT_EQ(zx_ip_http_callout_begin(nullptr, "h", "/u"), nullptr);
  EXPECT_EQ(zx_ip_http_callout_end(nullptr, nullptr), 0);
  EXPECT_EQ(register_callback_for_agent(nullptr), -1);
  zx_free();  // before init: nothing to drop
}

// Error lines are rate-limited per period, the calls behind them all counted.
TEST_F(SdkTest, BadArgumentsGiveNeutralResultsAndRealErrorsAreLoggedRateLimited) {
  zx_sdk_set_summary_period_ms(3600 * 1000);
  const std::string huge(100 * 1024, 'n');
  EXPECT_EQ(zx_bt_begin(nullptr, nullptr), nullptr);
  EXPECT_EQ(zx_bt_begin("", "corr"), nullptr);
  EXPECT_EQ(zx_bt_end(nullptr, 200), -1);
  EXPECT_EQ(zx_bt_release(nullptr), -1);
  zx_bt_store(nullptr, "id");
  EXPECT_EQ(zx_bt_get(nullptr), nullptr);
  EXPECT_EQ(zx_bt_get(""), nullptr);
  zx_method_entry(nullptr, "m");
  zx_method_exit(nullptr, nullptr);
  EXPECT_EQ(zx_ip_db_callout_begin(nullptr, nullptr, nullptr), nullptr);
  EXPECT_EQ(zx_ip_db_callout_end(nullptr, nullptr), -1);
  EXPECT_EQ(zx_ip_http_callout_begin(nullptr, "", nullptr), nullptr);
  EXPECT_EQ(zx_ip_http_callout_end(nullptr, nullptr), -1);
  EXPECT_EQ(zx_bt_add_error(nullptr, 1, nullptr, 1), 0);

  // Long texts everywhere: cut where they are stored, never overrun.
  zxBTHandle bt = zx_bt_begin(huge.c_str(), huge.c_str());
  ASSERT_NE(bt, nullptr);
  zx_bt_store(bt, nullptr);
  zx_bt_store(bt, "");
  register_AD_callback(nullptr);
  EXPECT_EQ(register_callback_for_agent(nullptr), 0);
  zx_bt_store(bt, huge.c_str());
  EXPECT_EQ(zx_bt_get(huge.c_str()), bt);
  const unsigned long long bad = zx_sdk_count_of(zx_sdk_reason::bad_argument);
  for (int i = 0; i < 1000; ++i) zx_method_entry(bt, "");
  EXPECT_EQ(zx_sdk_count_of(zx_sdk_reason::bad_argument) - bad, 1000u);
  zx_method_entry(bt, huge.c_str());
  zx_method_exit(bt, huge.c_str());
  zxIPCallOutHandle db = zx_ip_db_callout_begin(bt, huge.c_str(), huge.c_str());
  EXPECT_EQ(zx_ip_db_callout_end(bt, nullptr), -1);
  EXPECT_EQ(zx_ip_db_callout_end(bt, db), 0);
  zxIPCallOutHandle http = zx_ip_http_callout_begin(bt, "web", huge.c_str());
  EXPECT_EQ(zx_ip_http_callout_end(bt, http), 0);
  EXPECT_EQ(zx_bt_end(bt, 200), 0);
  EXPECT_EQ(zx_bt_release(bt), 0);
  EXPECT_EQ(zx_bt_get(huge.c_str()), nullptr) << "a released handle is forgotten";
  EXPECT_LT(records().size(), 8u * 16384u);

  const std::string log = sdkLog();
  EXPECT_NE(log.find("ERROR: Invalid Argument Passed, bt_name = [(null)]"), std::string::npos);
  const std::size_t emptyName = zxtest::count_of(log, "], method = []");
  EXPECT_GE(emptyName, 1u) << "an empty name on a live handle";
  EXPECT_LE(emptyName, static_cast<std::size_t>(ZX_SDK_ERROR_LINES_PER_PERIOD));
  EXPECT_EQ(log.find("bt_handle = [(nil)]"), std::string::npos) << "NULL handles are only counted";
  for (std::size_t start = 0, end; (end = log.find('\n', start)) != std::string::npos;
       start = end + 1)
    EXPECT_LE(end - start, 2048u) << "log lines are bounded";
}

// A collector outage: no run, so every begin gives NULL and the host goes on
// with it from two threads. Each call is counted exactly; the log gets one
// summary when the flood starts and the last one at zx_free.
TEST_F(SdkTest, NullHandlesAreCountedAndOnlySummarised) {
  app().Server.testRunRunning = 0;
  zx_sdk_set_summary_period_ms(3600 * 1000);
  const unsigned long long nulls = zx_sdk_count_of(zx_sdk_reason::null_handle),
                           begins = zx_sdk_count_of(zx_sdk_reason::no_transaction);
  constexpr int kPerThread = 20000;
  auto host = [] {
    for (int i = 0; i < kPerThread; ++i) {
      zxBTHandle bt = zx_bt_begin("/down", nullptr);
      zx_method_entry(bt, "M.run");
      zx_ip_db_callout_end(bt, zx_ip_db_callout_begin(bt, "db", "SELECT 1"));
      zx_ip_http_callout_end(bt, zx_ip_http_callout_begin(bt, "web", "/x"));
      zx_method_exit(bt, "M.run");
      zx_bt_store(bt, "id");
      EXPECT_EQ(zx_bt_end(bt, 200), -1);
      EXPECT_EQ(zx_bt_release(bt), -1);
    }
  };
  std::thread t1(host), t2(host);
  t1.join();
  t2.join();
  EXPECT_EQ(zx_sdk_count_of(zx_sdk_reason::no_transaction) - begins, 2u * kPerThread);
  EXPECT_EQ(zx_sdk_count_of(zx_sdk_reason::null_handle) - nulls, 9u * 2 * kPerThread);
  EXPECT_EQ(records(), "");

  zx_free();  // writes the last summary
  const std::string log = sdkLog();
  EXPECT_LE(std::count(log.begin(), log.end(), '\n'), 3) << log;
  const std::string total = "null handle [0-9]+ \\(total " +
                            std::to_string(zx_sdk_count_of(zx_sdk_reason::null_handle)) + "\\)";
  EXPECT_TRUE(
      std::regex_search(log, std::regex("Neutral results since the last summary: .*" + total)))
      << log;
}

// A stored id finds the first handle that stored it, on any thread; a second
// end is refused without records or counts; a release without an end ends
// the flowpath first.
TEST_F(SdkTest, StoredIdsSecondEndsAndReleaseWithoutEnd) {
  records();
  zxBTHandle a = zx_bt_begin("/a", nullptr), b = zx_bt_begin("/b", nullptr);
  ASSERT_TRUE(a && b);
  zx_bt_store(a, "order-42");
  zx_bt_store(b, "order-42");
  zxBTHandle seen = nullptr;
  std::thread([&] {
    seen = zx_bt_get("order-42");
    zx_method_entry(seen, "Worker.run");
    zx_method_exit(seen, "Worker.run");
  }).join();
  EXPECT_EQ(seen, a);
  EXPECT_EQ(bt_int_to_handle(bt_handle_to_int(a)), a);

  ASSERT_EQ(zx_bt_end(a, 200), 0);
  const int id = a->tlBTObj->bt_id;
  EXPECT_EQ(btCount(id), 1);
  EXPECT_EQ(zxtest::count_of(records(), "\n4,"), 1u);
  const unsigned long long twice = zx_sdk_count_of(zx_sdk_reason::ended_twice);
  EXPECT_EQ(zx_bt_end(a, 500), -1);
  EXPECT_EQ(zx_sdk_count_of(zx_sdk_reason::ended_twice) - twice, 1u);
  EXPECT_EQ(records(), "");
  EXPECT_EQ(btCount(id), 1);
  EXPECT_EQ(a->tlStatusCode, 200);

  node_t *node = b->hasMapNodePtr;
  ASSERT_NE(node, nullptr);
  const int refs = node->ref_count.load();
  EXPECT_EQ(zx_bt_release(b), 0);
  EXPECT_EQ(node->ref_count.load(), refs - 1);
  EXPECT_NE(records().find("\n4,"), std::string::npos);
  EXPECT_EQ(zx_bt_get("order-42"), a) << "releasing another handle keeps the id";
  EXPECT_EQ(zx_bt_release(a), 0);
  EXPECT_EQ(zx_bt_get("order-42"), nullptr);
}

TEST_F(SdkTest, CallOutsCountOnceAtTheOutermostEnd) {
  records();
  zxBTHandle bt = zx_bt_begin("/orders", nullptr);
  ASSERT_NE(bt, nullptr);
  zxIPCallOutHandle outer = zx_ip_db_callout_begin(bt, "orders-db", "SELECT 1");
  zxIPCallOutHandle inner = zx_ip_db_callout_begin(bt, "orders-db", "SELECT 2");
  ASSERT_EQ(outer, inner) << "one backend record per host";
  EXPECT_EQ(ip_int_to_handle(ip_handle_to_int(outer)), outer);
  EXPECT_EQ(zx_ip_db_callout_end(bt, inner), 0);
  EXPECT_EQ(zx_ip_db_callout_end(bt, outer), 0);
  // An end without a begin still lowers the depth and is recorded.
  EXPECT_EQ(zx_ip_db_callout_end(bt, outer), 0);
  zxIPCallOutHandle web = zx_ip_http_callout_begin(bt, "pay.example", "/charge");
  zx_ip_http_callout_begin(bt, "pay.example", "/charge");
  zx_ip_http_callout_end(bt, web);
  zx_ip_http_callout_end(bt, web);
  zx_bt_end(bt, 200);
  const std::string out = records();
  const int db = idOf(out, "orders-db"), http = idOf(out, "pay.example");
  ASSERT_GT(db, 0) << out;
  ASSERT_GT(http, 0) << out;
  const std::string d = std::to_string(db), h = std::to_string(http);
  std::smatch m;
  ASSERT_TRUE(
      std::regex_search(out, m, std::regex("\n4,[0-9]+,200,[0-9]+,0,[0-9]+,[0-9]+,0,(.*)\n")))
      << out;
  const std::string blob = m[1];
  const std::regex dbEntry("T[0-9]+:" + d + ":[0-9]+:10:0:[0-9]+_");
  const std::regex httpEntry("T[0-9]+:" + h + ":[0-9]+:1:0:[0-9]+_");
  auto count = [&](const std::regex &re) {
    return std::distance(std::sregex_iterator(blob.begin(), blob.end(), re),
                         std::sregex_iterator());
  };
  EXPECT_EQ(count(dbEntry), 2) << blob;
  EXPECT_EQ(count(httpEntry), 1) << blob;
  EXPECT_EQ(bt->tlSQLObj.lastDbBackendId, db);
  const ZXBackendCountersSnapshot dbCounts = app().backendMonitor.read(db);
  EXPECT_EQ(dbCounts.count, 2);
  EXPECT_EQ(app().backendMonitor.read(http).count, 1);
  zx_bt_release(bt);
}

TEST_F(SdkTest, MethodsNestLikeACallStack) {
  records();
  zxBTHandle bt = zx_bt_begin("/nest?x=1", nullptr);
  ASSERT_NE(bt, nullptr);
  zx_method_entry(bt, "A.outer");
  zx_method_entry(bt, "B.inner");
  zx_method_exit(bt, "B.inner");
  zx_method_exit(bt, "A.outer");
  zx_method_exit(bt, "A.outer");  // unmatched: wall time 0, nothing breaks
  zx_bt_end(bt, 500);
  const std::string out = records();
  const std::string a = std::to_string(idOf(out, "A.outer")),
                    b = std::to_string(idOf(out, "B.inner"));
  const std::string t = std::to_string(bt->tlThreadId);
  const std::string body = a + ":" + t + "_0_[0-9]+__" + b + ":" + t + "_0_[0-9]+__" + b + ":" + t +
                           "_1_[0-9]+____" + a + ":" + t + "_1_[0-9]+____" + a + ":" + t +
                           "_1_0____";
  EXPECT_TRUE(std::regex_search(
      out, std::regex(",500,[0-9]+,0,[0-9]+,[0-9]+,0,[0-9]+:" + t + "_0_0__" + body)))
      << out;
  EXPECT_NE(out.find(",/nest?x=1,"), std::string::npos) << "the header keeps path and query";
  zx_bt_release(bt);
}

TEST_F(SdkTest, ReleasedSlotsAreReusedOverManyTransactions) {
  constexpr int kPerThread = 20000;
  auto run = [] {
    for (int i = 0; i < kPerThread; ++i) {
      zxBTHandle bt = zx_bt_begin("/loop", nullptr);
      ASSERT_NE(bt, nullptr);
      zx_method_entry(bt, "Loop.step");
      zx_method_exit(bt, "Loop.step");
      zx_bt_end(bt, 200);
      zx_bt_release(bt);
    }
  };
  std::thread t1(run), t2(run);
  for (int i = 0; i < 20; ++i) records();  // keep buffers flowing; drops are fine
  t1.join();
  t2.join();
  EXPECT_EQ(app().tlsBlocks.size(), 1u) << "two threads never need a second block of slots";
  EXPECT_EQ(app().gBusyTLSCnt, 0);
  EXPECT_EQ(app().fpiToTLS.size(), 0u);
}

TEST(SdkInit, PausesUntilARunStartsAndReturnsAtOnceWhenInitialised) {
  zxtest::TempDir home;
  ScopedApp app(home.str());
  zx_set_init_pause_ms(150);
  auto t0 = std::chrono::steady_clock::now();
  zx_init();
  EXPECT_GE(std::chrono::steady_clock::now() - t0, 150ms);
  t0 = std::chrono::steady_clock::now();
  zx_init();
  EXPECT_LT(std::chrono::steady_clock::now() - t0, 150ms);
  EXPECT_EQ(register_callback_for_agent([](const char *, const char *) {}), 0);
  zx_free();

  // A run already going ends the pause at once.
  app->Server.testRunRunning = 1;
  zx_set_init_pause_ms(60'000);
  t0 = std::chrono::steady_clock::now();
  zx_init();
  EXPECT_LT(std::chrono::steady_clock::now() - t0, 10s);
  zx_free();
}

}  // namespace
