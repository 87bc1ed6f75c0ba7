#include "ZXAppLink.h"

#include "ZXDataThread.h"

ZXAppLink::ZXAppLink() {
  sendBuffers.bufferWriteLock.create(control_pool.get());
  sendBuffers.bufferMoveLock.create(control_pool.get());
}

ZXAppLink::~ZXAppLink() {
  request_as_data_thread_stop(this);
  stop_as_data_thread(this, 0);
  stop_data_thread(this, 0);
}
