#include "zxlb_apr.h"

#include <apr_general.h>

#include <utility>

namespace zx {

AprSession::AprSession() {
  apr_initialize();
}
AprSession::~AprSession() {
  apr_terminate();
}

PoolPtr make_pool(apr_pool_t *parent) {
  apr_pool_t *p = nullptr;
  if (apr_pool_create(&p, parent) != APR_SUCCESS) return nullptr;
  return PoolPtr(p);
}

NestedMutex::NestedMutex(apr_pool_t *pool) {
  create(pool);
}

NestedMutex::NestedMutex(NestedMutex &&o) noexcept : m_(std::exchange(o.m_, nullptr)) {}

NestedMutex &NestedMutex::operator=(NestedMutex &&o) noexcept {
  std::swap(m_, o.m_);
  return *this;
}

NestedMutex::~NestedMutex() {
  // Destroying runs and unregisters the pool cleanup, so the owning pool may
  // be destroyed later without a double free.
  if (m_) apr_thread_mutex_destroy(m_);
}

bool NestedMutex::create(apr_pool_t *pool) {
  if (m_) return true;
  if (!pool) return false;
  apr_thread_mutex_t *m = nullptr;
  if (apr_thread_mutex_create(&m, APR_THREAD_MUTEX_NESTED, pool) != APR_SUCCESS) return false;
  m_ = m;
  return true;
}

}  // namespace zx
