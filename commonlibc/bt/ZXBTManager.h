// The BT manager: the maps from BT name to BT object and the arena that owns
// every object.
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

#include "zxbt_bt_object.h"
#include "zxlb_apr.h"

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
  ZXBTManager();
  ZXBTManager(const ZXBTManager &) = delete;
  ZXBTManager &operator=(const ZXBTManager &) = delete;

  // Allocates BT objects into `objects` and holds the mutex below.
  zx::PoolPtr pool;
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
