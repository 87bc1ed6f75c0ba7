// The BT manager: the store that owns every business-transaction object, and
// the maps from BT name to object.
//
// BT objects: one per BT name, made by the rule readers and by request
// threads naming a new BT, and never freed while the agent runs (the manager
// keeps every one). Request threads read them without a lock, so every field
// that changes after an object is published is atomic; the name never
// changes. Ids: 1 = "Others", 0 = the overall monitor slot,
// 2..max_bt_count handed out at run time, pattern rules bring their own; -2
// marks an excluded request and never names an object.
//
// Request threads look names up on every transaction start, so a map read
// takes no lock and never allocates; writers are serialised by the manager
// lock (bt_obj_map_lock). That is why the maps are our own open-addressing
// tables rather than the runtime's hash tables, whose reads race with a
// growing insert.
//
//   table_ ──> [ e3 | -- | e1 | e7 | -- | ... ]   linear probing, load <= 1/2
//               entries are never moved or freed; a growth copies the entry
//               pointers into a table twice the size and publishes it, and a
//               reader still probing the old table finds the same entries.
#pragma once

#include <atomic>
#include <cstdint>
#include <deque>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include "zxlb_apr.h"

inline constexpr int ZXBT_NAME_SIZE = 257;  // 256 characters kept
inline constexpr int ZXBT_OTHERS_ID = 1;
inline constexpr int ZXBT_EXCLUDED_ID = -2;
inline constexpr int ZXBT_MAX_BT_COUNT = 256;

// Categories of a finished transaction.
enum : char {
  ZXBT_CATEGORY_NONE = 0,
  ZXBT_CATEGORY_NORMAL = 10,
  ZXBT_CATEGORY_SLOW = 11,
  ZXBT_CATEGORY_VERY_SLOW = 12,
  ZXBT_CATEGORY_ERROR = 13,
};

struct Threshold {
  std::atomic<int> slow{0};  // milliseconds
  std::atomic<int> very_slow{0};
};

struct BTObject {
  char bt_name[ZXBT_NAME_SIZE] = {};
  std::atomic<char> bt_category{ZXBT_CATEGORY_NONE};
  std::atomic<int> is_meta_data_dumped{0};
  std::atomic<int> bt_id{0};
  // Dynamic-diagnostics window, seconds.
  std::atomic<long long> bt_startTime{0};
  std::atomic<long long> bt_endTime{0};
  std::atomic<long long> dd_IntervalTime{0};
  std::atomic<char> AIFlag{0};
  Threshold bt_threshold;
  // Rule hierarchy ids, stored for the method-based rules.
  std::atomic<int> selfID{0};
  std::atomic<int> parentID{0};
  // Owned by body capture and the method-based rules, which are built
  // elsewhere; kept here so that the object has its full shape.
  int enableBodyCapture = 0;
  int maxBodySize = 0;
  int prevPID = 0;
  int isBTOverride = 0;
  int btCounter = 0;
};

// Dynamic-diagnostics auto-instrumentation switch and window length, set by
// the diagnostics subsystem; read on every BT look-up.
struct ZXBTDynamicDiagnostics {
  std::atomic<int> enableDDAI{0};
  std::atomic<long long> ddAIInterval{0};  // seconds
};

class BTObjectMap {
 public:
  BTObjectMap();
  BTObjectMap(const BTObjectMap &) = delete;
  BTObjectMap &operator=(const BTObjectMap &) = delete;

  // Lock-free; null when the name is absent.
  BTObject *get(std::string_view name) const noexcept;

  // Writers hold the BT manager lock. put replaces the object of a name that
  // is present. false when memory is short (the map is unchanged).
  bool put(std::string_view name, BTObject *obj);
  // Empties the map; readers still walking the old table finish safely.
  void clear();
  int count() const noexcept { return count_.load(std::memory_order_relaxed); }

 private:
  struct Entry {
    std::uint64_t hash;
    std::string key;
    std::atomic<BTObject *> value;
  };
  struct Table {
    explicit Table(std::size_t capacity);
    std::size_t mask;
    std::unique_ptr<std::atomic<Entry *>[]> slots;
  };

  Entry *find(const Table &t, std::uint64_t h, std::string_view name) const noexcept;
  static void link(Table &t, Entry *e) noexcept;

  std::atomic<Table *> table_{nullptr};
  std::atomic<int> count_{0};
  // Writers only. Retired tables and entries stay allocated for readers that
  // may still hold them; tables sum to less than twice the current one.
  std::vector<std::unique_ptr<Table>> tables_;
  std::vector<std::unique_ptr<Entry>> entries_;
};

// Objects made from the rule and threshold files.
struct ZXBTConfigModel {
  BTObjectMap bt_obj_map;
  int max_bt_count = ZXBT_MAX_BT_COUNT;
  // Ids handed out so far; written under the manager lock, read by monitors.
  std::atomic<int> total_bt_count{1};
};

struct ZXBTManager {
  ZXBTManager() = default;
  ZXBTManager(const ZXBTManager &) = delete;
  ZXBTManager &operator=(const ZXBTManager &) = delete;

  // The manager lock (nested: creation looks up the configuration map under
  // it). Guards every write to both maps, total_bt_count, `objects`, and the
  // default thresholds allSlow/allVerySlow of the application.
  zx::NestedMutex bt_obj_map_lock;
  BTObjectMap bt_obj_map;  // names requests are attributed to
  ZXBTConfigModel config;
  std::deque<BTObject> objects;  // every object ever made; never shrinks
  ZXBTDynamicDiagnostics dd;
};

// Puts `object` under `name`, replacing any earlier entry. Caller holds the
// manager lock.
void insert_in_hasmap(const char *name, BTObject *object, BTObjectMap &map);
