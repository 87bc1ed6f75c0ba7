// The monitoring timer: while a run is active, once per monitoring interval
// it runs the BT monitor's report (record 74, through dumpData) and, when an
// aggregation period has passed, the record-96 report (through dumpASData).
// Both reports run on this one thread, so they never overlap each other; they
// hold the monitor's slotLock, so they never overlap slot growth either.
// Between reports it drains the threads' response-time rings into the
// slots' t-digests every ZXBT_FEED_DRAIN_MS while that feed is on.
// Request threads never wait for it: they count under their own locks.
#pragma once

#include <apr_time.h>

#include <condition_variable>
#include <memory>
#include <mutex>
#include <thread>

#include "zxlb_thread_done.h"

struct ZXAppMonitors;

struct ZXMonitorTimer {
  ZXMonitorTimer() = default;
  ~ZXMonitorTimer();  // stops the thread
  ZXMonitorTimer(const ZXMonitorTimer &) = delete;
  ZXMonitorTimer &operator=(const ZXMonitorTimer &) = delete;

  // threadLock serialises start and stop; wakeMutex guards stopRequested and
  // ticks, with wakeCond.
  std::mutex threadLock;
  std::thread thread;
  std::mutex wakeMutex;
  std::condition_variable wakeCond;
  bool stopRequested = false;
  long long ticks = 0;  // reports run so far (tests wait on it)
  zx::ThreadDone done;
};

// Rebuilds the vector prefix (the run's keywords are applied by now), sets
// the first record-96 time and starts the timer unless it runs. Control
// thread, at the run's start.
void startMonitorTimer(ZXAppMonitors *app);
// Asks the timer to stop; does not wait.
void requestMonitorTimerStop(ZXAppMonitors *app);
// Stops the timer and waits for it until `deadline` (APR time, 0 = no
// limit); a timer still busy then is left behind (timed_out). Idempotent.
zx::Status stopMonitorTimer(ZXAppMonitors *app, apr_time_t deadline = 0);
// One tick: the interval's report and, when due, the period's record 96.
void runMonitorTick(ZXAppMonitors *app);
