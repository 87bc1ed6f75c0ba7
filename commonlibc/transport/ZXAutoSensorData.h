// The auto-sensor data connection: a second data connection to the
// collector, opened with "auto_sensor_thread_hotspot_data_req:" and the data
// request's identity fields, that carries the diagnostics records (record 96
// among them). It has its own send-buffer pool, sized by the "ASDataBuffer*"
// settings, and its own sender thread, so a slow auto-sensor side never
// takes buffers from the flowpath records and the reverse.
//
// Producers hand whole records to dumpASData, which copies them into the
// pool and never blocks on the network: a record that finds no room is
// dropped and counted. The sender thread connects, sends the request and
// then ships filled buffers every data tick; a broken connection is rebuilt.
#pragma once

#include <atomic>
#include <condition_variable>
#include <cstddef>
#include <memory>
#include <mutex>
#include <string>
#include <thread>

#include "ZXDataDispatcher.h"
#include "ZXSocketManager.h"
#include "zxlb_apr.h"
#include "zxlb_thread_done.h"

struct ZXAppLink;

struct ZXASDataLink {
  ZXASDataLink();
  ~ZXASDataLink();  // stops the sender
  ZXASDataLink(const ZXASDataLink &) = delete;
  ZXASDataLink &operator=(const ZXASDataLink &) = delete;

  // The pool documents its two locks; its buffers are made once, then
  // `ready` is raised.
  ZXSendBufferPool buffers;
  std::atomic<bool> ready{false};
  std::atomic<long long> discardCount{0};  // records dropped by dumpASData

  // endpointLock guards the fields below, prepared by the control
  // thread when a run starts (identity strings may change under keywords).
  std::mutex endpointLock;
  std::string requestText;
  std::string host;
  int port = 0;
  int protocol = 1;
  ZXTlsSettings tls;

  // The sender alone uses the connection; connLock guards replacing it
  // against wakeup() from other threads.
  std::mutex connLock;
  std::unique_ptr<ZXConnection> conn;

  // threadLock serialises starting and stopping the sender (control thread,
  // destruction); wakeMutex guards stopRequested, with wakeCond.
  std::mutex threadLock;
  std::thread sender;
  zx::ThreadDone senderDone;
  std::mutex wakeMutex;
  std::condition_variable wakeCond;
  bool stopRequested = false;
};

// Prepares the request from the current identity and collector, makes the
// buffers (once) and starts the sender unless it runs. Control thread.
void check_as_data_thread(ZXAppLink *app);
// Asks the sender to stop after a last flush; does not wait.
void request_as_data_thread_stop(ZXAppLink *app);
// Stops the sender and waits for it until `deadline` (APR time, 0 = no
// limit); one still busy then is left behind (timed_out). Idempotent.
zx::Status stop_as_data_thread(ZXAppLink *app, apr_time_t deadline = 0);

// Copies one record into the auto-sensor buffers. 0 stored, -1 no room
// (dropped and counted), -99 no application, or no buffers yet (dropped and
// counted too).
int dumpASData(ZXAppLink *app, const char *data, int len);

// "auto_sensor_thread_hotspot_data_req:" plus the data request's fields and
// its closing blank line.
int makeASConnectionRequest(ZXAppLink *app, char *out, std::size_t cap);
