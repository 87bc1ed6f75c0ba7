// Smaller per-feature settings records that keyword rows write by offset,
// plus the few switches other features read. Same lock rules as ZXSys_t:
// every field a fill_*_info setter can address is a zx::Relaxed. The last two
// records are the control thread's (ZXSettings) or fixed at start-up.
#pragma once

#include <type_traits>

#include "zxlb_relaxed.h"

struct ZXAutoInstrumentation_t {
  zx::Relaxed<int> autoInstrSampleThreshold;  // also written by "autoInstrSampleInterval"
  zx::Relaxed<int> autoInstrTraceLevel;
  zx::Relaxed<int> autoInstrMapSize;
  zx::Relaxed<double> autoInstrPct;
  zx::Relaxed<int> autoInstrDurationThreshold;
  zx::Relaxed<double> autoUnInstrPct;
};

struct ZXFlowpathGeneratorSettings_t {
  zx::Relaxed<int> maxCharactersInSeqBlob;
};

struct ZXInterfaceProcessor_t {
  zx::Relaxed<int> interfaceTraceLevel;
};

struct ZXDynamicSettings_t {
  zx::Relaxed<int> ddTraceLevel;
};

struct ZXASsettings_t {
  zx::Relaxed<int> ASSampleInterval;
  zx::Relaxed<int> ASReportInterval;
};

struct ZXBTMonitorSettings_t {
  zx::Relaxed<int> enableBTMonitor;
};

struct ZXBackendMonitorSettings_t {
  zx::Relaxed<int> enableBackendMonitor;
};

struct ZXAutoSensorUsingStackTrace_t {
  zx::Relaxed<int> enabled;
};

struct ZXSettings_t {
  char zxVectorSeperator;
};

struct ZXAgentSetting_t {
  int enableProxyServer;
};

static_assert(std::is_standard_layout_v<ZXAutoInstrumentation_t> &&
              std::is_standard_layout_v<ZXFlowpathGeneratorSettings_t> &&
              std::is_standard_layout_v<ZXInterfaceProcessor_t>);
