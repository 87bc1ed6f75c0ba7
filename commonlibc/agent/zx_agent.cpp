// agent_init: makes the process's application (its layers bring their own
// defaults and locks), opens its trace log, runs the settings passes
// (ZXSettingsFile.h) and starts the control thread.
#include <apr_general.h>
#include <strings.h>
#include <unistd.h>

#include <atomic>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <filesystem>
#include <memory>
#include <mutex>
#include <new>
#include <stdexcept>
#include <string>

#include "ZXProxyServerRecord.h"
#include "control_thread.h"
#include "zx_agent.h"
#include "zx_agent_fork.h"
#include "zx_agent_internal.h"
#include "zx_agent_stop.h"
#include "zxbt_bt_object.h"
#include "zxlb_home.h"
#include "zxlb_mem_pool.h"
#include "zxlb_mt_log.h"
#include "zxlb_utiles.h"

extern "C" {
ZX_EXPORT int startedWithExc = 0;
ZX_EXPORT char gPool[256] = {};
ZX_EXPORT char gProcessName[256] = {};
}

namespace {

// A bounded copy into the 256-byte exported name arrays.
void copy_name(char (&dst)[256], const char *src) {
  snprintf(dst, sizeof dst, "%s", src);
}

}  // namespace

void ZXTraceInit(ZXAppSettings &app, const char *processName, const char *pool) {
  std::string dir = std::string(app.ZXSys.zxHomePath.c_str()) + "/logs/";
  std::error_code ec;
  std::filesystem::create_directories(dir, ec);

  time_t now = time(nullptr);
  struct tm tmv {};
  localtime_r(&now, &tmv);
  char stamp[32];
  snprintf(stamp, sizeof stamp, "%04d%02d%02d%02d%02d%02d", tmv.tm_year + 1900, tmv.tm_mon + 1,
           tmv.tm_mday, tmv.tm_hour, tmv.tm_min, tmv.tm_sec);
  char name[ZX_TRACE_PATH_MAX];
  int pid = static_cast<int>(getpid());
  const char *proc = processName ? processName : "";
  // Names are cut to 64 characters each so that the file name stays within
  // the file system's 255-byte limit whatever the host passes.
  if (pool)
    snprintf(name, sizeof name, "zx_trace_%.64s_%.64s_%s_%d.log", proc, pool, stamp, pid);
  else
    snprintf(name, sizeof name, "zx_trace_%.64s_%s_%d.log", proc, stamp, pid);
  // The log lives until the process ends: lines may be written from any
  // thread up to the last moment.
  trace_log_key = zxlb_init_mt_trace_log_ex(dir.c_str(), name, 1, 100).release();
}

int checkProcessNameInfo(const ZXAppSettings &app, const char *name) {
  if (!name) return 0;
  // Compared over the pool name's length, as hosts have always relied on.
  size_t len = strlen(gPool);
  for (const auto &row : app.processInfoStruct) {
    if (row.name.is_set() && strncasecmp(row.name.get(), name, len) == 0) return row.flag;
  }
  return 0;
}

namespace {

// Set when the exit left a thread behind: APR's pools must then outlive the
// process rather than be destroyed under that thread.
std::atomic<bool> threadsLeftBehind{false};

void terminate_apr_at_exit() {
  if (!threadsLeftBehind.load()) apr_terminate();
}

void stop_at_exit() {
  ZXProxyInstance_t *app = ZXProxyInstance;
  if (!app) return;
  if (!agent_stop_by(app, apr_time_now() + app->linkTimings.exitDeadline).ok())
    threadsLeftBehind.store(true);
}

}  // namespace

void agent_shutdown() {
  if (ZXProxyInstance) (void)agent_stop_by(ZXProxyInstance, 0);
}

void readyApplication(ZXProxyInstance_t &app, const char *agentType) {
  // Timings the settings file shortens (tests, impatient hosts), applied
  // before any thread reads them.
  if (int ms = app.startupLinkTimings.retryIntervalMs; ms > 0)
    app.linkTimings.retryInterval = app.linkTimings.dataConnRetryInterval = apr_time_from_msec(ms);
  if (int ms = app.startupLinkTimings.connectTimeoutMs; ms > 0)
    app.linkTimings.connectTimeout = apr_time_from_msec(ms);

  initPerThreadSlots(&app);
  app.processID = static_cast<long long>(getpid());
  app.agentStartTime = my_gettimeofday();
  app.ZXSys.rSeq = 0;

  setAgentType(app.ZXBCISetting, agentType ? agentType : "PHP");
  app.lws_active = 0;
  app.proxy_lws_active = 0;
}

zx::Status startApplication(ZXProxyInstance_t &app, const char *agentType) {
  if (agentType) readyApplication(app, agentType);
  ZXBTConfigModelInit(app);
  return start_control_thread(&app);
}

extern "C" ZX_EXPORT void agent_init(char *pool, int connect_zxc, char *process_name,
                                     char *agentType) try {
  // Once per process image: a fork's child restarting its agent, or a host
  // calling again, must not stack exit handlers. A failed start undoes the
  // count APR keeps and leaves the next call to try again.
  static std::once_flag aprOnce;
  std::call_once(aprOnce, [] {
    if (apr_initialize() != APR_SUCCESS) {
      apr_terminate();
      throw std::runtime_error("APR did not start");
    }
    atexit(terminate_apr_at_exit);
  });

  ZXProxyInstance_t *app = nullptr;
  try {
    // Lives until the process ends: every thread of the agent reaches it.
    app = std::make_unique<ZXProxyInstance_t>().release();
  } catch (const std::bad_alloc &) {
    fprintf(stderr, "Out of Memory (size = %d): %s for index %d\n",
            static_cast<int>(sizeof(ZXProxyInstance_t)),
            "Allocating Memory to store ZxProxyInstance details", 0);
    return;
  }
  publishApplication(app);

  copy_name(gPool, pool ? pool : "DefaultPool");
  copy_name(gProcessName, process_name ? process_name : "DefaultProcess");

  ZXTraceInit(*app, gProcessName, gPool);
  if (const char *home = std::getenv("ZXHOME"))
    ZX_LOG_IF(true, "CONTROL_THREAD", "Info", "path2 %s", home);

  if (startedWithExc) {
    initializeProxyStruct();
    const char *home = std::getenv("ZXHOME");
    if (home) fprintf(stderr, "path1 %s\n", home);
    ZXProxy.zxHomePath.assign(home ? home : ZX_DEFAULT_HOME);
  }

  ZX_CTRL_LOG(2, "Info",
              "inside agent_init, poolname:%s, processname:%s and agent_type:%s, gPool:%s, "
              "gProcessName:%s ",
              pool ? pool : "(null)", process_name ? process_name : "(null)",
              agentType ? agentType : "(null)", gPool, gProcessName);

  if (pool) {
    app->pool_name.assign(pool);
    if (!process_name) app->agentName.assign(pool);
    ZX_CTRL_LOG(2, "Info", "SetAppName called for pool with zxApplication->agentName = [%s]",
                app->agentName.c_str());
    setAppName(app->ZXBCISetting, app->pool_name.get());
  }
  if (process_name) {
    app->proc_name.assign(process_name);
    app->agentName.assign(process_name);
    if (!pool) setAppName(app->ZXBCISetting, process_name);
  }

  read_env_var(*app);
  if (!startedWithExc) read_conf_file(*app);
  app->ZXSys.proxyServerFlag = ZXProxy.proxyServerFlag;

  if (connect_zxc <= 0) return;

  readyApplication(*app, agentType);
  if (startedWithExc) {
    ZX_CTRL_LOG(0, "Info", "Proxy is running ...");
    return;
  }
  ZX_CTRL_LOG(0, "Info", "Going to start control thread ...");
  zx_agent_fork_remember(pool, process_name, agentType);
  const zx::Status started = startApplication(*app, nullptr);
  if (started.ok()) {
    static std::once_flag exitOnce;
    std::call_once(exitOnce, [] { atexit(stop_at_exit); });
    ZX_CTRL_LOG(0, "Info", "Control thread created successfully... '%lld'",
                static_cast<long long>(app->processID));
  } else {
    char err[256] = {};
    apr_strerror(started.sysError(), err, sizeof err);
    ZX_CTRL_LOG(0, "Error", "Error in creating control thread... '%s'", err);
  }
} catch (...) {
  // Nothing may escape into the host.
}
