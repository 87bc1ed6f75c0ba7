#include "control_thread.h"

#include <apr_strings.h>

#include "ZXProxyInstance.h"
#include "proxyServer/ZXProxyServer.h"
#include "zx_agent_internal.h"
#include "zxlb_mt_log.h"

bool control_thread_configure(ZXProxyInstance_t *app) {
  // Written only when it differs: in an agent it already holds `app`, and the
  // host's threads read it concurrently.
  if (tlzxApplication != app) tlzxApplication = app;
  ZXSys_t &sys = app->ZXSys;
  ZXBCISetting_t &bci = app->ZXBCISetting;
  bool proxy_server = ZXProxy.proxyServerFlag != 0;
  app->controlThreadState = ZX_CTRL_CONFIGURING;
  ZX_CTRL_LOG(0, "Info",
              "zxApplication->ZXBCISetting.saasMode [%d], zxProxyMode [%d], "
              "ZXProxy.proxyServerFlag =[%d]",
              bci.saasMode, app->zxProxyMode, ZXProxy.proxyServerFlag);

  if (bci.saasMode && ((sys.proxyMode && proxy_server) || (!sys.proxyMode && !proxy_server))) {
    app->ActiveAgentProtocolIndex = ZX_PROTO_WSS;
    app->lws_active = 1;
  } else {
    app->ActiveAgentProtocolIndex = ZX_PROTO_TCP;
  }
  init_zxc_server_config();

  // Until a collector is known the environment and the file are read again;
  // a pause between passes keeps a missing file from spinning a core.
  while (!app->stopRequested) {
    app->isMasterZxc = 0;
    if (!sys.proxyMode && !app->Server.isClusterMode) clear_zxc_server_setting();
    if (read_env_var() == 0) break;
    if (read_conf_file() == 0) break;
    app->controlSleep(app->retry_policy.time_interval);
  }
  if (app->stopRequested) return false;
  app->retry_policy.count = 0;
  app->controlThreadState = ZX_CTRL_CONFIGURED;
  return true;
}

void *APR_THREAD_FUNC control_thread_entry_fun(apr_thread_t *thread, void *arg) {
  auto *app = static_cast<ZXProxyInstance_t *>(arg);
  if (control_thread_configure(app)) {
    // The connection loop takes over from here once the collector link is
    // in place; until then the thread stays configured and idle.
    while (!app->stopRequested) app->controlSleep(app->retry_policy.time_interval);
  }
  app->controlThreadState = ZX_CTRL_STOPPED;
  apr_thread_exit(thread, APR_SUCCESS);
  return nullptr;
}

bool start_control_thread(ZXProxyInstance_t *app, char *err, int err_len) {
  apr_threadattr_t *attr = nullptr;
  apr_status_t rv = apr_threadattr_create(&attr, app->control_pool.get());
  if (rv == APR_SUCCESS)
    rv = apr_thread_create(&app->control_thread, attr, control_thread_entry_fun, app,
                           app->control_pool.get());
  if (rv != APR_SUCCESS) {
    app->control_thread = nullptr;
    if (err && err_len > 0) apr_strerror(rv, err, static_cast<apr_size_t>(err_len));
    return false;
  }
  return true;
}

void stop_control_thread(ZXProxyInstance_t *app) {
  if (!app || !app->control_thread) return;
  {
    std::lock_guard lk(app->wakeMutex);
    app->stopRequested = true;
  }
  app->wakeCond.notify_all();
  apr_status_t rv = APR_SUCCESS;
  apr_thread_join(&rv, app->control_thread);
  app->control_thread = nullptr;
}
