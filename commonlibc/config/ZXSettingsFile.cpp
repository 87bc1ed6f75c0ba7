#include "ZXSettingsFile.h"

#include <apr_network_io.h>
#include <strings.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <string>

#include "ZXProxyServerRecord.h"
#include "zxlb_home.h"
#include "zxlb_mt_log.h"
#include "zxlb_utiles.h"

thread_local char conf_file[ZX_CONF_PATH_SIZE] = {};

namespace {

constexpr int kHostNameSize = 257;

bool is_proxy_server() {
  return ZXProxy.proxyServerFlag != 0;
}

// The variable's value; null when unset or empty.
const char *env_value(const char *name, std::string &storage) {
  const char *v = std::getenv(name);
  if (!v || !*v) return nullptr;
  storage = v;
  return storage.c_str();
}

// Certificate checks go off only for a value that plainly says so; a typo
// keeps them on.
bool tls_verify_off(const char *value) {
  for (const char *off : {"0", "false", "no", "off"})
    if (strcasecmp(value, off) == 0) return true;
  return false;
}

void set_host_name_default(ZXAppSettings &app) {
  char host[kHostNameSize] = {};
  apr_pool_t *pool = app.control_pool.get();
  if (pool && apr_gethostname(host, sizeof host - 1, pool) == APR_SUCCESS)
    setAppServerName(app.ZXBCISetting, host);
}

// "host:port" into the SaaS fields; without ":" the local default endpoint.
void set_saas_endpoint(ZXAppSettings &app, char *value) {
  ZXBCISetting_t &bci = app.ZXBCISetting;
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

void make_saas_entry(ZXAppSettings &app) {
  zxc_servers_t &e0 = app.zxc_server_arr.at_growing(0);
  e0.zxc_host.assign(app.ZXBCISetting.saasHost.get());
  e0.zxc_port = static_cast<std::uint32_t>(app.ZXBCISetting.saasPort);
  e0.saasServer = 1;
  e0.state = 1;
}

void set_primary_host(ZXAppSettings &app, const char *host) {
  app.ZXBCISetting.num_zxc_config += 1;
  app.ZXBCISetting.zxcHost.assign(host);
  zxc_servers_t &e0 = app.zxc_server_arr.at_growing(0);
  e0.zxc_host.assign(host);
  e0.state = 1;
}

void set_primary_port(ZXAppSettings &app, int port) {
  app.ZXBCISetting.zxcPort = port;
  app.zxc_server_arr.at_growing(0).zxc_port = static_cast<std::uint32_t>(port);
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
bool apply_common_keyword(ZXAppSettings &app, char *line, ConfPass &pass) {
  ZXSys_t &sys = app.ZXSys;
  ZXBCISetting_t &bci = app.ZXBCISetting;
  char *v;
  if ((v = search_keyword(line, "zxcHost"))) {
    set_primary_host(app, v);
  } else if ((v = search_keyword(line, "zxcPort"))) {
    set_primary_port(app, atoi(v));
    pass.port_seen = true;
  } else if ((v = search_keyword(line, "ZXC_COMM_PROTOCOL"))) {
    upDateAgentSupportedProtocolData(app, v);
    pass.protocol_seen = true;
  } else if (!app.Server.isClusterMode && (v = search_keyword(line, "backupZxcHostName"))) {
    bci.num_zxc_config += 1;
    app.zxc_server_arr.at_growing(pass.slot).zxc_host.assign(v);
    pass.backup_host_done = true;
  } else if (!app.Server.isClusterMode && (v = search_keyword(line, "backupZxcPort"))) {
    app.zxc_server_arr.at_growing(pass.slot).zxc_port = static_cast<std::uint32_t>(atoi(v));
  } else if ((v = search_keyword(line, "autoScalingMode"))) {
    setAutoScalingMode(bci, v);
  } else if ((v = search_keyword(line, "agentTraceLevel"))) {
    sys.agentTraceLevel = atoi(v);
  } else if ((v = search_keyword(line, "agentPCTraceLevel"))) {
    sys.agentPCTraceLevel = atoi(v);
  } else if ((v = search_keyword(line, "instrumentSleep"))) {
    app.instrumentSleep = atoi(v);
  } else if ((v = search_keyword(line, "proxyMode"))) {
    sys.proxyMode = atoi(v);
    app.zxProxyMode = sys.proxyMode;
  } else if ((v = search_keyword(line, "proxyConType"))) {
    sys.proxyConType = atoi(v);
  } else if ((v = search_keyword(line, "proxySocketPath"))) {
    sys.socketPath.assign(v);
  } else if ((v = search_keyword(line, "proxyWsCert"))) {
    sys.proxyWsCert.assign(v);
  } else if ((v = search_keyword(line, "proxyWsKey"))) {
    sys.proxyWsKey.assign(v);
  } else if ((v = search_keyword(line, "proxyIP"))) {
    sys.proxyIP.assign(v);
  } else if ((v = search_keyword(line, "proxyPort"))) {
    sys.proxyPort = atoi(v);
  } else if ((v = search_keyword(line, "zxAgentDebugLogging"))) {
    sys.sendLogsToProxy = atoi(v);
  } else if ((v = search_keyword(line, "zxcRetryIntervalMs"))) {
    app.startupLinkTimings.retryIntervalMs = atoi(v);
  } else if ((v = search_keyword(line, "zxcConnectTimeoutMs"))) {
    app.startupLinkTimings.connectTimeoutMs = atoi(v);
  } else if ((v = search_keyword(line, "zxTlsCaFile"))) {
    app.tls.caFile.assign(v);
  } else if ((v = search_keyword(line, "zxTlsVerifyPeer"))) {
    app.tls.verifyPeer = !tls_verify_off(v);
  } else if ((v = search_keyword(line, "tDigestIntervalSumsBT"))) {
    app.tDigestIntervalSumsBT = atoi(v) > 0;
  } else if ((v = search_keyword(line, "zxProjectKey"))) {
    bci.projectKey.assign(v);
    bci.saasMode = 1;
    make_saas_entry(app);
  } else if ((v = search_keyword(line, "zxSaasURL"))) {
    if (bci.saasMode) {
      set_saas_endpoint(app, v);
      make_saas_entry(app);
      if (!pass.protocol_seen) updateANYAgentSupportedProtocolData(app, ZX_PROTO_WSS);
    }
  } else {
    return false;
  }
  return true;
}

enum class IdentityResult { NoMatch, Matched, EndPass };

// The identity keywords that only an application process reads.
IdentityResult apply_identity_keyword(ZXAppSettings &app, char *line) {
  ZXBCISetting_t &bci = app.ZXBCISetting;
  char *v;
  if ((v = search_keyword(line, "tier"))) {
    setTierName(bci, v);
    return IdentityResult::Matched;
  }
  if (!bci.tierName.is_set()) setTierName(bci, "Default");
  if ((v = search_keyword(line, "server"))) {
    setAppServerName(bci, v);
    return IdentityResult::Matched;
  }
  if (!bci.appServerName.is_set()) set_host_name_default(app);
  if ((v = search_keyword(line, "instance"))) {
    setAppName(bci, v);
    return IdentityResult::Matched;
  }
  if ((v = search_keyword(line, "zxProjectKey"))) {
    bci.projectKey.assign(v);
    bci.saasMode = 1;
    return IdentityResult::Matched;
  }
  if ((v = search_keyword(line, "zxSaasURL"))) {
    set_saas_endpoint(app, v);
    make_saas_entry(app);
    bci.num_zxc_config += 1;
    return bci.saasMode ? IdentityResult::EndPass : IdentityResult::Matched;
  }
  return IdentityResult::NoMatch;
}

void derive_instance_name(ZXAppSettings &app) {
  ZXBCISetting_t &bci = app.ZXBCISetting;
  if (bci.appName.is_set() || is_proxy_server()) return;
  char name[512];
  if (app.pool_name.is_set()) {
    const char *pool = app.pool_name.get();
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
    setAppName(bci, name);
  } else if (app.proc_name.is_set()) {
    setAppName(bci, app.proc_name.get());
  }
}

long long file_mtime(const struct stat &st) {
  return static_cast<long long>(st.st_mtime);
}

}  // namespace

int read_env_var(ZXAppSettings &app) {
  ZXBCISetting_t &bci = app.ZXBCISetting;
  std::string s;
  const char *v;

  if ((v = env_value("MOR_APP_AGENT_ZXTLSCAFILE", s))) app.tls.caFile.assign(v);
  if ((v = env_value("MOR_APP_AGENT_ZXTLSVERIFYPEER", s))) app.tls.verifyPeer = !tls_verify_off(v);
  if ((v = env_value("MOR_APP_AGENT_TDIGESTINTERVALSUMSBT", s)))
    app.tDigestIntervalSumsBT = atoi(v) > 0;

  if ((v = env_value("MOR_APP_AGENT_TIER", s)))
    setTierName(bci, v);
  else if (!bci.tierName.is_set())
    setTierName(bci, "Default");
  if ((v = env_value("MOR_APP_AGENT_SERVER", s)))
    setAppServerName(bci, v);
  else if (!bci.appServerName.is_set())
    set_host_name_default(app);
  if ((v = env_value("MOR_APP_AGENT_INSTANCE", s))) setAppName(bci, v);

  // The proxy, when the environment names proxy mode, is the collector this
  // process needs: it can start without a collector host of its own.
  bool proxy_from_env = false;
  if ((v = env_value("MOR_APP_AGENT_PROXYMODE", s))) {
    app.ZXSys.proxyMode = app.zxProxyMode = atoi(v);
    proxy_from_env = true;
  }
  if ((v = env_value("MOR_APP_AGENT_PROXYCONTYPE", s))) app.ZXSys.proxyConType = atoi(v);
  if ((v = env_value("MOR_APP_AGENT_PROXYSOCKETPATH", s))) app.ZXSys.socketPath.assign(v);
  if ((v = env_value("MOR_APP_AGENT_PROXYWSCERT", s))) app.ZXSys.proxyWsCert.assign(v);
  if ((v = env_value("MOR_APP_AGENT_PROXYWSKEY", s))) app.ZXSys.proxyWsKey.assign(v);
  if ((v = env_value("MOR_APP_AGENT_PROXYIP", s))) app.ZXSys.proxyIP.assign(v);
  if ((v = env_value("MOR_APP_AGENT_PROXYPORT", s))) app.ZXSys.proxyPort = atoi(v);

  app.zxc_server_arr.ensure();
  if ((v = env_value("MOR_APP_AGENT_ZXCHOST", s))) set_primary_host(app, v);
  bool port_from_env = false;
  if ((v = env_value("MOR_APP_AGENT_ZXCPORT", s))) {
    set_primary_port(app, atoi(v));
    port_from_env = true;
  }
  if (proxy_from_env && app.sendsEventsToProxy()) return 0;
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
    set_saas_endpoint(app, copy.data());
    app.zxc_server_arr.at_growing(0).zxc_port = static_cast<std::uint32_t>(bci.saasPort);
  }
  if ((v = env_value("MOR_APP_AGENT_ZXPROJECTKEY", s))) {
    bci.projectKey.assign(v);
    bci.saasMode = 1;
  }
  return 0;
}

int check_file_size_of_zxsetting_files(ZXAppSettings &app, int recheck) {
  snprintf(conf_file, sizeof conf_file, "%s/config/zxsettings.conf", app.ZXSys.zxHomePath.c_str());
  ZX_CTRL_LOG(0, "Info", "ZX setting file path '%s'.", conf_file);
  struct stat st {};
  bool present = stat(conf_file, &st) == 0;
  ZXBCISetting_t &bci = app.ZXBCISetting;
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

int read_conf_file(ZXAppSettings &app) {
  ZXBCISetting_t &bci = app.ZXBCISetting;
  if (app.Server.isClusterMode || bci.isEnableEnvVar) return 0;
  if (check_file_size_of_zxsetting_files(app, 0) == 1) return 1;

  std::unique_ptr<FILE, int (*)(FILE *)> f(fopen(conf_file, "r"), fclose);
  if (!f) {
    ZX_CTRL_LOG(0, "Error", "Unable to open %s: %s", conf_file, strerror(errno));
    return -1;
  }
  app.zxc_server_arr.ensure();
  ConfPass pass;
  std::string line;
  while (read_line(f.get(), line, ZX_CONF_LINE_MAX)) {
    if (skipped_line(line)) continue;
    cut_line_end(line);
    // A NUL inside the line ends it for every keyword test.
    line.resize(strlen(line.c_str()));
    if (pass.backup_host_done && app.zxc_server_arr.at_growing(pass.slot).zxc_port != 0) {
      ++pass.slot;
      pass.backup_host_done = false;
    }
    if (!is_proxy_server()) {
      IdentityResult r = apply_identity_keyword(app, line.data());
      if (r == IdentityResult::EndPass) return 0;
      if (r == IdentityResult::Matched) continue;
    }
    apply_common_keyword(app, line.data(), pass);
  }

  zxc_servers_t &e0 = app.zxc_server_arr.at_growing(0);
  if (bci.saasMode && e0.saasServer) return 0;
  if (!pass.port_seen) set_primary_port(app, ZX_DEFAULT_COLLECTOR_PORT);
  if (!pass.protocol_seen)
    updateANYAgentSupportedProtocolData(app, bci.saasMode ? ZX_PROTO_WSS : ZX_PROTO_TCP);
  // A proxy-mode application process talks to its proxy only.
  if (!bci.zxcHost.is_set()) return app.sendsEventsToProxy() ? 0 : 1;
  if (app.zxc_server_arr.at_growing(1).zxc_port != 0 && e0.saasServer) app.zx_dr_state = 1;
  derive_instance_name(app);
  return (!bci.saasMode && !bci.zxcHost.is_set()) ? 1 : 0;
}

int readProcessConfFile(ZXAppSettings &app) {
  snprintf(conf_file, sizeof conf_file, "%s/config/processes.conf", app.ZXSys.zxHomePath.c_str());
  std::unique_ptr<FILE, int (*)(FILE *)> f(fopen(conf_file, "r"), fclose);
  if (!f) return -1;
  app.processInfoStruct.clear();
  app.processInfoStruct.reserve(50);
  app.total_process_entries = 0;
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
    app.processInfoStruct.push_back(std::move(row));
    ++app.total_process_entries;
  }
  return 0;
}
