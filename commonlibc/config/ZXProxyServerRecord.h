// The proxy server's process-wide record (exported as `ZXProxy`).
//
// In the proxy process one of these exists and its flag is 1; in an agent the
// flag stays 0 and the record is only consulted for the home directory before
// the application object exists.
#pragma once

#include "zx_agent.h"
#include "zxlb_owned_string.h"

struct ZXProxyServer_t {
  int proxyServerFlag;  // first word: 1 in the proxy process itself
  zx::OwnedString zxHomePath;
};

// Resets the record and marks this process as the proxy server.
void initializeProxyStruct();
