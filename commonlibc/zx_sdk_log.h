// The SDK's own log: what hosts did wrong, and (when asked for) every call.
//
// Lines go to "<home>/logs/zx_sdk_<pid>.log", opened on the first line, and
// roll over to "<file>.1" at ZX_SDK_LOG_MAX_BYTES. A line is written when its
// level is at least the threshold: 5 (errors) unless the environment's
// ZX_SDK_LOG_LEVEL says lower (1 detail, 2 "Method Called"/"Method End").
// Logging never fails the caller: no file, no line.
#pragma once

#include <atomic>

#include "zx_sdk.h"

inline constexpr long long ZX_SDK_LOG_MAX_BYTES = 10LL * 1024 * 1024;
inline constexpr int ZX_SDK_LOG_LINE_MAX = 2048;

// Lines below this level are skipped before any formatting.
extern std::atomic<int> zx_sdk_log_level;

struct zx_sdk_log_t;
// The log record, or null outside zx_init/zx_free.
extern std::atomic<zx_sdk_log_t *> zx_sdk_log;

void zx_sdk_log_init();
void zx_sdk_log_free();
// "<home>/logs/zx_sdk_<pid>.log" into buf; the home is the agent's once it
// runs, else $ZXHOME, else the default installation.
void zx_sdk_create_file_name(char *buf, int size);
void zx_sdk_trace_log(int level, const char *function, int line, const char *format, ...)
    __attribute__((format(printf, 4, 5)));

#define ZX_SDK_LOG(level, ...)                                       \
  do {                                                               \
    if ((level) >= zx_sdk_log_level.load(std::memory_order_relaxed)) \
      zx_sdk_trace_log((level), __func__, __LINE__, __VA_ARGS__);    \
  } while (0)
