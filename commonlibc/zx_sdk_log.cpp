#include "zx_sdk_log.h"

#include <unistd.h>

#include <algorithm>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <memory>
#include <mutex>

#include "ZXProxyInstance.h"
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
  delete zx_sdk_log.exchange(nullptr);
}

void zx_sdk_trace_log(int level, const char *function, int line, const char *format, ...) {
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
    std::error_code ec;
    std::filesystem::create_directories(std::filesystem::path(log->fileName).parent_path(), ec);
    log->fp = std::fopen(log->fileName, "a");
    log->openFailed = log->fp == nullptr;
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
