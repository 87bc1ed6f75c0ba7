#include "zxlb_apr.h"

#include <apr_general.h>

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

}  // namespace zx
