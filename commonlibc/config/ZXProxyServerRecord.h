// The proxy server's process-wide record (exported as `ZXProxy`).
//
// In the proxy process one of these exists and its flag is 1; in an agent the
// flag stays 0 and the record is only consulted for the home directory before
// the application object exists. The proxy fills its listening endpoint from
// the settings at start-up; the poll thread alone updates the rest.
#pragma once

#include <cstdint>

#include "zx_agent.h"
#include "zxlb_owned_string.h"

struct ZXProxyServer_t {
  int proxyServerFlag;  // first word: 1 in the proxy process itself
  zx::OwnedString zxHomePath;
  char proxyConType;
  // When set the proxy listens on this unix-domain socket, else on TCP
  // proxyHost:proxyPort.
  zx::OwnedString zxProxyUnixDomainPath;
  zx::OwnedString proxyHost;
  std::uint32_t proxyPort;
  zx::OwnedString tierName, appName, serverName;
  std::uint32_t numInstances;  // application objects in use
  std::int32_t sktFd;          // the listening socket, -1 when none
};

// Resets the record and marks this process as the proxy server.
void initializeProxyStruct();
