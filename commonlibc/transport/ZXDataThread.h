// The data thread: one connection to the collector's data endpoint that
// carries every record line from the send-buffer pool. Started by the control
// thread when a run starts, it connects, sends the data request and record
// 99, then sends filled buffers every tick until it is told to stop. A broken
// connection is rebuilt; while the collector keeps the data connection closed
// (dataConnState 0) it waits.
#pragma once

#include <apr_time.h>

#include <cstddef>

#include <apr_time.h>

struct ZXProxyInstance_t;

// Starts the data thread unless one runs; wakes a running one so that it
// reconnects at once to the control connection's collector. Control thread.
void check_data_thread(ZXProxyInstance_t *app);
// Asks the worker threads to stop (1) or lets them run (0); does not wait.
void setToStopThread(int stop);
// Asks the data thread to stop (it flushes what it can first); does not wait.
void request_data_thread_stop(ZXProxyInstance_t *app);
// Stops the data thread and waits for it until `deadline` (APR time, 0 = no
// limit); one still busy then is left behind. True when it ended.
// Idempotent.
bool stop_data_thread(ZXProxyInstance_t *app, apr_time_t deadline = 0);
// The collector closed the data connection (heartbeat echo dataConnState=0).
void closeDataConnectionByCollector(ZXProxyInstance_t *app);
// At process exit: has the data thread (when it runs; one still connecting
// connects first, within the deadline) send
// what is queued until `deadline`, waiting for it at most that long; then
// counts whatever is still queued as lost at exit and discards it. From then
// on nothing more is sent. Never blocks past the deadline; safe when the data
// thread never started. Call before stop_data_thread. 0 when nothing queued
// was lost, 1 when some was, -1 without an application.
int drainSendBuffersForExit(ZXProxyInstance_t *app, apr_time_t deadline);

// Data-thread side; exposed for tests of the send path.
// -1 without a connection or when it broke, 0 when the collector took nothing
// within the I/O timeout, 1 when every filled buffer was sent.
int processData(ZXProxyInstance_t *app);
// Sends the partly filled buffer and what is queued: up to 100 send passes,
// stopping at the first that sends nothing.
void flushCommonData(ZXProxyInstance_t *app);
// One tick of the data heartbeat; `ticksLeft` carries the countdown.
void handleHeartBeat(ZXProxyInstance_t *app, int &ticksLeft, int &written);
// True when the thread must stop (logged).
bool checkAndStopThread(ZXProxyInstance_t *app);
void close_data_connection(ZXProxyInstance_t *app);
// false on success, true on failure.
bool send_data_con_req_msg_to_zxc(ZXProxyInstance_t *app);
// Record 99, sent first on every new data connection.
bool dumpNewConnectionRecord(ZXProxyInstance_t *app);
// On the data thread: straight onto the connection (bytes sent); elsewhere,
// or without a connection, through dumpData.
int sendBufferDataCon(const char *data, int len);

// The data connection request text, with its closing blank line.
int makeDataConnectionRequest(ZXProxyInstance_t *app, char *out, std::size_t cap);
