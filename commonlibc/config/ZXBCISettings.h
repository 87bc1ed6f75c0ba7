// Identity of the agent and of its collector (`ZXBCISetting_t`): names, the
// collector endpoint as configured, protocol ports and the prepared control
// messages. Same lock rules as ZXSys_t: written by the control thread (and by
// start-up before it exists), read without locks. The names a keyword replaces
// are PublishedStrings, as any thread's trace line (log mode 2) reads them;
// the other strings are read by the control thread only.
#pragma once

#include <type_traits>

#include "zxlb_owned_string.h"
#include "zxlb_relaxed.h"

inline constexpr int ZX_CONTROL_MSG_SIZE = 2048;

struct ZXBCISetting_t {
  // Identity of the monitored process.
  zx::PublishedString appName;  // instance name
  zx::PublishedString tierName;
  zx::PublishedString appServerName;  // keyword zxAppServerHost
  zx::OwnedString agentType;
  zx::OwnedString tierAttr;
  zx::OwnedString agentAppName;
  zx::OwnedString endPointPrefix;
  zx::OwnedString tierTag;
  zx::OwnedString agentLogMode;
  zx::OwnedString authToken;
  zx::Relaxed<int> appID;
  zx::Relaxed<int> serverID;
  zx::Relaxed<int> tierID;
  int autoScalingMode;

  // Collector endpoint as configured (entry 0 of the server list mirrors it).
  zx::OwnedString zxcHost;
  int zxcPort;
  zx::OwnedString backupHost;
  int backupPort;
  int num_zxc_config;
  zx::OwnedString protocol;  // MOR_APP_AGENT_ZXC_COMM_PROTOCOL, kept as text
  int zxc_TCP_Port;
  int zxc_WS_Port;
  int zxc_WSS_Port;
  int ProtoVer;

  // SaaS endpoint.
  int saasMode;
  zx::OwnedString projectKey;
  zx::OwnedString saasHost;
  int saasPort;

  // Where the settings came from and how the file looked when read.
  int isEnableEnvVar;
  long long lastModifiedDate;
  long long prevFileSize;

  zx::Relaxed<char> fileBasedKeywordMode;
  int flagForHandlingProxy;
  int data_thread_running;

  char controlConnectionReqMessage[ZX_CONTROL_MSG_SIZE];
  int controlConnectionReqMessage_len;
  char control_conn_heartbeat_msg[ZX_CONTROL_MSG_SIZE];
  int control_conn_heartbeat_msg_len;
};
static_assert(std::is_standard_layout_v<ZXBCISetting_t>);

void ZXBCISettingInit(ZXBCISetting_t &bci);

// Identity setters: each replaces its string only when the value differs.
// Null leaves the field unchanged.
void setAppName(ZXBCISetting_t &bci, const char *name);
void setTierName(ZXBCISetting_t &bci, const char *name);
void setAppServerName(ZXBCISetting_t &bci, const char *name);
void setAgentType(ZXBCISetting_t &bci, const char *type);
void setAutoScalingMode(ZXBCISetting_t &bci, const char *value);
