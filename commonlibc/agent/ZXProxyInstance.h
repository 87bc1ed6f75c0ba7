// The application object: all agent state of one monitored application.
//
// One per process in an agent (published through `tlzxApplication` and
// `ZXProxyInstance`), one per served application in the proxy. Its layers,
// one per folder, are described in ZXAppSettings.h.
#pragma once

#include <apr_time.h>

#include "ZXAppControl.h"

struct ZXProxyInstance_t final : ZXAppControl {
  ZXProxyInstance_t() = default;
  ~ZXProxyInstance_t() override;

  // Start-up state kept for the host's diagnostics features.
  int httpid = 1, resourceMetaID = 1;
  int enable_DD_AI = 0;
  long long GloTimStmp = 0;
  int dumpHeartBeatforLog = 0;
  long long lastLogSentTime = 0;
  int init_flag = 1;
  int isModifiedHashmap = 0;
  apr_interval_time_t TimeOut = 60000000;
  int reqCount = 0, xPathCount = 0, trace_level = 0;
};

// The process's application object; both always hold the same pointer.
extern "C" ZXProxyInstance_t *tlzxApplication;
extern "C" ZXProxyInstance_t *ZXProxyInstance;

// Makes `app` (or none) the process's application: the exported pointers,
// and the application that threads working for no other one log for.
void publishApplication(ZXProxyInstance_t *app);
