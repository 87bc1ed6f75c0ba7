// RAII wrappers over the APR pools the agent core keeps, and its recursive
// mutex. APR is reference-counted on initialise, so a host
// that already uses APR is unaffected.
#pragma once

#include <apr_pools.h>
#include <memory>
#include <mutex>

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

// A recursive mutex, usable from construction on: its owner's constructor
// makes it with the rest of the owner, so there is no step that could be
// forgotten and leave a lock that locks nothing. Held across calls that
// re-enter their own locks (the flowpath and trace-log code). It needs no
// pool, so records made on a host's thread (a new block of slots) never
// allocate from a pool another thread uses. BasicLockable, for std::lock_guard.
class NestedMutex {
 public:
  NestedMutex() = default;
  NestedMutex(const NestedMutex &) = delete;
  NestedMutex &operator=(const NestedMutex &) = delete;

  void lock() { m_.lock(); }
  void unlock() { m_.unlock(); }
  bool try_lock() { return m_.try_lock(); }

 private:
  std::recursive_mutex m_;
};

}  // namespace zx
