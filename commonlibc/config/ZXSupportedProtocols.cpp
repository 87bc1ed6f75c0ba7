#include "ZXSupportedProtocols.h"

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <mutex>

#include "ZXAppSettings.h"
#include "zxlb_home.h"
#include "zxlb_utiles.h"

int protocolCodeFromName(std::string_view name) {
  if (name == "TCP") return ZX_PROTO_TCP;
  if (name == "WS") return ZX_PROTO_WS;
  if (name == "WSS") return ZX_PROTO_WSS;
  return ZX_PROTO_NONE;
}

const char *protocolNameFromCode(int code) {
  switch (code) {
    case ZX_PROTO_TCP:
      return "TCP";
    case ZX_PROTO_WS:
      return "WS";
    case ZX_PROTO_WSS:
      return "WSS";
    default:
      return "";
  }
}

int ZXSupportedProtocols::add(std::string_view name, int port) {
  int code = protocolCodeFromName(name);
  if (code == ZX_PROTO_NONE) return 0;
  {
    std::lock_guard guard(lock);
    auto &info = map[std::string(name)];
    info.protocolName = std::string(name);
    info.protocolPort = port;
  }
  for (int i = 0; i < ZX_PROTOCOL_FILLED_SLOTS; ++i) {
    if (array[i] == ZX_PROTO_NONE) {
      array[i] = code;
      break;
    }
  }
  return code;
}

int ZXSupportedProtocols::portOf(int code) {
  std::lock_guard guard(lock);
  auto it = map.find(protocolNameFromCode(code));
  return it == map.end() ? -1 : it->second.protocolPort;
}

void ZXSupportedProtocols::clear() {
  std::lock_guard guard(lock);
  map.clear();
  for (int &slot : array) slot = ZX_PROTO_NONE;
}

// --- The agent's own list -------------------------------------------------

namespace {

void set_protocol_port(ZXBCISetting_t &bci, int code, int port) {
  switch (code) {
    case ZX_PROTO_TCP:
      bci.zxc_TCP_Port = port;
      break;
    case ZX_PROTO_WS:
      bci.zxc_WS_Port = port;
      break;
    case ZX_PROTO_WSS:
      bci.zxc_WSS_Port = port;
      break;
    default:
      break;
  }
}

void append_protocol_name(ZXSys_t &sys, const char *name) {
  char *s = sys.supportedProtocolsString;
  size_t used = strnlen(s, ZX_SUPPORTED_PROTOCOLS_STRING_SIZE);
  snprintf(s + used, ZX_SUPPORTED_PROTOCOLS_STRING_SIZE - used, used ? ",%s" : "%s", name);
}

void add_agent_protocol(ZXAppSettings *app, const char *name, int port) {
  int code = app->supportedProtocols.add(name, port);
  if (code == ZX_PROTO_NONE) return;
  set_protocol_port(app->ZXBCISetting, code, port);
  append_protocol_name(app->ZXSys, name);
}

void reset_agent_protocols(ZXAppSettings *app) {
  app->supportedProtocols.clear();
  app->ZXSys.supportedProtocolsString[0] = '\0';
}

}  // namespace

void upDateAgentSupportedProtocolData(ZXAppSettings &settings, const char *list) {
  ZXAppSettings *app = &settings;
  reset_agent_protocols(app);
  if (!list) return;
  std::string text(list);
  char *tokens[10];
  int n = zxlb_get_tokens_with_multi_delimiter(text.data(), tokens, 10, ",");
  for (int i = 0; i < n; ++i) {
    char name[16];
    char *port = split_key_value_colon(tokens[i], name, sizeof name);
    add_agent_protocol(app, port ? name : tokens[i], port ? atoi(port) : 0);
  }
}

void updateANYAgentSupportedProtocolData(ZXAppSettings &settings, int code) {
  ZXAppSettings *app = &settings;
  reset_agent_protocols(app);
  const ZXBCISetting_t &bci = app->ZXBCISetting;
  if (code == ZX_PROTO_TCP)
    add_agent_protocol(app, "TCP", bci.zxcPort > 0 ? bci.zxcPort : ZX_DEFAULT_COLLECTOR_PORT);
  else if (code == ZX_PROTO_WSS)
    add_agent_protocol(app, "WSS", bci.zxc_WSS_Port > 0 ? bci.zxc_WSS_Port : ZX_DEFAULT_WSS_PORT);
}

void setSupportedProtocolArray(ZXAppSettings &settings, int code) {
  ZXAppSettings *app = &settings;
  for (int i = 0; i < ZX_PROTOCOL_FILLED_SLOTS; ++i) {
    if (app->supportedProtocols.array[i] == ZX_PROTO_NONE) {
      app->supportedProtocols.array[i] = code;
      return;
    }
  }
}

void getsupportedProtocolsHashMapLock(ZXAppSettings &app) {
  app.supportedProtocols.lock.lock();
}

void releasesupportedProtocolsHashMapLock(ZXAppSettings &app) {
  app.supportedProtocols.lock.unlock();
}
