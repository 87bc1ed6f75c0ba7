// The instrumentation SDK: the exported calls of zx_sdk.h mapped onto the
// flowpath generator, plus the SDK's own log and its table of parked handles.
//
// Nothing here throws or blocks on the network: every exported body runs in
// zx_c_guard. Every entry point checks initializeSDK first, so a host that
// calls before zx_init (or after zx_free) gets the neutral result. Neutral
// results are counted per reason (zx_sdk_log.h), never logged one per call:
// a NULL handle is what a host holds whenever no run is going, and that path
// must cost nanoseconds.
#include "zx_sdk.h"

#include <apr_hash.h>
#include <pthread.h>

#include <atomic>
#include <chrono>
#include <cstdio>
#include <cstring>
#include <memory>
#include <mutex>
#include <thread>
#include <utility>

#include "ZXCallOut.h"
#include "ZXFlowpathGenerator.h"
#include "ZXProxyInstance.h"
#include "zx_agent_fork.h"
#include "zx_c_guard.h"
#include "zx_sdk_log.h"
#include "zxlb_apr.h"
#include "zxlb_utiles.h"

namespace {

std::atomic<int> initializeSDK{0};
std::atomic<int> agentStarted{0};
std::atomic<unsigned> initPauseMs{30000};

// bt_lock guards g_bt_hash (inserts, look-ups and removals) and the pool
// behind it; the callbacks are atomics of their own. `stored` is the hash's
// count, written under bt_lock, so that a release with nothing stored (the
// usual case) skips the lock.
struct SdkState {
  zx::PoolPtr sdk_pool;
  zx::NestedMutex bt_lock;
  apr_hash_t *g_bt_hash = nullptr;
  std::atomic<unsigned> stored{0};
};
SdkState *sdk = nullptr;  // made by zx_init, dropped by zx_free; host calls only
std::atomic<zx_agent_callback_t> agentCallback{nullptr};
std::atomic<zx_ad_callback_t> adCallback{nullptr};

bool ready() {
  return initializeSDK.load(std::memory_order_acquire) != 0 && tlzxApplication;
}

// The application of calls without a handle: the process's. Calls with a
// handle work for the handle's (its owner), which ownHandle checks is this
// one.
ZXAppTracing *processApp() {
  return tlzxApplication;
}

// Set in a fork's child whose parent had the SDK running, until the child
// has an agent and an SDK state of its own.
std::atomic<bool> sdkRestartInChild{false};

// A handle of the running agent. In a fork's child a handle from before the
// fork names the parent's agent, which the child never touches.
bool ownHandle(zxBTHandle h) {
  return h->owner == processApp();
}

// The SDK's state, built whole before it is published: a failure leaves
// nothing behind, and a later zx_init tries again.
SdkState *makeSdkState() {
  auto state = std::make_unique<SdkState>();
  state->sdk_pool = zx::make_pool();
  if (!state->sdk_pool || !(state->g_bt_hash = apr_hash_make(state->sdk_pool.get())))
    return nullptr;
  return state.release();
}

// The parent's state and log as a fork's child leaves them: still
// referenced, on purpose.
SdkState *parentStateLeftBehind = nullptr;
zx_sdk_log_t *parentLogLeftBehind = nullptr;

// The child's side of a fork, while it is the child's only thread: the
// parent's parked handles, the lock around them and the log (named with the
// parent's pid) are left alone; the child's first begin makes its own.
void forgetSdkInChild() {
  if (!initializeSDK.exchange(0, std::memory_order_relaxed)) return;
  parentStateLeftBehind = std::exchange(sdk, nullptr);
  parentLogLeftBehind = zx_sdk_log.exchange(nullptr, std::memory_order_relaxed);
  sdkRestartInChild.store(true, std::memory_order_relaxed);
}

// The child's own agent (started by the one caller that gets there first)
// and then its SDK state, without zx_init's pause.
void restartInChild() {
  if (!zx_agent_restart_after_fork().ok()) return;
  if (!sdkRestartInChild.exchange(false)) return;
  zx_sdk_log_init();
  if (SdkState *state = tlzxApplication ? makeSdkState() : nullptr) {
    sdk = state;
    initializeSDK.store(1, std::memory_order_release);
  }
}

// A neutral result, counted under its reason.
template <typename R>
R counted(zx_sdk_reason why, R result) {
  zx_sdk_count(why);
  return result;
}

// Before the SDK is ready. In a fork's child whose own agent has not
// started yet, any handle is the parent's: refused like one, without
// touching it.
template <typename R>
R notReady(zxBTHandle h, R neutral, R refused) {
  if (h && sdkRestartInChild.load(std::memory_order_relaxed))
    return counted(zx_sdk_reason::parent_handle, refused);
  return counted(zx_sdk_reason::not_initialised, neutral);
}
inline void notReady(zxBTHandle h) {
  zx_sdk_count(h && sdkRestartInChild.load(std::memory_order_relaxed)
                   ? zx_sdk_reason::parent_handle
                   : zx_sdk_reason::not_initialised);
}

const char *shortProcessName() {
  static char name[256];
  if (FILE *f = std::fopen("/proc/self/comm", "r")) {
    bool ok = std::fgets(name, sizeof name, f) != nullptr;
    std::fclose(f);
    if (ok) {
      name[std::strcspn(name, "\n")] = '\0';
      if (name[0]) return name;
    }
  }
  return "zxsdk";
}

// The begin shared by both call-out kinds, once the host is checked.
zxIPCallOutHandle sdkCallOutBegin(zxBTHandle bt, ZXCallOutKind kind, const char *host,
                                  const char *query) {
  if (!host || !*host) {
    ZX_SDK_ERROR(zx_sdk_reason::bad_argument,
                 "ERROR: Invalid Arguments, bt_handle = [%p], host = [%s]", static_cast<void *>(bt),
                 host ? host : "(null)");
    return nullptr;
  }
  return beginCallOut(bt->owner, bt, kind, host, query);
}

// False, counted and logged, for a method without a name.
bool methodNamed(zxBTHandle bt, const char *method, const char *function) {
  if (method && *method) return true;
  if (zx_sdk_note_error(zx_sdk_reason::bad_argument))
    zx_sdk_trace_log(5, function, __LINE__,
                     "ERROR: Invalid Arguments, bt_handle = [%p], method = [%s]",
                     static_cast<void *>(bt), method ? method : "(null)");
  return false;
}

// The end shared by both call-out kinds. A live handle without a call-out
// is a host bug: its begin gave NULL.
int sdkCallOutEnd(zxBTHandle bt, ZXCallOutKind kind, zxIPCallOutHandle ip) {
  if (!ip) {
    ZX_SDK_ERROR(zx_sdk_reason::bad_argument,
                 "ERROR: Invalid Arguments, bt_handle = [%p], ip_handle = [(nil)]",
                 static_cast<void *>(bt));
    return -1;
  }
  endCallOut(bt->owner, bt, kind, ip);
  return 0;
}

}  // namespace

// Every exported function below has one shape: the neutral paths first (no
// SDK, a NULL handle), which only load and count and cannot throw, then the
// work inside zx_c_guard. The guard is out of line and its lambda captures
// by value, so the neutral paths need no stack frame: while no run is going
// a host makes these calls at full speed.
extern "C" {

ZX_EXPORT void zx_set_init_pause_ms(unsigned int pause_ms) {
  zx_c_guard([pause_ms] { initPauseMs.store(pause_ms, std::memory_order_relaxed); });
}

ZX_EXPORT void zx_init(void) {
  zx_c_guard([] {
    if (zxAgentRestartPending.load(std::memory_order_relaxed)) restartInChild();
    if (initializeSDK.load(std::memory_order_acquire)) return;
    zx_sdk_log_init();
    static std::once_flag forkOnce;
    std::call_once(forkOnce, [] { pthread_atfork(nullptr, nullptr, forgetSdkInChild); });
    // A host that started the core itself keeps its own configuration.
    if (!tlzxApplication && !agentStarted.exchange(1)) {
      char pool[256], process[] = "morpythonlib", type[] = "python";
      std::snprintf(pool, sizeof pool, "%s", shortProcessName());
      agent_init(pool, 1, process, type);
    }
    if (!tlzxApplication) {
      ZX_SDK_LOG(5, "ERROR: agent core did not start");
      return;
    }
    SdkState *state = makeSdkState();
    if (!state) {
      ZX_SDK_LOG(5, "ERROR: no memory for the SDK's state");
      return;
    }
    sdk = state;
    initializeSDK.store(1, std::memory_order_release);
    ZX_SDK_LOG(1, "SDK initialised; pausing %u ms for the collector connection",
               initPauseMs.load(std::memory_order_relaxed));
    // The pause is there for the collector's start command; a short-lived
    // process (proxy mode) must not sit it out once the run is going.
    const auto deadline =
        std::chrono::steady_clock::now() + std::chrono::milliseconds(initPauseMs.load());
    while (!processApp()->Server.testRunRunning.load(std::memory_order_relaxed) &&
           std::chrono::steady_clock::now() < deadline)
      std::this_thread::sleep_for(std::chrono::milliseconds(1));
  });
}

ZX_EXPORT void zx_free(void) {
  zx_c_guard([] {
    if (!initializeSDK.exchange(0, std::memory_order_acq_rel)) return;
    std::unique_ptr<SdkState> state(std::exchange(sdk, nullptr));
    {
      // The hash goes under its lock; the pool behind it goes with the state.
      std::lock_guard lk(state->bt_lock);
      state->g_bt_hash = nullptr;
    }
    state.reset();
    zx_sdk_log_free();
  });
}

ZX_EXPORT zxBTHandle zx_bt_begin(const char *bt_name, const char *correlation_header) {
  (void)correlation_header;
  if (zxAgentRestartPending.load(std::memory_order_relaxed)) [[unlikely]]
    zx_c_guard(restartInChild);
  if (!ready()) return counted(zx_sdk_reason::not_initialised, nullptr);
  // startFP checks this too; asked here first, a begin in an outage costs
  // no call.
  if (!processApp()->Server.testRunRunning.load(std::memory_order_relaxed))
    return counted(zx_sdk_reason::no_transaction, nullptr);
  return zx_c_guard(nullptr, [bt_name]() -> zxBTHandle {
    ZX_SDK_LOG(2, "Method Called");
    if (!bt_name || !*bt_name) {
      ZX_SDK_ERROR(zx_sdk_reason::bad_argument, "ERROR: Invalid Argument Passed, bt_name = [%s]",
                   bt_name ? bt_name : "(null)");
      return nullptr;
    }
    zxBTHandle h =
        startFP(processApp(), nullptr, bt_name, nullptr, 0, nullptr, nullptr, nullptr, 0, 0);
    if (!h) return counted(zx_sdk_reason::no_transaction, nullptr);
    ZX_SDK_LOG(2, "Method End");
    return h;
  });
}

ZX_EXPORT int zx_bt_end(zxBTHandle bt_handle, int bt_status) {
  if (!ready()) return notReady(bt_handle, 0, -1);
  if (!bt_handle) return counted(zx_sdk_reason::null_handle, -1);
  if (!ownHandle(bt_handle)) return counted(zx_sdk_reason::parent_handle, -1);
  return zx_c_guard(-1, [bt_handle, bt_status] {
    ZX_SDK_LOG(2, "Method Called");
    if (fpEnded(bt_handle)) {
      ZX_SDK_ERROR(zx_sdk_reason::ended_twice,
                   "ERROR: Business transaction already ended, bt_handle = [%p]",
                   static_cast<void *>(bt_handle));
      return -1;
    }
    endFP(bt_handle->owner, bt_handle, bt_status, 0, my_gettimeofday());
    ZX_SDK_LOG(2, "Method End");
    return 0;
  });
}

ZX_EXPORT int zx_bt_release(zxBTHandle bt_handle) {
  if (!ready()) return notReady(bt_handle, 0, -1);
  if (!bt_handle) return counted(zx_sdk_reason::null_handle, -1);
  if (!ownHandle(bt_handle)) return counted(zx_sdk_reason::parent_handle, -1);
  return zx_c_guard(-1, [bt_handle] {
    // A store of this handle happened before its release, so a count of 0
    // read here means it is not among them.
    if (sdk->stored.load(std::memory_order_acquire) > 0) {
      std::lock_guard lk(sdk->bt_lock);
      for (apr_hash_index_t *hi = apr_hash_first(nullptr, sdk->g_bt_hash); hi;
           hi = apr_hash_next(hi)) {
        const void *key;
        apr_ssize_t klen;
        void *val;
        apr_hash_this(hi, &key, &klen, &val);
        // APR allows removing the current entry during a walk.
        if (val == bt_handle) apr_hash_set(sdk->g_bt_hash, key, klen, nullptr);
      }
      sdk->stored.store(apr_hash_count(sdk->g_bt_hash), std::memory_order_release);
    }
    releaseFP(bt_handle->owner, bt_handle);
    return 0;
  });
}

ZX_EXPORT void zx_bt_store(zxBTHandle bt_handle, const char *unique_bt_id) {
  if (!ready()) return notReady(bt_handle);
  if (!bt_handle) return zx_sdk_count(zx_sdk_reason::null_handle);
  if (!ownHandle(bt_handle)) return zx_sdk_count(zx_sdk_reason::parent_handle);
  zx_c_guard([bt_handle, unique_bt_id] {
    if (!unique_bt_id || !*unique_bt_id) {
      ZX_SDK_ERROR(zx_sdk_reason::bad_argument,
                   "ERROR: Invalid Argument Passed, bt_handle = [%p], unique_bt_id = [%s]",
                   static_cast<void *>(bt_handle), unique_bt_id ? unique_bt_id : "(null)");
      return;
    }
    std::lock_guard lk(sdk->bt_lock);
    if (apr_hash_get(sdk->g_bt_hash, unique_bt_id, APR_HASH_KEY_STRING)) {
      ZX_SDK_ERROR(zx_sdk_reason::bad_argument,
                   "ERROR: Business transaction already stored, unique_bt_id = [%s]", unique_bt_id);
      return;
    }
    apr_hash_set(sdk->g_bt_hash, unique_bt_id, APR_HASH_KEY_STRING, bt_handle);
    sdk->stored.store(apr_hash_count(sdk->g_bt_hash), std::memory_order_release);
    ZX_SDK_LOG(1, "Business transaction stored successfully.");
  });
}

ZX_EXPORT zxBTHandle zx_bt_get(const char *unique_bt_id) {
  if (!ready()) return counted(zx_sdk_reason::not_initialised, nullptr);
  return zx_c_guard(nullptr, [unique_bt_id]() -> zxBTHandle {
    if (!unique_bt_id || !*unique_bt_id) {
      ZX_SDK_ERROR(zx_sdk_reason::bad_argument,
                   "ERROR: Invalid Argument Passed, unique_bt_id = [%s]",
                   unique_bt_id ? unique_bt_id : "(null)");
      return nullptr;
    }
    // Locked too: another thread may be storing, and an APR hash is not safe
    // to read while it grows.
    std::lock_guard lk(sdk->bt_lock);
    return static_cast<zxBTHandle>(apr_hash_get(sdk->g_bt_hash, unique_bt_id, APR_HASH_KEY_STRING));
  });
}

ZX_EXPORT int zx_bt_add_error(zxBTHandle bt_handle, int err_level, const char *message,
                              int mark_bt_as_error) {
  (void)bt_handle, (void)err_level, (void)message, (void)mark_bt_as_error;
  return zx_c_guard(0, [] { return 0; });
}

ZX_EXPORT void zx_method_entry(zxBTHandle bt_handle, const char *method) {
  if (!ready()) return notReady(bt_handle);
  if (!bt_handle) return zx_sdk_count(zx_sdk_reason::null_handle);
  if (!ownHandle(bt_handle)) return zx_sdk_count(zx_sdk_reason::parent_handle);
  zx_c_guard([bt_handle, method] {
    if (!methodNamed(bt_handle, method, "zx_method_entry")) return;
    zxMethodEntry(bt_handle->owner, nullptr, bt_handle, method, "/test", nullptr,
                  bt_handle->tlThreadId, nullptr, 0, 0);
  });
}

ZX_EXPORT void zx_method_exit(zxBTHandle bt_handle, const char *method) {
  if (!ready()) return notReady(bt_handle);
  if (!bt_handle) return zx_sdk_count(zx_sdk_reason::null_handle);
  if (!ownHandle(bt_handle)) return zx_sdk_count(zx_sdk_reason::parent_handle);
  zx_c_guard([bt_handle, method] {
    if (!methodNamed(bt_handle, method, "zx_method_exit")) return;
    zxMethodExit(bt_handle->owner, nullptr, bt_handle, method, -1, 200, nullptr, -1,
                 bt_handle->tlThreadId, 0, 0, 1, 0, my_gettimeofday());
  });
}

ZX_EXPORT zxIPCallOutHandle zx_ip_db_callout_begin(zxBTHandle bt_handle, const char *db_host,
                                                   const char *db_query) {
  if (!ready()) return notReady<zxIPCallOutHandle>(bt_handle, nullptr, nullptr);
  if (!bt_handle) return counted(zx_sdk_reason::null_handle, nullptr);
  if (!ownHandle(bt_handle)) return counted(zx_sdk_reason::parent_handle, nullptr);
  return zx_c_guard(nullptr, [bt_handle, db_host, db_query] {
    return sdkCallOutBegin(bt_handle, ZXCallOutKind::Database, db_host, db_query);
  });
}

ZX_EXPORT int zx_ip_db_callout_end(zxBTHandle bt_handle, zxIPCallOutHandle ip_handle) {
  if (!ready()) return notReady(bt_handle, 0, -1);
  if (!bt_handle) return counted(zx_sdk_reason::null_handle, -1);
  if (!ownHandle(bt_handle)) return counted(zx_sdk_reason::parent_handle, -1);
  return zx_c_guard(-1, [bt_handle, ip_handle] {
    return sdkCallOutEnd(bt_handle, ZXCallOutKind::Database, ip_handle);
  });
}

ZX_EXPORT zxIPCallOutHandle zx_ip_http_callout_begin(zxBTHandle bt_handle, const char *http_host,
                                                     const char *url) {
  (void)url;
  if (!ready()) return notReady<zxIPCallOutHandle>(bt_handle, nullptr, nullptr);
  if (!bt_handle) return counted(zx_sdk_reason::null_handle, nullptr);
  if (!ownHandle(bt_handle)) return counted(zx_sdk_reason::parent_handle, nullptr);
  return zx_c_guard(nullptr, [bt_handle, http_host] {
    return sdkCallOutBegin(bt_handle, ZXCallOutKind::Http, http_host, nullptr);
  });
}

ZX_EXPORT int zx_ip_http_callout_end(zxBTHandle bt_handle, zxIPCallOutHandle ip_handle) {
  if (!ready()) return notReady(bt_handle, 0, -1);
  if (!bt_handle) return counted(zx_sdk_reason::null_handle, -1);
  if (!ownHandle(bt_handle)) return counted(zx_sdk_reason::parent_handle, -1);
  return zx_c_guard(-1, [bt_handle, ip_handle] {
    return sdkCallOutEnd(bt_handle, ZXCallOutKind::Http, ip_handle);
  });
}

ZX_EXPORT uintptr_t bt_handle_to_int(zxBTHandle bt_handle) {
  return zx_c_guard(0, [bt_handle] { return reinterpret_cast<uintptr_t>(bt_handle); });
}

ZX_EXPORT zxBTHandle bt_int_to_handle(uintptr_t value) {
  return zx_c_guard(nullptr, [value] { return reinterpret_cast<zxBTHandle>(value); });
}

ZX_EXPORT uintptr_t ip_handle_to_int(zxIPCallOutHandle ip_handle) {
  return zx_c_guard(0, [ip_handle] { return reinterpret_cast<uintptr_t>(ip_handle); });
}

ZX_EXPORT zxIPCallOutHandle ip_int_to_handle(uintptr_t value) {
  return zx_c_guard(nullptr, [value] { return reinterpret_cast<zxIPCallOutHandle>(value); });
}

ZX_EXPORT int register_callback_for_agent(zx_agent_callback_t ptrfunc) {
  if (!ready()) return counted(zx_sdk_reason::not_initialised, -1);
  return zx_c_guard(-1, [ptrfunc] {
    agentCallback.store(ptrfunc, std::memory_order_release);
    return 0;
  });
}

ZX_EXPORT void register_AD_callback(zx_ad_callback_t adfunc) {
  if (!ready()) return zx_sdk_count(zx_sdk_reason::not_initialised);
  zx_c_guard([adfunc] { adCallback.store(adfunc, std::memory_order_release); });
}

ZX_EXPORT void zx_data_counters(unsigned long long *records, unsigned long long *dropped) {
  zx_c_guard([records, dropped] {
    ZXProxyInstance_t *a = tlzxApplication;
    const ZXSendCounts c = a ? readSendCounts(a->sendBuffers) : ZXSendCounts{};
    if (records) *records = c.records;
    if (dropped) *dropped = c.lost();
  });
}

ZX_EXPORT int zx_data_counters_get(zx_data_counters_t *out, size_t size) {
  ZXProxyInstance_t *a = tlzxApplication;
  if (!out || !a) return -1;
  return zx_c_guard(-1, [a, out, size] {
    const ZXSendCounts c = readSendCounts(a->sendBuffers);
    const zx_data_counters_t all = {c.records,      c.sent,       c.queued,       c.lostPoolFull,
                                    c.lostConnDown, c.lostAtExit, c.lostOversized};
    // A caller built against an older, shorter struct gets its prefix.
    std::memcpy(out, &all, size < sizeof all ? size : sizeof all);
    return 0;
  });
}

}  // extern "C"
