// Process-wide switches and limits of the agent (`ZXSys_t`).
//
// Written by the control thread (keyword table, start-up), read without locks
// by application threads: every field a keyword or a run's start changes is a
// zx::Relaxed, written whole by one atomic store of 1 to 8 bytes, and no
// reader relies on two fields changing together. Plain fields are fixed at
// start-up or belong to the control thread alone. The keyword table addresses
// fields by byte offset, so the record is standard-layout.
#pragma once

#include <apr.h>

#include <atomic>
#include <type_traits>

#include "zxlb_owned_string.h"
#include "zxlb_relaxed.h"

inline constexpr int ZX_AGENT_LOG_BUFFER_SIZE = 131072;
inline constexpr int ZX_SUPPORTED_PROTOCOLS_STRING_SIZE = 50;

struct ZXSys_t {
  // Trace levels per area; 0 is off, 4 adds method entry/exit lines.
  zx::Relaxed<int> controlTraceLevel;
  zx::Relaxed<int> agentTraceLevel;
  zx::Relaxed<int> agentHSTraceLevel;
  zx::Relaxed<int> agentADTraceLevel;
  zx::Relaxed<int> agentPCTraceLevel;
  zx::Relaxed<int> agentEXTraceLevel;
  zx::Relaxed<int> btMonitorTraceLevel;
  zx::Relaxed<int> exceptionTraceLevel;
  zx::Relaxed<int> methodMonTraceLevel;
  zx::Relaxed<int> backendMonTraceLevel;
  zx::Relaxed<int> threadMonTraceLevel;
  zx::Relaxed<int> appLogTraceLevel;
  zx::Relaxed<int> fpTraceLevel;
  zx::Relaxed<long long> traceMaxSize;

  zx::OwnedString zxBuild;
  zx::OwnedString zxHomePath;

  // 0: an agent logs nothing; 1: to the file; 2: gathered for the proxy.
  zx::Relaxed<int> sendLogsToProxy;

  // Proxy mode.
  int proxyMode;
  int proxyConType;
  int proxyServerFlag;
  int proxyPort;
  zx::OwnedString proxyIP;
  zx::OwnedString socketPath;
  // The proxy's certificate and key when it listens over WSS.
  zx::OwnedString proxyWsCert;
  zx::OwnedString proxyWsKey;

  char supportedProtocolsString[ZX_SUPPORTED_PROTOCOLS_STRING_SIZE];

  // Collector link state. The flags and connection states are set by the
  // control thread and read by the data threads, hence atomic.
  std::atomic<short> closeCtrlConFlag;
  std::atomic<short> retryFlag;
  std::atomic<int> dataConnState;
  std::atomic<int> autosensorConnState;
  zx::Relaxed<long long> zxcHeartBeatThreshold;  // milliseconds
  int zxcBciDataConnectionHeartBeat;             // data-thread ticks between blank lines

  // Feature switches and limits (keyword table rows).
  zx::Relaxed<int> enableForcedFlowpathChainMode;
  zx::Relaxed<int> enableCpuTime;
  zx::Relaxed<int> bciInstrSessionPct;
  zx::Relaxed<long long> bciMaxNonServiceMethodsPerFP;
  zx::Relaxed<int> enableIPResourceURL;
  zx::Relaxed<int> hashMapClearTime;
  zx::Relaxed<int> zxEnableTxHotspot;
  zx::Relaxed<int> zxHelperDepth;
  zx::Relaxed<int> zxHotspotThreadLimit;
  zx::Relaxed<short> captureMethodForAllFP;
  zx::Relaxed<char> dumpDebugData;
  zx::Relaxed<int> maxHttpBodySize;
  zx::Relaxed<int> btRuleOverriedPolicy;
  zx::Relaxed<int> bciDataBufferMaxSize;
  zx::Relaxed<int> dataBuffMaxCount;
  zx::Relaxed<int> bciASDataBufferMaxSize;
  zx::Relaxed<int> ASDataBuffMaxCount;
  zx::Relaxed<int> ASDataBuffMinCount;
  zx::Relaxed<int> enableDBBackendName;
  zx::Relaxed<int> enableProcessNotificationPhase;
  zx::Relaxed<int> enableUpdateLogMsgForTG;
  zx::Relaxed<int> enableCallBackException;

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
