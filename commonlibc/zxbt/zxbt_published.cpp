#include "zxbt_published.h"
#include "zxlb_fork_safe_mutex.h"

#include <deque>
#include <mutex>
#include <thread>

namespace zx {

namespace {

struct HazardRegistry {
  zx::ForkSafeMutex lock;        // guards the membership of slots
  std::deque<HazardSlot> slots;  // never shrinks, so slot addresses stay valid
};

// Never destroyed: host threads may still classify requests while the
// process runs its static destructors.
HazardRegistry &registry() {
  union Immortal {
    HazardRegistry r;
    Immortal() : r() {}
    ~Immortal() {}
  };
  static Immortal holder;
  return holder.r;
}

struct SlotLease {
  HazardSlot *slot = nullptr;
  ~SlotLease() {
    if (slot) slot->in_use.store(false, std::memory_order_release);
  }
};

}  // namespace

HazardSlot *hazard_slot_for_thread() {
  thread_local SlotLease lease;
  if (lease.slot) [[likely]]
    return lease.slot;
  HazardRegistry &r = registry();
  std::lock_guard guard(r.lock);
  for (HazardSlot &s : r.slots) {
    bool expected = false;
    if (s.in_use.compare_exchange_strong(expected, true, std::memory_order_acquire)) {
      lease.slot = &s;
      return lease.slot;
    }
  }
  HazardSlot &s = r.slots.emplace_back();
  s.in_use.store(true, std::memory_order_relaxed);
  lease.slot = &s;
  return lease.slot;
}

void hazard_wait_unused(const void *p) {
  HazardRegistry &r = registry();
  for (;;) {
    bool named = false;
    {
      std::lock_guard guard(r.lock);
      for (const HazardSlot &s : r.slots) {
        for (const auto &h : s.hazard) named |= h.load(std::memory_order_seq_cst) == p;
      }
    }
    if (!named) return;
    std::this_thread::yield();
  }
}

}  // namespace zx
