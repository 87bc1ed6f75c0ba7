#include "bt/ZXBTMonitor.h"

#include <climits>
#include <cstdio>
#include <cstdlib>
#include <new>

#include "ZXFeatureKeywords.h"
#include "ZXProxyInstance.h"
#include "zxbt/zxbt_bt_object.h"
#include "zxbt/zxbt_utils.h"

void initZXBTMonitorDataCounters(ZXBTMonitorDataCounters *c) {
  if (!c) return;
  constexpr long long kMin = INT_MAX;
  c->count = c->normalCount = c->slowCount = c->verySlowCount = c->errorCount = 0;
  c->waitCount = c->syncCount = c->queueCount = 0;
  c->duration = c->maxDuration = c->cpuTime = c->maxCpuTime = 0;
  c->normalDuration = c->maxNormalDuration = c->slowDuration = c->maxSlowDuration = 0;
  c->verySlowDuration = c->maxVerySlowDuration = c->errorDuration = c->maxErrorDuration = 0;
  c->cumWaitTime = c->maxWaitTime = c->cumSyncTime = c->maxSyncTime = 0;
  c->cumQueueTime = c->maxQueueTime = 0;
  c->minDuration = c->minNormalDuration = c->minSlowDuration = kMin;
  c->minVerySlowDuration = c->minErrorDuration = kMin;
  c->minWaitTime = c->minSyncTime = c->minQueueTime = kMin;
  c->minCpuTime = LLONG_MAX;
  c->dataExist = 0;
}

bool ZXBTSlotArray::reserve(int size) {
  if (size > ZXBT_MAX_SLOTS) return false;
  const int chunks = (size + ZXBT_SLOT_CHUNK - 1) / ZXBT_SLOT_CHUNK;
  for (int i = 0; i < chunks; ++i) {
    if (dir_[i].load(std::memory_order_relaxed)) continue;
    try {
      owned_.reserve(owned_.size() + 1);
      auto chunk = std::make_unique<Chunk>();
      for (ZXBTMonitorDataCounters &c : *chunk) initZXBTMonitorDataCounters(&c);
      dir_[i].store(chunk.get(), std::memory_order_release);
      owned_.push_back(std::move(chunk));
    } catch (const std::bad_alloc &) {
      ZX_LOG_OOM(sizeof(Chunk), "BT monitor slots", i * ZXBT_SLOT_CHUNK);
      return false;
    }
  }
  return true;
}

ZXBTMonitorDataCounters *btMonitorSlot(const ZXBTMonitor_t &m, int id) noexcept {
  if (id < 0 || id >= m.aggDataArraySize.load(std::memory_order_acquire)) return nullptr;
  return &m.aggBTDataArr[id];
}

namespace {

void createVectorPrefix(ZXBTMonitor_t &m, const ZXProxyInstance_t &app) {
  const char sep = app.ZXSettings.zxVectorSeperator;
  snprintf(m.vectorPrefix, sizeof m.vectorPrefix, "%s%c%s%c%s%c", app.ZXBCISetting.tierName.c_str(),
           sep, app.ZXBCISetting.appServerName.c_str(), sep, app.ZXBCISetting.appName.c_str(), sep);
  snprintf(m.vectorPrefixID, sizeof m.vectorPrefixID, "%d|%d|", app.ZXBCISetting.tierID,
           app.ZXBCISetting.appID);
}

}  // namespace

int ZXBTMonitorInit(ZXBTMonitor_t &m) {
  if (tlzxApplication) createVectorPrefix(m, *tlzxApplication);
  {
    std::lock_guard guard(m.slotLock);
    if (m.aggDataArraySize.load(std::memory_order_relaxed) == 0) {
      if (!m.aggBTDataArr.reserve(ZXBT_DEFAULT_SLOTS)) {
        ZXBT_LOG(0, "Error", "overallData is empty");
        return -1;
      }
      m.aggDataArraySize.store(ZXBT_DEFAULT_SLOTS, std::memory_order_release);
    }
  }
  m.currentReportingCount = 0;
  m.isBTMonitorOn = 1;
  m.sendReSetEventOnAggDataConn = 0;
  m.maxBTCount = ZXBT_MAX_BT_COUNT;
  m.numberOfThreads = 0;
  if (const char *interval = featureKeywordValue("zxMonitorInterval")) {
    const int secs = zxbt_parse_int(interval);
    if (secs > 0) m.monitorIntervalInSecs = secs;
  }
  if (tlzxApplication) m.btMonitorTraceLevel = tlzxApplication->ZXSys.btMonitorTraceLevel;
  ZXBT_LOG(0, "Info",
           "currentReportingCount = %d, monitorIntervalInSecs = %d, aggDataArraySize = %d, "
           "vectorPrefix = %s, vectorPrefixID = %s",
           m.currentReportingCount, m.monitorIntervalInSecs, m.aggDataArraySize.load(),
           m.vectorPrefix, m.vectorPrefixID);
  return 0;
}

int ZXBTMonitorInit() {
  return tlzxApplication ? ZXBTMonitorInit(tlzxApplication->btMonitor) : -1;
}

int checkAndIncrementAggrBTDataArray(ZXBTMonitor_t &m, BTObject *obj) {
  if (!obj) return -1;
  const int id = obj->bt_id.load(std::memory_order_relaxed);
  if (id < 1 || id >= ZXBT_MAX_SLOTS) {
    ZXBT_LOG(0, "Warning", "No monitor slot for BT '%s' with id %d", obj->bt_name, id);
    return -1;
  }
  std::lock_guard guard(m.slotLock);
  int size = m.aggDataArraySize.load(std::memory_order_relaxed);
  if (id >= size) {
    const long long step = 2LL * (size > 0 ? size : ZXBT_DEFAULT_SLOTS) + 1;
    long long grown = (id / step + 1) * step;
    if (grown > ZXBT_MAX_SLOTS) grown = ZXBT_MAX_SLOTS;
    if (!m.aggBTDataArr.reserve(static_cast<int>(grown))) return -1;
    ZXBT_LOG(0, "Info", "aggDataArraySize grows from %d to %lld for BT id %d", size, grown, id);
    size = static_cast<int>(grown);
    m.aggDataArraySize.store(size, std::memory_order_release);
  }
  ZXBTMonitorDataCounters &slot = m.aggBTDataArr[id];
  slot.tlBTObj.store(obj, std::memory_order_release);
  // The t-digest of a rebound slot is retired by its reporter, which may
  // still be reading it.
  slot.tdigest_key.store(nullptr, std::memory_order_release);
  slot.tdigestDataExist.store(0, std::memory_order_release);
  return 0;
}

int checkAndIncrementAggrBTDataArray(BTObject *obj) {
  return tlzxApplication ? checkAndIncrementAggrBTDataArray(tlzxApplication->btMonitor, obj) : -1;
}
