#include "ZXBTManager.h"

#include <new>

#include "zxlb_mt_log.h"

namespace {

constexpr std::size_t kInitialCapacity = 64;

std::uint64_t hash_name(std::string_view s) noexcept {
  std::uint64_t h = 1469598103934665603ull;  // FNV-1a
  for (unsigned char c : s) h = (h ^ c) * 1099511628211ull;
  return h;
}

}  // namespace

BTObjectMap::Table::Table(std::size_t capacity)
    : mask(capacity - 1), slots(std::make_unique<std::atomic<Entry *>[]>(capacity)) {}

BTObjectMap::BTObjectMap() {
  tables_.push_back(std::make_unique<Table>(kInitialCapacity));
  table_.store(tables_.back().get(), std::memory_order_release);
}

BTObjectMap::Entry *BTObjectMap::find(const Table &t, std::uint64_t h,
                                      std::string_view name) const noexcept {
  for (std::size_t i = h & t.mask;; i = (i + 1) & t.mask) {
    Entry *e = t.slots[i].load(std::memory_order_acquire);
    if (!e) return nullptr;
    if (e->hash == h && e->key == name) return e;
  }
}

void BTObjectMap::link(Table &t, Entry *e) noexcept {
  std::size_t i = e->hash & t.mask;
  while (t.slots[i].load(std::memory_order_relaxed)) i = (i + 1) & t.mask;
  t.slots[i].store(e, std::memory_order_release);
}

BTObject *BTObjectMap::get(std::string_view name) const noexcept {
  const Table *t = table_.load(std::memory_order_acquire);
  const Entry *e = find(*t, hash_name(name), name);
  return e ? e->value.load(std::memory_order_acquire) : nullptr;
}

bool BTObjectMap::put(std::string_view name, BTObject *obj) {
  Table *t = table_.load(std::memory_order_relaxed);
  const std::uint64_t h = hash_name(name);
  if (Entry *e = find(*t, h, name)) {
    e->value.store(obj, std::memory_order_release);
    return true;
  }
  try {
    // Reserve first so that nothing below can fail after the table changed.
    entries_.reserve(entries_.size() + 1);
    tables_.reserve(tables_.size() + 1);
    auto e = std::make_unique<Entry>();
    e->hash = h;
    e->key.assign(name);
    e->value.store(obj, std::memory_order_relaxed);
    const auto used = static_cast<std::size_t>(count_.load(std::memory_order_relaxed));
    if (2 * (used + 1) > t->mask + 1) {
      auto bigger = std::make_unique<Table>(2 * (t->mask + 1));
      for (std::size_t i = 0; i <= t->mask; ++i) {
        if (Entry *old = t->slots[i].load(std::memory_order_relaxed)) link(*bigger, old);
      }
      t = bigger.get();
      tables_.push_back(std::move(bigger));
      table_.store(t, std::memory_order_release);
    }
    link(*t, e.get());
    entries_.push_back(std::move(e));
  } catch (const std::bad_alloc &) {
    ZX_LOG_OOM(sizeof(Entry) + name.size(), "BT object map entry", count());
    return false;
  }
  count_.fetch_add(1, std::memory_order_relaxed);
  return true;
}

void BTObjectMap::clear() {
  if (count() == 0) return;
  try {
    tables_.push_back(std::make_unique<Table>(kInitialCapacity));
  } catch (const std::bad_alloc &) {
    ZX_LOG_OOM(kInitialCapacity * sizeof(void *), "BT object map", 0);
    return;
  }
  table_.store(tables_.back().get(), std::memory_order_release);
  count_.store(0, std::memory_order_relaxed);
}

void insert_in_hasmap(const char *name, BTObject *object, BTObjectMap &map) {
  if (!name || !object) return;
  map.put(name, object);
}
