// The trace log: one diagnostic text log per process, shared by all threads.
//
// Lines go to two alternating files ("<base>_0", "<base>_1") of bounded size,
// or, in a client of the proxy (mode 2), into the application's agent-log
// buffer for the control thread to ship. Callers test the key and
// their level before calling (the ZX_*LOG macros do), so a disabled level
// costs one comparison. Logging never fails the caller: no file, no line.
#pragma once

#include <atomic>
#include <cstdio>
#include <memory>

#include "zxlb_apr.h"
#include "zxlb_log_context.h"

inline constexpr int ZX_TRACE_LINE_MAX = 131072;
inline constexpr int ZX_TRACE_PATH_MAX = 1024;

struct MTTraceLogKey {
  std::atomic<int> cur_index{0};
  char log_file[2][ZX_TRACE_PATH_MAX] = {};
  char print_header = 1;  // guarded by lock
  // Accepted by init and kept at 0: the size limit in force is
  // ZXSys.traceMaxSize.
  int testidx = 0, threadidx = 0, log_level = 0, max_log_file_size = 0;
  // Bytes written to the current file since it was opened; approximate
  // under concurrent writers.
  std::atomic<long long> log_file_size{0};
  // Open handles; null = not open. Changed only under lock.
  std::atomic<FILE *> fp[2] = {nullptr, nullptr};
  // Guards opening, roll-over and writing (a roll-over closes a FILE that
  // another thread could otherwise still be writing to).
  zx::NestedMutex lock;
  zx::NestedMutex mem_lock;

  MTTraceLogKey() = default;
  MTTraceLogKey(const MTTraceLogKey &) = delete;
  MTTraceLogKey &operator=(const MTTraceLogKey &) = delete;
  ~MTTraceLogKey();  // closes open files (only tests destroy a key)
};

// The process's log; null until start-up has created it.
extern MTTraceLogKey *trace_log_key;

// Paths are "<base_dir>/<log_file>_0" and "_1"; no file is opened yet.
// Null when log_file is null or memory is short.
std::unique_ptr<MTTraceLogKey> zxlb_init_mt_trace_log_ex(const char *base_dir, const char *log_file,
                                                         int log_level, int max_log_file_size);

void zx_open_log_file(MTTraceLogKey *key, int take_lock);
void roll_over_file(MTTraceLogKey *key);  // called with key->lock held
FILE *zxlb_open_mt_trace_log(MTTraceLogKey *key);
int getTraceLevel();

char *get_cur_date_time_r(char *buf, int len);
char *get_cur_date_time();  // static buffer: one thread at a time

#define ZX_PRINTF_LIKE(fmt, args) __attribute__((format(printf, fmt, args)))

void zxlb_mt_trace_log(MTTraceLogKey *key, const char *thread_name, long long thread_id,
                       const char *module, const char *severity, const char *file, int line,
                       const char *fname, const char *format, ...) ZX_PRINTF_LIKE(9, 10);

#define ZX_DECLARE_GATED_LOG(name)                                                       \
  void name(int level, const char *thread_name, long long thread_id, const char *module, \
            const char *severity, const char *file, int line, const char *fname,         \
            const char *format, ...) ZX_PRINTF_LIKE(9, 10)
ZX_DECLARE_GATED_LOG(zxlb_mt_trace_log_win);
ZX_DECLARE_GATED_LOG(zxlb_mt_trace_log_win_hs);
ZX_DECLARE_GATED_LOG(zxlb_mt_trace_log_win_ad);
ZX_DECLARE_GATED_LOG(zxlb_mt_trace_log_win_pc);
ZX_DECLARE_GATED_LOG(zxlb_mt_trace_log_win_ex);
ZX_DECLARE_GATED_LOG(zxlb_mt_trace_log_win_ai);
ZX_DECLARE_GATED_LOG(zxlb_mt_trace_log_win_dd);
ZX_DECLARE_GATED_LOG(zxlb_mt_trace_log_mem);
#undef ZX_DECLARE_GATED_LOG

extern int zx_mem_trace_level;

// Caller-side gates. `cond` is evaluated only when a log key exists.
#define ZX_LOG_IF(cond, module, severity, ...)                                                \
  do {                                                                                        \
    if (trace_log_key && (cond))                                                              \
      zxlb_mt_trace_log(trace_log_key, nullptr, 0, module, severity, __FILE_NAME__, __LINE__, \
                        __func__, __VA_ARGS__);                                               \
  } while (0)

// Lines written whatever the trace level: changes of the collector link's
// state and loss summaries, each rare by construction.
#define ZX_STATE_LOG(severity, ...) ZX_LOG_IF(true, "CONTROL_THREAD", severity, __VA_ARGS__)

namespace zx {
// The trace level of `area` for the calling thread's application; 0 without one.
inline int logLevel(LogContext::Area area) noexcept {
  const LogContext *c = currentLogContext();
  return c ? c->traceLevel(area) : 0;
}
}  // namespace zx

// Control-path lines: written when the control trace level is above `above`.
#define ZX_CTRL_LOG(above, severity, ...)                                                      \
  ZX_LOG_IF(zx::logLevel(zx::LogContext::Area::Control) > (above), "CONTROL_THREAD", severity, \
            __VA_ARGS__)

#define ZX_METHOD_CALLED()                                                              \
  ZX_LOG_IF(zx::logLevel(zx::LogContext::Area::Control) == 4, "CONTROL_THREAD", "Info", \
            "Method called")
#define ZX_METHOD_EXIT()                                                                \
  ZX_LOG_IF(zx::logLevel(zx::LogContext::Area::Control) == 4, "CONTROL_THREAD", "Info", \
            "Method exit")

// Memory failures, always written when a log exists.
#define ZX_LOG_OOM(size, what, index)                                                \
  ZX_LOG_IF(true, "MEMORY", "Error", "Out of Memory (size = %d): %s for index %d\n", \
            static_cast<int>(size), what, static_cast<int>(index))
