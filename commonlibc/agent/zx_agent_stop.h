// Stopping the agent: every thread it started (control, data, auto-sensor
// sender, monitoring timer) is asked to stop and joined in one place, so that
// none outlives what it uses. The host's exit runs the same stop against a
// deadline.
#pragma once

#include <apr_time.h>

#include "zxlb_status.h"

struct ZXProxyInstance_t;

// Asks every agent thread to stop, lets the data thread send what is queued,
// then joins each thread that has ended by `deadline` (APR time, 0 = wait for
// all). A thread still busy at the deadline is left behind and the records
// still queued are counted lost at exit. Ok when every thread was joined,
// else timed_out.
zx::Status agent_stop_by(ZXProxyInstance_t *app, apr_time_t deadline);
