#include "zx_agent_fork.h"

#include <apr_pools.h>
#include <apr_thread_mutex.h>
#include <pthread.h>

#include <mutex>
#include <optional>
#include <string>

#include "ZXProxyInstance.h"
#include "zx_agent.h"
#include "zxlb_fork_safe_mutex.h"
#include "zxlb_mt_log.h"

std::atomic<bool> zxAgentRestartPending{false};

namespace {

// agent_init's arguments, written by agent_init on the host's thread before
// the fork handlers can run; read in a child.
struct InitArgs {
  std::optional<std::string> pool, process, type;
};
InitArgs savedArgs;

// 0 idle, 1 a child's restart under way.
std::atomic<int> restarting{0};

// The parent's agent as a child leaves it: still referenced, on purpose.
ZXProxyInstance_t *parentAgentLeftBehind = nullptr;
MTTraceLogKey *parentTraceLeftBehind = nullptr;

// APR's allocator lock as held across the fork by the forking thread.
apr_thread_mutex_t *heldAllocatorLock = nullptr;

char *argOrNull(std::optional<std::string> &s) {
  return s ? s->data() : nullptr;
}

void beforeFork() {
  ZXProxyInstance_t *app = ZXProxyInstance;
  if (!app || !app->control_pool) return;
  // Every root pool shares the global allocator; its lock must be free in the
  // child, which makes pools for its own agent.
  heldAllocatorLock = apr_allocator_mutex_get(apr_pool_allocator_get(app->control_pool.get()));
  if (heldAllocatorLock) apr_thread_mutex_lock(heldAllocatorLock);
}

void releaseAllocatorLock() {
  if (heldAllocatorLock) apr_thread_mutex_unlock(heldAllocatorLock);
  heldAllocatorLock = nullptr;
}

void afterForkInParent() {
  releaseAllocatorLock();
}

void afterForkInChild() {
  releaseAllocatorLock();
  if (!ZXProxyInstance) return;
  // Global locks that a thread of the parent may have held at the fork.
  zx::ForkSafeMutex::resetAllInChild();
  // The parent's agent stays in memory, untouched: its locks may be held by
  // threads that do not exist here, and its exit handler must not join them.
  parentAgentLeftBehind = ZXProxyInstance;
  parentTraceLeftBehind = trace_log_key;
  trace_log_key = nullptr;
  // Also the process's log context: lines of the child log for no
  // application until its own agent starts.
  publishApplication(nullptr);
  zxAgentRestartPending.store(true, std::memory_order_relaxed);
}

}  // namespace

void zx_agent_fork_remember(const char *pool, const char *process_name, const char *agentType) {
  auto keep = [](const char *s) { return s ? std::optional<std::string>(s) : std::nullopt; };
  savedArgs = {keep(pool), keep(process_name), keep(agentType)};
  static std::once_flag once;
  std::call_once(once, [] { pthread_atfork(beforeFork, afterForkInParent, afterForkInChild); });
}

zx::Status zx_agent_restart_after_fork() {
  int idle = 0;
  if (!restarting.compare_exchange_strong(idle, 1, std::memory_order_acquire))
    return zx::Errc::busy;
  if (zxAgentRestartPending.load(std::memory_order_relaxed)) {
    agent_init(argOrNull(savedArgs.pool), 1, argOrNull(savedArgs.process),
               argOrNull(savedArgs.type));
    zxAgentRestartPending.store(false, std::memory_order_release);
  }
  restarting.store(0, std::memory_order_release);
  return zx::Ok;
}
