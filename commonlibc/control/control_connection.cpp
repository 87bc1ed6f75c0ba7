#include "control_connection.h"

#include <sys/utsname.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <mutex>
#include <string>
#include <string_view>

#include "ServerMessages.h"
#include "ZXAppControl.h"
#include "ZXDataThread.h"
#include "ZXProxyServerRecord.h"
#include "zxlb_mt_log.h"
#include "zxlb_utiles.h"

namespace {

constexpr int kErrSize = 1024;
constexpr int kMaxReplyFields = 10;

const char *machineType() {
  static const std::string type = [] {
    utsname u{};
    if (uname(&u) != 0) return std::string("Linux");
    return std::string(u.sysname) + "_" + u.machine;
  }();
  return type.c_str();
}

// Copies `text` into a fixed field, cut to fit.
template <std::size_t N>
void copy_text(char (&dst)[N], const char *text) {
  snprintf(dst, N, "%s", text ? text : "");
}

bool starts_with(const char *text, std::string_view prefix) {
  return strncmp(text, prefix.data(), prefix.size()) == 0;
}

}  // namespace

int create_control_conn(ZXAppControl *app, const char *host, int port, char *err, int err_len) {
  std::unique_ptr<ZXConnection> conn = zx_open_connection(
      app->linkProtocol(), host, port, app->linkTimings.connectTimeout,
      app->linkTimings.ctrlIoTimeout, err, err_len, [app] { return app->stopRequested.load(); },
      app->tls);
  if (!conn) return -1;
  socketInfo_t &c = app->control;
  copy_text(c.sourceIp, conn->source().ip);
  c.srcPort = conn->source().port;
  copy_text(c.dstIp, host);
  c.dstPort = port;
  std::lock_guard lk(app->ctrlConnLock);
  app->zxcCtrlSocket = std::move(conn);
  return 0;
}

void control_connection_cleanup(ZXAppControl *app) {
  std::unique_ptr<ZXConnection> old;
  {
    std::lock_guard lk(app->ctrlConnLock);
    old = std::move(app->zxcCtrlSocket);
  }
  if (!old) return;
  old.reset();
  if (app->Server.lastConnectionTime > 0)
    app->Server.connDuration = my_gettimeofday() - app->Server.lastConnectionTime;
  ZX_CTRL_LOG(0, "Info", "Control connection closed.");
}

int controlConnectionSendBuffer(ZXAppControl *app, const char *text, std::size_t len) {
  if (!app || !app->zxcCtrlSocket) {
    ZX_CTRL_LOG(0, "Error", "No control connection to send '%.200s'", text);
    return 1;
  }
  if (app->lws_active) return send_control_data_via_lws_socket(app, text, len);
  char err[kErrSize] = {};
  if (app->zxcCtrlSocket->send_all(text, len, err, sizeof err) != 0) {
    ZX_CTRL_LOG(0, "Error", "Error Buffer - %s", err);
    return 1;
  }
  return 0;
}

int send_control_data_via_lws_socket(ZXAppControl *app, const char *data, std::size_t length) {
  char err[kErrSize] = {};
  if (app->zxcCtrlSocket && app->zxcCtrlSocket->send_all(data, length, err, sizeof err) == 0)
    return 0;
  ZX_LOG_IF(true, app->ActiveAgentProtocolIndex == ZX_PROTO_WSS ? "WSS" : "WS", "Error",
            "Control data not sent: %s", err[0] ? err : "no connection");
  return 1;
}

void setControlConnectionReqMessage(ZXAppControl *app) {
  ZXBCISetting_t &bci = app->ZXBCISetting;
  Server_t &srv = app->Server;
  const zxc_servers_t &first = app->zxc_server_arr.at_growing(0);
  const bool saas =
      bci.saasMode && first.saasServer && (!app->ZXSys.proxyMode || ZXProxy.proxyServerFlag);
  char *out = bci.controlConnectionReqMessage;
  const int cap = static_cast<int>(sizeof bci.controlConnectionReqMessage);
  const long long now = my_gettimeofday();
  int n;
  if (saas) {
    n = snprintf(out, static_cast<size_t>(cap),
                 "mor_saas_auth_agent_msg_req:appName=%s;agentVersion=4.3.0;agentStartTime=%lld;"
                 "zxHome=%s;pid=%lld;isAgentLess=N;jvmType=%s;javaVersion=1.0;javaHome=/apps/"
                 "java;machineType=%s;requestType=%d;lastConnectionTimeStamp=%lld;connDuration=%"
                 "lld;connDestination=%s;projectKey=%s;protoVer=1;agentType=%s;"
                 "supportedProtocols=%s;agentIp=%s;agentHostName=%s\n",
                 bci.appName.c_str(), now, app->ZXSys.zxHomePath.c_str(), app->processID,
                 bci.agentType.c_str(), machineType(), srv.requestType, srv.lastConnectionTime,
                 srv.connDuration, srv.connDestination, bci.projectKey.c_str(),
                 bci.agentType.c_str(), app->ZXSys.supportedProtocolsString, bci.saasHost.c_str(),
                 app->agentName.c_str());
  } else {
    n = snprintf(out, static_cast<size_t>(cap),
                 "zx_ctrl_msg_req:appName=%s;zxAppServerHost=%s;tierName=%s;bciVersion=%s;"
                 "bciStartTime=%lld;zxHome=%s;pid=%lld;BCITimeStamp=%lld;agentType=%s;serverIp=%"
                 "s;hostName=%s;isAgentLess=N;jvmType=%s;javaVersion=1.0;javaHome=/apps/java;"
                 "machineType=%s;requestType=%d;lastConnectionTimeStamp=%lld;connDuration=%lld;"
                 "connDestination=%s;agentName=%s;supportedProtocols=%s;authtoken=%s;protoVer=%d "
                 "\n",
                 bci.appName.c_str(), bci.appServerName.c_str(), bci.tierName.c_str(),
                 app->ZXSys.zxBuild.c_str(), app->agentStartTime, app->ZXSys.zxHomePath.c_str(),
                 app->processID, now, bci.agentType.c_str(), app->control.sourceIp,
                 bci.appServerName.c_str(), bci.agentType.c_str(), machineType(), srv.requestType,
                 srv.lastConnectionTime, srv.connDuration, srv.connDestination,
                 app->agentName.c_str(), app->ZXSys.supportedProtocolsString, bci.authToken.c_str(),
                 bci.ProtoVer);
  }
  // Identity values can be long: a cut request still ends its line.
  if (n >= cap) {
    out[cap - 2] = '\n';
    n = cap - 1;
  }
  bci.controlConnectionReqMessage_len = n < 0 ? 0 : n;
}

bool send_control_con_req_msg_to_zxc(ZXAppControl *app) {
  setControlConnectionReqMessage(app);
  const ZXBCISetting_t &bci = app->ZXBCISetting;
  ZX_CTRL_LOG(0, "Info", "'%.200s'", bci.controlConnectionReqMessage);
  ZX_CTRL_LOG(1, "Info", "'%s'", bci.controlConnectionReqMessage);
  if (!app->zxcCtrlSocket) return true;
  char err[kErrSize] = {};
  if (app->zxcCtrlSocket->send_all(bci.controlConnectionReqMessage,
                                   static_cast<std::size_t>(bci.controlConnectionReqMessage_len),
                                   err, sizeof err) != 0) {
    if (app->lws_active)
      ZX_CTRL_LOG(0, "Error", "Control conn req to send via lws failed");
    else
      ZX_CTRL_LOG(0, "Error", "Unable to send Init message '%s'", err);
    return true;
  }
  return false;
}

zx::Status reset_control_buffer(controlSocketBuffer_t *buf) {
  if (!buf->read_socket_buf) {
    buf->read_socket_buf.reset(new (std::nothrow) char[ZX_CTRL_READ_BUFFER_SIZE + 1]);
    if (!buf->read_socket_buf) {
      ZX_LOG_OOM(ZX_CTRL_READ_BUFFER_SIZE, "control read buffer", 0);
      return zx::Errc::no_memory;
    }
    buf->read_len = ZX_CTRL_READ_BUFFER_SIZE;
  }
  buf->readOffset = buf->writeOffset = buf->readBytes = 0;
  buf->discardingLine = false;
  buf->read_socket_buf[0] = '\0';
  return zx::Ok;
}

char *control_buffer_space(controlSocketBuffer_t *buf, int *cap) {
  if (buf->writeOffset >= buf->read_len) {
    // A line that fills the whole buffer can never be delivered: skip it up
    // to its line feed and keep the connection.
    ZX_CTRL_LOG(0, "Warning", "Line of more than %d bytes from ZXC discarded", buf->read_len);
    buf->readOffset = buf->writeOffset = buf->readBytes = 0;
    buf->discardingLine = true;
  }
  *cap = buf->read_len - buf->writeOffset;
  return buf->read_socket_buf.get() + buf->writeOffset;
}

void control_buffer_commit(controlSocketBuffer_t *buf, int n) {
  if (n <= 0) return;
  char *start = buf->read_socket_buf.get() + buf->writeOffset;
  if (buf->discardingLine) {
    auto *nl = static_cast<char *>(memchr(start, '\n', static_cast<std::size_t>(n)));
    if (!nl) return;  // still inside the over-long line; nothing kept
    buf->discardingLine = false;
    int rest = n - static_cast<int>(nl + 1 - start);
    memmove(buf->read_socket_buf.get(), nl + 1, static_cast<std::size_t>(rest));
    buf->readOffset = 0;
    buf->writeOffset = rest;
    buf->readBytes = rest;
    return;
  }
  buf->writeOffset += n;
  buf->readBytes += n;
}

namespace {

// Reads once into the free end of the buffer: bytes read, 0 for none, -1
// when the connection must go (closed or failed; logged).
long read_into(ZXAppControl *app, controlSocketBuffer_t *buf) {
  int cap = 0;
  char *space = control_buffer_space(buf, &cap);
  char err[kErrSize] = {};
  long n = app->zxcCtrlSocket->receive(space, static_cast<std::size_t>(cap), err, sizeof err);
  if (n == -1) {
    ZX_CTRL_LOG(0, "Error",
                "Control connection closed while reading data from ZXC. Error Buffer = %s", err);
    app->ZXSys.retryFlag = 1;
    return -1;
  }
  if (n < 0) {
    ZX_CTRL_LOG(0, "Error", "Received partial line from zxc. Hence Returning. Error Buffer = %s",
                err);
    return -1;
  }
  control_buffer_commit(buf, static_cast<int>(n));
  return n;
}

// The first complete line of the buffer, terminated in place and consumed;
// null when none is complete yet.
char *take_line(controlSocketBuffer_t *buf) {
  char *base = buf->read_socket_buf.get();
  char *begin = base + buf->readOffset;
  auto *nl = static_cast<char *>(memchr(begin, '\n', static_cast<std::size_t>(buf->readBytes)));
  if (!nl) return nullptr;
  *nl = '\0';
  int used = static_cast<int>(nl + 1 - begin);
  buf->readOffset += used;
  buf->readBytes -= used;
  if (buf->readBytes == 0) buf->readOffset = buf->writeOffset = 0;
  return begin;
}

// Keeps a partial line at the start of the buffer so that reads can add to it.
void compact(controlSocketBuffer_t *buf) {
  if (buf->readOffset == 0) return;
  char *base = buf->read_socket_buf.get();
  memmove(base, base + buf->readOffset, static_cast<std::size_t>(buf->readBytes));
  buf->readOffset = 0;
  buf->writeOffset = buf->readBytes;
}

void log_reply_line(const char *line) {
  ZX_CTRL_LOG(0, "Info", "Cntrl conn rep msg from zxc is:%s", line);
}

}  // namespace

int rec_control_con_rep_msg_from_zxc(ZXAppControl *app, controlSocketBuffer_t *buf) {
  if (!app->zxcCtrlSocket) return ZX_REPLY_REJECTED;
  // The reply may come in pieces; it is judged once its line is complete.
  const apr_time_t deadline = apr_time_now() + app->linkTimings.ctrlIoTimeout;
  char err[kErrSize] = {};
  for (;;) {
    if (char *line = take_line(buf)) {
      log_reply_line(line);
      buf->lastReply.assign(line);
      int result = handle_zxc_con_res_msg(app, line);
      compact(buf);  // moves later lines over this one
      return result;
    }
    compact(buf);
    apr_interval_time_t left = deadline - apr_time_now();
    if (left <= 0 || app->stopRequested) break;
    ZXConnection::Wait w = app->zxcCtrlSocket->wait_readable(left, err, sizeof err);
    if (w == ZXConnection::Wait::Error) break;
    if (w != ZXConnection::Wait::Readable) continue;
    if (read_into(app, buf) < 0) return ZX_REPLY_REJECTED;
  }
  ZX_CTRL_LOG(0, "Error", "No complete reply from ZXC. Error Buffer = %s", err);
  return ZX_REPLY_REJECTED;
}

zx::Status applyHeartbeatEchoStates(ZXAppControl *app, const char *message) {
  std::string text(message);
  char *fields[kMaxReplyFields] = {};
  int n = zxlb_get_tokens_with_multi_delimiter(text.data(), fields, kMaxReplyFields, ";");
  if (n < 3) return zx::Errc::bad_input;
  ZXSys_t &sys = app->ZXSys;
  for (int i = 0; i < n; ++i) {
    char key[64];
    char *value = split_key_value(fields[i], key, sizeof key);
    if (!value) continue;
    if (strcmp(key, "dataConnState") == 0) {
      sys.dataConnState = atoi(value);
      if (sys.dataConnState == 0) {
        ZX_CTRL_LOG(0, "Info", "Data connection is closed from ZXC.");
        closeDataConnectionByCollector(app);
      }
    } else if (strcmp(key, "AutosensorConnState") == 0) {
      sys.autosensorConnState = atoi(value);
      if (sys.autosensorConnState == 0)
        ZX_CTRL_LOG(0, "Info",
                    "AutoSensor connection is closed from ZXC.Going to closing auto sensor "
                    "connection.");
    }
  }
  ZX_CTRL_LOG(0, "Info", "Value of dataConnState = %d, autosensorConnState = %d.",
              sys.dataConnState.load(), sys.autosensorConnState.load());
  return zx::Ok;
}

namespace {

// The collector named by the SaaS endpoint becomes entry 0, so that the next
// pass connects to it with the ordinary request. Its fields are
// "zxcHost=<host>;zxcPort=<port>".
zx::Status parseSaasReply(ZXAppControl *app, const char *rest) {
  std::string host;
  int port = 0;
  const zx::Status parsed = parse_zxc_host_port(rest, host, port);
  if (parsed.ok()) {
    set_primary_zxc(*app, host.c_str(), port);
    app->negotiatedPort = 0;
  }
  return parsed;
}

int commonAcceptSteps(ZXAppControl *app, char *reply) {
  if (const char *p = strstr(reply, "procIndex=")) {
    int procIndex = atoi(p + strlen("procIndex="));
    ZX_CTRL_LOG(1, "Info", "Reply for procIndex=%d", procIndex);
    if (app->sendsEventsToProxy() && procIndex >= 0) app->ZXFlowpathIds.proxyProcIndex = procIndex;
  }
  // Policy fields are accepted as they come; nothing in them changes the link.
  return setProtocolFromResponseMessage(app, reply) ? ZX_REPLY_SWITCH : ZX_REPLY_ACCEPTED;
}

}  // namespace

int handle_zxc_con_res_msg(ZXAppControl *app, char *reply) {
  Server_t &srv = app->Server;
  if (strstr(reply, "zx_control_req:action=reconnect;heartBeat")) {
    ZX_CTRL_LOG(0, "Info", "Receive Message from ZXC - '%s'", reply);
    if (!applyHeartbeatEchoStates(app, reply).ok()) {
      ZX_CTRL_LOG(0, "Error",
                  "controlBreak connection is closed from ZXC due to 'num_fields' "
                  "less than 3.");
      control_connection_cleanup(app);
      return ZX_REPLY_REJECTED;
    }
    return ZX_REPLY_ACCEPTED;
  }
  if (starts_with(reply, "mor_saas_auth_agent_msg_rep:status=OK")) {
    if (parseSaasReply(app, reply + strlen("mor_saas_auth_agent_msg_rep:status=OK")).ok())
      ZX_CTRL_LOG(0, "Info",
                  "Closing Control Connection with SAAS and going to make connection with ZXC");
    else
      ZX_CTRL_LOG(0, "Info", "Closing Control Connection with SAAS");
    control_connection_cleanup(app);
    return ZX_REPLY_REJECTED;
  }
  if (starts_with(reply, "mor_saas_auth_agent_msg_rep:status=ERROR")) {
    ZX_CTRL_LOG(0, "Error", "Error Received: '%s'", reply);
    return ZX_REPLY_REJECTED;
  }
  if (starts_with(reply, "zx_ctrl_msg_rep:result=Ok;status=NOT_RUNNING;")) {
    srv.retryForDataConn = 0;
    srv.retryForAutoSensorConn = 0;
    return commonAcceptSteps(app, reply);
  }
  if (starts_with(reply, "zx_ctrl_msg_rep:result=Ok;status=RUNNING")) {
    srv.retryForDataConn = 1;
    return commonAcceptSteps(app, reply);
  }
  if (starts_with(reply, "zx_ctrl_msg_rep:result=Ok;")) return commonAcceptSteps(app, reply);
  if (starts_with(reply, "zx_ctrl_msg_rep:result=")) {
    ZX_CTRL_LOG(0, "Error",
                "controlBreak Going to close control connection with server %s:%d due to invalid "
                "message receive %s",
                app->control.dstIp, app->control.dstPort, reply);
    return ZX_REPLY_REJECTED;
  }
  ZX_CTRL_LOG(0, "Error", "Control connection was closed. Invalid message receive,'%s'.", reply);
  return ZX_REPLY_REJECTED;
}

void setConnectionChannel(ZXAppControl *app, int protocol) {
  switch (protocol) {
    case ZX_PROTO_TCP:
      app->lws_active = 0;
      break;
    case ZX_PROTO_WS:
    case ZX_PROTO_WSS:
      app->lws_active = 1;
      break;
    default:
      ZX_CTRL_LOG(0, "Error", "Unknown protocol");
      return;
  }
  app->ActiveAgentProtocolIndex = protocol;
}

int setProtocolFromResponseMessage(ZXAppControl *app, const char *reply) {
  ZXSupportedProtocols &offer = app->supportedProtocolsZXC;
  std::string text(reply);
  char *fields[kMaxReplyFields] = {};
  int n = zxlb_get_tokens_with_multi_delimiter(text.data(), fields, kMaxReplyFields, ";");
  bool offered = false;
  {
    std::lock_guard lk(offer.lock);
    for (int i = 0; i < n; ++i) {
      if (strncmp(fields[i], "supportedProtocols=", 19) != 0) continue;
      offered = true;
      offer.clear();
      char *items[kMaxReplyFields] = {};
      int m = zxlb_get_tokens_with_multi_delimiter(fields[i] + 19, items, kMaxReplyFields, ",");
      for (int j = 0; j < m; ++j) {
        char name[16];
        char *port = split_key_value_colon(items[j], name, sizeof name);
        offer.add(name, port ? atoi(port) : 0);
      }
      break;
    }
  }
  if (!offered) {
    ZX_CTRL_LOG(0, "Info", "No negotiation of protocols supported.");
    return 0;
  }
  int match = ZX_PROTO_NONE;
  int matchPort = 0;
  {
    std::lock_guard lk(offer.lock);
    std::lock_guard own(app->supportedProtocols.lock);
    for (int code : offer.array) {
      if (code == ZX_PROTO_NONE) continue;
      if (app->supportedProtocols.portOf(code) < 0) continue;
      match = code;
      matchPort = offer.portOf(code);
      break;
    }
  }
  if (match == ZX_PROTO_NONE) {
    ZX_CTRL_LOG(0, "Warning",
                "WARNING:- ZXC Protocol are present.Hence, Control Connection will Persist");
    return 0;
  }
  if (match != app->ActiveAgentProtocolIndex) {
    ZX_CTRL_LOG(0, "Info", "ZXC protocol - %d and  ActiveAgentProtocolIndex - %d are not same",
                match, app->ActiveAgentProtocolIndex);
    ZX_CTRL_LOG(0, "Info", "Hence Switching Protocol");
    setConnectionChannel(app, match);
    app->negotiatedPort = matchPort;
    return 1;
  }
  if (matchPort != app->control.dstPort) {
    ZX_CTRL_LOG(0, "Info",
                "Protocols are same but port of protocol are differenet, Hence closing current "
                "control connection");
    app->negotiatedPort = matchPort;
    return 1;
  }
  ZX_CTRL_LOG(0, "Info", "Protocols and Ports are same so control connection will remain same.");
  return 0;
}

void processControlConnectionMessage(ZXAppControl *app, controlSocketBuffer_t *buf) {
  while (char *line = take_line(buf)) handleReceivedClientMessageFromZXCollector(app, line);
  compact(buf);
}

int read_msg_from_zxc(ZXAppControl *app, controlSocketBuffer_t *buf) {
  if (read_into(app, buf) < 0) return 1;
  processControlConnectionMessage(app, buf);
  if (app->ZXSys.closeCtrlConFlag) {
    ZX_CTRL_LOG(0, "Info", "Close ctrl conn flag is enabled. Closing connection.");
    app->ZXSys.retryFlag = 1;
    return 1;
  }
  return 0;
}

void make_control_conn_heartbeat_msg(ZXAppControl *app) {
  ZXBCISetting_t &bci = app->ZXBCISetting;
  int n = snprintf(bci.control_conn_heartbeat_msg, sizeof bci.control_conn_heartbeat_msg,
                   "zx_control_req:action=reconnect;heartBeat %d;\n", app->heartbeat_count);
  bci.control_conn_heartbeat_msg_len = n;
  ++app->heartbeat_count;
}

int send_control_conn_heartbeat_to_zxc(ZXAppControl *app) {
  make_control_conn_heartbeat_msg(app);
  ZXBCISetting_t &bci = app->ZXBCISetting;
  ZX_CTRL_LOG(0, "Info", "ZXBCISetting.control_conn_heartbeat_msg = %s",
              bci.control_conn_heartbeat_msg);
  char err[kErrSize] = {};
  if (!app->zxcCtrlSocket ||
      app->zxcCtrlSocket->send_all(bci.control_conn_heartbeat_msg,
                                   static_cast<std::size_t>(bci.control_conn_heartbeat_msg_len),
                                   err, sizeof err) != 0) {
    ZX_CTRL_LOG(0, "Error", "Error Buffer - %s", err);
    ZX_CTRL_LOG(0, "Error",
                "controlBreak Unable to send heartbeat message to control connection. Going to "
                "close connection");
    control_connection_cleanup(app);
    return 1;
  }
  return 0;
}

int checkZXCAlive(ZXAppControl *app) {
  long long silent = my_gettimeofday() - app->Server.lastHeartBeatRcvTime;
  if (silent < app->ZXSys.zxcHeartBeatThreshold) return 0;
  ZX_CTRL_LOG(0, "Error",
              "Last Received heartbeat msg time is greater than zxcHeartBeatThreshold.Hence going "
              "to closing all connection. HeartBeatDuration = %lld, zxcHeartBeatThreshold = %lld",
              silent, app->ZXSys.zxcHeartBeatThreshold.load());
  control_connection_cleanup(app);
  return 1;
}

namespace {

// What the proxy's application processes queued for the collector; false
// when the connection failed under it.
bool sendQueuedForCollector(ZXAppControl *app) {
  for (const std::string &text : app->takeCollectorOutbox())
    if (controlConnectionSendBuffer(app, text.data(), text.size()) != 0) return false;
  return true;
}

}  // namespace

int handle_msg_from_zxc(ZXAppControl *app, controlSocketBuffer_t *buf) {
  if (!app->zxcCtrlSocket) return 1;
  ZXSys_t &sys = app->ZXSys;
  // Lines that came with the reply are handled before the first poll.
  processControlConnectionMessage(app, buf);
  int idlePolls = 0;
  int pollErrors = 0;
  char err[kErrSize] = {};
  for (;;) {
    if (sys.closeCtrlConFlag == 1 || app->stopRequested || !app->zxcCtrlSocket) return 1;
    if (!sendQueuedForCollector(app)) return 1;
    if (!sys.proxyMode && app->heartbeat_count + 1 > app->retry_policy.reply_unsuccessful_count) {
      ZX_CTRL_LOG(0, "Error", "heartbeat count reaches to the threshold = %d",
                  app->heartbeat_count);
      app->heartbeat_count = 0;
      app->health_check_fail = 1;
      app->is_switch_over = 1;
      return 1;
    }
    ZXConnection::Wait w =
        app->zxcCtrlSocket->wait_readable(app->linkTimings.ctrlPollTimeout, err, sizeof err);
    if (w == ZXConnection::Wait::Woken) continue;
    if (w == ZXConnection::Wait::Error) {
      ZX_CTRL_LOG(1, "Error", "ZXC select/epoll_wait. Error = %s", err);
      // A poll that keeps failing would spin; the link is rebuilt instead.
      if (++pollErrors >= 10) return 1;
      continue;
    }
    pollErrors = 0;
    if (w == ZXConnection::Wait::Timeout) {
      if (!app->ZXBCISetting.flagForHandlingProxy && checkZXCAlive(app)) {
        ZX_CTRL_LOG(0, "Info", "Close ctrl conn flag is enabled. Closing connection.");
        return 1;
      }
      ++idlePolls;
      // Method-table nodes retired by a profile swap are freed here, on the
      // control thread, once no flowpath holds them, however old they are.
      checkAndDeleteNode(app);
      checkAndClearHashMapNode(app, 0);
      if (app->zx_dr_state && app->retry_policy.heartbeat_reply_timeout_check > 0 &&
          idlePolls % app->retry_policy.heartbeat_reply_timeout_check == 0 &&
          send_control_conn_heartbeat_to_zxc(app) != 0)
        return 1;
      continue;
    }
    app->Server.lastHeartBeatRcvTime = my_gettimeofday();
    ZX_CTRL_LOG(0, "Info", "Last updated heartbeat from ZXC is :%lld",
                app->Server.lastHeartBeatRcvTime);
    ZX_CTRL_LOG(1, "Info", "got Epollin event from ZXC");
    if (read_msg_from_zxc(app, buf) == 1) return 1;
  }
}
