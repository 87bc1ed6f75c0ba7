#include "ZXMonitorTimer.h"

#include <algorithm>
#include <chrono>
#include <exception>
#include <system_error>
#include <vector>

#include "ZXAppMonitors.h"
#include "ZXBTTrace.h"
#include "ZXDataDispatcher.h"
#include "zxlb_utiles.h"

namespace {

// Between reports the timer wakes to drain the feed rings while the feed is
// on, and once a second to notice that it was switched on.
constexpr auto kDrainPeriod = std::chrono::milliseconds(ZXBT_FEED_DRAIN_MS);
constexpr auto kFeedCheckPeriod = std::chrono::seconds(1);

std::chrono::steady_clock::time_point nextReport(const ZXAppMonitors &app) {
  const int secs = app.btMonitor.monitorIntervalInSecs.load(std::memory_order_relaxed);
  return std::chrono::steady_clock::now() +
         std::chrono::seconds(secs > 0 ? secs : ZXBT_DEFAULT_INTERVAL_SECS);
}

void timerBody(ZXAppMonitors *app) {
  using Clock = std::chrono::steady_clock;
  ZXMonitorTimer &t = app->monitorTimer;
  std::unique_lock lk(t.wakeMutex);
  auto reportAt = nextReport(*app);
  while (!t.stopRequested) {
    const bool feeding = responseTimeFeedOn(*app);
    const auto wakeAt = std::min(
        reportAt, Clock::now() + (feeding ? Clock::duration(kDrainPeriod) : kFeedCheckPeriod));
    if (t.wakeCond.wait_until(lk, wakeAt, [&t] { return t.stopRequested; })) break;
    lk.unlock();
    if (Clock::now() < reportAt) {
      if (feeding) drainResponseTimes(*app);
      lk.lock();
      continue;
    }
    runMonitorTick(app);
    lk.lock();
    ++t.ticks;
    t.wakeCond.notify_all();
    reportAt = nextReport(*app);
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
