// The application object, control layer: the control connection, failover
// and retry state, and the control thread.
#pragma once

#include <apr_thread_proc.h>

#include <atomic>
#include <condition_variable>
#include <memory>
#include <mutex>
#include <string>

#include "ZXAppTracing.h"

// Read buffer of the control connection: bytes between readOffset and
// writeOffset are received and not yet framed into lines.
struct controlSocketBuffer_t {
  std::unique_ptr<char[]> read_socket_buf;
  int read_len = 0;  // capacity
  int readOffset = 0;
  int writeOffset = 0;
  int readBytes = 0;
  // Set while the rest of a line too long for the buffer is being skipped.
  bool discardingLine = false;
  std::string lastReply;  // the connection reply last judged
};
inline constexpr int ZX_CTRL_READ_BUFFER_SIZE = 262144;

struct ZXAppControl : ZXAppTracing {
  ZXAppControl() = default;
  // Stops and joins the control thread, then writes the unfinished
  // flowpaths of a run still active for the data thread's last flush.
  ~ZXAppControl() override;

  // Failover and retry state (control thread only).
  int heartbeat_count = 0;
  char is_switch_over = 0;
  int isMasterZxc = 0;

  // Control connection. The control thread alone reads, writes and replaces
  // it; ctrlConnLock guards replacing `zxcCtrlSocket` against other threads
  // calling its wakeup().
  controlSocketBuffer_t ctrlBufInfo;
  std::mutex ctrlConnLock;
  std::unique_ptr<ZXConnection> zxcCtrlSocket;
  bool askMasterZxc = false;  // the next pass uses entry 0 (cluster mode)
  // The link state last written to the trace log at every level, so that an
  // outage costs one line, not one per attempt. Control thread only.
  enum class LinkReport { None, Up, Down } ctrlLinkReported = LinkReport::None;
  zx::OwnedString startInstMsg;
  int processCount = 0;            // attached application processes (proxy server)
  long long totalElapsedTime = 0;  // ms; start of the current connection

  // The control thread. Its waits are interruptible so that the agent can be
  // stopped (unload, tests) without waiting out a retry interval.
  apr_thread_t *control_thread = nullptr;
  zx::ThreadDone controlThreadDone;
  std::mutex wakeMutex;  // guards wakeRequested, with stopRequested
  std::condition_variable wakeCond;
  bool wakeRequested = false;
  std::atomic<bool> stopRequested{false};
  std::atomic<int> controlThreadState{0};

  // Waits up to `interval`; returns early (true) when woken or stopping.
  bool controlSleep(apr_interval_time_t interval);
  void wakeControlThread();
};
