#include "ZXAppControl.h"

#include <chrono>
#include <utility>

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

bool ZXAppControl::queueForCollector(std::string text) {
  {
    std::lock_guard lk(collectorOutboxLock);
    if (collectorOutboxBytes + text.size() > kCollectorOutboxMaxBytes) {
      ++collectorOutboxDropped;
      return false;
    }
    collectorOutboxBytes += text.size();
    collectorOutbox.push_back(std::move(text));
  }
  // Ends the control thread's poll wait so that the text goes out now.
  std::lock_guard lk(ctrlConnLock);
  if (zxcCtrlSocket) zxcCtrlSocket->wakeup();
  return true;
}

std::vector<std::string> ZXAppControl::takeCollectorOutbox() {
  std::lock_guard lk(collectorOutboxLock);
  collectorOutboxBytes = 0;
  return std::exchange(collectorOutbox, {});
}
