// A value that request threads read without a lock while one writer at a
// time replaces it: the BT rule set, swapped whole on a rule-file reload.
//
// Readers announce the pointer they are using in a hazard slot of their own
// thread; a writer publishes the replacement with one atomic store and frees
// the old value once no slot names it any more. A reader pays two loads and
// two stores to a cache line of its own thread, so readers never contend with
// each other; the writer waits out readers, which hold a value only for the
// length of one classification.
//
//   thread A slot: [ hazard = v1 ]      writer: cur = v2      (readers now take v2)
//   thread B slot: [ hazard = -- ]              wait while any slot == v1
//                                               free v1
#pragma once

#include <atomic>
#include <memory>

namespace zx {

inline constexpr int ZX_HAZARDS_PER_THREAD = 4;

// One per thread that ever read a published value; claimed on first use and
// given back when the thread exits. Slots are never freed.
struct alignas(64) HazardSlot {
  std::atomic<const void *> hazard[ZX_HAZARDS_PER_THREAD] = {};
  std::atomic<bool> in_use{false};
  int depth = 0;  // the owning thread's nesting of readers; its own thread only
};

// The calling thread's slot. Allocates (under a registry lock) only the first
// time a thread asks.
HazardSlot *hazard_slot_for_thread();

// Returns once no thread's slot names `p`.
void hazard_wait_unused(const void *p);

template <typename T>
class Published {
 public:
  // Protects the value current at construction for the reader's scope.
  // Readers nest up to ZX_HAZARDS_PER_THREAD deep on one thread.
  class Reader {
   public:
    explicit Reader(const Published &p) : slot_(hazard_slot_for_thread()) {
      const int d = slot_->depth++;
      index_ = d < ZX_HAZARDS_PER_THREAD ? d : ZX_HAZARDS_PER_THREAD - 1;
      std::atomic<const void *> &h = slot_->hazard[index_];
      prev_ = h.load(std::memory_order_relaxed);
      const T *v = p.cur_.load(std::memory_order_acquire);
      for (;;) {
        h.store(v, std::memory_order_seq_cst);
        const T *again = p.cur_.load(std::memory_order_seq_cst);
        if (again == v) break;
        v = again;
      }
      value_ = v;
    }
    ~Reader() {
      slot_->hazard[index_].store(prev_, std::memory_order_release);
      --slot_->depth;
    }
    Reader(const Reader &) = delete;
    Reader &operator=(const Reader &) = delete;
    const T *get() const { return value_; }
    const T *operator->() const { return value_; }

   private:
    HazardSlot *slot_;
    int index_;
    const void *prev_;
    const T *value_;
  };

  Published() = default;
  Published(const Published &) = delete;
  Published &operator=(const Published &) = delete;

  // Writers only, one at a time (callers serialise them). Returns after the
  // old value is freed.
  void publish(std::unique_ptr<const T> next) {
    std::unique_ptr<const T> old = std::move(owner_);
    owner_ = std::move(next);
    cur_.store(owner_.get(), std::memory_order_seq_cst);
    if (old) hazard_wait_unused(old.get());
  }
  // The writer's view: no other writer can replace it meanwhile.
  const T *current_for_writer() const { return owner_.get(); }

 private:
  std::atomic<const T *> cur_{nullptr};
  std::unique_ptr<const T> owner_;  // writers only
};

}  // namespace zx
