// What a host's fork() does to a running agent, in process: the parent keeps
// tracing while it forks, a child traces under its own pid, and handles cross
// no fork. The chaos suite drives forks and exits through a C host.
#include <poll.h>
#include <signal.h>
#include <sys/wait.h>
#include <time.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <functional>
#include <string>
#include <thread>

#include "reference_collector.h"
#include "test_support.h"
#include "zx_agent.h"
#include "zx_sdk.h"

namespace {

using namespace std::chrono_literals;
using zxref::ConnKind;

long long monotonicNs() {
  timespec ts{};
  clock_gettime(CLOCK_MONOTONIC, &ts);
  return ts.tv_sec * 1000000000LL + ts.tv_nsec;
}

struct ChildEnd {
  bool ended = false;
  int status = 0;
  double exitMs = -1;  // from the child's call of exit() to its end
};

// Forks a child that runs `body` and then exit(0), sending the time of that
// call first; `whileRunning` runs in the parent meanwhile. Waits up to
// `limit` for the end, then kills.
ChildEnd runChild(const std::function<void()> &body, const std::function<void()> &whileRunning,
                  pid_t &pid, std::chrono::milliseconds limit) {
  int fds[2];
  if (pipe(fds) != 0) return {};
  pid = fork();
  if (pid == 0) {
    body();
    const long long t = monotonicNs();
    (void)!write(fds[1], &t, sizeof t);
    exit(0);
  }
  close(fds[1]);
  whileRunning();
  ChildEnd end;
  long long exitCalledAt = 0;
  end.ended = zxtest::wait_until(
      [&] {
        pollfd p{fds[0], POLLIN, 0};
        if (!exitCalledAt && poll(&p, 1, 0) == 1)
          (void)!read(fds[0], &exitCalledAt, sizeof exitCalledAt);
        return waitpid(pid, &end.status, WNOHANG) == pid;
      },
      limit);
  if (exitCalledAt) end.exitMs = static_cast<double>(monotonicNs() - exitCalledAt) / 1e6;
  close(fds[0]);
  if (!end.ended) {
    kill(pid, SIGKILL);
    waitpid(pid, &end.status, 0);
  }
  return end;
}

class LifecycleTest : public ::testing::Test {
 protected:
  void SetUp() override {
    zx_set_init_pause_ms(0);
    ASSERT_TRUE(collector_.start()) << collector_.error();
  }

  // A settings file naming `host` (the collector's port).
  void configure(const std::string &host) {
    home_.write("config/zxsettings.conf",
                "zxcHost=" + host + "\nzxcPort=" + std::to_string(collector_.port()) + "\n");
  }

  // Starts a run on the newest control connection once `n` exist.
  void startRunOn(std::size_t n) {
    ASSERT_TRUE(collector_.wait_for_connections(ConnKind::Control, n, 10s));
    ASSERT_TRUE(collector_.send_start("status=running"));
  }

  zxtest::TempDir home_;
  zxtest::ScopedEnv zxhome_{"ZXHOME", home_.str().c_str()};
  zxref::ReferenceCollector collector_;
};

// One traced transaction; true when the agent traced it.
bool oneTransaction(const char *url) {
  zxBTHandle bt = zx_bt_begin(url, nullptr);
  if (!bt) return false;
  zx_method_entry(bt, "Lifecycle.work");
  zx_method_exit(bt, "Lifecycle.work");
  zx_bt_end(bt, 200);
  zx_bt_release(bt);
  return true;
}

// Transactions until the agent traces one (its run has started), bounded.
bool untilTraced(const char *url, std::chrono::milliseconds limit = 10s) {
  return zxtest::wait_until([&] { return oneTransaction(url); }, limit);
}

TEST_F(LifecycleTest, ForkedChildTracesUnderItsOwnPid) {
#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
  // A child forked while the parent's threads allocate can hang on the
  // sanitizer allocator's own lock, which its runtime does not reset.
  GTEST_SKIP() << "sanitizer runtimes are not fork-safe for a child that starts threads";
#endif
  configure("127.0.0.1");
  zx_init();
  startRunOn(1);
  ASSERT_TRUE(untilTraced("/parent/before"));
  zxBTHandle parked = zx_bt_begin("/parent/open-across-fork", nullptr);
  ASSERT_NE(parked, nullptr);

  std::atomic<bool> stop{false};
  std::thread busy([&] {
    while (!stop) oneTransaction("/parent/busy");
  });
  constexpr int kChildTransactions = 20;
  pid_t child = 0;
  ChildEnd end = runChild(
      [parked] {
        if (!untilTraced("/child/first", 20s)) _exit(4);
        // The handle from before the fork belongs to the parent's agent.
        if (zx_bt_end(parked, 200) != -1) _exit(3);
        for (int i = 1; i < kChildTransactions; ++i)
          if (!oneTransaction("/child/more")) _exit(5);
      },
      [&] { startRunOn(2); }, child, 30s);
  stop = true;
  busy.join();
  ASSERT_TRUE(end.ended) << "child hung";
  ASSERT_TRUE(WIFEXITED(end.status)) << "child died by signal " << WTERMSIG(end.status);
  ASSERT_EQ(WEXITSTATUS(end.status), 0);
  EXPECT_LT(end.exitMs, 1000.0);

  // The child's data connection names its own pid and carries its flowpaths;
  // the collector may still be reading what the child sent before its end.
  const std::string pidField = "pid=" + std::to_string(child) + ";";
  int childEnds = 0;
  const bool arrived = collector_.wait_until(
      [&](const zxref::History &h) {
        int conn = 0;
        for (const auto &l : h.lines_of(ConnKind::Data))
          if (l.text.rfind("zx_data_msg_req:", 0) == 0 &&
              l.text.find(pidField) != std::string::npos)
            conn = l.conn_id;
        childEnds = 0;
        for (const auto &r : h.records)
          if (conn && r.conn_id == conn && r.number == 4) ++childEnds;
        return childEnds >= kChildTransactions;
      },
      10s);
  EXPECT_TRUE(arrived) << "flowpath ends from the child's pid: " << childEnds;
  EXPECT_EQ(childEnds, kChildTransactions);
  EXPECT_EQ(zx_bt_end(parked, 200), 0) << "the parent's handle still works in the parent";
  zx_bt_release(parked);
}

}  // namespace
