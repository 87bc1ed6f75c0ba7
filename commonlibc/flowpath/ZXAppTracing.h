// The application object, tracing layer: per-thread slots, the thread-id
// map, the method table, the flowpaths in progress and the backend monitor.
#pragma once

#include <memory>
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
};
