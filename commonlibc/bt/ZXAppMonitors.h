// The application object, BT layer: the BT manager, the BT monitor with its
// t-digests, and the monitoring timer.
#pragma once

#include "ZXAppLink.h"
#include "ZXBTManager.h"
#include "ZXBTMonitor.h"
#include "ZXMonitorTimer.h"
#include "ZXTDigest.h"

struct ZXAppMonitors : ZXAppLink {
  ZXAppMonitors();
  ~ZXAppMonitors() override;  // stops the monitoring timer

  bool applyLayerKeyword(char *value, char *keyword, int index) override;

  // The BT manager and the BT monitor's slots document their own locks.
  ZXBTManager btManager;
  ZXBTMonitor_t btMonitor;
  // Guards btMonitor.threadModels (the map of per-thread monitor models).
  zx::NestedMutex controlThreadTmpLock;
  zx::NestedMutex zxTDHashMapLock;
  // T-digest settings and period; the timer reports every interval.
  ZXTDigest_t tDigest;
  ZXMonitorTimer monitorTimer;
};
