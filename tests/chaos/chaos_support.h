// Chaos driver scaffolding: child processes whose output is read line by line
// as it comes and whose end is timed, and the faulty peers that stand in for
// a collector (a black hole, a server of garbage, a name server that never
// answers). Every wait has a deadline; nothing here sleeps to let time pass.
#pragma once

#include <sys/types.h>

#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <functional>
#include <map>
#include <mutex>
#include <optional>
#include <string>
#include <string_view>
#include <thread>
#include <vector>

namespace chaos {

using Millis = std::chrono::milliseconds;

// CLOCK_MONOTONIC in ns: the host stamps its lines with the same clock.
std::uint64_t now_ns();

struct OutputLine {
  std::string text;
  std::uint64_t at_ns = 0;  // when the driver read it
};

// "key=value key=value" words of a line; words without '=' are keyed by themselves.
std::map<std::string, std::string> fields_of(std::string_view line);
unsigned long long number_field(const std::map<std::string, std::string> &f,
                                const std::string &key);

// A spawned program with stdout and stderr on one pipe, read by a thread of
// its own, and a thread blocked in waitpid that timestamps its end. The
// destructor kills (SIGKILL) what is still running and reaps it.
class Process {
 public:
  struct Options {
    std::vector<std::string> argv;
    std::vector<std::pair<std::string, std::string>> set_env;
    std::vector<std::string> unset_env;
    bool stdin_pipe = false;
  };
  struct Exit {
    int status = 0;  // as waitpid returns it
    std::uint64_t at_ns = 0;
  };

  explicit Process(const Options &options);  // throws std::runtime_error when spawning fails
  ~Process();
  Process(const Process &) = delete;
  Process &operator=(const Process &) = delete;

  pid_t pid() const { return pid_; }
  bool write_stdin(std::string_view text);
  bool signal(int sig) const;

  std::vector<OutputLine> lines() const;
  // The first line from index `from` on that matches, waiting up to `timeout`.
  std::optional<OutputLine> wait_for_line(const std::function<bool(std::string_view)> &match,
                                          Millis timeout, std::size_t from = 0) const;
  // Waits until done(lines so far, output closed) holds; done runs under the
  // lock and must not call back into this object.
  bool wait_until(const std::function<bool(const std::vector<OutputLine> &, bool)> &done,
                  Millis timeout) const;
  std::optional<Exit> wait_exit(Millis timeout) const;
  // Output after the process ended and its pipe was drained (or `timeout`).
  bool wait_output_closed(Millis timeout) const;
  std::string output_tail(std::size_t max_bytes = 6000) const;

 private:
  void read_loop();

  pid_t pid_ = -1;
  int out_fd_ = -1;
  int in_fd_ = -1;
  int stop_fd_ = -1;  // eventfd: wakes the reader at destruction
  std::thread reader_;
  std::thread waiter_;

  mutable std::mutex mu_;
  mutable std::condition_variable changed_;
  std::vector<OutputLine> lines_;  // guarded by mu_
  std::string partial_;            // reader thread only
  bool output_closed_ = false;     // guarded by mu_
  std::optional<Exit> exit_;       // guarded by mu_
};

// A listening socket whose accept queue is full: connects to it hang in
// SYN-SENT, as with a collector host that has gone away.
class BlackHole {
 public:
  explicit BlackHole(std::uint16_t port);
  ~BlackHole();
  BlackHole(const BlackHole &) = delete;
  BlackHole &operator=(const BlackHole &) = delete;
  // True when a probe connect did not complete within 200 ms.
  bool swallows() const;

 private:
  std::uint16_t port_;
  int listen_fd_ = -1;
  std::vector<int> fillers_;
};

// Accepts every connection, reads and discards what comes, and answers with
// random bytes and nonsense lines every few milliseconds.
class GarbageServer {
 public:
  explicit GarbageServer(std::uint16_t port);
  ~GarbageServer();
  GarbageServer(const GarbageServer &) = delete;
  GarbageServer &operator=(const GarbageServer &) = delete;
  bool listening() const { return listen_fd_ >= 0; }
  std::size_t accepted() const;

 private:
  void run();

  int listen_fd_ = -1;
  int stop_fd_ = -1;
  std::thread thread_;
  mutable std::mutex mu_;
  std::size_t accepted_ = 0;  // guarded by mu_
};

// A UDP socket on a loopback address, port 53, that never answers, and a
// resolv.conf naming it.
class SilentNameServer {
 public:
  explicit SilentNameServer(const std::string &resolv_conf_path);
  ~SilentNameServer();
  SilentNameServer(const SilentNameServer &) = delete;
  SilentNameServer &operator=(const SilentNameServer &) = delete;
  bool bound() const { return fd_ >= 0; }
  const std::string &address() const { return address_; }

 private:
  int fd_ = -1;
  std::string address_;
};

}  // namespace chaos
