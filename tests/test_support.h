// Shared test scaffolding: a temporary agent home and a fresh application
// object published as the process's, both undone on destruction.
#pragma once

#include <chrono>
#include <filesystem>
#include <memory>
#include <string>
#include <thread>

#include "ZXProxyInstance.h"
#include "zxlb_mt_log.h"

namespace zxtest {

// A fresh directory under the system temp dir, removed with its contents.
class TempDir {
 public:
  TempDir();
  ~TempDir();
  TempDir(const TempDir &) = delete;
  TempDir &operator=(const TempDir &) = delete;
  const std::filesystem::path &path() const { return path_; }
  std::string str() const { return path_.string(); }
  // Writes `text` to path()/relative, creating parent directories.
  std::filesystem::path write(const std::string &relative, const std::string &text) const;

 private:
  std::filesystem::path path_;
};

std::string read_file(const std::filesystem::path &p);

// Sets an environment variable for the scope (unset when value is null) and
// restores the previous state.
class ScopedEnv {
 public:
  ScopedEnv(const char *name, const char *value);
  ~ScopedEnv();
  ScopedEnv(const ScopedEnv &) = delete;
  ScopedEnv &operator=(const ScopedEnv &) = delete;

 private:
  std::string name_;
  std::string old_;
  bool had_old_;
};

// A fresh application object with its settings defaults, published through
// tlzxApplication/ZXProxyInstance for the scope. With a home directory, that
// becomes ZXSys.zxHomePath.
class ScopedApp {
 public:
  explicit ScopedApp(const std::string &home = "");
  ~ScopedApp();
  ScopedApp(const ScopedApp &) = delete;
  ScopedApp &operator=(const ScopedApp &) = delete;
  ZXProxyInstance_t &operator*() { return *app_; }
  ZXProxyInstance_t *operator->() { return app_.get(); }

 private:
  std::unique_ptr<ZXProxyInstance_t> app_;
  ZXProxyInstance_t *prev_;
  ZXProxyInstance_t *prev_instance_;
};

// The records waiting in the application's send buffers, taken out of them
// as the data thread would send them.
std::string drain_records(ZXProxyInstance_t &app);

// Makes `key` the process log for the scope.
class ScopedTraceKey {
 public:
  explicit ScopedTraceKey(std::unique_ptr<MTTraceLogKey> key);
  ~ScopedTraceKey();
  MTTraceLogKey *get() const { return key_.get(); }

 private:
  std::unique_ptr<MTTraceLogKey> key_;
  MTTraceLogKey *prev_;
};

}  // namespace zxtest

namespace zxtest {

// Polls `pred` until it holds or `timeout` passes; true when it held.
template <typename Pred>
bool wait_until(Pred pred, std::chrono::milliseconds timeout = std::chrono::seconds(10)) {
  auto deadline = std::chrono::steady_clock::now() + timeout;
  while (!pred()) {
    if (std::chrono::steady_clock::now() > deadline) return false;
    std::this_thread::sleep_for(std::chrono::milliseconds(1));
  }
  return true;
}

}  // namespace zxtest
