// The application object, control layer: the control connection, failover
// and retry state, and the control thread.
#pragma once

#include <apr_thread_proc.h>

#include <atomic>
#include <condition_variable>
#include <cstddef>
#include <functional>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

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
  // The port the collector offered for the transport it negotiated; the
  // next passes connect there instead of the configured port. 0: none.
  int negotiatedPort = 0;
  // The link state last written to the trace log at every level, so that an
  // outage costs one line, not one per attempt. Control thread only.
  enum class LinkReport { None, Up, Down } ctrlLinkReported = LinkReport::None;
  long long totalElapsedTime = 0;  // ms; start of the current connection

  // Proxy server only: the application's processes behind this link.
  //
  // Collector -> processes: the proxy installs `relayToProcesses` before the
  // control thread starts; the thread calls it with each command for the
  // processes (procIndex -1: every attached one). startInstMsg is read by the
  // proxy's poll thread when a process registers, so startInstLock guards it
  // and is held while a start or stop is relayed: a process registering
  // meanwhile gets that command exactly once, either way.
  //
  // Processes -> collector: any thread queues text (queueForCollector); the
  // control thread, the connection's owner, sends the queue at its next turn.
  // Bounded: what does not fit is dropped and counted. collectorOutboxLock
  // guards the queue, its size and the count.
  std::function<void(const char *message, int procIndex)> relayToProcesses;
  std::mutex startInstLock;
  zx::OwnedString startInstMsg;
  std::atomic<int> processCount{0};  // attached application processes
  std::mutex collectorOutboxLock;
  std::vector<std::string> collectorOutbox;
  std::size_t collectorOutboxBytes = 0;
  unsigned long long collectorOutboxDropped = 0;
  static constexpr std::size_t kCollectorOutboxMaxBytes = 1 << 20;
  // False when the queue is full (the text is dropped and counted).
  bool queueForCollector(std::string text);
  std::vector<std::string> takeCollectorOutbox();

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
