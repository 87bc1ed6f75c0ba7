#include "ZXProxyRegistration.h"

#include <charconv>
#include <cstddef>
#include <cstdio>
#include <fstream>
#include <memory>
#include <mutex>
#include <new>
#include <sstream>
#include <variant>

#include "ZXProxyApplications.h"
#include "ZXProxyInstance.h"
#include "ZXProxyServer.h"
#include "ZXProxyServerRecord.h"
#include "ZXSettingsFile.h"
#include "zx_agent_internal.h"
#include "zxlb_mt_log.h"

namespace {

constexpr std::string_view kPrefixes[] = {
    "zx_ctrl_msg_req:",
    "zx_data_msg_req:",
    "auto_sensor_thread_hotspot_data_req:",
};

using Field = std::variant<std::string ZXProxyRequest::*, long long ZXProxyRequest::*,
                           int ZXProxyRequest::*, std::monostate>;

struct Key {
  std::string_view name;
  Field field;
};

// The keys an application process sends. The last three are part of the
// agent's own connection request and mean nothing to the proxy.
const Key kKeys[] = {
    {"appName", &ZXProxyRequest::appName},
    {"zxAppServerHost", &ZXProxyRequest::zxAppServerHost},
    {"tierName", &ZXProxyRequest::tierName},
    {"bciVersion", &ZXProxyRequest::bciVersion},
    {"bciStartTime", &ZXProxyRequest::bciStartTime},
    {"zxHome", &ZXProxyRequest::zxHome},
    {"pid", &ZXProxyRequest::pid},
    {"BCITimeStamp", &ZXProxyRequest::BCITimeStamp},
    {"agentType", &ZXProxyRequest::agentType},
    {"serverIp", &ZXProxyRequest::serverIp},
    {"hostName", &ZXProxyRequest::hostName},
    {"isAgentLess", &ZXProxyRequest::isAgentLess},
    {"jvmType", &ZXProxyRequest::jvmType},
    {"javaVersion", &ZXProxyRequest::javaVersion},
    {"javaHome", &ZXProxyRequest::javaHome},
    {"machineType", &ZXProxyRequest::machineType},
    {"requestType", &ZXProxyRequest::requestType},
    {"lastConnectionTimeStamp", &ZXProxyRequest::lastConnectionTimeStamp},
    {"connDuration", &ZXProxyRequest::connDuration},
    {"connDestination", &ZXProxyRequest::connDestination},
    {"agentName", &ZXProxyRequest::agentName},
    {"appID", &ZXProxyRequest::appID},
    {"zxAppServerID", &ZXProxyRequest::zxAppServerID},
    {"tierID", &ZXProxyRequest::tierID},
    {"testIdx", &ZXProxyRequest::testIdx},
    {"ZXCollectorPort", &ZXProxyRequest::ZXCollectorPort},
    {"ZXCollectorIP", &ZXProxyRequest::ZXCollectorIP},
    {"supportedProtocols", std::monostate{}},
    {"authtoken", std::monostate{}},
    {"protoVer", std::monostate{}},
};

template <typename T>
T number(std::string_view v) {
  T n = 0;
  while (!v.empty() && v.front() == ' ') v.remove_prefix(1);
  std::from_chars(v.data(), v.data() + v.size(), n);
  return n;
}

std::string_view trimEnd(std::string_view s) {
  while (!s.empty() && (s.back() == '\n' || s.back() == '\r' || s.back() == ' '))
    s.remove_suffix(1);
  return s;
}

void setField(ZXProxyRequest &req, std::string_view key, std::string_view value) {
  for (const Key &k : kKeys) {
    if (k.name != key) continue;
    if (auto s = std::get_if<std::string ZXProxyRequest::*>(&k.field))
      (req.**s).assign(value);
    else if (auto l = std::get_if<long long ZXProxyRequest::*>(&k.field))
      req.**l = number<long long>(value);
    else if (auto i = std::get_if<int ZXProxyRequest::*>(&k.field))
      req.**i = number<int>(value);
    return;
  }
  ++req.invalidPairs;
  ZX_LOG_IF(true, "PROXY", "Error", "Invalid Keyword-value pair -> %.*s=%.*s",
            static_cast<int>(key.size()), key.data(), static_cast<int>(value.size()), value.data());
}

}  // namespace

int proxyConType(std::string_view line) {
  for (std::size_t i = 0; i < std::size(kPrefixes); ++i)
    if (line.substr(0, kPrefixes[i].size()) == kPrefixes[i]) return static_cast<int>(i) + 1;
  return ZX_PROXY_CON_NONE;
}

ZXProxyRequest parseProxyRequest(std::string_view line) {
  ZXProxyRequest req;
  req.con_type = proxyConType(line);
  if (req.con_type == ZX_PROXY_CON_NONE) return req;
  std::string_view rest = trimEnd(line.substr(kPrefixes[req.con_type - 1].size()));
  for (int fields = 0; !rest.empty() && fields < ZX_PROXY_MAX_FIELDS; ++fields) {
    const std::size_t semi = rest.find(';');
    const std::string_view field = rest.substr(0, semi);
    rest = semi == std::string_view::npos ? std::string_view{} : rest.substr(semi + 1);
    if (field.empty()) continue;
    const std::size_t eq = field.find('=');
    if (eq == std::string_view::npos)
      setField(req, field, {});
    else
      setField(req, field.substr(0, eq), field.substr(eq + 1));
  }
  return req;
}

// What the proxy does with a request: the members of ZXProxyServer that
// register a connection.

namespace {

bool sameApplication(const ZXProxyRequest &a, const ZXProxyRequest &b) {
  return a.appName == b.appName && a.tierName == b.tierName &&
         a.zxAppServerHost == b.zxAppServerHost && a.agentName == b.agentName;
}

}  // namespace

bool ZXProxyServer::parseProxyMsgReq(ZXProxyConnection &c, std::string_view line) {
  const ZXProxyRequest req = parseProxyRequest(line);
  if (req.con_type == ZX_PROXY_CON_DATA || req.con_type == ZX_PROXY_CON_AS)
    return registerSideConnection(c, req);
  if (req.con_type != ZX_PROXY_CON_CONTROL) {
    ZX_PROXY_LOG(-1, "Error", "Unknown connection type received - %d", req.con_type);
    return false;
  }
  if (req.pid <= 0) {
    ZX_PROXY_LOG(-1, "Error", "Control connection without a pid from '%s:%d'", c.peerIp.c_str(),
                 c.peerPort);
    return false;
  }
  const int appIndex = populateZXProxyInstance(req);
  if (appIndex < 0) return false;
  bool reused = false;
  const int procIndex = zxProxyApplications().slotFor(appIndex, req.pid, reused);
  if (procIndex < 0) return false;
  if (reused) {
    ZX_PROXY_LOG(-1, "Info",
                 "Control connection received again from application with pId = %d, '%s:%d'",
                 static_cast<int>(req.pid), c.peerIp.c_str(), c.peerPort);
    // The process left its old connection behind (a reconnect the proxy
    // has not seen the end of yet).
    if (ZXProxyConnection *old = zxProxyApplications().process(appIndex, procIndex)->ctrlSocket)
      cleanAndRemoveSocket(*old);
  }
  return populateProcessInfo(c, appIndex, procIndex, req);
}

int ZXProxyServer::populateZXProxyInstance(const ZXProxyRequest &req) {
  ZXProxyApplications &table = zxProxyApplications();
  for (int i = 0; i < static_cast<int>(appKeys_.size()); ++i)
    if (sameApplication(appKeys_[i], req)) return i;
  std::unique_ptr<ZXProxyInstance_t> made;
  try {
    made = std::make_unique<ZXProxyInstance_t>();
    appKeys_.push_back(req);
  } catch (const std::bad_alloc &) {
    ZX_LOG_OOM(static_cast<long long>(sizeof(ZXProxyInstance_t)), "proxy application object",
               table.numInstances());
    return -1;
  }
  ZXProxyInstance_t &app = *made;
  const int appIndex = table.add(app);
  {
    std::lock_guard lk(appsLock_);
    apps_.push_back(std::move(made));
  }
  ZXProxy.numInstances = static_cast<std::uint32_t>(table.numInstances());
  rememberApplication(req.appName.c_str());

  // The application's identity is its processes'; its collector and
  // settings are the proxy's, read as an agent reads them.
  zx::ThreadAppScope scope(&app);
  app.ZXSys.zxHomePath.assign(opt_.home.c_str());
  app.ZXSys.proxyServerFlag = 1;
  ZXBCISetting_t &bci = app.ZXBCISetting;
  setAppName(bci, req.appName.c_str());
  setTierName(bci, req.tierName.c_str());
  setAppServerName(bci, req.zxAppServerHost.c_str());
  app.agentName.assign(req.agentName.c_str());
  if (read_env_var(app) != 0) (void)read_conf_file(app);
  create_fpi_tls_map(app);
  app.relayToProcesses = [this, appIndex](const char *message, int procIndex) {
    postRelay(appIndex, message, procIndex);
  };
  readyApplication(app, req.agentType.empty() ? nullptr : req.agentType.c_str());
  if (opt_.onNewApplication) opt_.onNewApplication(app);
  ZX_PROXY_LOG(-1, "Info", "Application '%s' (tier '%s', server '%s', agent '%s') at appIndex = %d",
               req.appName.c_str(), req.tierName.c_str(), req.zxAppServerHost.c_str(),
               req.agentName.c_str(), appIndex);
  if (const zx::Status started = startApplication(app, nullptr); !started.ok())
    ZX_PROXY_LOG(-1, "Error", "Error in creating control thread for appIndex = %d", appIndex);
  return appIndex;
}

bool ZXProxyServer::populateProcessInfo(ZXProxyConnection &c, int appIndex, int procIndex,
                                        const ZXProxyRequest &req) {
  ZXProxyApplications &table = zxProxyApplications();
  ZXProxyInstance_t &app = *table.at(appIndex);
  instanceProcess_t &p = *table.process(appIndex, procIndex);
  p.data_len = 0;
  p.data.clear();
  p.processId = req.pid;
  p.ctrlFd = c.fd;
  p.ctrlSocket = &c;
  c.kind = ZXProxyConnection::Kind::Control;
  c.ctx = {appIndex, procIndex};
  ZX_PROXY_LOG(0, "Info", "Added instance at appIndex = %d, procIndex = %d", appIndex, procIndex);

  // Read with the relay number under the application's lock: the process
  // gets a start either as the kept command or relayed, never both.
  std::string start;
  {
    std::lock_guard keep(app.startInstLock);
    start = app.startInstMsg.c_str();
    std::lock_guard lk(relayLock_);
    p.joinedAfterRelay = relaySeq_;
  }
  char reply[64];
  snprintf(reply, sizeof reply, "zx_ctrl_msg_rep:result=Ok;procIndex=%d\n", procIndex);
  const char *failed = sendToConnection(c, reply) ? nullptr : reply;
  if (!failed && !start.empty()) {
    start += '\n';
    if (sendToConnection(c, start))
      ZX_PROXY_LOG(0, "Info",
                   "Sent 'START_INSTRUMENTATION' message successfully for pid = %d, '%s:%d'",
                   static_cast<int>(req.pid), c.peerIp.c_str(), c.peerPort);
    else
      failed = start.c_str();
  }
  if (failed) {
    ZX_PROXY_LOG(-1, "Error", "Connection Broken. Unable to send '%s' for pid = %d, '%s:%d'",
                 failed, static_cast<int>(req.pid), c.peerIp.c_str(), c.peerPort);
    p.ctrlFd = -1;
    p.ctrlSocket = nullptr;
    if (!p.connected()) p.processId = -1;
    ZX_PROXY_LOG(-1, "Error",
                 "Control connection registration failed with proxy, pId = %d, '%s:%d'",
                 static_cast<int>(req.pid), c.peerIp.c_str(), c.peerPort);
    return false;
  }
  const int active = table.activeProcessCount(appIndex) + 1;
  table.setActiveProcessCount(appIndex, active);
  app.processCount = active;
  ++counts_.registered;
  return true;
}

bool ZXProxyServer::registerSideConnection(ZXProxyConnection &c, const ZXProxyRequest &req) {
  const bool data = req.con_type == ZX_PROXY_CON_DATA;
  ZXProxyApplications &table = zxProxyApplications();
  for (int a = 0; a < static_cast<int>(appKeys_.size()); ++a) {
    const ZXBCISetting_t &bci = table.at(a)->ZXBCISetting;
    if (!sameApplication(appKeys_[a], req) || bci.appID.load() != req.appID ||
        bci.tierID.load() != req.tierID || bci.serverID.load() != req.zxAppServerID)
      continue;
    for (int p = 0; p < table.processCount(a); ++p) {
      instanceProcess_t &proc = *table.process(a, p);
      if (proc.processId != req.pid || !proc.ctrlSocket) continue;
      ZXProxyConnection *&slot = data ? proc.dcSocket : proc.asSocket;
      // A reconnect the proxy has not seen the end of yet replaces the old.
      if (slot) hangUp(*slot, nullptr);
      slot = &c;
      (data ? proc.dcFd : proc.asFd) = c.fd;
      c.kind = data ? ZXProxyConnection::Kind::Data : ZXProxyConnection::Kind::AutoSensor;
      c.ctx = {a, p};
      ZX_PROXY_LOG(0, "Info",
                   data ? "Registered the data connection socket for pid '%d', '%s:%d'"
                        : "Registered the AS connection socket for pid '%d', '%s:%d'",
                   static_cast<int>(req.pid), c.peerIp.c_str(), c.peerPort);
      ++counts_.registered;
      return true;
    }
  }
  ZX_PROXY_LOG(-1, "Error",
               data ? "No control connection found for this data connection request with pid "
                      "'%d', '%s:%d'"
                    : "No control connection found for this auto sensor connection request with "
                      "pid '%d', '%s:%d'",
               static_cast<int>(req.pid), c.peerIp.c_str(), c.peerPort);
  return false;
}

void ZXProxyServer::statAndSendFileContent(ZXProxyConnection &c, std::string_view name,
                                           const char *reply) {
  std::string text = reply;
  // Files of the proxy's home only.
  if (name.empty() || name.find("..") != std::string_view::npos || name.front() == '/') {
    text += "result=Error:<invalid file name>\n";
  } else {
    const std::string path = opt_.home + "/" + std::string(name);
    std::ifstream in(path, std::ios::binary);
    std::ostringstream content;
    content << in.rdbuf();
    const std::string body = content.str();
    if (!in || body.size() > ZXProxyConnection::kMaxPendingOut / 2) {
      text += "result=Error:<cannot send " + path + ">\n";
    } else {
      text += "size=" + std::to_string(body.size()) + ";\n" + body;
      if (!body.empty() && body.back() != '\n') text += '\n';
    }
  }
  if (!sendToConnection(c, text)) hangUp(c, "send failed");
}
