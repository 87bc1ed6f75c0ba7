#include "ServerMessages.h"

#include <strings.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <mutex>
#include <sstream>
#include <string>
#include <string_view>

#include "Server.h"
#include "ZXAppControl.h"
#include "ZXAutoSensorData.h"
#include "ZXDataThread.h"
#include "ZXFlowpathGenerator.h"
#include "ZXMonitorTimer.h"
#include "ZXProxyServerRecord.h"
#include "ZXSettingsFile.h"
#include "control_connection.h"
#include "zxbt_bt_object.h"
#include "zxlb_mem_pool.h"
#include "zxlb_mt_log.h"
#include "zxlb_utiles.h"

namespace {

constexpr int kReplySize = 1024;

bool has_prefix(const char *text, std::string_view prefix) {
  return strncmp(text, prefix.data(), prefix.size()) == 0;
}

int sendText(ZXAppControl *app, const char *text) {
  return controlConnectionSendBuffer(app, text, strlen(text));
}

// A reply that cannot be sent means the link is gone: the poll loop drops it.
void sendOrDrop(ZXAppControl *app, const char *text) {
  ZX_CTRL_LOG(0, "Info", "Send Message to ZXC [%s] - '%s'", app->control.dstIp, text);
  if (sendText(app, text) != 0) app->ZXSys.closeCtrlConFlag = 1;
}

void forwardToProcesses(ZXAppControl *app, const char *message, int procIndex = -1) {
  // Attached application processes exist only in the proxy server.
  if (!app->relayToProcesses) return;
  ZX_CTRL_LOG(1, "Info", "Forwarding '%.200s' to %d processes", message, app->processCount.load());
  app->relayToProcesses(message, procIndex);
}

// The start command is kept for processes that attach later; in the proxy
// also while none is attached, since the next one must still be started.
void relayRunCommand(ZXAppControl *app, const char *message, bool start) {
  std::lock_guard lk(app->startInstLock);
  forwardToProcesses(app, message);
  if (app->processCount <= 0 && !app->relayToProcesses) return;
  if (start)
    app->startInstMsg.assign(message);
  else
    app->startInstMsg.reset();
}

// "procIndex=<n>" addresses one process of the proxy's application: it is
// that process's business, not the application object's.
bool relayToOneProcess(ZXAppControl *app, const char *message) {
  if (!app->relayToProcesses) return false;
  const char *p = strstr(message, "procIndex=");
  if (!p) return false;
  forwardToProcesses(app, message, atoi(p + strlen("procIndex=")));
  app->heartbeat_count = 0;
  return true;
}

void logOnly(const char *message) {
  ZX_CTRL_LOG(0, "Info", "Receive Message from ZXC : '%s'", message);
}

}  // namespace

void setAllFlagAndCountVars(ZXAppControl *app) {
  app->heartbeat_count = 0;
  app->isRunTime = 0;
  app->ZXSys.closeCtrlConFlag = 0;
  app->Server.gettingstopInstrumenatation = 0;
  app->Server.controlCommunicationBusyFlag = 0;
  app->Server.isTenRecordDump = 0;
}

int sendResponseToZXC(ZXAppControl *app) {
  // The reply is cut to its buffer, as the collector has always received it.
  std::string reply = "zx_control_rep:action=start_instrumentation;status=starting;result=Ok;\n";
  const char *extra = app->Server.startInstrRespBuffer;
  if (extra[0]) {
    reply.append(extra, strnlen(extra, ZX_START_RESP_BUFFER_SIZE));
    reply += '\n';
  }
  if (reply.size() > kReplySize - 1) reply.resize(kReplySize - 1);
  ZX_CTRL_LOG(0, "Info", "Send Message to ZXC [%s] - '%s'", app->control.dstIp, reply.c_str());
  int rc = sendText(app, reply.c_str());
  if (rc != 0) app->ZXSys.closeCtrlConFlag = 1;
  return rc;
}

int sendResponseOfStopInstrumentation(ZXAppControl *app) {
  const char *reply = "zx_control_rep:action=stop_instrumentation;status=stopping;result=Ok;\n";
  ZX_CTRL_LOG(2, "Info", "'%s'", reply);
  int rc = sendText(app, reply);
  if (rc != 0) app->ZXSys.closeCtrlConFlag = 1;
  return rc;
}

void writeIncompleteFlowpathsAtStop(ZXAppControl *app) {
  // Only a data thread still in its loop sends them; one already stopping has
  // ended its run, and without one nothing would go out.
  if (!app->dataThreadRunning.load() || app->stopDataThread.load()) return;
  dumpFpFromBusyList(
      app,
      [](ZXPerThreadData_t *record, void *user) {
        dumpIncompleteFPAtTestStop(static_cast<ZXAppTracing *>(user), record);
      },
      static_cast<ZXAppTracing *>(app));
}

void handleStartInstrumentationCase(ZXAppControl *app, char *message) {
  app->Server.isRuntimeApplied = 0;
  ZX_CTRL_LOG(2, "Info", "Value of isRuntimeApplied : '%c' set.",
              app->Server.isRuntimeApplied + '0');
  ZX_CTRL_LOG(1, "Info", "Before resetting fpCounters for current test, run %d",
              app->Server.numberOfTestRunsTillNow);
  (void)message;
  // Runs start their data connection here; the hotspot sensor joins the
  // start when it exists.
  check_data_thread(app);
  // A proxy-mode application process traces nothing itself: the proxy
  // keeps its monitors, and its data connection carries frames alone.
  if (!app->sendsEventsToProxy()) {
    check_as_data_thread(app);
    startMonitorTimer(app);
  }
  // A profile saved by an earlier run becomes the method table; without one
  // the first flowpath makes an empty table.
  readingFileInstrProfile(app);
  readingEntryPointfile(app);
}

void handleStartInstrumentation(ZXAppControl *app, char *message) {
  Server_t &srv = app->Server;
  ZX_CTRL_LOG(0, "Info", "%s", message);
  if (ZXProxy.proxyServerFlag)
    ZX_CTRL_LOG(0, "Info", "Proxy Server - processCount = %d", app->processCount.load());
  else
    ZX_CTRL_LOG(0, "Info", "Agent App - processCount = %d", app->processCount.load());
  ZX_CTRL_LOG(0, "Info", "Receive msg '%s'", message);

  zxlb_init_all_keywords(*app);
  ZXBTConfigModelInit(*app);
  ZX_CTRL_LOG(0, "Info", "Calling transfer_data_callback to pass agentTraceLevel");

  srv.captrueIndependentQuery = 0;
  srv.changeOriginalTime = 0;
  if (strstr(message, "morEpochDiff")) {
    srv.morEpochDiffTime = 0;
    srv.originalMorEpochDiffTime = ZX_ORIGINAL_EPOCH_DIFF_MS;
  }
  if (!strstr(message, "TimeStampDiff")) srv.diffTimeFromZXC = 0;

  findStatusFromClientMsg(*app, message);
  if (app->ZXSys.closeCtrlConFlag) return;

  if (srv.changeOriginalTime) {
    srv.morEpochDiffTime -= srv.diffTimeFromZXC;
    srv.originalMorEpochDiffTime = srv.morEpochDiffTime;
    ZX_CTRL_LOG(0, "Info", "Value of  originalMorEpochDiffTime: '%lld' set.",
                srv.originalMorEpochDiffTime);
  } else {
    srv.originalMorEpochDiffTime -= srv.diffTimeFromZXC;
    ZX_CTRL_LOG(0, "Info",
                "After setting morepoc diff and timestamp diff between ZXC and BCI. "
                "DiffTimeFromZXC = %ld\n",
                static_cast<long>(srv.diffTimeFromZXC));
  }

  ++srv.numberOfTestRunsTillNow;
  srv.retryForDataConn = 1;
  srv.retryForAutoSensorConn = 1;
  setAllFlagAndCountVars(app);
  srv.InstrumentationBusy = 1;
  handleStartInstrumentationCase(app, message);
  // Transactions start only once the send buffers exist: a short-lived
  // process would otherwise trace its whole work into none.
  srv.testRunRunning = 1;
  // The processes start once their application can replay what they send
  // (its run is on, its ids match theirs).
  relayRunCommand(app, message, true);
  sendResponseToZXC(app);
}

void handleStoppingCaseAtStopInstrumentCase(ZXAppControl *app, char *message) {
  Server_t &srv = app->Server;
  ZX_CTRL_LOG(0, "Info", "%s", message);
  relayRunCommand(app, message, false);

  srv.gettingstopInstrumenatation = 1;
  if (srv.dumpremainingtstime > 0)
    app->controlSleep(apr_time_from_sec(static_cast<apr_time_t>(srv.dumpremainingtstime) * 60));
  srv.gettingstopInstrumenatation = 0;

  writeIncompleteFlowpathsAtStop(app);
  request_data_thread_stop(app);
  (void)stopMonitorTimer(app);
  (void)stop_as_data_thread(app);
  srv.testRunRunning = 0;
  srv.retryForDataConn = 0;
  srv.retryForAutoSensorConn = 0;
  srv.controlCommunicationBusyFlag = 0;
  findStatusFromClientMsg(*app, message);
  srv.InstrumentationBusy = 0;
  sendResponseOfStopInstrumentation(app);
}

void handleStopInstrumentationCase(ZXAppControl *app, char *message) {
  const char *status = app->Server.statusValue;
  if (strncasecmp(status, "running", 7) == 0 || strncasecmp(status, "stopping", 8) == 0)
    handleStoppingCaseAtStopInstrumentCase(app, message);
  else
    ZX_CTRL_LOG(0, "Info", "Stop ignored: no run is active (status '%.*s')", ZX_STATUS_VALUE_SIZE,
                status);
}

void handleModifyMessage(ZXAppControl *app, char *message) {
  ZX_CTRL_LOG(0, "Info", "%s", message);
  if (app->relayToProcesses) {
    ZX_CTRL_LOG(0, "Info", "Proxy sending AI message to agent");
    forwardToProcesses(app, message);
  }
  if (!app->Server.InstrumentationBusy) {
    sendOrDrop(app,
               "zx_control_rep:result=Error:<Unable to process modify message because of stop "
               "instrument recieved or startInstrument not recieved.\n");
    return;
  }
  app->isRunTime = 1;
  handleRunTimeChangeCase(app, message);
  app->isRunTime = 0;
}

void handleRunTimeChangeCase(ZXAppControl *app, char *message) {
  findStatusFromClientMsg(*app, message);
  app->Server.isRuntimeApplied = 1;
  sendOrDrop(app, "zx_control_rep:action=modify;result=Ok;\n");
}

void handleHeartbeatEcho(ZXAppControl *app, char *message) {
  ZX_CTRL_LOG(0, "Info", "Receive Message from ZXC - '%s'", message);
  long long elapsed = my_gettimeofday() - app->totalElapsedTime;
  char elapsedText[64];
  snprintf(elapsedText, sizeof elapsedText, "%lld ms", elapsed);
  ZX_CTRL_LOG(0, "Info", "Heartbeat set is :%lld, Process count = %d Time Elapsed- '%s'",
              app->Server.lastHeartBeatRcvTime, app->processCount.load(), elapsedText);
  forwardToProcesses(app, message);
  (void)applyHeartbeatEchoStates(app, message);
  app->heartbeat_count = 0;
}

bool parseReRouteMessageAndUpdateClientInfo(ZXAppControl *app, const char *message) {
  std::string host;
  int port = 0;
  if (!parse_zxc_host_port(message, host, port).ok()) {
    ZX_CTRL_LOG(0, "Error", "Re-route message without a collector: '%s'", message);
    return false;
  }
  ZXBCISetting_t &bci = app->ZXBCISetting;
  bci.zxcHost.assign(host.c_str());
  bci.zxcPort = port;
  return true;
}

int updateZXSettingFile(ZXAppControl *app, const char *host, int port) {
  std::string path = app->ZXSys.zxHomePath.c_str();
  path += "/config/zxsettings.conf";
  std::ifstream in(path);
  std::ostringstream out;
  std::string line;
  bool hostDone = false;
  bool portDone = false;
  while (in && std::getline(in, line)) {
    if (!hostDone && line.rfind("zxcHost=", 0) == 0) {
      out << "zxcHost=" << host << '\n';
      hostDone = true;
    } else if (!portDone && line.rfind("zxcPort=", 0) == 0) {
      out << "zxcPort=" << port << '\n';
      portDone = true;
    } else {
      out << line << '\n';
    }
  }
  if (!hostDone) out << "zxcHost=" << host << '\n';
  if (!portDone) out << "zxcPort=" << port << '\n';
  in.close();
  std::string tmp = path + ".tmp";
  {
    std::ofstream f(tmp, std::ios::trunc);
    f << out.str();
    if (!f.flush()) {
      ZX_CTRL_LOG(0, "Error", "Unable to write %s", tmp.c_str());
      return -1;
    }
  }
  if (std::rename(tmp.c_str(), path.c_str()) != 0) {
    ZX_CTRL_LOG(0, "Error", "Unable to replace %s", path.c_str());
    return -1;
  }
  // The connection loop must not take our own rewrite for an outside change.
  check_file_size_of_zxsetting_files(*app, 0);
  return 0;
}

void handleRerouteMessage(ZXAppControl *app, char *message) {
  Server_t &srv = app->Server;
  snprintf(srv.connDestination, sizeof srv.connDestination, "%s:%d", app->control.dstIp,
           app->control.dstPort);
  if (!parseReRouteMessageAndUpdateClientInfo(app, message)) return;
  ZXBCISetting_t &bci = app->ZXBCISetting;
  if (srv.isClusterMode) {
    app->zxc_server_arr.at_growing(1).zxc_host.assign(bci.zxcHost.c_str());
  } else {
    set_primary_zxc(*app, bci.zxcHost.c_str(), bci.zxcPort);
    updateZXSettingFile(app, bci.zxcHost.c_str(), bci.zxcPort);
  }
  srv.lastConnectionTime = my_gettimeofday();
  if (srv.InstrumentationBusy) handleStoppingCaseAtStopInstrumentCase(app, message);
  if (srv.numberOfTestRunsTillNow > 0) {
    writeIncompleteFlowpathsAtStop(app);
    (void)stop_data_thread(app);
  }
  setAllFlagAndCountVars(app);
  app->ZXSys.closeCtrlConFlag = 1;
  ZX_CTRL_LOG(1, "Info", "Rerouting operation completed.");
}

void handleReceivedClientMessageFromZXCollector(ZXAppControl *app, char *message) {
  if (!message || !app) return;
  if (relayToOneProcess(app, message)) return;
  if (has_prefix(message, "zx_control_req:action=start_instrumentation")) {
    handleStartInstrumentation(app, message);
  } else if (has_prefix(message, "zx_control_rep:action:result=Ok;") ||
             has_prefix(message, "zx_control_msg_rep:action:result=Ok;") ||
             has_prefix(message, "zx_ctrl_msg_rep:result=Ok;")) {
    app->heartbeat_count = 0;
  } else if (has_prefix(message, "zx_control_req:action=reconnect;")) {
    handleHeartbeatEcho(app, message);
  } else if (has_prefix(message, "zx_meta_data_req:action=send_meta_data;")) {
    ZX_CTRL_LOG(0, "Info", "Receive Message from ZXC : '%s'", message);
    sendOrDrop(app, "zx_meta_data_rep:status=complete;\n");
  } else if (has_prefix(message, "zxc_req:action=discover_loaded_classes")) {
    if (app->relayToProcesses)
      forwardToProcesses(app, message);
    else
      logOnly(message);
  } else if (has_prefix(message, "zx_control_req:action=auto_discovery;") ||
             has_prefix(message, "zx_meta_data_req:action=send_jad_file;classes=") ||
             has_prefix(message, "zx_control_rep:action=send_file_content;") ||
             has_prefix(message, "zx_control_rep:action=instrumentation_profile")) {
    // Read by the requester waiting for it.
  } else if (has_prefix(message, "zx_control_req:action=stop_instrumentation")) {
    handleStopInstrumentationCase(app, message);
  } else if (has_prefix(message, "zx_control_req:action=modify")) {
    handleModifyMessage(app, message);
  } else if (has_prefix(message, "zx_control_req:action=reset_monitor;monitor_event_id=") ||
             has_prefix(message, "zx_control_req:action=abort;")) {
    logOnly(message);
  } else if (has_prefix(message, "zx_control_req:action=reroute_ctrl_con")) {
    handleRerouteMessage(app, message);
  } else if (has_prefix(message, "download_file_req") || has_prefix(message, "upload_file_req")) {
    logOnly(message);
  } else if (has_prefix(message, "zx_meta_data_req:action=auto_instr_status;")) {
    logOnly(message);
  } else if (has_prefix(message, "Dynamic_Diagnostics_req:action=ai_status;")) {
    ZX_CTRL_LOG(0, "Info", "Receive Message from ZXC For status of Dyanmic diagnostics : '%s'",
                message);
  } else if (has_prefix(message, "zx_control_req:action=bci_stat;") ||
             has_prefix(message, "zx_meta_data_req:action=get_thread_dump;") ||
             has_prefix(message, "zx_meta_data_req:action=get_heap_dump;")) {
    logOnly(message);
  } else if (message[0]) {
    ZX_CTRL_LOG(0, "Warning", "Unknown message from ZXC ignored: '%.200s'", message);
  }
}
