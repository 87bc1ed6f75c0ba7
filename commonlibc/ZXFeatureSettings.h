// Smaller per-feature settings records that keyword rows write by offset,
// plus the few switches other features read. Same lock rules as ZXSys_t.
#pragma once

#include <type_traits>

struct ZXAutoInstrumentation_t {
  int autoInstrSampleThreshold;  // also written by "autoInstrSampleInterval"
  int autoInstrTraceLevel;
  int autoInstrMapSize;
  double autoInstrPct;
  int autoInstrDurationThreshold;
  double autoUnInstrPct;
};

struct ZXFlowpathGeneratorSettings_t {
  int maxCharactersInSeqBlob;
};

struct ZXInterfaceProcessor_t {
  int interfaceTraceLevel;
};

struct ZXDynamicSettings_t {
  int ddTraceLevel;
};

struct ZXASsettings_t {
  int ASSampleInterval;
  int ASReportInterval;
};

struct ZXBTMonitorSettings_t {
  int enableBTMonitor;
};

struct ZXBackendMonitorSettings_t {
  int enableBackendMonitor;
};

struct ZXAutoSensorUsingStackTrace_t {
  int enabled;
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
