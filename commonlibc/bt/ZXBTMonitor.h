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
// atomic because the manager side rebinds them while request threads read
// them.
//
// Counting: an application thread counts a finished transaction only in its
// own model (one counter block per BT id), taking no lock: each block has
// two halves, the model's `active` index says which one its thread writes,
// and `seq` is odd while an update is in progress. Once per interval the
// reporter, holding slotLock (so that no slot is rebound or grown under it),
// flips every model's index, makes sure no update still writes the old halves
// (below), merges each old half into its slot and resets it, then prints
// record 74 per BT with data plus the overall record:
//
//   thread A: [b1][b5]--+   (old halves)
//   thread B: [b1]------+--> slots [0][1]..[5].. --> 74 per slot, slot -> [0]
//   thread C: [b5][b9]--+                            74 for [0], [0] reset
//
// The writer stores seq odd, then reads `active`; the reporter stores
// `active`, then reads seq. That store-then-load pair needs a full fence on
// both sides. The writer's side is free where the kernel offers a process-wide
// barrier, which the reporter issues once per report; elsewhere the writer's
// odd store is an atomic exchange. A transaction is therefore in exactly one
// half when the reporter takes it, and each half is read only after its last
// update.
//
// Response times: with t-digest percentiles on, each counted transaction is
// also one point (BT id, duration) in its thread's feed ring, which only the
// owner appends to, without a lock. A slotLock holder drains the rings into
// the slots' digests: the monitoring timer every ZXBT_FEED_DRAIN_MS, and every
// report before it reads the slots. A full ring drops the point and counts it,
// so memory stays bounded at any rate and the owner never waits or runs a
// digest merge. With tDigestIntervalSumsBT the report instead inserts each old
// half's duration sum, and the rings stay unused.
//
//   owner:   ring[head % N] = point; head + 1 (release)
//   drainer: points tail..head -> slot digests; tail = head (release)
#pragma once

#include <array>
#include <atomic>
#include <cstdint>
#include <memory>
#include <mutex>
#include <unordered_map>
#include <vector>

struct BTObject;
struct td_histogram_t;
struct ZXAppSettings;
struct ZXAppMonitors;

inline constexpr int ZXBT_DEFAULT_SLOTS = 128;
inline constexpr int ZXBT_SLOT_CHUNK = 64;
// Ids from a rule file may be any number; a slot per id is kept only below
// this bound (about 20 MB of slots at most).
inline constexpr int ZXBT_MAX_SLOTS = 65536;
inline constexpr int ZXBT_VECTOR_PREFIX_SIZE = 1024;
inline constexpr int ZXBT_VECTOR_PREFIX_ID_SIZE = 64;
// Record 74 and record 96 reports are built in buffers of this size.
inline constexpr int ZXBT_REPORT_BUFFER_SIZE = 131072;
inline constexpr int ZXBT_DEFAULT_INTERVAL_SECS = 60;
inline constexpr int ZXBT_CATEGORY_GENERAL_ONLY = 15;
// Points per thread's feed ring (8 bytes each, made at the thread's first
// point). Drained every ZXBT_FEED_DRAIN_MS, so a thread drops points only
// above about 80,000 transactions per second.
inline constexpr int ZXBT_FEED_RING_SIZE = 4096;
inline constexpr int ZXBT_FEED_DRAIN_MS = 50;

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

// One thread's counts for one BT over an interval: what a slot holds, kept
// compactly (the wait, synchronisation and queue counts always equal
// `count`), with the categories indexed rather than switched on. Reset values are the slots'
// (minima 2147483647, the CPU minimum the 64-bit maximum).
struct alignas(64) ZXBTIntervalCounters {
  enum Field { kDuration, kCpu, kWait, kSync, kQueue, kFields };
  // Normal, slow, very slow, error, and a sink for the general-only category.
  static constexpr int kCategories = 5;
  struct Category {
    long long count, sum, min, max;
  };
  long long count;
  long long sum[kFields], min[kFields], max[kFields];  // queue: sum and min over times above 0
  Category category[kCategories];
  void reset() noexcept;
};

// The block for one BT in one thread's model. Only the owning thread writes
// half[active]; the reporter reads and resets the other one.
struct ZXBTThreadCounters {
  ZXBTIntervalCounters half[2];
  // Transactions in both halves; for inspection while the owner is idle.
  long long counted() const noexcept { return half[0].count + half[1].count; }
};

// One application thread's counters. Shared with the thread's own
// thread-local reference, so a thread that outlives its application object
// never writes into freed memory. Aligned so that two threads' models never
// share a cache line.
struct alignas(64) ZXMonitorDataModel {
  std::atomic<unsigned> seq{0};     // odd while the owner is inside an update
  std::atomic<unsigned> active{0};  // the half the owner writes; flipped by the reporter
  std::atomic<long long> lastUpdateTimeStamp{0};
  long threadId = 0;
  // Set when the thread exits, after its last update; the reporter then
  // merges the model one last time and drops it.
  std::atomic<bool> threadExited{false};
  // lockForBT guards the shape of btmDataArray and currentSizeOfBTArray: the
  // owner grows them under it, the reporter walks them under it; the owner
  // reads them without it. The blocks follow the half rule above. A std::mutex,
  // not an APR one: the model can outlive the application's pools.
  std::mutex lockForBT;
  std::vector<std::unique_ptr<ZXBTThreadCounters>> btmDataArray;  // by BT id
  int currentSizeOfBTArray = 0;
  // The reporter's, under controlThreadTmpLock: the half it merges in this
  // report (-1: none) and whether the thread had exited before the flip.
  int reportHalf = -1;
  bool exitedBeforeFlip = false;

  // The feed ring. feedRing is made by the owner under lockForBT; the drainer
  // reads the pointer under it. The owner writes feedHead, feedTailSeen (its
  // last look at feedTail) and feedDropped; slotLock holders write feedTail
  // and feedDroppedSeen. Kept on their own line, away from seq and active.
  std::unique_ptr<std::uint64_t[]> feedRing;
  alignas(64) std::atomic<std::uint64_t> feedHead{0};
  std::uint64_t feedTailSeen = 0;
  std::atomic<long long> feedDropped{0};
  alignas(64) std::atomic<std::uint64_t> feedTail{0};
  long long feedDroppedSeen = 0;
};

// A finished transaction as the flowpath hands it over. Units: durations,
// wait, synchronisation and queue times in milliseconds; CPU time in
// nanoseconds (the record prints it divided by 1,000,000).
struct ZXBTTransaction_t {
  BTObject *btObj = nullptr;
  long long duration = 0;
  char category = 0;  // 10 normal, 11 slow, 12 very slow, 13 error, 15 general only
  long long cpuTime = 0;
  long long waitTime = 0;
  long long syncTime = 0;
  long long queueTime = 0;
  long long endTime = 0;  // ms; stamps the model, so the hot path reads no clock
};

struct ZXBTMonitor_t {
  ZXBTMonitor_t();
  ~ZXBTMonitor_t();  // frees the slots' t-digests
  ZXBTMonitor_t(const ZXBTMonitor_t &) = delete;
  ZXBTMonitor_t &operator=(const ZXBTMonitor_t &) = delete;

  // Usable slots; published after the chunks that hold them, so a reader that
  // sees a size finds every slot below it.
  std::atomic<int> aggDataArraySize{0};
  ZXBTSlotArray aggBTDataArr;  // slot 0 is the overall block
  // slotLock serialises growth and binding (callers also hold the BT manager
  // lock) against the reports, which hold it throughout: the slots' counters,
  // their t-digests and the two prefix texts are touched only under it.
  std::mutex slotLock;

  char vectorPrefix[ZXBT_VECTOR_PREFIX_SIZE] = {};
  char vectorPrefixID[ZXBT_VECTOR_PREFIX_ID_SIZE] = {};
  int currentReportingCount = 0;  // slotLock

  // Settings: written by the control thread, read lock-free elsewhere.
  std::atomic<int> monitorIntervalInSecs{ZXBT_DEFAULT_INTERVAL_SECS};
  std::atomic<char> isBTMonitorOn{1};
  int btMonitorTraceLevel = 0;
  std::atomic<int> btMonitorErrorLevel{0};
  char sendReSetEventOnAggDataConn = 0;
  std::atomic<int> maxBTCount{256};
  std::atomic<int> numberOfThreads{0};
  std::atomic<char> doNotDisacrdAnyTransaction{0};

  // Response-time points lost: a full feed ring, no slot for the id or no
  // memory for a digest. Total since start, and the part not yet logged by a
  // record-96 report (slotLock).
  std::atomic<long long> responseTimesDropped{0};
  long long responseTimesDroppedUnlogged = 0;

  // Per-thread models by thread id; guarded by the application's
  // controlThreadTmpLock. A thread caches its own model (see serial).
  std::unordered_map<long, std::shared_ptr<ZXMonitorDataModel>> threadModels;
  // Tells a thread's cached model apart from one of an earlier monitor that
  // lived at the same address.
  const std::uint64_t serial;
};

// The slot of `id`, or null outside the array.
ZXBTMonitorDataCounters *btMonitorSlot(const ZXBTMonitor_t &m, int id) noexcept;

// Builds the vector prefix from the application's identity, makes the first
// 128 slots if there are none and sets the start values. 0, or -1 when the
// slots can't be allocated. The second form sets up a monitor of its own with
// the identity and trace level of `app`.
int ZXBTMonitorInit(ZXAppMonitors &app);
int ZXBTMonitorInit(ZXBTMonitor_t &m, const ZXAppSettings &app);

// Makes sure a slot exists for the object's id (growing to the smallest
// multiple of 2 x size + 1 above it) and binds the object to it, dropping the
// slot's t-digest. 0, or -1 for no object, an id below 1 or at
// ZXBT_MAX_SLOTS or above, or no memory (the array is then as it was).
int checkAndIncrementAggrBTDataArray(ZXAppMonitors &app, BTObject *obj);
int checkAndIncrementAggrBTDataArray(ZXBTMonitor_t &m, BTObject *obj);

// Counts one finished transaction in the calling thread's model. false when
// the monitor is off, the BT id is not positive or memory is short. After the
// thread's first transaction on a BT: no allocation, no lock, at most one
// atomic exchange (none with the process barrier), and it waits for nobody.
bool updateCounterAndDurationForBT(ZXAppMonitors &app, const ZXBTTransaction_t &tx);

// Whether counted transactions go to the feed rings: t-digest percentiles for
// BTs on and the interval-sum feed off.
bool responseTimeFeedOn(const ZXAppMonitors &app) noexcept;
// Moves every thread's pending response times into the slots' t-digests.
// Takes slotLock; the points moved.
long long drainResponseTimes(ZXAppMonitors &app);

// The interval's report: merges every thread's blocks into the slots, drains
// the feed rings (or, with tDigestIntervalSumsBT, inserts each thread's
// duration sums into the slots' t-digests), appends record 74 per BT
// with data and the overall record to buf (advancing *len, never past cap)
// and resets what it merged. false when no thread counted anything yet or no
// BT exists.
bool generateAndDumpBTMonitoringRecord(ZXAppMonitors &app, char *buf, int *len, int cap);
// One record 74; false (nothing appended) when it does not fit.
bool dump74RecordForEveryBT(const ZXBTMonitor_t &m, char *buf, int *len, int cap,
                            const ZXBTMonitorDataCounters &c, int btId, const char *btName);

// Rebuilds the vector prefix from the application's identity and separator.
void createVectorPrefix(ZXBTMonitor_t &m, const ZXAppSettings &app);

// Keyword parsers (keyword table rows, through the application's layer
// keywords); control thread.
void parseBTMonitorKeyword(ZXAppMonitors &app, char *value, char *keyword, int index);
void parseMaxBTCount(ZXAppMonitors &app, char *value, char *keyword, int index);
void parseBTAggDataArraySize(ZXAppMonitors &app, char *value, char *keyword, int index);
void parseBTMonitorErrorLevel(ZXAppMonitors &app, char *value, char *keyword, int index);
void parseDoNotDiscardVal(ZXAppMonitors &app, char *value, char *keyword, int index);
void parseMonitorInterval(ZXAppMonitors &app, char *value, char *keyword, int index);
void parseVectorSeparator(ZXAppMonitors &app, char *value, char *keyword, int index);

// The leading decimal integer of s (after blanks, with a sign), clamped to
// the int range; 0 when there is none. Keyword values and rule-file fields.
int zxbt_parse_int(const char *s);
