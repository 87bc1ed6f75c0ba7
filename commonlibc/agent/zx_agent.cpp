// agent_init and the settings passes behind it.
//
// Precedence: a collector host *and* port in the environment make the
// environment the whole configuration (the settings file is skipped);
// otherwise the settings file supplies the collector and the environment
// only the identity. Every number is read with atoi, as the file always was.
#include <apr_env.h>
#include <apr_general.h>
#include <apr_network_io.h>
#include <sys/stat.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
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

#include "control_thread.h"
#include "zxlb_mem_pool.h"
#include "ZXProxyServerRecord.h"
#include "zx_agent.h"
#include "zx_agent_fork.h"
#include "zx_agent_internal.h"
#include "zx_agent_stop.h"
#include "zxbt_bt_object.h"
#include "zxlb_home.h"
#include "zxlb_mt_log.h"
#include "zxlb_utiles.h"

extern "C" {
ZX_EXPORT int startedWithExc = 0;
ZX_EXPORT char gPool[256] = {};
ZX_EXPORT char gProcessName[256] = {};
}

char conf_file[ZX_CONF_PATH_SIZE] = {};

namespace {

constexpr int kHostNameSize = 257;

bool is_proxy_server() {
  return ZXProxy.proxyServerFlag != 0;
}

// A bounded copy into the 256-byte exported name arrays.
void copy_name(char (&dst)[256], const char *src) {
  snprintf(dst, sizeof dst, "%s", src);
}

// The variable's value; null when unset or empty.
const char *env_value(const char *name, std::string &storage) {
  const char *v = std::getenv(name);
  if (!v || !*v) return nullptr;
  storage = v;
  return storage.c_str();
}

void set_host_name_default() {
  char host[kHostNameSize] = {};
  apr_pool_t *pool = tlzxApplication->control_pool.get();
  if (pool && apr_gethostname(host, sizeof host - 1, pool) == APR_SUCCESS) setAppServerName(host);
}

// "host:port" into the SaaS fields; without ":" the local default endpoint.
void set_saas_endpoint(char *value) {
  ZXBCISetting_t &bci = tlzxApplication->ZXBCISetting;
  char host[ZX_CONF_LINE_MAX + 1];
  char *port = split_key_value_colon(value, host, sizeof host);
  if (port) {
    bci.saasHost.assign(host);
    bci.saasPort = atoi(port);
  } else {
    bci.saasHost.assign("127.0.0.1");
    bci.saasPort = ZX_DEFAULT_COLLECTOR_PORT;
  }
}

void make_saas_entry() {
  ZXProxyInstance_t *app = tlzxApplication;
  zxc_servers_t &e0 = app->zxc_server_arr.at_growing(0);
  e0.zxc_host.assign(app->ZXBCISetting.saasHost.get());
  e0.zxc_port = static_cast<std::uint32_t>(app->ZXBCISetting.saasPort);
  e0.saasServer = 1;
  e0.state = 1;
}

void set_primary_host(const char *host) {
  ZXProxyInstance_t *app = tlzxApplication;
  app->ZXBCISetting.num_zxc_config += 1;
  app->ZXBCISetting.zxcHost.assign(host);
  zxc_servers_t &e0 = app->zxc_server_arr.at_growing(0);
  e0.zxc_host.assign(host);
  e0.state = 1;
}

void set_primary_port(int port) {
  ZXProxyInstance_t *app = tlzxApplication;
  app->ZXBCISetting.zxcPort = port;
  app->zxc_server_arr.at_growing(0).zxc_port = static_cast<std::uint32_t>(port);
}

// Reads one line of at most `max` characters; the rest of a longer line is
// discarded so that it can never be mistaken for a line of its own. False at
// end of file.
bool read_line(FILE *f, std::string &line, size_t max) {
  line.clear();
  int c;
  bool any = false;
  while ((c = fgetc(f)) != EOF) {
    any = true;
    if (line.size() < max) line.push_back(static_cast<char>(c));
    if (c == '\n') break;
  }
  return any;
}

bool skipped_line(const std::string &line) {
  if (line.empty()) return true;
  char c = line[0];
  return c == '#' || c == ' ' || c == '\t' || c == '\n' || c == '\r';
}

void cut_line_end(std::string &line) {
  size_t cut = line.find('\r');
  if (cut == std::string::npos) cut = line.find('\n');
  if (cut != std::string::npos) line.resize(cut);
}

// State of one pass over the settings file.
struct ConfPass {
  int slot = 1;
  bool backup_host_done = false;
  bool port_seen = false;
  bool protocol_seen = false;
};

// The keywords read for every process, in order; true when one matched.
bool apply_common_keyword(char *line, ConfPass &pass) {
  ZXProxyInstance_t *app = tlzxApplication;
  ZXSys_t &sys = app->ZXSys;
  ZXBCISetting_t &bci = app->ZXBCISetting;
  char *v;
  if ((v = search_keyword(line, "zxcHost"))) {
    set_primary_host(v);
  } else if ((v = search_keyword(line, "zxcPort"))) {
    set_primary_port(atoi(v));
    pass.port_seen = true;
  } else if ((v = search_keyword(line, "ZXC_COMM_PROTOCOL"))) {
    upDateAgentSupportedProtocolData(v);
    pass.protocol_seen = true;
  } else if (!app->Server.isClusterMode && (v = search_keyword(line, "backupZxcHostName"))) {
    bci.num_zxc_config += 1;
    app->zxc_server_arr.at_growing(pass.slot).zxc_host.assign(v);
    pass.backup_host_done = true;
  } else if (!app->Server.isClusterMode && (v = search_keyword(line, "backupZxcPort"))) {
    app->zxc_server_arr.at_growing(pass.slot).zxc_port = static_cast<std::uint32_t>(atoi(v));
  } else if ((v = search_keyword(line, "autoScalingMode"))) {
    setAutoScalingMode(v);
  } else if ((v = search_keyword(line, "agentTraceLevel"))) {
    sys.agentTraceLevel = atoi(v);
  } else if ((v = search_keyword(line, "agentPCTraceLevel"))) {
    sys.agentPCTraceLevel = atoi(v);
  } else if ((v = search_keyword(line, "instrumentSleep"))) {
    app->instrumentSleep = atoi(v);
  } else if ((v = search_keyword(line, "proxyMode"))) {
    sys.proxyMode = atoi(v);
    app->zxProxyMode = sys.proxyMode;
  } else if ((v = search_keyword(line, "proxyConType"))) {
    sys.proxyConType = atoi(v);
  } else if ((v = search_keyword(line, "proxySocketPath"))) {
    sys.socketPath.assign(v);
  } else if ((v = search_keyword(line, "proxyIP"))) {
    sys.proxyIP.assign(v);
  } else if ((v = search_keyword(line, "proxyPort"))) {
    sys.proxyPort = atoi(v);
  } else if ((v = search_keyword(line, "zxAgentDebugLogging"))) {
    sys.sendLogsToProxy = atoi(v);
  } else if ((v = search_keyword(line, "zxcRetryIntervalMs"))) {
    app->startupLinkTimings.retryIntervalMs = atoi(v);
  } else if ((v = search_keyword(line, "zxcConnectTimeoutMs"))) {
    app->startupLinkTimings.connectTimeoutMs = atoi(v);
  } else if ((v = search_keyword(line, "zxProjectKey"))) {
    bci.projectKey.assign(v);
    bci.saasMode = 1;
    make_saas_entry();
  } else if ((v = search_keyword(line, "zxSaasURL"))) {
    if (bci.saasMode) {
      set_saas_endpoint(v);
      make_saas_entry();
      if (!pass.protocol_seen) updateANYAgentSupportedProtocolData(ZX_PROTO_WSS);
    }
  } else {
    return false;
  }
  return true;
}

enum class IdentityResult { NoMatch, Matched, EndPass };

// The identity keywords that only an application process reads.
IdentityResult apply_identity_keyword(char *line) {
  ZXProxyInstance_t *app = tlzxApplication;
  ZXBCISetting_t &bci = app->ZXBCISetting;
  char *v;
  if ((v = search_keyword(line, "tier"))) {
    setTierName(v);
    return IdentityResult::Matched;
  }
  if (!bci.tierName.is_set()) setTierName("Default");
  if ((v = search_keyword(line, "server"))) {
    setAppServerName(v);
    return IdentityResult::Matched;
  }
  if (!bci.appServerName.is_set()) set_host_name_default();
  if ((v = search_keyword(line, "instance"))) {
    setAppName(v);
    return IdentityResult::Matched;
  }
  if ((v = search_keyword(line, "zxProjectKey"))) {
    bci.projectKey.assign(v);
    bci.saasMode = 1;
    return IdentityResult::Matched;
  }
  if ((v = search_keyword(line, "zxSaasURL"))) {
    set_saas_endpoint(v);
    make_saas_entry();
    bci.num_zxc_config += 1;
    return bci.saasMode ? IdentityResult::EndPass : IdentityResult::Matched;
  }
  return IdentityResult::NoMatch;
}

void derive_instance_name() {
  ZXProxyInstance_t *app = tlzxApplication;
  ZXBCISetting_t &bci = app->ZXBCISetting;
  if (bci.appName.is_set() || is_proxy_server()) return;
  char name[512];
  if (app->pool_name.is_set()) {
    const char *pool = app->pool_name.get();
    switch (bci.autoScalingMode) {
      case 1:
        snprintf(name, sizeof name, "%s_%d", pool, static_cast<int>(getpid()));
        break;
      case 3:
        snprintf(name, sizeof name, "%s", pool);
        break;
      case 0:
        snprintf(name, sizeof name, "%s*", pool);
        break;
      default:
        return;
    }
    setAppName(name);
  } else if (app->proc_name.is_set()) {
    setAppName(app->proc_name.get());
  }
}

long long file_mtime(const struct stat &st) {
  return static_cast<long long>(st.st_mtime);
}

}  // namespace

int read_env_var() {
  ZXProxyInstance_t *app = tlzxApplication;
  ZXBCISetting_t &bci = app->ZXBCISetting;
  std::string s;
  const char *v;

  if ((v = env_value("MOR_APP_AGENT_TIER", s)))
    setTierName(v);
  else if (!bci.tierName.is_set())
    setTierName("Default");
  if ((v = env_value("MOR_APP_AGENT_SERVER", s)))
    setAppServerName(v);
  else if (!bci.appServerName.is_set())
    set_host_name_default();
  if ((v = env_value("MOR_APP_AGENT_INSTANCE", s))) setAppName(v);

  app->zxc_server_arr.ensure();
  if ((v = env_value("MOR_APP_AGENT_ZXCHOST", s))) set_primary_host(v);
  bool port_from_env = false;
  if ((v = env_value("MOR_APP_AGENT_ZXCPORT", s))) {
    set_primary_port(atoi(v));
    port_from_env = true;
  }
  if (!port_from_env || !bci.zxcHost.is_set()) return 1;

  bci.isEnableEnvVar = 1;
  if ((v = env_value("MOR_APP_AGENT_ZXC_COMM_PROTOCOL", s))) bci.protocol.assign(v);
  if ((v = env_value("MOR_APP_AGENT_BACKUPZXCHOSTNAME", s))) bci.backupHost.assign(v);
  if ((v = env_value("MOR_APP_AGENT_BACKUPZXCPORT", s))) bci.backupPort = atoi(v);
  if ((v = env_value("MOR_APP_AGENT_TIERATTRIBUTES", s))) bci.tierAttr.assign(v);
  if ((v = env_value("MOR_APP_AGENT_APPNAME", s))) bci.agentAppName.assign(v);
  if ((v = env_value("MOR_APP_AGENT_ENDPOINTPREFIX", s))) bci.endPointPrefix.assign(v);
  if ((v = env_value("MOR_APP_AGENT_TIERTAG", s))) bci.tierTag.assign(v);
  if ((v = env_value("MOR_APP_AGENT_AGENTLOGGINGMODE", s))) bci.agentLogMode.assign(v);
  if ((v = env_value("MOR_APP_AGENT_ZXSAASURL", s))) {
    std::string copy(v);
    set_saas_endpoint(copy.data());
    app->zxc_server_arr.at_growing(0).zxc_port = static_cast<std::uint32_t>(bci.saasPort);
  }
  if ((v = env_value("MOR_APP_AGENT_ZXPROJECTKEY", s))) {
    bci.projectKey.assign(v);
    bci.saasMode = 1;
  }
  return 0;
}

int check_file_size_of_zxsetting_files(int recheck) {
  ZXProxyInstance_t *app = tlzxApplication;
  snprintf(conf_file, sizeof conf_file, "%s/config/zxsettings.conf", app->ZXSys.zxHomePath.c_str());
  ZX_CTRL_LOG(0, "Info", "ZX setting file path '%s'.", conf_file);
  struct stat st {};
  bool present = stat(conf_file, &st) == 0;
  ZXBCISetting_t &bci = app->ZXBCISetting;
  if (recheck) {
    long long mtime = present ? file_mtime(st) : 0;
    long long size = present ? static_cast<long long>(st.st_size) : 0;
    return (mtime != bci.lastModifiedDate || size != bci.prevFileSize) ? 1 : 0;
  }
  if (!present) {
    ZX_CTRL_LOG(0, "Warning", "%s is not present, so returning", conf_file);
    return 1;
  }
  if (st.st_size == 0) {
    ZX_CTRL_LOG(0, "Warning", "%s was of 0 size", conf_file);
    return 1;
  }
  bci.lastModifiedDate = file_mtime(st);
  bci.prevFileSize = static_cast<long long>(st.st_size);
  return 0;
}

int read_conf_file() {
  ZXProxyInstance_t *app = tlzxApplication;
  ZXBCISetting_t &bci = app->ZXBCISetting;
  if (app->Server.isClusterMode || bci.isEnableEnvVar) return 0;
  if (check_file_size_of_zxsetting_files(0) == 1) return 1;

  std::unique_ptr<FILE, int (*)(FILE *)> f(fopen(conf_file, "r"), fclose);
  if (!f) {
    ZX_CTRL_LOG(0, "Error", "Unable to open %s: %s", conf_file, strerror(errno));
    return -1;
  }
  app->zxc_server_arr.ensure();
  ConfPass pass;
  std::string line;
  while (read_line(f.get(), line, ZX_CONF_LINE_MAX)) {
    if (skipped_line(line)) continue;
    cut_line_end(line);
    // A NUL inside the line ends it for every keyword test.
    line.resize(strlen(line.c_str()));
    if (pass.backup_host_done && app->zxc_server_arr.at_growing(pass.slot).zxc_port != 0) {
      ++pass.slot;
      pass.backup_host_done = false;
    }
    if (!is_proxy_server()) {
      IdentityResult r = apply_identity_keyword(line.data());
      if (r == IdentityResult::EndPass) return 0;
      if (r == IdentityResult::Matched) continue;
    }
    apply_common_keyword(line.data(), pass);
  }

  zxc_servers_t &e0 = app->zxc_server_arr.at_growing(0);
  if (bci.saasMode && e0.saasServer) return 0;
  if (!pass.port_seen) set_primary_port(ZX_DEFAULT_COLLECTOR_PORT);
  if (!pass.protocol_seen)
    updateANYAgentSupportedProtocolData(bci.saasMode ? ZX_PROTO_WSS : ZX_PROTO_TCP);
  if (!bci.zxcHost.is_set()) return 1;
  if (app->zxc_server_arr.at_growing(1).zxc_port != 0 && e0.saasServer) app->zx_dr_state = 1;
  derive_instance_name();
  return (!bci.saasMode && !bci.zxcHost.is_set()) ? 1 : 0;
}

void ZXTraceInit(const char *processName, const char *pool) {
  ZXProxyInstance_t *app = tlzxApplication;
  std::string dir = std::string(app->ZXSys.zxHomePath.c_str()) + "/logs/";
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
  trace_log_key =
      zxlb_init_mt_trace_log_ex(dir.c_str(), name, 1, 100, app->control_pool.get()).release();
}

void initializeZXApplicationGlobal() {
  ZXProxyInstance_t *app = tlzxApplication;
  app->ZXSys.proxyMode = 0;
  app->ZXSys.proxyConType = 0;
  app->ZXSys.socketPath.reset();
  app->maxBuffersAS = 8;
  app->dataBufferSizeAS = 0x40000;
  app->methodIDGlobal = app->httpid = app->resourceMetaID = 1;
  app->zx_dr_state = app->is_switch_over = app->health_check_fail = 0;
  app->isMasterZxc = app->enable_DD_AI = app->instrumentSleep = 0;
  app->GloTimStmp = 0;
  app->allSlow = 3000;
  app->allVerySlow = 5000;
  app->maxStates = 128;
  app->skipCount = app->dumpHeartBeatforLog = 0;
  app->lastLogSentTime = 0;
  app->init_flag = app->InstrFileData_flag = 1;
  app->isRunTime = app->isModifiedHashmap = 0;
  app->TimeOut = 60000000;
  app->reqCount = app->xPathCount = app->g_tlsidx = app->trace_level = 0;
}

int readProcessConfFile() {
  ZXProxyInstance_t *app = tlzxApplication;
  if (!app) return -1;
  snprintf(conf_file, sizeof conf_file, "%s/config/processes.conf", app->ZXSys.zxHomePath.c_str());
  std::unique_ptr<FILE, int (*)(FILE *)> f(fopen(conf_file, "r"), fclose);
  if (!f) return -1;
  app->processInfoStruct.clear();
  app->processInfoStruct.reserve(50);
  app->total_process_entries = 0;
  std::string line;
  while (read_line(f.get(), line, ZX_CONF_LINE_MAX)) {
    if (skipped_line(line)) continue;
    cut_line_end(line);
    processInfo_t row;
    size_t bar = line.find('|');
    if (bar != std::string::npos) {
      std::string name = line.substr(0, bar);
      name.resize(std::min(name.find('.'), name.size()));
      row.name.assign(name.c_str());
      row.flag = atoi(line.c_str() + bar + 1);
    }
    app->processInfoStruct.push_back(std::move(row));
    ++app->total_process_entries;
  }
  return 0;
}

int checkProcessNameInfo(const char *name) {
  ZXProxyInstance_t *app = tlzxApplication;
  if (!name || !app) return 0;
  // Compared over the pool name's length, as hosts have always relied on.
  size_t len = strlen(gPool);
  for (const auto &row : app->processInfoStruct) {
    if (row.name.is_set() && strncasecmp(row.name.get(), name, len) == 0) return row.flag;
  }
  return 0;
}

void lws_log(int level, const char *line) {
  ZXProxyInstance_t *app = tlzxApplication;
  int ctl = app ? app->ZXSys.controlTraceLevel : 0;
  const char *text = line ? line : "";
  switch (level) {
    case 1:
      ZX_LOG_IF(true, "WS", "Error", "log from lws:%s", text);
      break;
    case 2:
      ZX_LOG_IF(ctl > 0, "WS", "Warning", "log from lws:%s", text);
      break;
    case 4:
      ZX_LOG_IF(ctl > 1, "WS", "Info", "log from lws:%s", text);
      break;
    case 8:
      ZX_LOG_IF(ctl > 2, "WS", "Info", "log from lws:%s", text);
      break;
    default:
      ZX_LOG_IF(true, "WS", "Info", "log from lws level:%d log:%s", level, text);
      break;
  }
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
  if (!agent_stop_by(app, apr_time_now() + app->linkTimings.exitDeadline))
    threadsLeftBehind.store(true);
}

}  // namespace

void agent_shutdown() {
  if (ZXProxyInstance) agent_stop_by(ZXProxyInstance, 0);
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
  ZXProxyInstance = app;
  tlzxApplication = app;

  copy_name(gPool, pool ? pool : "DefaultPool");
  copy_name(gProcessName, process_name ? process_name : "DefaultProcess");

  ZXSysInit(app->ZXSys);
  ZXTraceInit(gProcessName, gPool);
  if (const char *home = std::getenv("ZXHOME"))
    ZX_LOG_IF(true, "CONTROL_THREAD", "Info", "path2 %s", home);
  ZXBCISettingInit(app->ZXBCISetting);

  if (!startedWithExc) {
    initializeZXApplicationGlobal();
  } else {
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
    setAppName(app->pool_name.get());
  }
  if (process_name) {
    app->proc_name.assign(process_name);
    app->agentName.assign(process_name);
    if (!pool) setAppName(process_name);
  }

  read_env_var();
  if (!startedWithExc) read_conf_file();
  app->ZXSys.proxyServerFlag = ZXProxy.proxyServerFlag;

  if (connect_zxc <= 0) return;

  // Timings the settings file shortens (tests, impatient hosts), applied
  // before any thread reads them.
  if (int ms = app->startupLinkTimings.retryIntervalMs; ms > 0)
    app->linkTimings.retryInterval = app->linkTimings.dataConnRetryInterval =
        apr_time_from_msec(ms);
  if (int ms = app->startupLinkTimings.connectTimeoutMs; ms > 0)
    app->linkTimings.connectTimeout = apr_time_from_msec(ms);

  app->controlThreadTmpLock.create(app->control_pool.get());
  initPerThreadSlots(app);
  app->processID = static_cast<long long>(getpid());
  app->agentStartTime = my_gettimeofday();
  app->ZXSys.rSeq = 0;
  app->methodEntryLock.create(app->control_pool.get());
  if (!app->ZXSys.proxyMode && app->ZXAgentSetting.enableProxyServer)
    app->zxTDHashMapLock.create(app->control_pool.get());

  setAgentType(agentType ? agentType : "PHP");
  app->lws_active = 0;
  app->proxy_lws_active = 0;

  if (startedWithExc) {
    ZX_CTRL_LOG(0, "Info", "Proxy is running ...");
    return;
  }
  ZXBTConfigModelInit();
  ZX_CTRL_LOG(0, "Info", "Going to start control thread ...");
  char err[1024] = {};
  zx_agent_fork_remember(pool, process_name, agentType);
  if (start_control_thread(app, err, sizeof err)) {
    static std::once_flag exitOnce;
    std::call_once(exitOnce, [] { atexit(stop_at_exit); });
    ZX_CTRL_LOG(0, "Info", "Control thread created successfully... '%lld'",
                static_cast<long long>(app->processID));
  } else {
    ZX_CTRL_LOG(0, "Error", "Error in creating control thread... '%s'", err);
  }
} catch (...) {
  // Nothing may escape into the host.
}
