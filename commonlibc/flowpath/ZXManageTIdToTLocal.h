// Records of threads started by a traced thread, keyed by thread id.
//
// The key is the id printed with "%lld" into 8 bytes, so only its first seven
// digits count and ids that share them share a record: kept, because the
// parent and the child agree on the key only by this rule. Records here are
// allocated one by one, outside the slot pool, and live until
// cleanThreadIdToThreadLocal.
#pragma once

#include <memory>
#include <string>
#include <unordered_map>

#include "ZXPerThreadData.h"

struct ZXAppTracing;

inline constexpr int ZX_TID_KEY_SIZE = 8;

// Guarded by the application's threadLocalMutex, look-ups included: an
// unordered_map being rehashed cannot be read at the same time.
using ZXThreadIdMap = std::unordered_map<std::string, std::unique_ptr<ZXPerThreadData_t>>;

// The key of a thread id ("%lld" cut to 7 characters).
std::string threadIdKey(long long thread_id);

// A new zeroed record of `app` under the id's key, replacing any earlier one;
// null when memory is short.
ZXPerThreadData_t *setThreadIdToThreadLocal(ZXAppTracing *app, long long thread_id);
ZXPerThreadData_t *getThreadIdToThreadLocal(ZXAppTracing *app, long long thread_id);
void cleanThreadIdToThreadLocal(ZXAppTracing *app, long long thread_id);

// first = the caller's first flowpath (or its own when it has none), prev =
// the caller's own; marks the record as primed by its parent (status -3).
void setFirstPrevFlowpath(ZXPerThreadData_t *record, long long first, long long prev);
// Primes the child thread's record (made when absent, in the map of the
// parent's application) from the parent's flowpath. Returns the child's
// record, or null.
ZXPerThreadData_t *updateChildThreadPrevFPI(ZXPerThreadData_t *parent, long long child_thread_id);
