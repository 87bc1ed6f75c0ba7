#include "zxlb_hashMapMethod.h"
#include "zxlb_fork_safe_mutex.h"

#include <mutex>
#include <new>
#include <vector>

#include "zxlb_mt_log.h"

namespace {

// Serialises map inserts. A std::mutex needs no creation, so there is no
// first-insert race to create it.
zx::ForkSafeMutex modify_hashmap_lock;

void retain(methodPropProperties *r) {
  r->mapRefs.fetch_add(1, std::memory_order_relaxed);
}

}  // namespace

methodPropProperties *newMethodRecord(const char *name) {
  std::unique_ptr<methodPropProperties> r(new (std::nothrow) methodPropProperties());
  if (!r) {
    ZX_LOG_OOM(sizeof(methodPropProperties), "methodPropProperties", -1);
    return nullptr;
  }
  r->methodName.assign(name ? name : "");
  if (!r->methodName.is_set()) {
    ZX_LOG_OOM(0, "methodPropProperties", -1);
    return nullptr;
  }
  return r.release();
}

void releaseMethodRecord(methodPropProperties *r) {
  if (r && r->mapRefs.fetch_sub(1, std::memory_order_acq_rel) == 1)
    std::unique_ptr<methodPropProperties> owned(r);
}

apr_hash_t *create_hashmap(apr_pool_t *pool) {
  return pool ? apr_hash_make(pool) : nullptr;
}

methodPropProperties *search_hashmap(const char *key, apr_hash_t *map) {
  if (!key || !map) return nullptr;
  return static_cast<methodPropProperties *>(apr_hash_get(map, key, APR_HASH_KEY_STRING));
}

void modify_hashmap(const char *key, methodPropProperties *value, apr_hash_t *map) {
  if (!map || !value || !key) return;
  methodPropProperties *old = nullptr;
  {
    std::lock_guard lk(modify_hashmap_lock);
    old = static_cast<methodPropProperties *>(apr_hash_get(map, key, APR_HASH_KEY_STRING));
    if (old == value) return;
    retain(value);
    // The key must live as long as the entry: the record's own name does.
    // APR keeps an entry's first key on replacement, so the old entry (keyed
    // by the name of the record it held) is removed first.
    if (old) apr_hash_set(map, key, APR_HASH_KEY_STRING, nullptr);
    apr_hash_set(map, value->methodName.c_str(), APR_HASH_KEY_STRING, value);
  }
  releaseMethodRecord(old);
}

void iterate_hashtable_and_free_hashmap(apr_hash_t *map) {
  if (!map) return;
  std::lock_guard lk(modify_hashmap_lock);
  // The records are released after the map is cleared: a record's name is
  // the key of its entry.
  std::vector<methodPropProperties *> held;
  held.reserve(apr_hash_count(map));
  for (apr_hash_index_t *hi = apr_hash_first(nullptr, map); hi; hi = apr_hash_next(hi)) {
    void *v = nullptr;
    apr_hash_this(hi, nullptr, nullptr, &v);
    held.push_back(static_cast<methodPropProperties *>(v));
  }
  apr_hash_clear(map);
  for (methodPropProperties *r : held) releaseMethodRecord(r);
}

void copy_hashmap(apr_hash_t *from, apr_hash_t *to) {
  if (!from || !to) return;
  std::lock_guard lk(modify_hashmap_lock);
  for (apr_hash_index_t *hi = apr_hash_first(nullptr, from); hi; hi = apr_hash_next(hi)) {
    void *v = nullptr;
    apr_hash_this(hi, nullptr, nullptr, &v);
    auto *r = static_cast<methodPropProperties *>(v);
    if (apr_hash_get(to, r->methodName.c_str(), APR_HASH_KEY_STRING)) continue;
    retain(r);
    apr_hash_set(to, r->methodName.c_str(), APR_HASH_KEY_STRING, r);
  }
}
