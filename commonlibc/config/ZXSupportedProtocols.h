// Transport protocols offered by one side of the control link: the agent's
// own list (from settings) and the collector's (from its reply). A list keeps
// a name->port map and the codes in configured order; only the first three
// slots of the order are ever filled.
#pragma once

#include <map>
#include <string>
#include <string_view>

#include "zxlb_apr.h"

struct ZXAppSettings;

enum ZXProtocolCode : int {
  ZX_PROTO_NONE = 0,
  ZX_PROTO_TCP = 1,
  ZX_PROTO_WS = 2,
  ZX_PROTO_WSS = 3
};
inline constexpr int ZX_PROTOCOL_SLOTS = 5;
inline constexpr int ZX_PROTOCOL_FILLED_SLOTS = 3;

struct ZXProtocolInfo {
  std::string protocolName;
  int protocolPort = 0;
};

// Code of "TCP", "WS" or "WSS" (exact, case-sensitive); 0 otherwise.
int protocolCodeFromName(std::string_view name);
const char *protocolNameFromCode(int code);

struct ZXSupportedProtocols {
  // Guards `map`; `array` is written by the control thread only.
  zx::NestedMutex lock;
  std::map<std::string, ZXProtocolInfo, std::less<>> map;
  int array[ZX_PROTOCOL_SLOTS] = {};

  // Inserts or replaces the entry and takes the next free slot, if any of
  // the first three is free. Returns the code, or 0 for an unknown name.
  int add(std::string_view name, int port);
  // Port of `code`, or -1 when the list does not hold it.
  int portOf(int code);
  void clear();
};

// The agent's own protocol list (application object), from a setting value
// such as "TCP:7892,WSS:443": rebuilds the map, the order and
// ZXSys.supportedProtocolsString ("TCP,WSS"), and sets the per-protocol ports.
void upDateAgentSupportedProtocolData(ZXAppSettings &app, const char *list);
// A one-protocol list: 1 = TCP on the collector port, 3 = WSS on its port.
void updateANYAgentSupportedProtocolData(ZXAppSettings &app, int code);
// Takes the next free slot of the agent's order for `code`.
void setSupportedProtocolArray(ZXAppSettings &app, int code);
void getsupportedProtocolsHashMapLock(ZXAppSettings &app);
void releasesupportedProtocolsHashMapLock(ZXAppSettings &app);
