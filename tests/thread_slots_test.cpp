// Per-thread slots: the pool's growth and its stale free tail, slot reuse,
// thread call-out records and the tier call-out header. The stop walk over
// busy slots is exercised through real flowpaths (flowpath_generator_test),
// take and give from many threads through the SDK (sdk_test).
#include <gtest/gtest.h>

#include <set>
#include <string>
#include <vector>

#include "ZXManageTIdToTLocal.h"
#include "test_support.h"
#include "zx_tier_callout.h"
#include "zxlb_mem_pool.h"

namespace {

using zxtest::ScopedApp;

class SlotTest : public ::testing::Test {
 protected:
  SlotTest() { initPerThreadSlots(&*app_); }
  ZXProxyInstance_t &app() { return *app_; }
  std::vector<ZXPerThreadData_t *> take(int n) {
    std::vector<ZXPerThreadData_t *> v;
    for (int i = 0; i < n; ++i) v.push_back(get_free_tls_slot(&app()));
    return v;
  }
  ScopedApp app_;
};

// A slot given back while no slot is free chains behind the stale free tail (a
// busy record) and is lost: the next flowpath makes a second block.
TEST_F(SlotTest, SlotGivenBackToAnEmptyFreeListIsLostAndTheNextMakesABlock) {
  app().ZXSys.zxEnableTxHotspot = 1;
  auto busy = take(64);
  std::set<long long> idx;
  for (auto *r : busy) idx.insert(r->tlsIdx);
  EXPECT_EQ(idx.size(), 64u);
  EXPECT_EQ(*idx.rbegin(), 63);
  EXPECT_EQ(app().gFreeTLSCnt, 0);
  ZXPerThreadData_t *given = busy[10];
  free_tls_slot(&app(), given);
  EXPECT_EQ(app().gFreeTLSCnt, 1);
  EXPECT_EQ(app().gFreeTLSHead, nullptr);
  EXPECT_EQ(busy[63]->free_next, given);

  ZXPerThreadData_t *next = get_free_tls_slot(&app());
  ASSERT_NE(next, given);
  EXPECT_EQ(app().g_tlsidx, 128);
  EXPECT_EQ(app().size_array, 128);
  EXPECT_EQ(next->tlsIdx, 64);
  EXPECT_EQ(next->tlThreadId, 64) << "thread numbers follow the busy count at block creation";
  EXPECT_EQ(app().gFreeTLSCnt, 64);
  EXPECT_EQ(app().gBusyTLSTail, next);
}

TEST_F(SlotTest, SlotGivenBackWhileFreeSlotsRemainIsReusedLast) {
  ZXPerThreadData_t *r = get_free_tls_slot(&app());
  r->flowpathInstance = 99;
  r->prevTierSeq.assign("3.1");
  std::snprintf(r->tlURL, sizeof r->tlURL, "/cart");
  resetAllThreadLocals(r, &app());
  free_tls_slot(&app(), r);
  EXPECT_EQ(r->flowpathInstance, 0);
  EXPECT_FALSE(r->prevTierSeq.is_set());
  EXPECT_STREQ(r->tlURL, "");

  auto rest = take(63);
  for (auto *o : rest) EXPECT_NE(o, r);
  EXPECT_EQ(get_free_tls_slot(&app()), r) << "appended at the free tail, reused in order";
  EXPECT_EQ(app().g_tlsidx, 64) << "no new block for reuse";
}

TEST_F(SlotTest, BusyListUnlinksFromAnyPositionAndIgnoresASecondFree) {
  auto r = take(3);
  free_tls_slot(&app(), r[1]);
  EXPECT_EQ(app().gBusyTLSHead, r[0]);
  EXPECT_EQ(r[0]->busy_next, r[2]);
  EXPECT_EQ(r[2]->busy_prev, r[0]);
  free_tls_slot(&app(), r[0]);
  free_tls_slot(&app(), r[2]);
  EXPECT_EQ(app().gBusyTLSHead, nullptr);
  EXPECT_EQ(app().gBusyTLSTail, nullptr);
  const int freeCount = app().gFreeTLSCnt;
  free_tls_slot(&app(), r[2]);
  free_tls_slot(&app(), nullptr);
  EXPECT_EQ(app().gFreeTLSCnt, freeCount);
  EXPECT_EQ(app().gBusyTLSCnt, 0);
}

TEST(ThreadIdRecords, SevenDigitKeysAndChildPriming) {
  ScopedApp app;
  initPerThreadSlots(&*app);
  EXPECT_EQ(threadIdKey(123456789), "1234567");
  ZXPerThreadData_t *a = setThreadIdToThreadLocal(&*app, 123456701);
  EXPECT_EQ(getThreadIdToThreadLocal(&*app, 123456799), a) << "same first seven digits";

  ZXPerThreadData_t parent;
  parent.owner = &*app;
  parent.flowpathInstance = 42;
  ZXPerThreadData_t *child = updateChildThreadPrevFPI(&parent, 555);
  ASSERT_NE(child, nullptr);
  EXPECT_EQ(child->firstFlowpathInstance, 42);
  EXPECT_EQ(child->prevFlowpathInstance, 42);
  EXPECT_EQ(child->tlStatusCode, -3);
  parent.firstFlowpathInstance = 7;
  EXPECT_EQ(updateChildThreadPrevFPI(&parent, 555), child) << "existing record reused";
  EXPECT_EQ(child->firstFlowpathInstance, 7);

  cleanThreadIdToThreadLocal(555);  // the exported entry
  EXPECT_EQ(getThreadIdToThreadLocal(&*app, 555), nullptr);
  cleanThreadIdToThreadLocal(555);
}

TEST(TierCallOut, HeadersAcrossTwoTiers) {
  ZXPerThreadData_t tierA;
  tierA.flowpathInstance = 42;
  tierA.tlThreadId = 3;
  EXPECT_STREQ(getTierCallOut(&tierA), "42_42_3.1");
  EXPECT_STREQ(getTierCallOut(&tierA), "42_42_3.2") << "each call a new sequence number";
  EXPECT_EQ(tierA.tierCallOutSeqNum, 2);
  tierA.seqNum = 0;
  tierA.tlIsForceDump = 1;
  const std::string sent = getTierCallOut(&tierA);
  EXPECT_EQ(sent, "42F_42F_3.1");

  ZXPerThreadData_t tierB;
  ASSERT_EQ(setTierCallOut(&tierB, sent.c_str()), 0);
  EXPECT_EQ(tierB.firstFlowpathInstance, 42);
  EXPECT_EQ(tierB.prevFlowpathInstance, 42);
  EXPECT_STREQ(tierB.prevTierSeq.get(), "3.1");
  tierB.flowpathInstance = 77;
  tierB.seqNum = 4;
  EXPECT_STREQ(getTierCallOut(&tierB), "42_77_3.1.5") << "tier B appends its level";

  ZXPerThreadData_t tierC;
  ASSERT_EQ(setTierCallOut(&tierC, "7_9_3.1.2_x"), 0);
  EXPECT_EQ(tierC.firstFlowpathInstance, 7);
  EXPECT_EQ(tierC.prevFlowpathInstance, 9);
  EXPECT_STREQ(tierC.prevTierSeq.get(), "3.1.2");
}

TEST(TierCallOut, MalformedAndLongHeaders) {
  ZXPerThreadData_t r;
  r.firstFlowpathInstance = 5;
  EXPECT_EQ(setTierCallOut(&r, "123"), -1);
  EXPECT_EQ(setTierCallOut(&r, "123_456"), -1);
  EXPECT_EQ(setTierCallOut(&r, nullptr), -1);
  EXPECT_EQ(setTierCallOut(nullptr, "1_2_3"), -1);
  EXPECT_EQ(r.firstFlowpathInstance, 5) << "a refused header changes nothing";
  EXPECT_EQ(getTierCallOut(nullptr), nullptr);

  // A path longer than any fixed buffer is carried whole.
  const std::string path(200000, '1');
  ASSERT_EQ(setTierCallOut(&r, ("1_2_" + path).c_str()), 0);
  r.flowpathInstance = 3;
  const std::string header = getTierCallOut(&r);
  EXPECT_EQ(header, "1_3_" + path + ".1");
  EXPECT_GE(r.tierCallOutHeaderLen, static_cast<int>(header.size()) + 1);
}

}  // namespace
