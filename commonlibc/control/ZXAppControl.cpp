#include "ZXAppControl.h"

#include <chrono>

#include "ServerMessages.h"
#include "control_thread.h"

ZXAppControl::~ZXAppControl() {
  request_control_stop(this);
  (void)join_control_thread(this, 0);
  // A run still active ends as a collector stop ends it: its unfinished
  // flowpaths go out with the data thread's last flush (~ZXAppLink).
  writeIncompleteFlowpathsAtStop(this);
}

bool ZXAppControl::controlSleep(apr_interval_time_t interval) {
  std::unique_lock lk(wakeMutex);
  bool woken = wakeCond.wait_for(lk, std::chrono::microseconds(interval),
                                 [this] { return wakeRequested || stopRequested.load(); });
  wakeRequested = false;
  return woken;
}

void ZXAppControl::wakeControlThread() {
  {
    std::lock_guard lk(wakeMutex);
    wakeRequested = true;
  }
  wakeCond.notify_all();
}
