#include "ZXProxyInstance.h"

#include <chrono>
#include <new>

#include "zx_agent.h"
#include "zx_agent_stop.h"

extern "C" {
ZX_EXPORT ZXProxyInstance_t *tlzxApplication = nullptr;
ZX_EXPORT ZXProxyInstance_t *ZXProxyInstance = nullptr;
}

ZXProxyInstance_t::ZXProxyInstance_t() {
  control_pool = zx::make_pool();
  proxy_pool = zx::make_pool();
  agentLogLock.create(control_pool.get());
  supportedProtocols.lock.create(control_pool.get());
  supportedProtocolsZXC.lock.create(control_pool.get());
  sendBuffers.bufferWriteLock.create(control_pool.get());
  sendBuffers.bufferMoveLock.create(control_pool.get());
  try {
    agentLogBuffer = std::make_unique<char[]>(ZX_AGENT_LOG_BUFFER_SIZE);
  } catch (const std::bad_alloc &) {
    // Mode 2 then falls back to the file.
  }
  ZXSys.sendLogsToProxy = 1;
}

ZXProxyInstance_t::~ZXProxyInstance_t() {
  agent_stop_by(this, 0);
}

bool ZXProxyInstance_t::controlSleep(apr_interval_time_t interval) {
  std::unique_lock lk(wakeMutex);
  bool woken = wakeCond.wait_for(lk, std::chrono::microseconds(interval),
                                 [this] { return wakeRequested || stopRequested.load(); });
  wakeRequested = false;
  return woken;
}

void ZXProxyInstance_t::wakeControlThread() {
  {
    std::lock_guard lk(wakeMutex);
    wakeRequested = true;
  }
  wakeCond.notify_all();
}
