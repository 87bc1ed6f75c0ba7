// The BT monitor's data model: counter blocks and the slot array that holds
// one merged block per BT id.
//
// Slots are bound to BT objects when a BT is created (under the BT manager
// lock) and looked up by id on every pattern-rule classification, without a
// lock, while the array may be growing. So the array never moves: it is a
// fixed directory of chunks, each chunk allocated once and published before
// the size that covers it.
//
//   dir_ [ c0 | c1 | c2 | c3 | -- | -- | ... ]      aggDataArraySize = 257
//          |    |    |    +-> slots 192..255  (allocated whole chunks,
//          |    |    +------> slots 128..191   only the first 257 in use)
//          v    v
//        slots 0..63, 64..127
//
// A slot's counters belong to the reporter (merge and print once per
// interval); its binding fields (tlBTObj, tdigest_key, tdigestDataExist) are
// atomic because the manager side rebinds them while the reporter and
// request threads read them.
#pragma once

#include <array>
#include <atomic>
#include <memory>
#include <mutex>
#include <vector>

struct BTObject;
struct td_histogram_t;

inline constexpr int ZXBT_DEFAULT_SLOTS = 128;
inline constexpr int ZXBT_SLOT_CHUNK = 64;
// Ids from a rule file may be any number; a slot per id is kept only below
// this bound (about 20 MB of slots at most).
inline constexpr int ZXBT_MAX_SLOTS = 65536;
inline constexpr int ZXBT_VECTOR_PREFIX_SIZE = 1024;
inline constexpr int ZXBT_VECTOR_PREFIX_ID_SIZE = 64;

struct ZXBTMonitorDataCounters {
  int count;
  long long duration, minDuration, maxDuration;
  long long cpuTime, minCpuTime, maxCpuTime;
  int normalCount;
  long long normalDuration, minNormalDuration, maxNormalDuration;
  int slowCount;
  long long slowDuration, minSlowDuration, maxSlowDuration;
  int verySlowCount;
  long long verySlowDuration, minVerySlowDuration, maxVerySlowDuration;
  int errorCount;
  long long errorDuration, minErrorDuration, maxErrorDuration;
  int waitCount;
  long long cumWaitTime, minWaitTime, maxWaitTime;
  int syncCount;
  long long cumSyncTime, minSyncTime, maxSyncTime;
  int queueCount;
  long long minQueueTime, maxQueueTime, cumQueueTime;
  std::atomic<BTObject *> tlBTObj;
  char dataExist;
  std::atomic<td_histogram_t *> tdigest_key;
  std::atomic<char> tdigestDataExist;
};

// Counts, sums and maxima 0; minima 2147483647 except minCpuTime (64-bit
// maximum); dataExist 0. The binding fields are left as they are.
void initZXBTMonitorDataCounters(ZXBTMonitorDataCounters *c);

class ZXBTSlotArray {
 public:
  ZXBTSlotArray() = default;
  ZXBTSlotArray(const ZXBTSlotArray &) = delete;
  ZXBTSlotArray &operator=(const ZXBTSlotArray &) = delete;

  // The slot of `id`, which the caller checked against aggDataArraySize.
  ZXBTMonitorDataCounters &operator[](int id) const noexcept {
    return (*dir_[static_cast<unsigned>(id) / ZXBT_SLOT_CHUNK].load(
        std::memory_order_acquire))[static_cast<unsigned>(id) % ZXBT_SLOT_CHUNK];
  }
  // Allocates and resets the chunks up to `size` slots (<= ZXBT_MAX_SLOTS).
  // Caller holds the monitor's slotLock. false when memory is short; chunks
  // made so far stay.
  bool reserve(int size);

 private:
  using Chunk = std::array<ZXBTMonitorDataCounters, ZXBT_SLOT_CHUNK>;
  std::array<std::atomic<Chunk *>, ZXBT_MAX_SLOTS / ZXBT_SLOT_CHUNK> dir_{};
  std::vector<std::unique_ptr<Chunk>> owned_;  // slotLock holders only
};

struct ZXBTMonitor_t {
  // Usable slots; published after the chunks that hold them, so a reader that
  // sees a size finds every slot below it.
  std::atomic<int> aggDataArraySize{0};
  ZXBTSlotArray aggBTDataArr;  // slot 0 is the overall block
  // Serialises growth and binding (callers also hold the BT manager lock).
  std::mutex slotLock;

  char vectorPrefix[ZXBT_VECTOR_PREFIX_SIZE] = {};
  char vectorPrefixID[ZXBT_VECTOR_PREFIX_ID_SIZE] = {};
  int currentReportingCount = 0;
  int monitorIntervalInSecs = 60;
  char isBTMonitorOn = 1;
  int btMonitorTraceLevel = 0;
  int btMonitorErrorLevel = 0;
  char sendReSetEventOnAggDataConn = 0;
  int maxBTCount = 256;
  int numberOfThreads = 0;
  char doNotDisacrdAnyTransaction = 0;
};

// The slot of `id`, or null outside the array.
ZXBTMonitorDataCounters *btMonitorSlot(const ZXBTMonitor_t &m, int id) noexcept;

// Builds the vector prefix from the application's identity, makes the first
// 128 slots if there are none and sets the start values. 0, or -1 when the
// slots can't be allocated.
int ZXBTMonitorInit();
int ZXBTMonitorInit(ZXBTMonitor_t &m);

// Makes sure a slot exists for the object's id (growing to the smallest
// multiple of 2 x size + 1 above it) and binds the object to it, dropping the
// slot's t-digest. 0, or -1 for no object, an id below 1 or at
// ZXBT_MAX_SLOTS or above, or no memory (the array is then as it was).
int checkAndIncrementAggrBTDataArray(BTObject *obj);
int checkAndIncrementAggrBTDataArray(ZXBTMonitor_t &m, BTObject *obj);
