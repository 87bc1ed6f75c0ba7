// The registration line: the first text line of every connection an
// application process opens to the proxy, which tells what the connection
// is and whose it is.
//
//   zx_ctrl_msg_req:appName=shop;tierName=web;...;pid=4711;agentName=php-fpm
//   \_______________/\____________________________________________________/
//     con_type (1-3)    at most 128 key=value fields, separated by ";"
//
// Parsing is pure (no state, no I/O); what the proxy does with a request is
// in ZXProxyServer (parseProxyMsgReq, populateZXProxyInstance,
// populateProcessInfo).
#pragma once

#include <string>
#include <string_view>

enum ZXProxyConType : int {
  ZX_PROXY_CON_NONE = 0,
  ZX_PROXY_CON_CONTROL = 1,
  ZX_PROXY_CON_DATA = 2,
  ZX_PROXY_CON_AS = 3,
};

inline constexpr int ZX_PROXY_MAX_FIELDS = 128;

// The fields of one registration line.
struct ZXProxyRequest {
  int con_type = ZX_PROXY_CON_NONE;
  std::string appName, zxAppServerHost, tierName, bciVersion, zxHome, agentType, serverIp, hostName,
      isAgentLess, jvmType, javaVersion, javaHome, machineType, connDestination, agentName,
      ZXCollectorIP;
  long long bciStartTime = 0, pid = -1, BCITimeStamp = 0, lastConnectionTimeStamp = 0,
            connDuration = 0;
  int requestType = 0, appID = 0, zxAppServerID = 0, tierID = 0, testIdx = 0, ZXCollectorPort = 0;
  int invalidPairs = 0;  // fields with an unknown key or without "="
};

// con_type of a line by its prefix; ZX_PROXY_CON_NONE for any other text.
int proxyConType(std::string_view line);

// Parses a registration line (its "\n" may be there or not). A line of no
// known prefix gives con_type ZX_PROXY_CON_NONE and no fields. Unknown keys
// are logged ("Invalid Keyword-value pair -> %s=%s") and counted; numbers
// are decimal, and a value that is no number reads as 0.
ZXProxyRequest parseProxyRequest(std::string_view line);
