// The application object: all agent state of one monitored application.
//
// One per process in an agent (published through `tlzxApplication` and
// `ZXProxyInstance`), one per served application in the proxy. Settings
// records are written by the control thread and read lock-free elsewhere;
// every other shared member names the lock that guards it.
#pragma once

#include <apr_thread_proc.h>
#include <apr_time.h>

#include <atomic>
#include <condition_variable>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "Server.h"
#include "ZXAutoSensorData.h"
#include "ZXBCISettings.h"
#include "ZXBackendMonitor.h"
#include "ZXCServerConfig.h"
#include "ZXDataDispatcher.h"
#include "ZXFeatureSettings.h"
#include "ZXSocketManager.h"
#include "ZXSupportedProtocols.h"
#include "ZXSys.h"
#include "ZXTDigest.h"
#include "bt/ZXBTManager.h"
#include "bt/ZXBTMonitor.h"
#include "bt/ZXMonitorTimer.h"
#include "zxbt/zxbt_rule_parser.h"
#include "zxlb_apr.h"
#include "zxlb_owned_string.h"
#include "zxlb_thread_done.h"

#include "ZXMethodManager.h"
#include "ZXRunTimeChangeHandle.h"
#include "flowpath/ZXFlowpathGenerator.h"
#include "flowpath/ZXManageTIdToTLocal.h"

struct retryPolicy_t {
  char version[32] = {};
  char num_retry = 3;
  int count = 0;
  int reply_unsuccessful_count = 10;
  int heartbeat_reply_timeout_check = 6;
  apr_interval_time_t time_interval = apr_time_from_sec(60);
  apr_interval_time_t health_check_request_interval = apr_time_from_sec(60);
};

// Read buffer of the control connection: bytes between readOffset and
// writeOffset are received and not yet framed into lines.
struct controlSocketBuffer_t {
  std::unique_ptr<char[]> read_socket_buf;
  int read_len = 0;  // capacity
  int readOffset = 0;
  int writeOffset = 0;
  int readBytes = 0;
  // Set while the rest of a line too long for the buffer is being skipped.
  bool discardingLine = false;
  std::string lastReply;  // the connection reply last judged
};
inline constexpr int ZX_CTRL_READ_BUFFER_SIZE = 262144;
inline constexpr int ZX_HOST_TEXT_SIZE = 256;

// Both ends of one connection to the collector (or the proxy).
struct socketInfo_t {
  char sourceIp[ZX_IP_TEXT_SIZE] = {};
  int srcPort = 0;
  char dstIp[ZX_HOST_TEXT_SIZE] = {};
  int dstPort = 0;
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

struct ZXProxyInstance_t {
  ZXProxyInstance_t();
  ~ZXProxyInstance_t();
  ZXProxyInstance_t(const ZXProxyInstance_t &) = delete;
  ZXProxyInstance_t &operator=(const ZXProxyInstance_t &) = delete;

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
  ZXFlowpathIdSettings_t ZXFlowpathIds{};
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

  // Collector list, failover and retry state (control thread only).
  ZXCServerList zxc_server_arr;
  retryPolicy_t retry_policy;
  int heartbeat_count = 0;
  char zx_dr_state = 0;
  char is_switch_over = 0;
  char health_check_fail = 0;
  int isMasterZxc = 0;
  int ActiveAgentProtocolIndex = 0;
  int lws_active = 0;
  int proxy_lws_active = 0;

  // Protocol lists: the agent's own and the collector's offer. Each list
  // carries its own lock (supportedProtocolsLock / supportedProtocolsZXCLock).
  ZXSupportedProtocols supportedProtocols;
  ZXSupportedProtocols supportedProtocolsZXC;

  // Process filter table, offered to the host.
  std::vector<processInfo_t> processInfoStruct;
  int total_process_entries = 0;

  // Send buffers between producers and the data thread; the pool documents
  // its two locks.
  ZXSendBufferPool sendBuffers;

  // Process-wide locks created at start-up.
  zx::NestedMutex controlThreadTmpLock;
  zx::NestedMutex methodEntryLock;
  zx::NestedMutex zxTDHashMapLock;

  // Business transactions. btRules is the rule set in force, read by request
  // threads without a lock and replaced whole by a rule-file read; the BT
  // manager and the BT monitor's slots document their own locks.
  ZXBTRules btRules;
  ZXBTManager btManager;
  ZXBTMonitor_t btMonitor;
  // Call-out counters per backend; documents its own lock.
  ZXBackendMonitor_t backendMonitor;

  // Transaction tracing: per-thread slots and the method table.
  // tlsMutex guards the free and busy lists, both counters, tlsBlocks,
  // tlsdatastruct with size_array, and g_tlsidx (below) after start-up.
  zx::NestedMutex tlsMutex;
  int gFreeTLSCnt = 0, gBusyTLSCnt = 0;
  ZXPerThreadData_t *gFreeTLSHead = nullptr, *gFreeTLSTail = nullptr;
  ZXPerThreadData_t *gBusyTLSHead = nullptr, *gBusyTLSTail = nullptr;
  std::vector<std::unique_ptr<ZXPerThreadData_t[]>> tlsBlocks;  // never shrinks
  std::unique_ptr<TLSDataStruct[]> tlsdatastruct;               // hotspot capture only
  int size_array = 0;
  // threadLocalMutex guards threadIdToThreadLocal.
  zx::NestedMutex threadLocalMutex;
  ZXThreadIdMap threadIdToThreadLocal;
  // methodEntryLock (above) guards both nodes, the retirement list and
  // methodIDGlobal; instrProfileInfo is the control thread's.
  ZXMethodNodePtr methodHashMapNode;
  ZXMethodNodePtr methodHashMapNodeTemp;
  ZXRetirementList methodNodeRetirement;
  ZXInstrProfileInfo_t instrProfileInfo;
  // Flowpaths in progress by id; the map documents its lock.
  ZXFpiToTLS fpiToTLS;

  // Defaults of initializeZXApplicationGlobal.
  int maxBuffersAS = 0;
  int dataBufferSizeAS = 0;
  int methodIDGlobal = 0, httpid = 0, resourceMetaID = 0;
  int enable_DD_AI = 0, instrumentSleep = 0;
  long long GloTimStmp = 0;
  int allSlow = 0, allVerySlow = 0;
  int maxStates = 0;
  int skipCount = 0, dumpHeartBeatforLog = 0;
  long long lastLogSentTime = 0;
  int init_flag = 0, InstrFileData_flag = 0;
  int isRunTime = 0, isModifiedHashmap = 0;
  apr_interval_time_t TimeOut = 0;
  int reqCount = 0, xPathCount = 0, g_tlsidx = 0, trace_level = 0;
  int zxProxyMode = 0;

  // Control connection. The control thread alone reads, writes and replaces
  // it; ctrlConnLock guards replacing `zxcCtrlSocket` against other threads
  // calling its wakeup().
  controlSocketBuffer_t ctrlBufInfo;
  socketInfo_t control;
  std::mutex ctrlConnLock;
  std::unique_ptr<ZXConnection> zxcCtrlSocket;
  bool askMasterZxc = false;  // the next pass uses entry 0 (cluster mode)
  // The link state last written to the trace log at every level, so that an
  // outage costs one line, not one per attempt. Control thread only.
  enum class LinkReport { None, Up, Down } ctrlLinkReported = LinkReport::None;
  zx::OwnedString startInstMsg;
  int processCount = 0;            // attached application processes (proxy server)
  long long totalElapsedTime = 0;  // ms; start of the current connection

  ZXLinkTimings_t linkTimings;
  // Link timings from the settings file ("zxcRetryIntervalMs",
  // "zxcConnectTimeoutMs"; 0 keeps the default). Read by agent_init only,
  // before the control thread starts; later settings passes change nothing.
  struct {
    int retryIntervalMs = 0;
    int connectTimeoutMs = 0;
  } startupLinkTimings;

  // Data connection and its thread. The data thread alone uses the
  // connection; dataConnLock guards replacing `zxcDataSocket` against
  // wakeup() from other threads. dataThreadLock serialises starting and
  // stopping the thread (control thread, shutdown).
  socketInfo_t dataSkt;
  // dataEndpointLock guards dataSkt's destination and the fields below,
  // prepared by the control thread (identity strings may change under
  // keywords, so the data thread never reads them itself).
  std::mutex dataEndpointLock;
  std::string dataRequestText;
  std::string newConnectionRecordText;
  int dataProtocol = ZX_PROTO_TCP;
  std::mutex dataConnLock;
  std::unique_ptr<ZXConnection> zxcDataSocket;
  std::mutex dataThreadLock;
  zx::PoolPtr data_pool;
  apr_thread_t *data_thread_id = nullptr;
  zx::ThreadDone dataThreadDone;
  std::atomic<bool> dataThreadRunning{false};
  std::atomic<int> stopDataThread{0};  // setToStopThread
  std::mutex dataWakeMutex;            // guards dataWakeRequested; with dataWakeCond
  std::condition_variable dataWakeCond;
  bool dataWakeRequested = false;
  int curBuffers = 0;

  // The control thread. Its waits are interruptible so that the agent can be
  // stopped (unload, tests) without waiting out a retry interval.
  apr_thread_t *control_thread = nullptr;
  zx::ThreadDone controlThreadDone;
  std::mutex wakeMutex;  // guards wakeRequested, with stopRequested
  std::condition_variable wakeCond;
  bool wakeRequested = false;
  std::atomic<bool> stopRequested{false};
  std::atomic<int> controlThreadState{0};

  // Waits up to `interval`; returns early (true) when woken or stopping.
  bool controlSleep(apr_interval_time_t interval);
  void wakeControlThread();

  // BT monitor reporting: t-digest settings and period, the auto-sensor data
  // connection that carries record 96, and the monitoring timer. Declared
  // last so that the timer, then the auto-sensor sender, stop before anything
  // they use goes away; each type documents its own locks.
  ZXTDigest_t tDigest;
  ZXASDataLink asData;
  ZXMonitorTimer monitorTimer;
};

// The process's application object; both always hold the same pointer.
extern "C" ZXProxyInstance_t *tlzxApplication;
extern "C" ZXProxyInstance_t *ZXProxyInstance;
