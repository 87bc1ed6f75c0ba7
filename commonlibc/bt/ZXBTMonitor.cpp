#include "ZXBTMonitor.h"

#include <linux/membarrier.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <climits>
#include <cstdio>
#include <cstdlib>
#include <new>
#include <thread>

#include "ZXAppMonitors.h"
#include "ZXBTTrace.h"
#include "ZXFeatureKeywords.h"
#include "tdigest/pwlb_t_digest_quantile.h"

namespace {
std::atomic<std::uint64_t> gMonitorSerial{0};
}  // namespace

ZXBTMonitor_t::ZXBTMonitor_t() : serial(gMonitorSerial.fetch_add(1) + 1) {}

ZXBTMonitor_t::~ZXBTMonitor_t() {
  const int size = aggDataArraySize.load(std::memory_order_acquire);
  for (int i = 0; i < size; ++i) {
    td_histogram_t *h = aggBTDataArr[i].tdigest_key.exchange(nullptr);
    pwlb_t_digest_destroy(&h);
  }
}

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

void createVectorPrefix(ZXBTMonitor_t &m, const ZXAppSettings &app) {
  const char sep = app.ZXSettings.zxVectorSeperator;
  std::lock_guard guard(m.slotLock);
  snprintf(m.vectorPrefix, sizeof m.vectorPrefix, "%s%c%s%c%s%c", app.ZXBCISetting.tierName.c_str(),
           sep, app.ZXBCISetting.appServerName.c_str(), sep, app.ZXBCISetting.appName.c_str(), sep);
  snprintf(m.vectorPrefixID, sizeof m.vectorPrefixID, "%d|%d|", app.ZXBCISetting.tierID.load(),
           app.ZXBCISetting.appID.load());
}

int ZXBTMonitorInit(ZXBTMonitor_t &m, const ZXAppSettings &app) {
  createVectorPrefix(m, app);
  {
    std::lock_guard guard(m.slotLock);
    if (m.aggDataArraySize.load(std::memory_order_relaxed) == 0) {
      if (!m.aggBTDataArr.reserve(ZXBT_DEFAULT_SLOTS)) {
        ZXBT_APP_LOG(app, 0, "Error", "overallData is empty");
        return -1;
      }
      m.aggDataArraySize.store(ZXBT_DEFAULT_SLOTS, std::memory_order_release);
    }
    m.currentReportingCount = 0;
  }
  m.isBTMonitorOn = 1;
  m.sendReSetEventOnAggDataConn = 0;
  m.maxBTCount = ZXBT_MAX_BT_COUNT;
  m.btMonitorTraceLevel = app.ZXSys.btMonitorTraceLevel;
  ZXBT_APP_LOG(app, 0, "Info",
               "currentReportingCount = %d, monitorIntervalInSecs = %d, aggDataArraySize = %d, "
               "vectorPrefix = %s, vectorPrefixID = %s",
               0, m.monitorIntervalInSecs.load(), m.aggDataArraySize.load(), m.vectorPrefix,
               m.vectorPrefixID);
  return 0;
}

int ZXBTMonitorInit(ZXAppMonitors &app) {
  return ZXBTMonitorInit(app.btMonitor, app);
}

namespace {

int growAndBind(ZXBTMonitor_t &m, BTObject *obj, int trace) {
  if (!obj) return -1;
  const int id = obj->bt_id.load(std::memory_order_relaxed);
  if (id < 1 || id >= ZXBT_MAX_SLOTS) {
    ZXBT_LOG_AT(trace, 0, "Warning", "No monitor slot for BT '%s' with id %d", obj->bt_name, id);
    return -1;
  }
  std::lock_guard guard(m.slotLock);
  int size = m.aggDataArraySize.load(std::memory_order_relaxed);
  if (id >= size) {
    const long long step = 2LL * (size > 0 ? size : ZXBT_DEFAULT_SLOTS) + 1;
    long long grown = (id / step + 1) * step;
    if (grown > ZXBT_MAX_SLOTS) grown = ZXBT_MAX_SLOTS;
    if (!m.aggBTDataArr.reserve(static_cast<int>(grown))) return -1;
    ZXBT_LOG_AT(trace, 0, "Info", "aggDataArraySize grows from %d to %lld for BT id %d", size,
                grown, id);
    size = static_cast<int>(grown);
    m.aggDataArraySize.store(size, std::memory_order_release);
  }
  ZXBTMonitorDataCounters &slot = m.aggBTDataArr[id];
  slot.tlBTObj.store(obj, std::memory_order_release);
  // Reports hold slotLock while they use a digest, so it can go now.
  td_histogram_t *old = slot.tdigest_key.exchange(nullptr, std::memory_order_acq_rel);
  pwlb_t_digest_destroy(&old);
  slot.tdigestDataExist.store(0, std::memory_order_release);
  return 0;
}

}  // namespace

int checkAndIncrementAggrBTDataArray(ZXBTMonitor_t &m, BTObject *obj) {
  return growAndBind(m, obj, zxbt_trace_level());
}

int checkAndIncrementAggrBTDataArray(ZXAppMonitors &app, BTObject *obj) {
  return growAndBind(app.btMonitor, obj, zxbt_trace_level(app));
}

// ---- Counting ----

void ZXBTIntervalCounters::reset() noexcept {
  count = 0;
  for (int f = 0; f < kFields; ++f) {
    sum[f] = max[f] = 0;
    min[f] = INT_MAX;
  }
  min[kCpu] = LLONG_MAX;
  for (Category &c : category) c = {0, 0, INT_MAX, 0};
}

namespace {

// Whether the kernel's process-wide barrier is registered. Decided once,
// before the first model exists, so every thread that counts or reports has
// seen the answer through the once flag or controlThreadTmpLock.
bool gProcessBarrier = false;
std::once_flag gProcessBarrierOnce;

void decideProcessBarrier() {
  std::call_once(gProcessBarrierOnce, [] {
    const long cmds = syscall(SYS_membarrier, MEMBARRIER_CMD_QUERY, 0, 0);
    gProcessBarrier = cmds > 0 && (cmds & MEMBARRIER_CMD_PRIVATE_EXPEDITED) != 0 &&
                      syscall(SYS_membarrier, MEMBARRIER_CMD_REGISTER_PRIVATE_EXPEDITED, 0, 0) == 0;
  });
}

// The writer's half of the store-then-load handshake (see the header): marks
// the owner inside an update before it reads `active`.
inline void enterUpdate(ZXMonitorDataModel &model, unsigned seq) noexcept {
  if (gProcessBarrier) {
    model.seq.store(seq, std::memory_order_relaxed);
    // The reporter's process barrier fences this thread; only the compiler
    // must keep the store before the load.
    std::atomic_signal_fence(std::memory_order_seq_cst);
  } else {
    model.seq.exchange(seq, std::memory_order_seq_cst);
  }
}

// The reporter's half, between flipping `active` (seq_cst) and reading seq.
void reporterFence() noexcept {
  // Cannot fail once registered.
  if (gProcessBarrier) syscall(SYS_membarrier, MEMBARRIER_CMD_PRIVATE_EXPEDITED, 0, 0);
}

// The calling thread's model of one monitor. Flags the model on thread exit
// so that the reporter can drop it after its last merge.
struct ThreadModelRef {
  std::uint64_t serial = 0;
  std::shared_ptr<ZXMonitorDataModel> model;
  ~ThreadModelRef();
};
thread_local ThreadModelRef tlsModel;

// What the hot path reads: constant-initialised and trivially destroyed, so
// reaching it costs no initialisation guard. Serials start at 1.
struct ThreadModelCache {
  std::uint64_t serial;
  ZXMonitorDataModel *model;
};
constinit thread_local ThreadModelCache tlsModelCache{0, nullptr};

ThreadModelRef::~ThreadModelRef() {
  tlsModelCache = {0, nullptr};
  if (model) model->threadExited.store(true, std::memory_order_release);
}

[[gnu::noinline]] ZXMonitorDataModel *attachThreadModel(ZXAppMonitors &app) {
  ZXBTMonitor_t &m = app.btMonitor;
  const long tid = static_cast<long>(syscall(SYS_gettid));
  decideProcessBarrier();
  try {
    std::lock_guard guard(app.controlThreadTmpLock);
    std::shared_ptr<ZXMonitorDataModel> &model = m.threadModels[tid];
    if (!model) {
      model = std::make_shared<ZXMonitorDataModel>();
      model->threadId = tid;
      m.numberOfThreads.fetch_add(1, std::memory_order_relaxed);
    }
    // A recycled thread id takes over the model of the thread that had it;
    // acquiring the exit flag orders the old owner's updates before ours.
    model->threadExited.exchange(false, std::memory_order_acq_rel);
    tlsModel.serial = m.serial;
    tlsModel.model = model;
  } catch (const std::bad_alloc &) {
    ZX_LOG_OOM(sizeof(ZXMonitorDataModel), "BT monitor thread model", tid);
    return nullptr;
  }
  tlsModelCache = {m.serial, tlsModel.model.get()};
  return tlsModelCache.model;
}

inline ZXMonitorDataModel *threadModel(ZXAppMonitors &app) {
  if (tlsModelCache.serial == app.btMonitor.serial) [[likely]]
    return tlsModelCache.model;
  return attachThreadModel(app);
}

// Owner only, outside an update.
[[gnu::noinline]] ZXBTThreadCounters *newBlock(ZXMonitorDataModel &model, int id) {
  std::lock_guard guard(model.lockForBT);
  try {
    if (model.currentSizeOfBTArray <= id) {
      model.btmDataArray.resize(static_cast<std::size_t>(id) + 1);
      model.currentSizeOfBTArray = id + 1;
    }
    auto block = std::make_unique<ZXBTThreadCounters>();
    for (ZXBTIntervalCounters &h : block->half) h.reset();
    model.btmDataArray[id] = std::move(block);
  } catch (const std::bad_alloc &) {
    ZX_LOG_OOM(sizeof(ZXBTThreadCounters), "BT monitor counters", id);
    return nullptr;
  }
  return model.btmDataArray[id].get();
}

// Stores, not compares, bound this function: extremes are stored only when
// they change, which is rare after an interval's first transactions. The
// category picks its counters by index, as traffic mixes categories.
// false for a category that is not counted.
bool updatePropertiesOfBT(ZXBTIntervalCounters &h, const ZXBTTransaction_t &tx) {
  using I = ZXBTIntervalCounters;
  // Category - 10 for the counted ones: 10..13 and 15 (general only).
  constexpr unsigned kCounted = 0b101111;
  const unsigned k = static_cast<unsigned char>(tx.category) - 10u;
  if (k > 5 || !((kCounted >> k) & 1)) return false;
  auto extremes = [](long long v, long long &lo, long long &hi) {
    if (v < lo) lo = v;
    if (v > hi) hi = v;
  };
  auto general = [&h, &extremes](int f, long long v) {
    h.sum[f] += v;
    extremes(v, h.min[f], h.max[f]);
  };
  const long long d = tx.duration, q = tx.queueTime;
  ++h.count;
  general(I::kDuration, d);
  general(I::kCpu, tx.cpuTime);
  general(I::kWait, tx.waitTime);
  general(I::kSync, tx.syncTime);
  if (q > 0) {
    h.sum[I::kQueue] += q;
    if (q < h.min[I::kQueue]) h.min[I::kQueue] = q;
  }
  if (q > h.max[I::kQueue]) h.max[I::kQueue] = q;
  I::Category &c = h.category[std::min(k, 4u)];
  ++c.count;
  c.sum += d;
  extremes(d, c.min, c.max);
  return true;
}

// A point is the duration above a 16-bit BT id: one store on the hot path.
static_assert(ZXBT_MAX_SLOTS <= 1 << 16, "BT ids must fit a point's low 16 bits");
static_assert((ZXBT_FEED_RING_SIZE & (ZXBT_FEED_RING_SIZE - 1)) == 0, "ring size: power of two");
constexpr int kPointIdBits = 16;

inline std::uint64_t packPoint(int id, long long duration) noexcept {
  return static_cast<std::uint64_t>(duration) << kPointIdBits | static_cast<std::uint64_t>(id);
}
inline int pointId(std::uint64_t p) noexcept {
  return static_cast<int>(p & ((1u << kPointIdBits) - 1));
}
inline long long pointDuration(std::uint64_t p) noexcept {
  return static_cast<long long>(p) >> kPointIdBits;
}

// Owner only. A failed allocation drops the point; the next one tries again.
[[gnu::noinline]] bool makeFeedRing(ZXMonitorDataModel &model) {
  std::lock_guard guard(model.lockForBT);
  model.feedRing.reset(new (std::nothrow) std::uint64_t[ZXBT_FEED_RING_SIZE]);
  return model.feedRing != nullptr;
}

inline void countDrop(ZXMonitorDataModel &model) noexcept {
  model.feedDropped.store(model.feedDropped.load(std::memory_order_relaxed) + 1,
                          std::memory_order_relaxed);
}

// Owner only: appends one point, or drops and counts it when the ring is full.
inline void feedPoint(ZXMonitorDataModel &model, int id, long long duration) {
  if (!model.feedRing && !makeFeedRing(model)) [[unlikely]] {
    countDrop(model);
    return;
  }
  const std::uint64_t head = model.feedHead.load(std::memory_order_relaxed);
  // feedTail is read only when the last look says full, so the drainer's
  // line stays out of the owner's cache in the common case.
  if (head - model.feedTailSeen >= ZXBT_FEED_RING_SIZE) [[unlikely]] {
    model.feedTailSeen = model.feedTail.load(std::memory_order_acquire);
    if (head - model.feedTailSeen >= ZXBT_FEED_RING_SIZE) {
      countDrop(model);
      return;
    }
  }
  model.feedRing[head % ZXBT_FEED_RING_SIZE] = packPoint(id, duration);
  model.feedHead.store(head + 1, std::memory_order_release);
}

// Adds src into dst and resets src.
void mergeCounters(ZXBTMonitorDataCounters &dst, ZXBTMonitorDataCounters &src) {
  auto lo = [](long long &d, long long s) { d = std::min(d, s); };
  auto hi = [](long long &d, long long s) { d = std::max(d, s); };
  dst.count += src.count;
  dst.duration += src.duration;
  lo(dst.minDuration, src.minDuration);
  hi(dst.maxDuration, src.maxDuration);
  dst.cpuTime += src.cpuTime;
  lo(dst.minCpuTime, src.minCpuTime);
  hi(dst.maxCpuTime, src.maxCpuTime);
  dst.normalCount += src.normalCount;
  dst.normalDuration += src.normalDuration;
  lo(dst.minNormalDuration, src.minNormalDuration);
  hi(dst.maxNormalDuration, src.maxNormalDuration);
  dst.slowCount += src.slowCount;
  dst.slowDuration += src.slowDuration;
  lo(dst.minSlowDuration, src.minSlowDuration);
  hi(dst.maxSlowDuration, src.maxSlowDuration);
  dst.verySlowCount += src.verySlowCount;
  dst.verySlowDuration += src.verySlowDuration;
  lo(dst.minVerySlowDuration, src.minVerySlowDuration);
  hi(dst.maxVerySlowDuration, src.maxVerySlowDuration);
  dst.errorCount += src.errorCount;
  dst.errorDuration += src.errorDuration;
  lo(dst.minErrorDuration, src.minErrorDuration);
  hi(dst.maxErrorDuration, src.maxErrorDuration);
  dst.waitCount += src.waitCount;
  dst.cumWaitTime += src.cumWaitTime;
  lo(dst.minWaitTime, src.minWaitTime);
  hi(dst.maxWaitTime, src.maxWaitTime);
  dst.syncCount += src.syncCount;
  dst.cumSyncTime += src.cumSyncTime;
  lo(dst.minSyncTime, src.minSyncTime);
  hi(dst.maxSyncTime, src.maxSyncTime);
  dst.queueCount += src.queueCount;
  dst.cumQueueTime += src.cumQueueTime;
  lo(dst.minQueueTime, src.minQueueTime);
  hi(dst.maxQueueTime, src.maxQueueTime);
  initZXBTMonitorDataCounters(&src);
}

// A thread's half in the slots' layout, for mergeCounters.
void toCounters(const ZXBTIntervalCounters &h, ZXBTMonitorDataCounters &c) {
  using I = ZXBTIntervalCounters;
  c.count = c.waitCount = c.syncCount = c.queueCount = static_cast<int>(h.count);
  auto general = [&h](int f, long long &sum, long long &lo, long long &hi) {
    sum = h.sum[f];
    lo = h.min[f];
    hi = h.max[f];
  };
  general(I::kDuration, c.duration, c.minDuration, c.maxDuration);
  general(I::kCpu, c.cpuTime, c.minCpuTime, c.maxCpuTime);
  general(I::kWait, c.cumWaitTime, c.minWaitTime, c.maxWaitTime);
  general(I::kSync, c.cumSyncTime, c.minSyncTime, c.maxSyncTime);
  general(I::kQueue, c.cumQueueTime, c.minQueueTime, c.maxQueueTime);
  auto category = [&h](int k, int &n, long long &sum, long long &lo, long long &hi) {
    n = static_cast<int>(h.category[k].count);
    sum = h.category[k].sum;
    lo = h.category[k].min;
    hi = h.category[k].max;
  };
  category(0, c.normalCount, c.normalDuration, c.minNormalDuration, c.maxNormalDuration);
  category(1, c.slowCount, c.slowDuration, c.minSlowDuration, c.maxSlowDuration);
  category(2, c.verySlowCount, c.verySlowDuration, c.minVerySlowDuration, c.maxVerySlowDuration);
  category(3, c.errorCount, c.errorDuration, c.minErrorDuration, c.maxErrorDuration);
}

}  // namespace

bool responseTimeFeedOn(const ZXAppMonitors &app) noexcept {
  return app.tDigest.TDigestPercentileBT.is_enabled.load(std::memory_order_relaxed) > 0 &&
         !app.tDigestIntervalSumsBT.load(std::memory_order_relaxed);
}

bool updateCounterAndDurationForBT(ZXAppMonitors &app, const ZXBTTransaction_t &tx) {
  ZXBTMonitor_t &m = app.btMonitor;
  if (!m.isBTMonitorOn.load(std::memory_order_relaxed) || !tx.btObj) return false;
  const int id = tx.btObj->bt_id.load(std::memory_order_relaxed);
  if (id <= 0 || id >= ZXBT_MAX_SLOTS) return false;
  ZXMonitorDataModel *model = threadModel(app);
  if (!model) return false;
  // The owner is the only writer of the array, so it reads it without the lock.
  ZXBTThreadCounters *c =
      id < model->currentSizeOfBTArray ? model->btmDataArray[id].get() : nullptr;
  if (!c && !(c = newBlock(*model, id))) return false;
  model->lastUpdateTimeStamp.store(tx.endTime, std::memory_order_relaxed);
  const unsigned seq = model->seq.load(std::memory_order_relaxed);
  enterUpdate(*model, seq + 1);
  const bool counted =
      updatePropertiesOfBT(c->half[model->active.load(std::memory_order_seq_cst) & 1], tx);
  model->seq.store(seq + 2, std::memory_order_release);
  if (counted && responseTimeFeedOn(app)) feedPoint(*model, id, tx.duration);
  return true;
}

// ---- Report ----

namespace {

double minI(long long x) {
  return x == INT_MAX ? 500000.0 : static_cast<double>(x);
}
double minL(long long x) {
  return x == LLONG_MAX ? 500000.0 : static_cast<double>(x);
}
double avg(long long x, int n) {
  return n > 0 ? static_cast<double>(x) / n : 0.0;
}

// Points the model's thread at its other half, unless it counts BTs beyond
// the slots (skipped this interval, as its blocks could not be merged).
void flipModel(ZXAppMonitors &app, ZXMonitorDataModel &model, int size) {
  // Read before the flip: an exit flagged later still has its last update
  // merged next interval.
  model.exitedBeforeFlip = model.threadExited.load(std::memory_order_acquire);
  model.reportHalf = -1;
  std::lock_guard guard(model.lockForBT);
  if (model.currentSizeOfBTArray > size) {
    ZXBT_APP_LOG(app, 0, "Warning",
                 "Current Thread, ID : %ld has %d counters, more than the %d slots; skipped",
                 model.threadId, model.currentSizeOfBTArray, size);
    return;
  }
  const unsigned half = model.active.load(std::memory_order_relaxed);
  model.active.store(half ^ 1, std::memory_order_seq_cst);
  model.reportHalf = static_cast<int>(half);
}

// One point into the slot's digest, made when missing. Caller holds slotLock.
bool insertIntoDigest(ZXAppMonitors &app, ZXBTMonitorDataCounters &slot, long long value) {
  const TDigestPercentile_t &td = app.tDigest.TDigestPercentileBT;
  td_histogram_t *h = slot.tdigest_key.load(std::memory_order_relaxed);
  if (!h) {
    if (pwlb_t_digest_init(&h, td.delta.load(std::memory_order_relaxed),
                           td.k.load(std::memory_order_relaxed)) != 0)
      return false;
    slot.tdigest_key.store(h, std::memory_order_relaxed);
  }
  pwlb_t_digest_insert(h, static_cast<double>(value), 1);
  slot.tdigestDataExist.store(1, std::memory_order_relaxed);
  return true;
}

// Moves the model's pending points into the slots' digests and takes over
// its drop count. Caller holds slotLock (the one drainer) and
// controlThreadTmpLock (the model stays); size is the slot count.
long long drainModel(ZXAppMonitors &app, ZXMonitorDataModel &model, int size) {
  ZXBTMonitor_t &m = app.btMonitor;
  const std::uint64_t *ring;
  {
    std::lock_guard guard(model.lockForBT);
    ring = model.feedRing.get();
  }
  const long long dropped = model.feedDropped.load(std::memory_order_relaxed);
  long long lost = dropped - model.feedDroppedSeen;
  model.feedDroppedSeen = dropped;
  long long moved = 0;
  if (ring) {
    const std::uint64_t head = model.feedHead.load(std::memory_order_acquire);
    std::uint64_t tail = model.feedTail.load(std::memory_order_relaxed);
    for (; tail != head; ++tail) {
      const std::uint64_t p = ring[tail % ZXBT_FEED_RING_SIZE];
      const int id = pointId(p);
      if (id < size && insertIntoDigest(app, m.aggBTDataArr[id], pointDuration(p)))
        ++moved;
      else
        ++lost;
    }
    model.feedTail.store(head, std::memory_order_release);
  }
  if (lost) {
    m.responseTimesDropped.fetch_add(lost, std::memory_order_relaxed);
    m.responseTimesDroppedUnlogged += lost;
  }
  return moved;
}

// Merges and resets the half a flip took away from the model's thread, once
// the thread has left the update that may still be writing it.
void mergeModel(ZXAppMonitors &app, ZXMonitorDataModel &model, int size, bool feedSums) {
  ZXBTMonitor_t &m = app.btMonitor;
  // An update takes nanoseconds; only a thread descheduled inside one makes
  // the reporter give up its processor.
  if (const unsigned seq = model.seq.load(std::memory_order_seq_cst); seq & 1)
    for (int spins = 0; model.seq.load(std::memory_order_acquire) == seq; ++spins)
      if (spins >= 1000) std::this_thread::yield();
  std::lock_guard guard(model.lockForBT);
  // Blocks made since the flip (the only ones at or above size) have nothing
  // in the old half.
  const int n = std::min(model.currentSizeOfBTArray, size);
  for (int i = 0; i < n; ++i) {
    ZXBTThreadCounters *block = model.btmDataArray[i].get();
    if (!block) {
      ZXBT_APP_LOG(app, 2, "Info",
                   "Current Thread, ID : %d doesnot have any counters for current BT. btID  %d so "
                   "ignoring it",
                   static_cast<int>(model.threadId), i);
      continue;
    }
    ZXBTIntervalCounters &half = block->half[model.reportHalf];
    const long long duration = half.sum[ZXBTIntervalCounters::kDuration];
    ZXBTMonitorDataCounters &slot = m.aggBTDataArr[i];
    if (feedSums && duration > 0 && insertIntoDigest(app, slot, duration))
      ZXBT_APP_LOG(app, 1, "Info", "TDigestPercentile inserted for BT:%d , duration:%d", i,
                   static_cast<int>(duration));
    ZXBTMonitorDataCounters taken;
    toCounters(half, taken);
    mergeCounters(slot, taken);
    half.reset();
    slot.dataExist = 1;
  }
}

// Threads -> slots. Caller holds slotLock; size is the slot count. All
// models are flipped first so that one process barrier covers them all.
void mergeThreadModels(ZXAppMonitors &app, int size) {
  ZXBTMonitor_t &m = app.btMonitor;
  const bool feedSums =
      app.tDigest.TDigestPercentileBT.is_enabled.load(std::memory_order_relaxed) > 0 &&
      app.tDigestIntervalSumsBT.load(std::memory_order_relaxed);
  std::lock_guard models(app.controlThreadTmpLock);
  for (auto &entry : m.threadModels) flipModel(app, *entry.second, size);
  reporterFence();
  for (auto it = m.threadModels.begin(); it != m.threadModels.end();) {
    ZXMonitorDataModel &model = *it->second;
    // Also when the feed was switched off since: points taken still count.
    // An exit read before the flip means the thread's last point is in.
    drainModel(app, model, size);
    if (model.reportHalf < 0) {
      ++it;
      continue;
    }
    mergeModel(app, model, size, feedSums);
    if (model.exitedBeforeFlip) {
      it = m.threadModels.erase(it);
      m.numberOfThreads.fetch_sub(1, std::memory_order_relaxed);
    } else {
      ++it;
    }
  }
}

}  // namespace

bool dump74RecordForEveryBT(const ZXBTMonitor_t &m, char *buf, int *len, int cap,
                            const ZXBTMonitorDataCounters &c, int btId, const char *btName) {
  if (!buf || !len || *len < 0 || *len >= cap) return false;
  int interval = m.monitorIntervalInSecs.load(std::memory_order_relaxed);
  if (interval <= 0) interval = ZXBT_DEFAULT_INTERVAL_SECS;
  const double secs = interval;
  const int room = cap - *len;
  const int n = snprintf(
      buf + *len, static_cast<std::size_t>(room),
      "%d,%s%d:%s%s|%lf %lf %lf %lld %d 0.0 %lf %lf %lf %lld %d %lf %lf %lld %d %lf %lf %lld %d "
      "%lf %lf %lld %d %lf %lf %lf %lf %d %lf %lld %lld %d %lf %lld %lld %d %lf %lld %lld %d\n",
      74, m.vectorPrefixID, btId, m.vectorPrefix, btName ? btName : "",
      c.count ? c.count / secs : 0.0, avg(c.duration, c.count), minI(c.minDuration), c.maxDuration,
      c.count, c.errorCount ? c.errorCount / secs : 0.0, avg(c.normalDuration, c.normalCount),
      minI(c.minNormalDuration), c.maxNormalDuration, c.normalCount,
      avg(c.slowDuration, c.slowCount), minI(c.minSlowDuration), c.maxSlowDuration, c.slowCount,
      avg(c.verySlowDuration, c.verySlowCount), minI(c.minVerySlowDuration), c.maxVerySlowDuration,
      c.verySlowCount, avg(c.errorDuration, c.errorCount), minI(c.minErrorDuration),
      c.maxErrorDuration, c.errorCount,
      c.count ? (c.slowCount + c.verySlowCount) * 100.0 / c.count : 0.0,
      avg(c.cpuTime, c.count) / 1000000.0, minL(c.minCpuTime) / 1000000.0,
      static_cast<double>(c.maxCpuTime) / 1000000.0, c.count, avg(c.cumSyncTime, c.syncCount),
      c.minSyncTime, c.maxSyncTime, c.syncCount, avg(c.cumWaitTime, c.waitCount), c.minWaitTime,
      c.maxWaitTime, c.waitCount, avg(c.cumQueueTime, c.queueCount), c.minQueueTime, c.maxQueueTime,
      c.queueCount);
  // A cut record would corrupt the line stream; it is left out whole.
  if (n < 0 || n >= room) {
    buf[*len] = '\0';
    ZXBT_LOG(0, "Warning", "Record 74 for BT %d does not fit (%d bytes left); dropped", btId, room);
    return false;
  }
  ZXBT_LOG(1, "Info", "Dumping 74 record started ...Where length of current record is : '%d'", n);
  *len += n;
  return true;
}

bool generateAndDumpBTMonitoringRecord(ZXAppMonitors &app, char *buf, int *len, int cap) {
  ZXBTMonitor_t &m = app.btMonitor;
  if (!buf || !len) return false;
  std::lock_guard slots(m.slotLock);
  bool anyThread;
  {
    std::lock_guard models(app.controlThreadTmpLock);
    anyThread = !m.threadModels.empty();
  }
  if (!anyThread) {
    ZXBT_APP_LOG(app, 1, "Info",
                 "Returnign without dumping any monitoring record, as no threads executed any BT "
                 "yet.");
    return false;
  }
  if (app.btManager.config.total_bt_count.load(std::memory_order_relaxed) <= 0) {
    ZXBT_APP_LOG(app, 1, "Info",
                 "Returning without dumping any monitoring record, as no business transactions "
                 "discovered yet.");
    return false;
  }
  const int size = m.aggDataArraySize.load(std::memory_order_acquire);
  if (size <= 0) {
    ZXBT_APP_LOG(app, 0, "Error", "overallData is empty");
    return false;
  }
  mergeThreadModels(app, size);

  ZXBTMonitorDataCounters &overall = m.aggBTDataArr[0];
  for (int i = 1; i < size; ++i) {
    ZXBTMonitorDataCounters &slot = m.aggBTDataArr[i];
    if (!slot.dataExist) continue;
    const BTObject *obj = slot.tlBTObj.load(std::memory_order_acquire);
    dump74RecordForEveryBT(m, buf, len, cap, slot, i, obj ? obj->bt_name : "");
    mergeCounters(overall, slot);
    slot.dataExist = 0;
  }
  dump74RecordForEveryBT(m, buf, len, cap, overall, 0, "AllTransactions");
  initZXBTMonitorDataCounters(&overall);
  ++m.currentReportingCount;
  return true;
}

long long drainResponseTimes(ZXAppMonitors &app) {
  ZXBTMonitor_t &m = app.btMonitor;
  std::lock_guard slots(m.slotLock);
  const int size = m.aggDataArraySize.load(std::memory_order_acquire);
  std::lock_guard models(app.controlThreadTmpLock);
  long long moved = 0;
  for (auto &entry : m.threadModels) moved += drainModel(app, *entry.second, size);
  return moved;
}

// ---- Keywords ----
// Each parser also keeps the raw text (featureKeywordValue), as every
// feature keyword does.

namespace {

ZXBTMonitor_t *monitorFor(ZXAppMonitors &app, char *value, char *keyword, int index) {
  if (!value) return nullptr;
  storeFeatureKeyword(app, value, keyword, index);
  return &app.btMonitor;
}

}  // namespace

void parseBTMonitorKeyword(ZXAppMonitors &app, char *value, char *keyword, int index) {
  if (ZXBTMonitor_t *m = monitorFor(app, value, keyword, index))
    m->isBTMonitorOn.store(zxbt_parse_int(value) > 0 ? 1 : 0, std::memory_order_relaxed);
}

void parseMaxBTCount(ZXAppMonitors &app, char *value, char *keyword, int index) {
  ZXBTMonitor_t *m = monitorFor(app, value, keyword, index);
  if (!m) return;
  const int count = zxbt_parse_int(value);
  if (count < 1) {
    ZXBT_APP_LOG(
        app, 0, "Error",
        "parseMaxBTCount method - Invalid MaxBTCount specified by User. Current Value  : %d "
        "Specified BTMaxCount value %s",
        m->maxBTCount.load(), value);
    return;
  }
  m->maxBTCount.store(count, std::memory_order_relaxed);
  // The manager hands out ids up to this count.
  ZXBTManager &mgr = app.btManager;
  std::lock_guard guard(mgr.bt_obj_map_lock);
  mgr.config.max_bt_count = count;
}

void parseBTAggDataArraySize(ZXAppMonitors &app, char *value, char *keyword, int index) {
  ZXBTMonitor_t *m = monitorFor(app, value, keyword, index);
  if (!m) return;
  const int size = zxbt_parse_int(value);
  std::lock_guard guard(m->slotLock);
  const int current = m->aggDataArraySize.load(std::memory_order_relaxed);
  if (size <= current) {
    ZXBT_APP_LOG(app, 0, "Error",
                 "parseBTAggDataArraySize - Could not decrease size of array, as targeted size is "
                 "less or equal than current size.Where current size : %d,  specified size : %d",
                 current, size);
    return;
  }
  if (size > ZXBT_MAX_SLOTS || !m->aggBTDataArr.reserve(size)) {
    ZXBT_APP_LOG(app, 0, "Error", "parseBTAggDataArraySize - %d slots not available (bound %d)",
                 size, ZXBT_MAX_SLOTS);
    return;
  }
  m->aggDataArraySize.store(size, std::memory_order_release);
}

void parseBTMonitorErrorLevel(ZXAppMonitors &app, char *value, char *keyword, int index) {
  ZXBTMonitor_t *m = monitorFor(app, value, keyword, index);
  const int level = m ? zxbt_parse_int(value) : -1;
  if (level >= 0) m->btMonitorErrorLevel.store(level, std::memory_order_relaxed);
}

void parseDoNotDiscardVal(ZXAppMonitors &app, char *value, char *keyword, int index) {
  if (ZXBTMonitor_t *m = monitorFor(app, value, keyword, index))
    m->doNotDisacrdAnyTransaction.store(zxbt_parse_int(value) >= 1 ? 1 : 0,
                                        std::memory_order_relaxed);
}

void parseMonitorInterval(ZXAppMonitors &app, char *value, char *keyword, int index) {
  ZXBTMonitor_t *m = monitorFor(app, value, keyword, index);
  const int secs = m ? zxbt_parse_int(value) : 0;
  if (secs > 0) m->monitorIntervalInSecs.store(secs, std::memory_order_relaxed);
}

void parseVectorSeparator(ZXAppMonitors &app, char *value, char *keyword, int index) {
  ZXBTMonitor_t *m = monitorFor(app, value, keyword, index);
  if (!m || value[0] == '\0') return;
  app.ZXSettings.zxVectorSeperator = value[0];
  createVectorPrefix(*m, app);
}

int zxbt_parse_int(const char *s) {
  if (!s) return 0;
  errno = 0;
  char *end = nullptr;
  const long long v = strtoll(s, &end, 10);
  if (end == s) return 0;
  if (v > INT_MAX || (errno == ERANGE && v > 0)) return INT_MAX;
  if (v < INT_MIN || (errno == ERANGE && v < 0)) return INT_MIN;
  return static_cast<int>(v);
}
