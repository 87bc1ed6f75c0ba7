// The BT trace gate: BT lines are written when the application's BT monitor
// trace level ("enableBTMonitorTrace") is above the line's level.
//
// Code with the application at hand gates on it (ZXBT_APP_LOG), and request
// paths must: the gate without one (ZXBT_LOG) finds the calling thread's
// application, which costs a thread-local read.
#pragma once

#include "ZXAppSettings.h"
#include "zxlb_mt_log.h"

inline int zxbt_trace_level(const ZXAppSettings &app) noexcept {
  return app.ZXSys.btMonitorTraceLevel;
}

// The calling thread's application's level, 0 without one.
inline int zxbt_trace_level() noexcept {
  const ZXAppSettings *app = zx::currentAppSettings();
  return app ? zxbt_trace_level(*app) : 0;
}

#define ZXBT_LOG_AT(level, above, severity, ...) \
  ZX_LOG_IF((level) > (above), "BT_MON", severity, __VA_ARGS__)
#define ZXBT_APP_LOG(app, above, severity, ...) \
  ZXBT_LOG_AT(zxbt_trace_level(app), above, severity, __VA_ARGS__)
#define ZXBT_LOG(above, severity, ...) ZXBT_LOG_AT(zxbt_trace_level(), above, severity, __VA_ARGS__)
