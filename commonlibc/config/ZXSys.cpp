#include "ZXSys.h"

#include <cstdio>
#include <cstdlib>

#include "zxlb_home.h"

void ZXSysInit(ZXSys_t &sys) {
  sys.controlTraceLevel = 0;
  sys.agentTraceLevel = 0;
  sys.agentHSTraceLevel = 0;
  sys.agentADTraceLevel = 0;
  sys.agentPCTraceLevel = 0;
  sys.agentEXTraceLevel = 0;
  sys.traceMaxSize = 10485760;
  sys.enableForcedFlowpathChainMode = 1;
  sys.bciMaxNonServiceMethodsPerFP = 50000;
  sys.hashMapClearTime = 30;
  sys.zxEnableTxHotspot = 1;
  sys.zxHelperDepth = 2;
  sys.zxHotspotThreadLimit = 0;
  sys.captureMethodForAllFP = 0;
  sys.dumpDebugData = 0;
  sys.maxHttpBodySize = 1024;
  sys.btRuleOverriedPolicy = 1;
  sys.bciDataBufferMaxSize = 102400;
  sys.dataBuffMaxCount = 1000;
  sys.bciASDataBufferMaxSize = 262144;
  sys.ASDataBuffMaxCount = 16;
  sys.ASDataBuffMinCount = 2;
  sys.zxcHeartBeatThreshold = 90000;
  // Half a minute of 100 ms ticks: an idle data connection still shows life.
  sys.zxcBciDataConnectionHeartBeat = 300;
  sys.enableDBBackendName = 0;
  sys.enableProcessNotificationPhase = 0;
  sys.enableUpdateLogMsgForTG = 0;
  sys.enableCallBackException = 0;
  sys.dataConnState = 1;
  sys.autosensorConnState = 1;
  sys.proxyIP.assign("127.0.0.1");
  sys.proxyPort = ZX_DEFAULT_COLLECTOR_PORT;

  // The home in use goes to the trace log once it is open (agent_init), not
  // to the host's standard error.
  const char *home = std::getenv("ZXHOME");
  sys.zxHomePath.assign(home ? home : ZX_DEFAULT_HOME);
  sys.zxBuild.assign(ZX_BUILD_NAME);
}
