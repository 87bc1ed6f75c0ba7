#include "zx_agent_stop.h"

#include "ServerMessages.h"
#include "ZXAutoSensorData.h"
#include "ZXDataThread.h"
#include "ZXMonitorTimer.h"
#include "ZXProxyInstance.h"
#include "control_thread.h"
#include "zxlb_mt_log.h"

zx::Status agent_stop_by(ZXProxyInstance_t *app, apr_time_t deadline) {
  if (!app) return zx::Ok;
  // Producers on the agent's side stop first; the data thread goes last so
  // that what they queued can still be sent. A process of the proxy keeps its
  // control connection through the drain: the proxy takes a data connection
  // only from a process whose control connection it holds, and a short-lived
  // process's data thread may connect only now.
  const bool viaProxy = app->sendsEventsToProxy();
  if (!viaProxy) request_control_stop(app);
  requestMonitorTimerStop(app);
  request_as_data_thread_stop(app);
  // At exit the data thread first sends what is queued, until just before
  // the deadline; the rest is counted lost at exit.
  if (deadline) (void)drainSendBuffersForExit(app, deadline - (deadline - apr_time_now()) / 8);
  if (viaProxy) request_control_stop(app);
  bool joined = join_control_thread(app, deadline).ok();
  joined &= stopMonitorTimer(app, deadline).ok();
  joined &= stop_as_data_thread(app, deadline).ok();
  // The run's end as a collector stop writes it: the flowpaths still running
  // go out as incomplete with the data thread's last flush.
  writeIncompleteFlowpathsAtStop(app);
  joined &= stop_data_thread(app, deadline).ok();
  if (joined) return zx::Ok;
  ZX_LOG_IF(true, "CONTROL_THREAD", "Warning",
            "Agent stop deadline passed: a thread was left behind");
  return zx::Errc::timed_out;
}
