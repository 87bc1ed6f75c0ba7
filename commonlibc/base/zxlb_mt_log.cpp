// Two-file trace log.
//
//   cur_index -> "<base>_0"  fills to traceMaxSize
//                "<base>_1"  opened with the column header at roll-over
//   next roll-over closes and deletes the other file, reopens it empty
//
// Lines are formatted in a per-thread 128 KiB buffer (not on the caller's
// stack: host threads may have small stacks) and written with one fwrite.
#include "zxlb_mt_log.h"

#include <sys/syscall.h>
#include <unistd.h>

#include <cstdarg>
#include <cstring>
#include <ctime>
#include <memory>
#include <mutex>
#include <new>

#include "zxlb_log_context.h"

MTTraceLogKey *trace_log_key = nullptr;

namespace {
std::atomic<zx::LogContext *> processContext{nullptr};
// Plain pointer: readable from exit handlers after thread_local objects died.
thread_local zx::LogContext *threadContext = nullptr;
}  // namespace

namespace zx {
LogContext *currentLogContext() noexcept {
  return threadContext ? threadContext : processContext.load(std::memory_order_acquire);
}
LogContext *processLogContext() noexcept {
  return processContext.load(std::memory_order_acquire);
}
void setProcessLogContext(LogContext *context) noexcept {
  processContext.store(context, std::memory_order_release);
}
ThreadLogScope::ThreadLogScope(LogContext *context) noexcept : previous_(threadContext) {
  threadContext = context;
}
ThreadLogScope::~ThreadLogScope() {
  threadContext = previous_;
}
}  // namespace zx
int zx_mem_trace_level = 0;

namespace {

constexpr const char kColumnHeader[] =
    "#TimeStamp|TestRun|Thread Name|Thread ID|Module Name|Src file name|Line number|Function|"
    "Severity|Message";

// The thread's line buffer: 128 KiB is too much for a host thread's stack.
// The pointer is a plain thread_local (nothing to destroy), so it stays
// readable while exit handlers log after the thread's thread_local objects
// are gone; the holder frees the buffer at the thread's end and leaves null.
thread_local char *threadLine = nullptr;
thread_local bool threadLineGone = false;

struct ThreadLineHolder {
  ~ThreadLineHolder() {
    delete[] threadLine;
    threadLine = nullptr;
    threadLineGone = true;
  }
};

char *thread_line_buffer() {
  if (threadLine || threadLineGone) return threadLine;
  thread_local ThreadLineHolder holder;
  threadLine = new (std::nothrow) char[ZX_TRACE_LINE_MAX];
  return threadLine;
}

// The calling thread's buffer, or one of its own for a line written after
// that thread's buffer was freed (exit handlers).
class LineBuffer {
 public:
  LineBuffer() : p_(thread_line_buffer()) {
    if (!p_) {
      own_.reset(new (std::nothrow) char[ZX_TRACE_LINE_MAX]);
      p_ = own_.get();
    }
  }
  char *get() const { return p_; }

 private:
  std::unique_ptr<char[]> own_;
  char *p_;
};

long long kernel_thread_id() {
  return static_cast<long long>(syscall(SYS_gettid));
}

int test_run_id() {
  const zx::LogContext *c = zx::currentLogContext();
  return c ? c->testRunId() : 0;
}

// Formats the message behind `used` header bytes; returns the total length.
// The buffer's last byte always stays a terminator.
int append_message(char *buf, int used, const char *format, va_list ap) {
  int room = ZX_TRACE_LINE_MAX - used;
  int n = vsnprintf(buf + used, room, format, ap);
  if (n < 0) n = static_cast<int>(strnlen(buf + used, room - 1));
  if (n > room - 1) n = room - 1;
  buf[used + n] = '\0';
  return used + n;
}

int format_header(char *buf, const char *thread_name, long long thread_id, const char *module,
                  const char *severity, const char *file, int line, const char *fname) {
  char date[64];
  get_cur_date_time_r(date, sizeof date);
  int tr = test_run_id();
  int n = tr == 0 ? snprintf(buf, ZX_TRACE_LINE_MAX, "\n%s|******|%s|%lld|%s|%s|%d|%s|%s|", date,
                             thread_name ? thread_name : "", thread_id, module ? module : "",
                             file ? file : "", line, fname ? fname : "", severity ? severity : "")
                  : snprintf(buf, ZX_TRACE_LINE_MAX, "\n%s|TR%d|%s|%lld|%s|%s|%d|%s|%s|", date, tr,
                             thread_name ? thread_name : "", thread_id, module ? module : "",
                             file ? file : "", line, fname ? fname : "", severity ? severity : "");
  return n;
}

void write_line(MTTraceLogKey *key, const char *buf, int len) {
  // Held across the write: a roll-over on another thread may close the
  // previous file, and this line must not land in a closed FILE.
  std::lock_guard guard(key->lock);
  FILE *fp = zxlb_open_mt_trace_log(key);
  if (!fp) return;
  size_t written = fwrite(buf, 1, static_cast<size_t>(len), fp);
  key->log_file_size += static_cast<long long>(written);
  fflush(fp);
}

void gated_log(MTTraceLogKey *key, const char *thread_name, long long thread_id, const char *module,
               const char *severity, const char *file, int line, const char *fname,
               const char *format, va_list ap) {
  if (!key) return;
  LineBuffer lineBuffer;
  char *buf = lineBuffer.get();
  if (!buf) return;
  int used = format_header(buf, thread_name, thread_id, module, severity, file, line, fname);
  if (used < 0 || used >= ZX_TRACE_LINE_MAX) return;
  int len = append_message(buf, used, format, ap);
  write_line(key, buf, len);
}

}  // namespace

MTTraceLogKey::~MTTraceLogKey() {
  for (auto &f : fp) {
    if (FILE *open = f.exchange(nullptr)) fclose(open);
  }
}

std::unique_ptr<MTTraceLogKey> zxlb_init_mt_trace_log_ex(const char *base_dir, const char *log_file,
                                                         int, int) {
  if (!log_file) return nullptr;
  std::unique_ptr<MTTraceLogKey> key;
  try {
    key = std::make_unique<MTTraceLogKey>();
  } catch (const std::bad_alloc &) {
    return nullptr;
  }
  const char *dir = base_dir ? base_dir : ".";
  snprintf(key->log_file[0], ZX_TRACE_PATH_MAX, "%s/%s_0", dir, log_file);
  snprintf(key->log_file[1], ZX_TRACE_PATH_MAX, "%s/%s_1", dir, log_file);
  key->cur_index = 0;
  key->print_header = 1;
  return key;
}

void zx_open_log_file(MTTraceLogKey *key, int take_lock) {
  if (!key) return;
  std::unique_lock<zx::NestedMutex> guard(key->lock, std::defer_lock);
  if (take_lock) guard.lock();
  int idx = key->cur_index;
  if (key->fp[idx]) return;
  key->log_file_size = 0;
  FILE *f = fopen(key->log_file[idx], "a");
  if (!f) return;
  if (key->print_header) {
    const zx::LogContext *c = zx::currentLogContext();
    int n = fprintf(f, "%s\n%s", kColumnHeader, c ? c->buildText() : "");
    if (n > 0) key->log_file_size += n;
    key->print_header = 0;
  }
  key->fp[idx] = f;
}

void roll_over_file(MTTraceLogKey *key) {
  int other = 1 - key->cur_index;
  if (FILE *f = key->fp[other].exchange(nullptr)) {
    fclose(f);
    unlink(key->log_file[other]);
  }
  key->print_header = 1;
  key->cur_index = other;
  zx_open_log_file(key, 0);
}

FILE *zxlb_open_mt_trace_log(MTTraceLogKey *key) {
  const zx::LogContext *c = zx::currentLogContext();
  long long max = c ? c->traceMaxSize() : 0;
  if (max > 0 && key->log_file_size >= max) {
    std::lock_guard guard(key->lock);
    if (key->log_file_size >= max) roll_over_file(key);
  }
  if (!key->fp[key->cur_index]) zx_open_log_file(key, 1);
  return key->fp[key->cur_index];
}

int getTraceLevel() {
  return zx::logLevel(zx::LogContext::Area::Agent);
}

char *get_cur_date_time_r(char *buf, int len) {
  if (!buf || len <= 0) return buf;
  time_t now = time(nullptr);
  struct tm tmv;
  if (!localtime_r(&now, &tmv)) {
    snprintf(buf, len, "Error");
    return buf;
  }
  // The year is taken modulo 2000, not 100, as the log format always had.
  snprintf(buf, len, "%02d/%02d/%02d %02d:%02d:%02d", tmv.tm_mon + 1, tmv.tm_mday,
           (tmv.tm_year + 1900) % 2000, tmv.tm_hour, tmv.tm_min, tmv.tm_sec);
  return buf;
}

char *get_cur_date_time() {
  static char buf[100];
  return get_cur_date_time_r(buf, sizeof buf);
}

void zxlb_mt_trace_log(MTTraceLogKey *key, const char *thread_name, long long thread_id,
                       const char *module, const char *severity, const char *file, int line,
                       const char *fname, const char *format, ...) {
  if (!key) return;
  zx::LogContext *context = zx::currentLogContext();
  int mode = context ? context->logMode() : 1;
  bool proxy = context && context->proxyProcess();
  if (!proxy && mode == 0) return;
  if (long long tid = kernel_thread_id()) thread_id = tid;

  va_list ap;
  va_start(ap, format);
  if (!proxy && mode == 2 &&
      context->keepAgentLogLine(thread_name, thread_id, severity, file, line, fname, format, ap)) {
    va_end(ap);
    return;
  }
  va_end(ap);

  LineBuffer lineBuffer;
  char *buf = lineBuffer.get();
  if (!buf) return;
  va_start(ap, format);
  int used = format_header(buf, thread_name, thread_id, module, severity, file, line, fname);
  if (used >= 0 && used < ZX_TRACE_LINE_MAX) {
    int len = append_message(buf, used, format, ap);
    write_line(key, buf, len);
  }
  va_end(ap);
}

using Area = zx::LogContext::Area;

#define ZX_DEFINE_GATED_LOG(name, enabled)                                                        \
  void name(int level, const char *thread_name, long long thread_id, const char *module,          \
            const char *severity, const char *file, int line, const char *fname,                  \
            const char *format, ...) {                                                            \
    (void)level;                                                                                  \
    if (!trace_log_key || !(enabled)) return;                                                     \
    va_list ap;                                                                                   \
    va_start(ap, format);                                                                         \
    gated_log(trace_log_key, thread_name, thread_id, module, severity, file, line, fname, format, \
              ap);                                                                                \
    va_end(ap);                                                                                   \
  }

ZX_DEFINE_GATED_LOG(zxlb_mt_trace_log_win, zx::logLevel(Area::Agent) >= level)
ZX_DEFINE_GATED_LOG(zxlb_mt_trace_log_win_hs, zx::logLevel(Area::Hotspot) >= level)
ZX_DEFINE_GATED_LOG(zxlb_mt_trace_log_win_ad, zx::logLevel(Area::Diagnostics) >= level)
ZX_DEFINE_GATED_LOG(zxlb_mt_trace_log_win_pc, zx::logLevel(Area::PC) >= level)
ZX_DEFINE_GATED_LOG(zxlb_mt_trace_log_win_ex, zx::logLevel(Area::Exception) >= level)
ZX_DEFINE_GATED_LOG(zxlb_mt_trace_log_win_ai, zx::logLevel(Area::AutoInstr) >= level)
ZX_DEFINE_GATED_LOG(zxlb_mt_trace_log_win_dd, zx::logLevel(Area::DynamicDiag) >= level)
ZX_DEFINE_GATED_LOG(zxlb_mt_trace_log_mem, zx_mem_trace_level >= 1)
#undef ZX_DEFINE_GATED_LOG
