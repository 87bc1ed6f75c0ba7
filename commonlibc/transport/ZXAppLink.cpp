#include "ZXAppLink.h"

#include "ZXDataThread.h"

ZXAppLink::ZXAppLink() = default;

ZXAppLink::~ZXAppLink() {
  // Normally the agent's stop has run already and these find nothing to do.
  request_as_data_thread_stop(this);
  (void)stop_as_data_thread(this, 0);
  (void)stop_data_thread(this, 0);
  // A thread that an earlier stop left behind at its deadline still uses
  // this object; it was told to stop, and its I/O is bounded by timeouts.
  asData.senderDone.waitUntil(0);
  dataThreadDone.waitUntil(0);
}
