// RAII wrappers over the few APR objects the agent core keeps: pools and
// nested thread mutexes. APR is reference-counted on initialise, so a host
// that already uses APR is unaffected.
#pragma once

#include <apr_pools.h>
#include <apr_thread_mutex.h>

#include <memory>

namespace zx {

// Holds one reference on APR's initialisation for its lifetime. Declare it
// before any pool so that pools are destroyed first.
class AprSession {
 public:
  AprSession();
  ~AprSession();
  AprSession(const AprSession &) = delete;
  AprSession &operator=(const AprSession &) = delete;
};

struct PoolDeleter {
  void operator()(apr_pool_t *p) const { apr_pool_destroy(p); }
};
using PoolPtr = std::unique_ptr<apr_pool_t, PoolDeleter>;

// Returns null on failure; `parent` may be null for a root pool.
PoolPtr make_pool(apr_pool_t *parent = nullptr);

// A nested (recursive) APR mutex; BasicLockable so std::lock_guard works.
// A default-constructed or failed mutex locks nothing: the agent must keep
// running even when APR cannot give it a lock.
class NestedMutex {
 public:
  NestedMutex() = default;
  explicit NestedMutex(apr_pool_t *pool);
  NestedMutex(const NestedMutex &) = delete;
  NestedMutex &operator=(const NestedMutex &) = delete;
  NestedMutex(NestedMutex &&o) noexcept;
  NestedMutex &operator=(NestedMutex &&o) noexcept;
  ~NestedMutex();

  // Creates the mutex once; later calls keep the existing one.
  bool create(apr_pool_t *pool);
  bool valid() const { return m_ != nullptr; }
  void lock() {
    if (m_) apr_thread_mutex_lock(m_);
  }
  void unlock() {
    if (m_) apr_thread_mutex_unlock(m_);
  }

 private:
  apr_thread_mutex_t *m_ = nullptr;
};

}  // namespace zx
