// A process-wide mutex that a fork's child finds unlocked.
//
// A thread of the parent may hold a global lock at the moment the host forks;
// the child has no such thread, so the lock would stay taken for good and the
// child's own agent would hang on it. Every ForkSafeMutex links itself into
// one list when constructed, and the child's fork handler re-creates them all
// while it is still the child's only thread.
//
// For objects of static storage duration only (they never unlink).
#pragma once

#include <atomic>
#include <mutex>
#include <new>

namespace zx {

class ForkSafeMutex {
 public:
  ForkSafeMutex() noexcept {
    next_ = head_.load(std::memory_order_relaxed);
    while (!head_.compare_exchange_weak(next_, this, std::memory_order_release,
                                        std::memory_order_relaxed)) {
    }
  }
  ForkSafeMutex(const ForkSafeMutex &) = delete;
  ForkSafeMutex &operator=(const ForkSafeMutex &) = delete;

  void lock() { m_.lock(); }
  void unlock() { m_.unlock(); }
  bool try_lock() { return m_.try_lock(); }

  // In a fork's child, before it starts any thread.
  static void resetAllInChild() noexcept {
    for (ForkSafeMutex *p = head_.load(std::memory_order_acquire); p; p = p->next_)
      new (&p->m_) std::mutex();
  }

 private:
  std::mutex m_;
  ForkSafeMutex *next_ = nullptr;
  static inline std::atomic<ForkSafeMutex *> head_{nullptr};
};

}  // namespace zx
