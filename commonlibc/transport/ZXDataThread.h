// The data thread: one connection to the collector's data endpoint that
// carries every record line from the send-buffer pool. Started by the control
// thread when a run starts, it connects, sends the data request and record
// 99, then sends filled buffers every tick until it is told to stop. A broken
// connection is rebuilt; while the collector keeps the data connection closed
// (dataConnState 0) it waits.
#pragma once

#include <apr_time.h>

#include <cstddef>

#include "zxlb_status.h"

struct ZXAppLink;

// Starts the data thread unless one runs; wakes a running one so that it
// reconnects at once to the control connection's collector. Control thread.
void check_data_thread(ZXAppLink *app);
// Asks the data thread to stop (1) or lets it run (0); does not wait.
void setToStopThread(ZXAppLink *app, int stop);
// Asks the data thread to stop (it flushes what it can first); does not wait.
void request_data_thread_stop(ZXAppLink *app);
// Stops the data thread and waits for it until `deadline` (APR time, 0 = no
// limit); one still busy then is left behind (timed_out). Idempotent.
zx::Status stop_data_thread(ZXAppLink *app, apr_time_t deadline = 0);
// The collector closed the data connection (heartbeat echo dataConnState=0).
void closeDataConnectionByCollector(ZXAppLink *app);
// At process exit: has the data thread (when it runs; one still connecting
// connects first, within the deadline) send
// what is queued until `deadline`, waiting for it at most that long; then
// counts whatever is still queued as lost at exit and discards it. From then
// on nothing more is sent. Never blocks past the deadline; safe when the data
// thread never started. Call before stop_data_thread. Ok when nothing queued
// was lost, timed_out when some was, bad_input without an application.
zx::Status drainSendBuffersForExit(ZXAppLink *app, apr_time_t deadline);

// Data-thread side; exposed for tests of the send path.
// -1 without a connection or when it broke, 0 when the collector took nothing
// within the I/O timeout, 1 when every filled buffer was sent.
int processData(ZXAppLink *app);
// Sends the partly filled buffer and what is queued: up to 100 send passes,
// stopping at the first that sends nothing. On `app`'s data thread only;
// elsewhere a no-op.
void flushCommonData(ZXAppLink *app);
// One tick of the data heartbeat; `ticksLeft` carries the countdown.
void handleHeartBeat(ZXAppLink *app, int &ticksLeft, int &written);
// True when the thread must stop (logged). Writes nothing: whoever stops a
// run queues its last records before asking the thread to stop.
bool checkAndStopThread(ZXAppLink *app);
void close_data_connection(ZXAppLink *app);
// false on success, true on failure.
bool send_data_con_req_msg_to_zxc(ZXAppLink *app);
// Record 99, sent first on every new data connection.
bool dumpNewConnectionRecord(ZXAppLink *app);
// An event frame of a proxy-mode application process: queued whole
// (dumpFrame; 0 queued, non-zero dropped and counted). Otherwise, on `app`'s
// data thread: straight onto the connection (bytes sent); elsewhere, or
// without a connection, through dumpData.
int sendBufferDataCon(ZXAppLink *app, const char *data, int len);

// The data connection request text, with its closing blank line.
int makeDataConnectionRequest(ZXAppLink *app, char *out, std::size_t cap);
