#include "ZXMonitorTimer.h"

#include <chrono>
#include <exception>
#include <system_error>
#include <vector>

#include "ZXAppMonitors.h"
#include "ZXBTTrace.h"
#include "ZXDataDispatcher.h"
#include "zxlb_utiles.h"

namespace {

void timerBody(ZXAppMonitors *app) {
  ZXMonitorTimer &t = app->monitorTimer;
  std::unique_lock lk(t.wakeMutex);
  while (!t.stopRequested) {
    const int secs = app->btMonitor.monitorIntervalInSecs.load(std::memory_order_relaxed);
    const auto interval = std::chrono::seconds(secs > 0 ? secs : ZXBT_DEFAULT_INTERVAL_SECS);
    if (t.wakeCond.wait_for(lk, interval, [&t] { return t.stopRequested; })) break;
    lk.unlock();
    runMonitorTick(app);
    lk.lock();
    ++t.ticks;
    t.wakeCond.notify_all();
  }
}

}  // namespace

ZXMonitorTimer::~ZXMonitorTimer() {
  {
    std::lock_guard lk(wakeMutex);
    stopRequested = true;
  }
  wakeCond.notify_all();
  std::lock_guard lk(threadLock);
  if (thread.joinable()) thread.join();
}

void runMonitorTick(ZXAppMonitors *app) {
  // Per tick, not per thread: 128 KiB is too much for a thread's stack.
  std::vector<char> buf(ZXBT_REPORT_BUFFER_SIZE);
  int len = 0;
  if (generateAndDumpBTMonitoringRecord(*app, buf.data(), &len, ZXBT_REPORT_BUFFER_SIZE) && len > 0)
    dumpData(app, buf.data(), len);
  const TDigestPercentile_t &td = app->tDigest.TDigestPercentileBT;
  if (td.is_enabled.load(std::memory_order_relaxed) > 0 &&
      my_gettimeofday() - app->Server.morEpochDiffTime >= app->tDigest.nextLogTime.load())
    generateAndDumpPartialTDigestBTRecords(*app);
}

void startMonitorTimer(ZXAppMonitors *app) {
  createVectorPrefix(app->btMonitor, *app);
  app->tDigest.nextLogTime.store(
      my_gettimeofday() - app->Server.morEpochDiffTime +
      app->tDigest.TDigestPercentileBT.aggregate_time.load(std::memory_order_relaxed));
  ZXMonitorTimer &t = app->monitorTimer;
  std::lock_guard lk(t.threadLock);
  {
    std::lock_guard wk(t.wakeMutex);
    if (t.thread.joinable() && !t.stopRequested) return;
  }
  if (t.thread.joinable()) t.thread.join();
  {
    std::lock_guard wk(t.wakeMutex);
    t.stopRequested = false;
  }
  t.done.reset();
  try {
    t.thread = std::thread([app] {
      zx::ThreadAppScope scope(app);
      try {
        timerBody(app);
      } catch (const std::exception &e) {
        ZXBT_APP_LOG(*app, -1, "Error", "Monitoring timer stopped: %s", e.what());
      }
      app->monitorTimer.done.arrive();
    });
  } catch (const std::system_error &e) {
    t.done.arrive();
    ZXBT_APP_LOG(*app, -1, "Error", "Monitoring timer not started: %s", e.what());
  }
}

void requestMonitorTimerStop(ZXAppMonitors *app) {
  ZXMonitorTimer &t = app->monitorTimer;
  {
    std::lock_guard wk(t.wakeMutex);
    t.stopRequested = true;
  }
  t.wakeCond.notify_all();
}

zx::Status stopMonitorTimer(ZXAppMonitors *app, apr_time_t deadline) {
  requestMonitorTimerStop(app);
  ZXMonitorTimer &t = app->monitorTimer;
  std::lock_guard lk(t.threadLock);
  return zx::joinBy(t.thread, t.done, deadline);
}
