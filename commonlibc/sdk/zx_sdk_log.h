// The SDK's own log: what hosts did wrong, and (when asked for) every call.
//
// Lines go to "<home>/logs/zx_sdk_<pid>.log", opened on the first line, and
// roll over to "<file>.1" at ZX_SDK_LOG_MAX_BYTES. A line is written when its
// level is at least the threshold: 5 (errors) unless the environment's
// ZX_SDK_LOG_LEVEL says lower (1 detail, 2 "Method Called"/"Method End").
// Logging never fails the caller and never throws: no file, no line.
//
// Neutral results are counted, not logged one by one. A NULL handle is the
// normal state while no run is going, so a host may make millions of such
// calls a second: each costs one relaxed increment on a counter line picked
// by the calling thread (threads rarely share a line), and a summary of the
// counts is written at most once per period by whichever call notices the
// period has passed. Real errors (a bad argument on a valid handle) still get
// their own line, at most ZX_SDK_ERROR_LINES_PER_PERIOD per period; the rest
// show up in the summary.
//
//   call ──> zx_sdk_count(reason) ──> shard[thread].n[reason] += 1
//                 │ every 256th count of a shard, or any error
//                 v
//            summary due? ──CAS on the next due time──> one summary line
#pragma once

#include <atomic>
#include <cstdint>

#include "zx_sdk.h"

inline constexpr long long ZX_SDK_LOG_MAX_BYTES = 10LL * 1024 * 1024;
inline constexpr int ZX_SDK_LOG_LINE_MAX = 2048;
inline constexpr long long ZX_SDK_SUMMARY_PERIOD_MS = 10000;
inline constexpr int ZX_SDK_ERROR_LINES_PER_PERIOD = 20;

// Lines below this level are skipped before any formatting.
extern std::atomic<int> zx_sdk_log_level;

struct zx_sdk_log_t;
// The log record, or null outside zx_init/zx_free.
extern std::atomic<zx_sdk_log_t *> zx_sdk_log;

void zx_sdk_log_init();
// Writes the last summary, then drops the record.
void zx_sdk_log_free();
// "<home>/logs/zx_sdk_<pid>.log" into buf; the home is the agent's once it
// runs, else $ZXHOME, else the default installation.
void zx_sdk_create_file_name(char *buf, int size);
void zx_sdk_trace_log(int level, const char *function, int line, const char *format, ...) noexcept
    __attribute__((format(printf, 4, 5)));

#define ZX_SDK_LOG(level, ...)                                       \
  do {                                                               \
    if ((level) >= zx_sdk_log_level.load(std::memory_order_relaxed)) \
      zx_sdk_trace_log((level), __func__, __LINE__, __VA_ARGS__);    \
  } while (0)

// Why a call gave its neutral result instead of doing its work.
enum class zx_sdk_reason : unsigned {
  not_initialised,  // before zx_init or after zx_free
  null_handle,      // the normal state while no run is going
  no_transaction,   // zx_bt_begin with nothing to trace now (no run, no free slot)
  bad_argument,     // a NULL or empty text, an id stored twice: a host bug
  ended_twice,      // zx_bt_end on a handle already ended or released
  exception,        // an exception stopped at the C boundary
  parent_handle,    // in a fork's child, a handle of the parent's agent
  count_
};
inline constexpr unsigned ZX_SDK_REASONS = static_cast<unsigned>(zx_sdk_reason::count_);

struct alignas(64) zx_sdk_counter_shard {
  std::atomic<unsigned long long> n[ZX_SDK_REASONS];
};
static_assert(sizeof(zx_sdk_counter_shard) == 64, "one cache line per shard");
inline constexpr unsigned ZX_SDK_COUNTER_SHARDS = 8;
extern zx_sdk_counter_shard zx_sdk_counters[ZX_SDK_COUNTER_SHARDS];

// Reads the clock and writes the summary when its period has passed.
void zx_sdk_summary_check() noexcept;

inline void zx_sdk_count(zx_sdk_reason reason) noexcept {
  // The thread pointer tells threads apart in one instruction; its hash
  // spreads them over the shards.
  const auto tp = reinterpret_cast<std::uintptr_t>(__builtin_thread_pointer());
  const std::size_t shard = ((tp >> 12) * 0x9E3779B97F4A7C15ULL) >> 61;
  static_assert(ZX_SDK_COUNTER_SHARDS == 8, "the hash keeps 3 bits");
  auto &n = zx_sdk_counters[shard].n[static_cast<unsigned>(reason)];
  // Only every 256th count pays for a clock read; the first one of each
  // shard does too, so a rare event is reported soon.
  if ((n.fetch_add(1, std::memory_order_relaxed) & 255) == 0) zx_sdk_summary_check();
}

// Every count of `reason` so far.
unsigned long long zx_sdk_count_of(zx_sdk_reason reason) noexcept;

// Counts an error; true when its own line still fits this period's budget.
bool zx_sdk_note_error(zx_sdk_reason reason) noexcept;

// The summary period and the error-line window, in milliseconds (tests
// shorten it; 0 makes every check due).
void zx_sdk_set_summary_period_ms(long long period_ms) noexcept;

#define ZX_SDK_ERROR(reason, ...)                                                        \
  do {                                                                                   \
    if (zx_sdk_note_error(reason)) zx_sdk_trace_log(5, __func__, __LINE__, __VA_ARGS__); \
  } while (0)
