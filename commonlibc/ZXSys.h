// Process-wide switches and limits of the agent (`ZXSys_t`).
//
// Written by the control thread (keyword table, start-up), read without locks
// by application threads: each field is written whole by one copy of 1 to 8
// bytes and no reader relies on two fields changing together. The keyword
// table addresses fields by byte offset, so the record is standard-layout.
#pragma once

#include <apr.h>

#include <atomic>
#include <type_traits>

#include "zxlb_owned_string.h"

inline constexpr int ZX_AGENT_LOG_BUFFER_SIZE = 131072;
inline constexpr int ZX_SUPPORTED_PROTOCOLS_STRING_SIZE = 50;

struct ZXSys_t {
  // Trace levels per area; 0 is off, 4 adds method entry/exit lines.
  int controlTraceLevel;
  int agentTraceLevel;
  int agentHSTraceLevel;
  int agentADTraceLevel;
  int agentPCTraceLevel;
  int agentEXTraceLevel;
  int btMonitorTraceLevel;
  int exceptionTraceLevel;
  int methodMonTraceLevel;
  int backendMonTraceLevel;
  int threadMonTraceLevel;
  int appLogTraceLevel;
  int fpTraceLevel;
  long long traceMaxSize;

  zx::OwnedString zxBuild;
  zx::OwnedString zxHomePath;

  // 0: an agent logs nothing; 1: to the file; 2: gathered for the proxy.
  int sendLogsToProxy;

  // Proxy mode.
  int proxyMode;
  int proxyConType;
  int proxyServerFlag;
  int proxyPort;
  zx::OwnedString proxyIP;
  zx::OwnedString socketPath;

  char supportedProtocolsString[ZX_SUPPORTED_PROTOCOLS_STRING_SIZE];

  // Collector link state. The flags and connection states are set by the
  // control thread and read by the data threads, hence atomic.
  std::atomic<short> closeCtrlConFlag;
  std::atomic<short> retryFlag;
  std::atomic<int> dataConnState;
  std::atomic<int> autosensorConnState;
  long long zxcHeartBeatThreshold;    // milliseconds
  int zxcBciDataConnectionHeartBeat;  // data-thread ticks between blank lines

  // Feature switches and limits (keyword table rows).
  int enableForcedFlowpathChainMode;
  int enableCpuTime;
  int bciInstrSessionPct;
  long long bciMaxNonServiceMethodsPerFP;
  int enableIPResourceURL;
  int hashMapClearTime;
  int zxEnableTxHotspot;
  int zxHelperDepth;
  int zxHotspotThreadLimit;
  short captureMethodForAllFP;
  char dumpDebugData;
  int maxHttpBodySize;
  int btRuleOverriedPolicy;
  int bciDataBufferMaxSize;
  int dataBuffMaxCount;
  int bciASDataBufferMaxSize;
  int ASDataBuffMaxCount;
  int ASDataBuffMinCount;
  int enableDBBackendName;
  int enableProcessNotificationPhase;
  int enableUpdateLogMsgForTG;
  int enableCallBackException;

  // Atomic sequence counter of flowpath ids.
  volatile apr_uint32_t rSeq;

  // Records dropped and records taken by the send-buffer pool. Unlike the
  // settings above they are written by producers (under bufferWriteLock) and
  // read by anyone, hence atomic; std::atomic keeps the record standard-layout.
  std::atomic<long long> discardCount;
  std::atomic<long long> recordCount;
};
static_assert(std::is_standard_layout_v<ZXSys_t>);

// Defaults of the record, the home directory (ZXHOME) and the build name.
void ZXSysInit(ZXSys_t &sys);
