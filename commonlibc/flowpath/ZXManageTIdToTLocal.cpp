#include "ZXManageTIdToTLocal.h"

#include <cstdio>
#include <mutex>
#include <new>

#include "ZXAppTracing.h"
#include "zx_c_guard.h"
#include "zx_tier_callout.h"
#include "zxlb_mt_log.h"

std::string threadIdKey(long long thread_id) {
  char key[ZX_TID_KEY_SIZE];
  std::snprintf(key, sizeof key, "%lld", thread_id);
  return key;
}

ZXPerThreadData_t *setThreadIdToThreadLocal(ZXAppTracing *app, long long thread_id) {
  if (!app) return nullptr;
  std::unique_ptr<ZXPerThreadData_t> record(new (std::nothrow) ZXPerThreadData_t());
  if (!record) {
    ZX_LOG_OOM(sizeof(ZXPerThreadData_t), "ZXPerThreadData_t for thread id", -1);
    return nullptr;
  }
  ZXPerThreadData_t *r = record.get();
  r->owner = app;
  try {
    std::string key = threadIdKey(thread_id);
    std::lock_guard lk(app->threadLocalMutex);
    app->threadIdToThreadLocal[std::move(key)] = std::move(record);
  } catch (const std::bad_alloc &) {
    ZX_LOG_OOM(sizeof(ZXPerThreadData_t), "threadIdToThreadLocal entry", -1);
    return nullptr;
  }
  return r;
}

ZXPerThreadData_t *getThreadIdToThreadLocal(ZXAppTracing *app, long long thread_id) {
  if (!app) return nullptr;
  std::string key = threadIdKey(thread_id);  // within the small-string buffer: no allocation
  std::lock_guard lk(app->threadLocalMutex);
  auto it = app->threadIdToThreadLocal.find(key);
  return it == app->threadIdToThreadLocal.end() ? nullptr : it->second.get();
}

void cleanThreadIdToThreadLocal(ZXAppTracing *app, long long thread_id) {
  if (!app) return;
  std::string key = threadIdKey(thread_id);
  std::unique_ptr<ZXPerThreadData_t> dropped;
  {
    std::lock_guard lk(app->threadLocalMutex);
    auto it = app->threadIdToThreadLocal.find(key);
    if (it == app->threadIdToThreadLocal.end()) return;
    dropped = std::move(it->second);
    app->threadIdToThreadLocal.erase(it);
  }
}

void setFirstPrevFlowpath(ZXPerThreadData_t *record, long long first, long long prev) {
  if (!record) return;
  record->firstFlowpathInstance = first;
  record->prevFlowpathInstance = prev;
  record->tlStatusCode = -3;
}

ZXPerThreadData_t *updateChildThreadPrevFPI(ZXPerThreadData_t *parent, long long child_thread_id) {
  if (!parent) return nullptr;
  ZXPerThreadData_t *child = getThreadIdToThreadLocal(parent->owner, child_thread_id);
  if (!child) child = setThreadIdToThreadLocal(parent->owner, child_thread_id);
  if (!child) return nullptr;
  const long long first =
      parent->firstFlowpathInstance ? parent->firstFlowpathInstance : parent->flowpathInstance;
  setFirstPrevFlowpath(child, first, parent->flowpathInstance);
  return child;
}

// A host's thread names no application: the calling thread's, else the
// process's.
extern "C" ZX_EXPORT void cleanThreadIdToThreadLocal(long long thread_id) {
  zx_c_guard(
      [thread_id] { cleanThreadIdToThreadLocal(zx::currentApp<ZXAppTracing>(), thread_id); });
}
