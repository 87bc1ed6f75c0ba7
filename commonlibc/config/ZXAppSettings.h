// The application object, first layer: settings records, identity and the
// collector list of one monitored application.
//
// The application object is built in layers, one per folder, each deriving
// from the one below and adding what its folder owns:
//
//   ZXAppSettings (config) <- ZXAppLink (transport) <- ZXAppMonitors (bt)
//     <- ZXAppRules (zxbt) <- ZXAppTracing (flowpath) <- ZXAppControl (control)
//     <- ZXProxyInstance_t (agent)
//
// Code in a folder takes the layer of its folder and never sees the members
// of a layer above it; each layer makes its members' defaults and locks in
// its constructor and stops its own threads in its destructor, so the
// highest layer's threads stop first. Settings records are written by the
// control thread and read lock-free elsewhere; every other shared member
// names the lock that guards it.
#pragma once

#include <atomic>

#include <apr_time.h>

#include <cstdarg>
#include <memory>
#include <vector>

#include "Server.h"
#include "ZXBCISettings.h"
#include "ZXCServerConfig.h"
#include "ZXFeatureSettings.h"
#include "ZXSupportedProtocols.h"
#include "ZXSys.h"
#include "ZXTlsSettings.h"
#include "zxlb_apr.h"
#include "zxlb_log_context.h"
#include "zxlb_owned_string.h"

struct retryPolicy_t {
  char version[32] = {};
  char num_retry = 3;
  int count = 0;
  int reply_unsuccessful_count = 10;
  int heartbeat_reply_timeout_check = 6;
  apr_interval_time_t time_interval = apr_time_from_sec(60);
  apr_interval_time_t health_check_request_interval = apr_time_from_sec(60);
};

// Timing of the collector link. The defaults are the protocol's; tests and
// embedders may shorten them before the control thread starts (the retry
// policy takes its interval from here).
struct ZXLinkTimings_t {
  apr_interval_time_t retryInterval = apr_time_from_sec(60);
  apr_interval_time_t ctrlPollTimeout = apr_time_from_sec(10);
  apr_interval_time_t connectTimeout = apr_time_from_sec(10);
  apr_interval_time_t ctrlIoTimeout = apr_time_from_sec(10);  // a send making no progress
  apr_interval_time_t dataConnRetryInterval = apr_time_from_sec(60);
  apr_interval_time_t dataTick = apr_time_from_msec(100);
  apr_interval_time_t dataIoTimeout = apr_time_from_msec(100);
  // The agent's share of a host's exit: queued records are sent and threads
  // joined until then; what is still queued is counted lost, and a thread
  // still busy (a name lookup) is left behind. Keeps exit under 1 s.
  apr_interval_time_t exitDeadline = apr_time_from_msec(800);
};

struct processInfo_t {
  zx::OwnedString name;
  int flag = 0;
};

struct ZXAppSettings : zx::LogContext {
  ZXAppSettings();
  ~ZXAppSettings() override;
  ZXAppSettings(const ZXAppSettings &) = delete;
  ZXAppSettings &operator=(const ZXAppSettings &) = delete;

  // Keyword rows whose effect belongs to a folder above this one (a parser
  // row of the keyword table): each layer handles its own rows and passes
  // the rest down. false when no layer owns the keyword.
  virtual bool applyLayerKeyword(char *value, char *keyword, int index);

  // zx::LogContext: the trace log's view of this application.
  int traceLevel(Area area) const noexcept override;
  long long traceMaxSize() const noexcept override;
  int logMode() const noexcept override;
  bool proxyProcess() const noexcept override;
  // An application process of proxy mode: its engine entry points send each
  // event to the proxy as a frame and trace nothing locally.
  // (ZXSys.proxyServerFlag mirrors the process-wide flag from start-up on.)
  bool sendsEventsToProxy() const noexcept { return ZXSys.proxyMode && !ZXSys.proxyServerFlag; }
  int testRunId() const noexcept override;
  const char *buildText() const noexcept override;
  bool keepAgentLogLine(const char *threadName, long long threadId, const char *severity,
                        const char *file, int line, const char *fname, const char *format,
                        va_list ap) override;

  // Declared first so that APR and the pools outlive every object made
  // from them.
  zx::AprSession apr_session;
  zx::PoolPtr control_pool;
  zx::PoolPtr proxy_pool;

  // Settings records (keyword table targets).
  ZXSys_t ZXSys{};
  ZXBCISetting_t ZXBCISetting{};
  Server_t Server{};
  ZXAutoInstrumentation_t zxAutoInstrumentation{};
  ZXFlowpathGeneratorSettings_t ZXFlowpathGenerator{};
  ZXInterfaceProcessor_t ZXInterfaceProcessor{};
  ZXDynamicSettings_t ZXDynamicSettings{};
  ZXASsettings_t ZXASsettings{};
  ZXBTMonitorSettings_t ZXBTMonitor{};
  ZXBackendMonitorSettings_t ZXBackendMonitor{};
  ZXAutoSensorUsingStackTrace_t zxAutoSensorUsingStackTrace{};
  ZXSettings_t ZXSettings{};
  ZXAgentSetting_t ZXAgentSetting{};

  // Raw values of feature keywords whose features parse them on use; indexed
  // by keyword row. Control thread only.
  zx::OwnedString featureKeywordValues[ZX_KEYWORD_COUNT];

  // Lines gathered for the proxy in log mode 2; guarded by agentLogLock.
  zx::NestedMutex agentLogLock;
  std::unique_ptr<char[]> agentLogBuffer;

  // Identity beyond the settings records.
  zx::OwnedString agentName;
  zx::OwnedString pool_name;
  zx::OwnedString proc_name;
  long long processID = 0;
  long long agentStartTime = 0;  // milliseconds

  // Settings-file values kept as read: the file's proxyMode (ZXSys.proxyMode
  // mirrors it) and instrumentSleep (for the host's diagnostics).
  int zxProxyMode = 0;
  int instrumentSleep = 0;

  // Collector list and retry policy (control thread only).
  ZXCServerList zxc_server_arr;
  retryPolicy_t retry_policy;
  char zx_dr_state = 0;
  char health_check_fail = 0;
  int active_zxc_idx = 0;  // the collector in use

  // Protocol lists: the agent's own and the collector's offer. Each list
  // carries its own lock (supportedProtocolsLock / supportedProtocolsZXCLock).
  ZXSupportedProtocols supportedProtocols;
  ZXSupportedProtocols supportedProtocolsZXC;

  // Process filter table, offered to the host.
  std::vector<processInfo_t> processInfoStruct;
  int total_process_entries = 0;

  ZXLinkTimings_t linkTimings;
  // How WSS connections judge the collector ("zxTlsCaFile", "zxTlsVerifyPeer"
  // and their MOR_APP_AGENT_* variables). Written by the control thread while
  // it reads settings; the data and auto-sensor links use their own copies.
  ZXTlsSettings tls;
  // "tDigestIntervalSumsBT" (MOR_APP_AGENT_TDIGESTINTERVALSUMSBT): feed each
  // BT's t-digest one point per thread and interval, that thread's duration
  // sum, instead of every response time; for collectors that expect those
  // points. Written while settings are read, read by the BT monitor.
  std::atomic<bool> tDigestIntervalSumsBT{false};
  // Link timings from the settings file ("zxcRetryIntervalMs",
  // "zxcConnectTimeoutMs"; 0 keeps the default). Read by agent_init only,
  // before the control thread starts; later settings passes change nothing.
  struct {
    int retryIntervalMs = 0;
    int connectTimeoutMs = 0;
  } startupLinkTimings;
};

namespace zx {

// The application the calling thread works for (published with
// ThreadAppScope), else the process's; null before start-up. For code with
// no application at hand: hosts' entry points without a handle, keyword
// setters, log gates.
inline ZXAppSettings *currentAppSettings() noexcept {
  return static_cast<ZXAppSettings *>(currentLogContext());
}
template <class Layer>
Layer *currentApp() noexcept {
  return static_cast<Layer *>(currentAppSettings());
}
inline ZXAppSettings *processApp() noexcept {
  return static_cast<ZXAppSettings *>(processLogContext());
}
inline void setProcessApp(ZXAppSettings *app) noexcept {
  setProcessLogContext(app);
}

// Publishes `app` as the calling thread's application for the scope's life.
class ThreadAppScope {
 public:
  explicit ThreadAppScope(ZXAppSettings *app) noexcept : scope_(app) {}

 private:
  ThreadLogScope scope_;
};

}  // namespace zx
