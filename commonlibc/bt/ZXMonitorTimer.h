// The monitoring timer: while a run is active, once per monitoring interval
// it runs the BT monitor's report (record 74, through dumpData) and, when an
// aggregation period has passed, the record-96 report (through dumpASData).
// Both reports run on this one thread, so they never overlap each other; they
// hold the monitor's slotLock, so they never overlap slot growth either.
// Request threads never wait for it: they count under their own locks.
#pragma once

#include <condition_variable>
#include <memory>
#include <mutex>
#include <thread>

struct ZXProxyInstance_t;

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
};

// Rebuilds the vector prefix (the run's keywords are applied by now), sets
// the first record-96 time and starts the timer unless it runs. Control
// thread, at the run's start.
void startMonitorTimer(ZXProxyInstance_t *app);
// Stops the timer and waits for it. Idempotent.
void stopMonitorTimer(ZXProxyInstance_t *app);
// One tick: the interval's report and, when due, the period's record 96.
void runMonitorTick(ZXProxyInstance_t *app);
