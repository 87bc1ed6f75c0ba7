// The control thread: owns the control connection to the collector of one
// application, which it publishes as its own for its whole life. It is
// started once by agent_init and runs until the application stops it (its
// destructor, or the agent's coordinated stop). Its waits are interruptible
// so that a shutdown never waits out an interval.
#pragma once

#include <apr_thread_proc.h>
#include <apr_time.h>

#include "zxlb_status.h"

struct ZXAppControl;

enum ZXControlThreadState : int {
  ZX_CTRL_NOT_STARTED = 0,
  ZX_CTRL_CONFIGURING = 1,  // waiting for a collector to be configured
  ZX_CTRL_CONFIGURED = 2,   // collector known; connection loop runs
  ZX_CTRL_STOPPED = 3,
};

void *APR_THREAD_FUNC control_thread_entry_fun(apr_thread_t *thread, void *app);

// Creates the thread; io with APR's status on failure.
zx::Status start_control_thread(ZXAppControl *app);
// Asks the thread to stop and wakes it from any wait; does not join.
void request_control_stop(ZXAppControl *app);
// Joins the thread once it has ended by `deadline` (APR time, 0 = no limit);
// one still busy then (a name lookup that nothing interrupts) is left behind.
// Ok when it ended. Call request_control_stop first.
zx::Status join_control_thread(ZXAppControl *app, apr_time_t deadline);

// The connection loop: connect, live on the connection, reconnect or fail
// over; returns only when the thread is asked to stop.
void control_connection_loop(ZXAppControl *app);

// Thread start up to the connection loop: transport choice, retry policy and
// the configuration loop. stopped when asked to stop before a collector was
// known.
zx::Status control_thread_configure(ZXAppControl *app);
