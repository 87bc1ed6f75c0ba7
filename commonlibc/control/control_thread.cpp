#include "control_thread.h"

#include <apr_strings.h>

#include <cstdio>
#include <exception>
#include <string>

#include "ZXAppControl.h"
#include "ZXDataThread.h"
#include "ZXProxyServerRecord.h"
#include "ZXSettingsFile.h"
#include "control_connection.h"
#include "zxlb_mt_log.h"
#include "zxlb_utiles.h"

namespace {

// A SaaS link starts on WSS, any other on TCP; negotiation may change that
// later, and a collector that cannot be reached on what it offered sends the
// link back here.
void chooseFirstTransport(ZXAppControl *app) {
  const bool proxy_server = ZXProxy.proxyServerFlag != 0;
  const bool proxyMode = app->ZXSys.proxyMode != 0;
  const bool saas =
      app->ZXBCISetting.saasMode && ((proxyMode && proxy_server) || (!proxyMode && !proxy_server));
  app->ActiveAgentProtocolIndex = saas ? ZX_PROTO_WSS : ZX_PROTO_TCP;
  app->lws_active = saas ? 1 : 0;
  app->negotiatedPort = 0;
}

}  // namespace

zx::Status control_thread_configure(ZXAppControl *app) {
  ZXSys_t &sys = app->ZXSys;
  ZXBCISetting_t &bci = app->ZXBCISetting;
  app->controlThreadState = ZX_CTRL_CONFIGURING;
  ZX_CTRL_LOG(0, "Info",
              "zxApplication->ZXBCISetting.saasMode [%d], zxProxyMode [%d], "
              "ZXProxy.proxyServerFlag =[%d]",
              bci.saasMode, app->zxProxyMode, ZXProxy.proxyServerFlag);

  init_zxc_server_config(*app);

  // Until a collector is known the environment and the file are read again;
  // a pause between passes keeps a missing file from spinning a core.
  while (!app->stopRequested) {
    app->isMasterZxc = 0;
    if (!sys.proxyMode && !app->Server.isClusterMode) clear_zxc_server_setting(*app);
    if (read_env_var(*app) == 0) break;
    if (read_conf_file(*app) == 0) break;
    app->controlSleep(app->retry_policy.time_interval);
  }
  if (app->stopRequested) return zx::Errc::stopped;
  // After the settings passes: SaaS mode may come from the file.
  chooseFirstTransport(app);
  app->retry_policy.count = 0;
  app->controlThreadState = ZX_CTRL_CONFIGURED;
  return zx::Ok;
}

namespace {

constexpr int kErrSize = 1024;
// Rejections answered at once before the retry interval applies between them:
// a collector that rejects every request must not make this thread spin.
constexpr int kImmediateAttempts = 3;

void failoverCheck(ZXAppControl *app) {
  if (app->zx_dr_state && !app->Server.isClusterMode) {
    ZX_CTRL_LOG(0, "Info", "[ZX DR Feature]; Going to search for backup ZXC info");
    connection_retry_failed(*app);
  }
}

struct Endpoint {
  std::string host;
  int port = 0;
  bool proxy = false;
};

Endpoint chooseEndpoint(ZXAppControl *app) {
  ZXSys_t &sys = app->ZXSys;
  Endpoint e;
  if (sys.proxyMode && !ZXProxy.proxyServerFlag) {
    // A unix-domain socket's path stands in the host, with port 0.
    const bool local = app->proxyOverUnixSocket();
    e.host = local ? sys.socketPath.c_str() : sys.proxyIP.c_str();
    e.port = local ? 0 : sys.proxyPort;
    e.proxy = true;
    return e;
  }
  const zxc_servers_t *entry;
  if (app->Server.isClusterMode && !app->ZXBCISetting.isEnableEnvVar) {
    if (app->askMasterZxc) {
      app->askMasterZxc = false;
      app->isMasterZxc = 1;
      entry = &app->zxc_server_arr.at_growing(0);
    } else {
      entry = &app->zxc_server_arr.at_growing(1);
    }
  } else {
    entry = &get_active_zxc(*app);
  }
  e.host = entry->zxc_host.c_str();
  e.port = app->negotiatedPort > 0 ? app->negotiatedPort : static_cast<int>(entry->zxc_port);
  return e;
}

// One trace line per change of the link's state, at every trace level.
void reportLinkDown(ZXAppControl *app, const Endpoint &ep, const char *why) {
  if (app->ctrlLinkReported == ZXAppControl::LinkReport::Down) return;
  app->ctrlLinkReported = ZXAppControl::LinkReport::Down;
  ZX_STATE_LOG("Warning", "Collector %s:%d not available (%s); retrying", ep.host.c_str(), ep.port,
               why);
}

void reportLinkUp(ZXAppControl *app, const Endpoint &ep) {
  if (app->ctrlLinkReported == ZXAppControl::LinkReport::Up) return;
  app->ctrlLinkReported = ZXAppControl::LinkReport::Up;
  ZX_STATE_LOG("Info", "Collector %s:%d connected", ep.host.c_str(), ep.port);
}

// A process of the proxy ends its run when it loses the proxy: a proxy that
// comes back may not have its application's run yet, and frames it cannot
// replay would be lost without a count. The run resumes with the start the
// proxy sends; what the data thread still holds is counted lost.
void endProxiedRun(ZXAppControl *app) {
  Server_t &srv = app->Server;
  if (!app->sendsEventsToProxy() || !srv.testRunRunning) return;
  srv.testRunRunning = 0;
  srv.retryForDataConn = 0;
  request_data_thread_stop(app);
}

enum class PassEnd {
  Failover,   // to the failover check, at once
  NextPass,   // straight to the next attempt
  RetryTest,  // a failed socket: count it and maybe retry
};

// One attempt: connect, request, judge the reply, and live on the connection
// until it drops.
PassEnd connectionPass(ZXAppControl *app, int &rejections) {
  ZXSys_t &sys = app->ZXSys;
  Server_t &srv = app->Server;
  Endpoint ep = chooseEndpoint(app);
  ZX_CTRL_LOG(0, "Info", "Active ZXC Server info [Host | Port] = [%s |%d]", ep.host.c_str(),
              ep.port);
  char err[kErrSize] = {};
  if (create_control_conn(app, ep.host.c_str(), ep.port, err, sizeof err) != 0) {
    if (app->stopRequested) return PassEnd::NextPass;  // abandoned, not failed
    reportLinkDown(app, ep, err[0] ? err : "no connection");
    if (ep.proxy)
      ZX_CTRL_LOG(0, "Error",
                  "Socket was not created and retry after 60seconds with "
                  "server(Proxy) %s:%d.",
                  ep.host.c_str(), ep.port);
    else
      ZX_CTRL_LOG(0, "Error",
                  "[ZX DR Feature]; Socket was not created and retry after 60seconds. zxcHost = "
                  "'%s', zxcPort = '%d' . Error : '%s'.",
                  ep.host.c_str(), ep.port, err);
    app->controlSleep(app->retry_policy.time_interval);
    ++app->retry_policy.count;
    return PassEnd::RetryTest;
  }
  const socketInfo_t &c = app->control;
  if (ep.proxy)
    ZX_CTRL_LOG(0, "Info",
                "Control connection established [Destination | Port | Pid] = ['%s' | '%d' | "
                "'%lld'] and [Source | Port] = ['%s' | '%d']",
                c.dstIp, c.dstPort, app->processID, c.sourceIp, c.srcPort);
  else
    ZX_CTRL_LOG(0, "Info",
                "Control connection established [Destination | Port] = ['%s' | '%d'] and "
                "[Source | Port] = ['%s' | '%d']",
                c.dstIp, c.dstPort, c.sourceIp, c.srcPort);

  // Rejections in a row wait like any failed attempt once the immediate ones
  // are used up.
  auto pauseIfRepeated = [&] {
    if (++rejections > kImmediateAttempts) app->controlSleep(app->retry_policy.time_interval);
  };
  auto rejected = [&] {
    reportLinkDown(app, ep, "connection request not accepted");
    pauseIfRepeated();
    return PassEnd::Failover;
  };

  if (send_control_con_req_msg_to_zxc(app)) {
    ZX_CTRL_LOG(0, "Error",
                "controlBreak Going to close control connection with server if "
                "send_control_con_req_msg_to_zxc ==FAIL [Destination | Port] = ['%s' | '%d']",
                c.dstIp, c.dstPort);
    control_connection_cleanup(app);
    if (app->isMasterZxc) app->askMasterZxc = true;
    ZX_CTRL_LOG(0, "Info", "Control connection was closed");
    return rejected();
  }
  snprintf(srv.connDestination, sizeof srv.connDestination, "%s:%d", ep.host.c_str(), ep.port);
  srv.lastConnectionTime = my_gettimeofday();
  if (!reset_control_buffer(&app->ctrlBufInfo).ok()) {
    control_connection_cleanup(app);
    return rejected();
  }
  int result = rec_control_con_rep_msg_from_zxc(app, &app->ctrlBufInfo);
  if (result == ZX_REPLY_REJECTED) {
    ZX_CTRL_LOG(0, "Error", "Unexpected response received | Response = %s",
                app->ctrlBufInfo.lastReply.c_str());
    control_connection_cleanup(app);
    return rejected();
  }
  if (result == ZX_REPLY_SWITCH) {
    ZX_CTRL_LOG(0, "Info", "Changing protocol");
    control_connection_cleanup(app);
    pauseIfRepeated();
    return PassEnd::NextPass;
  }

  rejections = 0;
  reportLinkUp(app, ep);
  srv.lastHeartBeatRcvTime = my_gettimeofday();
  app->totalElapsedTime = srv.lastHeartBeatRcvTime;
  sys.closeCtrlConFlag = 0;
  // A run that was active before the drop keeps sending on a new data
  // connection.
  if (srv.testRunRunning && srv.retryForDataConn) check_data_thread(app);
  handle_msg_from_zxc(app, &app->ctrlBufInfo);
  ZX_CTRL_LOG(0, "Info",
              "[ZX DR Feature]; Exit from select call and going to close the control connection "
              "from ZX Collector %s:%d and the source %s:%d",
              c.dstIp, c.dstPort, c.sourceIp, c.srcPort);
  sys.closeCtrlConFlag = 1;
  control_connection_cleanup(app);
  if (!app->stopRequested) {
    reportLinkDown(app, ep, "connection lost");
    endProxiedRun(app);
  }
  ZX_CTRL_LOG(0, "Info",
              "controlBreak Control Socket was cleaned with %s:%d server due to  "
              "handle_msg_from_zxc(&ctrlBufInfo) == FAIL ",
              c.dstIp, c.dstPort);
  app->controlSleep(app->retry_policy.time_interval);
  return PassEnd::NextPass;
}

// After a failed socket: give up on this collector after num_retry attempts
// or when the settings file changed; otherwise wait and try again.
bool retryTestSaysFailover(ZXAppControl *app) {
  retryPolicy_t &p = app->retry_policy;
  if (p.count >= p.num_retry) {
    ZX_CTRL_LOG(0, "Info", "[ZX DR Feature]; Max number of retry attempt reached");
    app->askMasterZxc = true;
    app->Server.requestType = 3;
    return true;
  }
  if (p.count >= 2 && check_file_size_of_zxsetting_files(*app, 1)) return true;
  app->controlSleep(p.time_interval);
  return false;
}

}  // namespace

void control_connection_loop(ZXAppControl *app) {
  bool freshLoop = true;
  int rejections = 0;
  while (!app->stopRequested) {
    if (freshLoop) {
      app->isMasterZxc = 0;
      app->ZXSys.closeCtrlConFlag = 0;
      freshLoop = false;
    }
    PassEnd end = connectionPass(app, rejections);
    if (app->stopRequested) break;
    if (end == PassEnd::NextPass) continue;
    if (end == PassEnd::RetryTest) {
      if (!retryTestSaysFailover(app)) continue;
      chooseFirstTransport(app);
    }
    failoverCheck(app);
    freshLoop = true;
  }
}

// The thread's whole work, in a frame of its own: it returns before the
// thread reports its end (the application may go away as soon as it has), and
// apr_thread_exit's forced unwind then finds no object to destroy.
[[gnu::noinline]] void runControlThread(ZXAppControl *app) {
  zx::ThreadAppScope scope(app);
  try {
    if (control_thread_configure(app).ok()) control_connection_loop(app);
  } catch (const std::exception &e) {
    // Nothing may escape into the host; the agent goes inert instead.
    ZX_CTRL_LOG(0, "Error", "Control thread stopped: %s", e.what());
  }
  control_connection_cleanup(app);
  app->controlThreadState = ZX_CTRL_STOPPED;
}

void *APR_THREAD_FUNC control_thread_entry_fun(apr_thread_t *thread, void *arg) {
  auto *app = static_cast<ZXAppControl *>(arg);
  runControlThread(app);
  app->controlThreadDone.arrive();
  apr_thread_exit(thread, APR_SUCCESS);
  return nullptr;
}

zx::Status start_control_thread(ZXAppControl *app) {
  apr_threadattr_t *attr = nullptr;
  app->controlThreadDone.reset();
  apr_status_t rv = apr_threadattr_create(&attr, app->control_pool.get());
  if (rv == APR_SUCCESS)
    rv = apr_thread_create(&app->control_thread, attr, control_thread_entry_fun, app,
                           app->control_pool.get());
  if (rv != APR_SUCCESS) {
    app->controlThreadDone.arrive();
    app->control_thread = nullptr;
    return {zx::Errc::io, rv};
  }
  return zx::Ok;
}

void request_control_stop(ZXAppControl *app) {
  {
    std::lock_guard lk(app->wakeMutex);
    app->stopRequested = true;
  }
  app->wakeCond.notify_all();
  std::lock_guard lk(app->ctrlConnLock);
  if (app->zxcCtrlSocket) app->zxcCtrlSocket->wakeup();
}

zx::Status join_control_thread(ZXAppControl *app, apr_time_t deadline) {
  return zx::joinBy(app->control_thread, app->controlThreadDone, deadline);
}
