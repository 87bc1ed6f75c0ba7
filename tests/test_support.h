// Shared test scaffolding: a temporary agent home and a fresh application
// object published as the process's, both undone on destruction.
#pragma once

#include <chrono>
#include <cstdint>
#include <filesystem>
#include <memory>
#include <optional>
#include <string>
#include <thread>
#include <vector>

#include "ZXProxyInstance.h"
#include "reference_collector.h"
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
// Occurrences of `what` in `text`.
std::size_t count_of(const std::string &text, const std::string &what);

// Throwaway certificates for WSS tests, made at run time with the openssl command in a
// TempDir (keys are never committed). The constructor makes a CA and a server certificate
// for 127.0.0.1 and "localhost" signed by it; the others are made on demand, each under a
// fixed name, so asking twice gives the same files. A failure is a test failure and
// leaves the paths naming files that do not exist.
class TestPki {
 public:
  struct Pair {
    std::string cert_file;
    std::string key_file;
  };

  TestPki();
  TestPki(const TestPki &) = delete;
  TestPki &operator=(const TestPki &) = delete;

  // Valid, but signed by a CA that nobody trusts.
  Pair unknown_ca();
  // Signed by the test CA for another host name and address.
  Pair wrong_host();
  // Signed by the test CA, expired a day ago.
  Pair expired();

  std::string ca_file;    // the test CA's certificate, for a client's trust store
  std::string cert_file;  // server certificate for 127.0.0.1 and localhost
  std::string key_file;

 private:
  // The CA "<ca>" (made when missing) signs a key pair "<name>" with these subjectAltNames.
  Pair issue(const std::string &name, const std::string &ca, const std::string &san, int days);
  bool make_ca(const std::string &ca);
  bool run(const std::string &args);

  TempDir dir_;
  int serial_ = 1;
};

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

// Every MOR_APP_AGENT_* setting the agent reads from its environment.
extern const std::vector<const char *> kAgentEnvVars;

// Unsets every kAgentEnvVars entry for the scope; set() sets one more.
class CleanAgentEnv {
 public:
  CleanAgentEnv();
  void set(const char *name, const char *value) {
    env_.push_back(std::make_unique<ScopedEnv>(name, value));
  }

 private:
  std::vector<std::unique_ptr<ScopedEnv>> env_;
};

// A fresh application object with its settings defaults, published through
// tlzxApplication/ZXProxyInstance for the scope unless `publish` is false (a
// second application in the process). With a home directory, that becomes
// ZXSys.zxHomePath.
class ScopedApp {
 public:
  explicit ScopedApp(const std::string &home = "", bool publish = true);
  ~ScopedApp();
  ScopedApp(const ScopedApp &) = delete;
  ScopedApp &operator=(const ScopedApp &) = delete;
  ZXProxyInstance_t &operator*() { return *app_; }
  ZXProxyInstance_t *operator->() { return app_.get(); }

 private:
  std::unique_ptr<ZXProxyInstance_t> app_;
  bool published_;
  ZXProxyInstance_t *prev_;
};

// The records waiting in the application's send buffers, taken out of them
// as the data thread would send them.
std::string drain_records(ZXProxyInstance_t &app);

// The pool's counters with `queued` taken from the buffers themselves (their
// unsent "\n" bytes), read while neither sender nor producers can move a byte.
ZXSendCounts scanned_send_counts(ZXProxyInstance_t &app);

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

// An agent home pointing at a collector on loopback, the link's timings
// shortened, and the control thread's connection loop on a thread of its own.
// The environment's MOR_APP_AGENT_* settings are cleared for its lifetime.
// On destruction it stops the loop, the data thread and the monitor timer and,
// when the test failed, prints the agent's trace log.
//
// As the process's agent it publishes its application, points ZXHOME at its
// home and owns the process's trace log; otherwise its application is one
// more in the process, reached only through its own threads and calls.
class LinkedAgent {
 public:
  enum class Role { ProcessAgent, AnotherApplication };
  explicit LinkedAgent(Role role = Role::ProcessAgent);
  ~LinkedAgent();
  LinkedAgent(const LinkedAgent &) = delete;
  LinkedAgent &operator=(const LinkedAgent &) = delete;

  // A fresh application object configured for host:port (plus `extra`
  // settings lines), as the control thread would before its loop.
  ZXProxyInstance_t &configure(std::uint16_t port, const std::string &extra = "",
                               const std::string &host = "127.0.0.1");
  ZXProxyInstance_t &app() { return **app_; }
  const TempDir &home() const { return home_; }
  // Both files of the agent's trace log, oldest first.
  std::string trace_log() const;
  void run_loop();
  // After stop_agent (whose join makes the thread's writes visible here).
  void restart_loop();
  void stop_agent();
  // Starts a run and waits for the agent's answer and its record 99.
  void start_run(zxref::ReferenceCollector &c, const std::string &pairs = "status=running");
  // configure, run_loop, the SDK initialised without its pause, start_run:
  // a run that SDK calls trace into, with 64 KiB send buffers.
  ZXProxyInstance_t &start_sdk_run(zxref::ReferenceCollector &c);

 private:
  Role role_;
  TempDir home_;
  std::optional<ScopedEnv> zxhome_;
  CleanAgentEnv env_;
  std::optional<ScopedApp> app_;
  std::optional<ScopedTraceKey> trace_;
  std::thread loop_;
};

}  // namespace zxtest

namespace zxtest {

// A started reference collector (a failure to start fails the test).
std::unique_ptr<zxref::ReferenceCollector> start_collector(zxref::Behaviour b = {},
                                                           std::uint16_t port = 0,
                                                           int receive_buffer = 0);

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
