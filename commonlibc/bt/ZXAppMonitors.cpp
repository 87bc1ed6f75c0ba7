#include "ZXAppMonitors.h"

ZXAppMonitors::ZXAppMonitors()
    : controlThreadTmpLock(control_pool.get()), zxTDHashMapLock(control_pool.get()) {}

ZXAppMonitors::~ZXAppMonitors() {
  requestMonitorTimerStop(this);
  stopMonitorTimer(this, 0);
}

bool ZXAppMonitors::applyLayerKeyword(char *value, char *keyword, int index) {
  // TODO(layer helper): BT monitor and t-digest keyword rows.
  return ZXAppLink::applyLayerKeyword(value, keyword, index);
}
