#include <gtest/gtest.h>

#include <atomic>
#include <climits>
#include <string>
#include <thread>
#include <vector>

#include "ZXBTManager.h"
#include "ZXBTMonitor.h"
#include "test_support.h"

using zxtest::ScopedApp;

namespace {

BTObject *with_id(std::deque<BTObject> &arena, int id) {
  BTObject &o = arena.emplace_back();
  o.bt_id = id;
  return &o;
}

TEST(BTMonitorSlots, ResetValuesAndGrowthRule) {
  ScopedApp app;
  ZXBTMonitor_t m;
  std::deque<BTObject> arena;
  EXPECT_EQ(btMonitorSlot(m, 0), nullptr);
  ASSERT_EQ(ZXBTMonitorInit(m, *app), 0);
  EXPECT_EQ(m.aggDataArraySize.load(), 128);
  const ZXBTMonitorDataCounters &s = *btMonitorSlot(m, 127);
  EXPECT_EQ(s.minDuration, INT_MAX);
  EXPECT_EQ(s.minQueueTime, INT_MAX);
  EXPECT_EQ(s.minCpuTime, LLONG_MAX);
  EXPECT_EQ(s.count, 0);
  EXPECT_EQ(s.tlBTObj.load(), nullptr);

  EXPECT_EQ(checkAndIncrementAggrBTDataArray(m, with_id(arena, 127)), 0);
  EXPECT_EQ(m.aggDataArraySize.load(), 128) << "an id below the size needs no growth";
  EXPECT_EQ(checkAndIncrementAggrBTDataArray(m, with_id(arena, 300)), 0);
  EXPECT_EQ(m.aggDataArraySize.load(), 514) << "smallest multiple of 257 above 300";
  EXPECT_EQ(checkAndIncrementAggrBTDataArray(m, with_id(arena, 514)), 0);
  EXPECT_EQ(m.aggDataArraySize.load(), 1029);
  EXPECT_EQ(btMonitorSlot(m, 300)->tlBTObj.load()->bt_id.load(), 300);
  EXPECT_EQ(btMonitorSlot(m, 1028)->minErrorDuration, INT_MAX) << "new slots are reset";

  // Ids with no slot: exclusions, the overall slot, beyond the bound.
  EXPECT_EQ(checkAndIncrementAggrBTDataArray(m, with_id(arena, -2)), -1);
  EXPECT_EQ(checkAndIncrementAggrBTDataArray(m, with_id(arena, 0)), -1);
  EXPECT_EQ(checkAndIncrementAggrBTDataArray(m, with_id(arena, ZXBT_MAX_SLOTS)), -1);
  EXPECT_EQ(checkAndIncrementAggrBTDataArray(m, nullptr), -1);
  EXPECT_EQ(checkAndIncrementAggrBTDataArray(m, with_id(arena, ZXBT_MAX_SLOTS - 1)), 0);
  EXPECT_EQ(m.aggDataArraySize.load(), ZXBT_MAX_SLOTS) << "growth stops at the bound";

  // Rebinding drops the slot's t-digest.
  ZXBTMonitorDataCounters &slot = *btMonitorSlot(m, 300);
  slot.tdigestDataExist = 1;
  EXPECT_EQ(checkAndIncrementAggrBTDataArray(m, with_id(arena, 300)), 0);
  EXPECT_EQ(slot.tdigestDataExist.load(), 0);
}

TEST(BTMonitorSlots, VectorPrefixFromIdentity) {
  ScopedApp app;
  app->ZXBCISetting.tierName.assign("T");
  app->ZXBCISetting.appServerName.assign("S");
  app->ZXBCISetting.appName.assign("A");
  app->ZXBCISetting.tierID = 3;
  app->ZXBCISetting.appID = 9;
  app->ZXSettings.zxVectorSeperator = '>';
  ASSERT_EQ(ZXBTMonitorInit(*app), 0);
  EXPECT_STREQ(app->btMonitor.vectorPrefix, "T>S>A>");
  EXPECT_STREQ(app->btMonitor.vectorPrefixID, "3|9|");
}

// Readers find every slot below the size they see while the array grows,
// and slots never move under them.
TEST(BTMonitorSlots, ReadersDuringGrowth) {
  ScopedApp app;
  ZXBTMonitor_t m;
  std::deque<BTObject> arena;
  for (int id = 1; id < 4000; ++id) with_id(arena, id);
  ASSERT_EQ(ZXBTMonitorInit(m, *app), 0);
  std::atomic<bool> stop{false};
  std::atomic<int> bad{0};
  auto reader = [&] {
    while (!stop) {
      const int size = m.aggDataArraySize.load();
      for (int id = 1; id < size; id += 37) {
        ZXBTMonitorDataCounters *s = btMonitorSlot(m, id);
        BTObject *o = s ? s->tlBTObj.load() : nullptr;
        if (!s || (o && o->bt_id.load() != id)) bad.fetch_add(1);
      }
    }
  };
  std::thread r1(reader), r2(reader);
  for (BTObject &o : arena) checkAndIncrementAggrBTDataArray(m, &o);
  stop = true;
  r1.join();
  r2.join();
  EXPECT_EQ(bad.load(), 0);
  EXPECT_GT(m.aggDataArraySize.load(), 3999);
}

TEST(BTObjectMaps, LookupsDuringInsertsAndReplacement) {
  BTObjectMap map;
  std::deque<BTObject> arena;
  for (int i = 0; i < 3000; ++i) with_id(arena, i);
  std::atomic<bool> stop{false};
  std::atomic<int> bad{0};
  auto reader = [&] {
    while (!stop) {
      for (int i = 0; i < 3000; i += 13) {
        BTObject *o = map.get("bt" + std::to_string(i));
        if (o && o->bt_id.load() != i) bad.fetch_add(1);
      }
    }
  };
  std::thread r1(reader), r2(reader);
  for (int i = 0; i < 3000; ++i) ASSERT_TRUE(map.put("bt" + std::to_string(i), &arena[i]));
  stop = true;
  r1.join();
  r2.join();
  EXPECT_EQ(bad.load(), 0);
  EXPECT_EQ(map.count(), 3000);
  EXPECT_EQ(map.get("bt2999"), &arena[2999]);
  EXPECT_EQ(map.get("bt3000"), nullptr);
  EXPECT_TRUE(map.put("bt5", &arena[7]));
  EXPECT_EQ(map.get("bt5"), &arena[7]) << "put replaces";
  EXPECT_EQ(map.count(), 3000);
  map.clear();
  EXPECT_EQ(map.get("bt5"), nullptr);
  EXPECT_EQ(map.count(), 0);
}

}  // namespace
