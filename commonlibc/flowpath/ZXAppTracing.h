// The application object, tracing layer: per-thread slots, the thread-id
// map, the method table, the flowpaths in progress and the backend monitor.
#pragma once

#include <memory>
#include <unordered_map>
#include <vector>

#include "ZXAppRules.h"
#include "ZXBackendMonitor.h"
#include "ZXFlowpathGenerator.h"
#include "ZXManageTIdToTLocal.h"
#include "ZXMethodManager.h"
#include "ZXPerThreadData.h"
#include "ZXRunTimeChangeHandle.h"
#include "ZXSessionCookie.h"
#include "zxlb_mem_pool.h"

// The proxy's flowpaths by process slot and the process's own instance: the
// processes of one application number their flowpaths independently, so two
// of them may use the same instance at the same moment.
struct ZXFpiKey {
  int process = 0;
  long long instance = 0;
  bool operator==(const ZXFpiKey &) const = default;
};
struct ZXFpiKeyHash {
  std::size_t operator()(const ZXFpiKey &k) const noexcept {
    return std::hash<long long>{}(k.instance) ^
           (static_cast<std::size_t>(k.process) * 0x9e3779b97f4a7c15ULL);
  }
};
using ZXFpiTlsMap = std::unordered_map<ZXFpiKey, ZXPerThreadData_t *, ZXFpiKeyHash>;

struct ZXAppTracing : ZXAppRules {
  ZXAppTracing();
  ~ZXAppTracing() override;

  bool applyLayerKeyword(char *value, char *keyword, int index) override;

  ZXFlowpathIdSettings_t ZXFlowpathIds{};
  ZXSessionSettingsRecord_t ZXSessionSettings{};

  // Call-out counters per backend; documents its own lock.
  ZXBackendMonitor_t backendMonitor;

  // tlsMutex guards the free and busy lists, both counters, tlsBlocks,
  // tlsdatastruct with size_array, and g_tlsidx (below) after start-up.
  zx::NestedMutex tlsMutex;
  int gFreeTLSCnt = 0, gBusyTLSCnt = 0;
  ZXPerThreadData_t *gFreeTLSHead = nullptr, *gFreeTLSTail = nullptr;
  ZXPerThreadData_t *gBusyTLSHead = nullptr, *gBusyTLSTail = nullptr;
  std::vector<std::unique_ptr<ZXTlsBlock>> tlsBlocks;  // never shrinks
  std::unique_ptr<TLSDataStruct[]> tlsdatastruct;      // hotspot capture only
  int size_array = 0;
  int g_tlsidx = 0;
  // threadLocalMutex guards threadIdToThreadLocal.
  zx::NestedMutex threadLocalMutex;
  ZXThreadIdMap threadIdToThreadLocal;
  // methodEntryLock guards both nodes, the retirement list and
  // methodIDGlobal; instrProfileInfo is the control thread's.
  zx::NestedMutex methodEntryLock;
  ZXMethodNodePtr methodHashMapNode;
  ZXMethodNodePtr methodHashMapNodeTemp;
  ZXRetirementList methodNodeRetirement;
  ZXInstrProfileInfo_t instrProfileInfo;
  int methodIDGlobal = 1;
  int InstrFileData_flag = 1;
  // Flowpaths in progress by id; the map documents its lock.
  ZXFpiToTLS fpiToTLS;

  // In the proxy: the flowpaths this application's processes started, by
  // instance id, from their start frame to their reset frame or the sweep.
  // Null until create_fpi_tls_map. Only the proxy's decoding thread touches
  // the map, its records' slots and resetTimeInterval, so no lock.
  std::unique_ptr<ZXFpiTlsMap> fpi_tls_map;
  long long resetTimeInterval = 0;  // ms of the last stale-flowpath sweep
};

// Makes the application's empty flowpath map if it has none.
void create_fpi_tls_map(ZXAppTracing &app);
// Resets every flowpath still in the map (no record is written for it) and
// drops the map.
void free_fpi_tls_map(ZXAppTracing &app);
