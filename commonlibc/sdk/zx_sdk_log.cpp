#include "zx_sdk_log.h"

#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <exception>
#include <filesystem>
#include <memory>
#include <mutex>

#include "ZXProxyInstance.h"
#include "zx_c_guard.h"
#include "zxlb_home.h"
#include "zxlb_mt_log.h"

struct zx_sdk_log_t {
  std::mutex lock;  // guards fp, written and the roll-over
  FILE *fp = nullptr;
  bool openFailed = false;  // tried once; no retry per line
  long long written = 0;
  char fileName[1024] = {};

  ~zx_sdk_log_t() {
    if (fp) std::fclose(fp);
  }
};

std::atomic<int> zx_sdk_log_level{5};
std::atomic<zx_sdk_log_t *> zx_sdk_log{nullptr};
zx_sdk_counter_shard zx_sdk_counters[ZX_SDK_COUNTER_SHARDS];

namespace {

const char *const kReasonNames[ZX_SDK_REASONS] = {
    "not initialised", "null handle", "no transaction",           "bad argument",
    "ended twice",     "exception",   "handle from before a fork"};

std::atomic<long long> summaryPeriodMs{ZX_SDK_SUMMARY_PERIOD_MS};
// The CAS on nextSummaryMs elects the one thread that writes a summary;
// `reported` holds the totals the last summary showed.
std::atomic<long long> nextSummaryMs{0};
std::atomic<unsigned long long> reported[ZX_SDK_REASONS];
// Error lines written in the window that began at errorWindowMs.
std::atomic<long long> errorWindowMs{0};
std::atomic<int> errorLines{0};

long long steadyMs() {
  return std::chrono::duration_cast<std::chrono::milliseconds>(
             std::chrono::steady_clock::now().time_since_epoch())
      .count();
}

// One line with what each reason counted since the last summary and in all;
// nothing when no count moved.
void writeSummary() noexcept {
  char text[512];
  int n = 0;
  for (unsigned r = 0; r < ZX_SDK_REASONS; ++r) {
    const unsigned long long total = zx_sdk_count_of(static_cast<zx_sdk_reason>(r));
    const unsigned long long delta = total - reported[r].exchange(total);
    if (!delta) continue;
    const int m =
        std::snprintf(text + n, sizeof text - static_cast<size_t>(n), "%s%s %llu (total %llu)",
                      n ? ", " : "", kReasonNames[r], delta, total);
    if (m < 0 || m >= static_cast<int>(sizeof text) - n) break;
    n += m;
  }
  if (n)
    zx_sdk_trace_log(5, "zx_sdk_summary", 0, "Neutral results since the last summary: %s", text);
}

void summaryCheck(long long now) noexcept {
  long long due = nextSummaryMs.load(std::memory_order_relaxed);
  // Without a log the counts wait for the first summary after zx_init.
  if (now < due || !zx_sdk_log.load(std::memory_order_relaxed)) return;
  if (!nextSummaryMs.compare_exchange_strong(due, now + summaryPeriodMs.load(),
                                             std::memory_order_relaxed))
    return;
  writeSummary();
}

}  // namespace

unsigned long long zx_sdk_count_of(zx_sdk_reason reason) noexcept {
  unsigned long long total = 0;
  for (const zx_sdk_counter_shard &s : zx_sdk_counters)
    total += s.n[static_cast<unsigned>(reason)].load(std::memory_order_relaxed);
  return total;
}

void zx_sdk_summary_check() noexcept {
  summaryCheck(steadyMs());
}

bool zx_sdk_note_error(zx_sdk_reason reason) noexcept {
  // Counted outside zx_sdk_count: errors pay for a clock read anyway.
  const auto tp = reinterpret_cast<std::uintptr_t>(__builtin_thread_pointer());
  zx_sdk_counters[((tp >> 12) * 0x9E3779B97F4A7C15ULL) >> 61]
      .n[static_cast<unsigned>(reason)]
      .fetch_add(1, std::memory_order_relaxed);
  const long long now = steadyMs();
  summaryCheck(now);
  if (5 < zx_sdk_log_level.load(std::memory_order_relaxed)) return false;
  long long start = errorWindowMs.load(std::memory_order_relaxed);
  if (now - start >= summaryPeriodMs.load(std::memory_order_relaxed) &&
      errorWindowMs.compare_exchange_strong(start, now, std::memory_order_relaxed))
    errorLines.store(0, std::memory_order_relaxed);
  return errorLines.fetch_add(1, std::memory_order_relaxed) < ZX_SDK_ERROR_LINES_PER_PERIOD;
}

void zx_sdk_set_summary_period_ms(long long period_ms) noexcept {
  summaryPeriodMs.store(period_ms);
  nextSummaryMs.store(0);
  errorWindowMs.store(0);
}

void zx_c_guard_caught(const char *function) noexcept {
  if (!zx_sdk_note_error(zx_sdk_reason::exception)) return;
  const char *what = "unknown exception";
  try {
    throw;  // the one in flight, to read its text
  } catch (const std::exception &e) {
    what = e.what();
  } catch (...) {
  }
  zx_sdk_trace_log(5, function, 0, "ERROR: exception stopped at the C boundary: %s", what);
}

void zx_sdk_create_file_name(char *buf, int size) {
  const char *home = nullptr;
  if (tlzxApplication && tlzxApplication->ZXSys.zxHomePath.is_set())
    home = tlzxApplication->ZXSys.zxHomePath.c_str();
  if (!home || !*home) home = std::getenv("ZXHOME");
  if (!home || !*home) home = ZX_DEFAULT_HOME;
  std::snprintf(buf, static_cast<size_t>(size), "%s/logs/zx_sdk_%d.log", home,
                static_cast<int>(getpid()));
}

void zx_sdk_log_init() {
  if (const char *level = std::getenv("ZX_SDK_LOG_LEVEL"))
    zx_sdk_log_level.store(std::atoi(level), std::memory_order_relaxed);
  if (zx_sdk_log.load()) return;
  auto log = std::unique_ptr<zx_sdk_log_t>(new (std::nothrow) zx_sdk_log_t());
  if (log) zx_sdk_log.store(log.release());
}

void zx_sdk_log_free() {
  writeSummary();
  delete zx_sdk_log.exchange(nullptr);
}

void zx_sdk_trace_log(int level, const char *function, int line, const char *format, ...) noexcept {
  zx_sdk_log_t *log = zx_sdk_log.load(std::memory_order_acquire);
  if (!log) return;
  char text[ZX_SDK_LOG_LINE_MAX];
  char when[64];
  int n = std::snprintf(text, sizeof text, "%s|%d|%s|%d|", get_cur_date_time_r(when, sizeof when),
                        level, function ? function : "", line);
  if (n < 0 || n >= static_cast<int>(sizeof text)) return;
  va_list ap;
  va_start(ap, format);
  int m = std::vsnprintf(text + n, sizeof text - static_cast<size_t>(n), format, ap);
  va_end(ap);
  if (m < 0) return;
  n = std::min(n + m, static_cast<int>(sizeof text) - 2);  // long texts are cut
  text[n++] = '\n';

  std::lock_guard lk(log->lock);
  if (!log->fp && !log->openFailed) {
    zx_sdk_create_file_name(log->fileName, sizeof log->fileName);
    try {
      std::error_code ec;
      std::filesystem::create_directories(std::filesystem::path(log->fileName).parent_path(), ec);
    } catch (...) {
      return;  // no memory for the path: the next line tries again
    }
    log->fp = std::fopen(log->fileName, "a");
    // A short of memory is no reason to give the file up for good.
    log->openFailed = log->fp == nullptr && errno != ENOMEM;
    if (log->fp) log->written = std::ftell(log->fp);
  }
  if (!log->fp) return;
  if (log->written + n > ZX_SDK_LOG_MAX_BYTES) {
    std::fclose(log->fp);
    char old[sizeof log->fileName + 2];
    std::snprintf(old, sizeof old, "%s.1", log->fileName);
    std::rename(log->fileName, old);
    log->fp = std::fopen(log->fileName, "w");
    log->written = 0;
    if (!log->fp) return;
  }
  std::fwrite(text, 1, static_cast<size_t>(n), log->fp);
  std::fflush(log->fp);
  log->written += n;
}
