// State exchanged with the collector (`Server_t`) and the keyword table that
// applies collector messages to all settings records.
//
// The table is one static array of 133 rows in a fixed order; a row either
// names a field (record, byte offset, width, converter) or a parser with its
// own logic. Keywords are applied on the control thread only; every numeric
// field a row names is a zx::Relaxed of the row's width, which the converters
// store into atomically, so readers on other threads need no lock.
#pragma once

#include <atomic>
#include <type_traits>

#include "zxlb_relaxed.h"

inline constexpr int ZX_STATUS_VALUE_SIZE = 64;
inline constexpr int ZX_FPG_VERSION_SIZE = 10;
inline constexpr int ZX_CONN_DESTINATION_SIZE = 1024;
inline constexpr int ZX_START_RESP_BUFFER_SIZE = 1024;
inline constexpr long long ZX_ORIGINAL_EPOCH_DIFF_MS = 1388534400000LL;  // 2014-01-01 UTC

// Numbers that a keyword row writes or that other threads read (agent time
// and the stop flag on every flowpath, the test run in every trace line) are
// Relaxed; the texts (statusValue, fpgVID, connDestination,
// startInstrRespBuffer) and the plain numbers are the control thread's alone.
struct Server_t {
  char statusValue[ZX_STATUS_VALUE_SIZE];
  zx::Relaxed<long long> diffTimeFromZXC;
  char fpgVID[ZX_FPG_VERSION_SIZE];
  zx::Relaxed<int> numInstrProfile;
  zx::Relaxed<char> setInstrumentTraceLevel;
  zx::Relaxed<int> dumpremainingtstime;  // minutes to drain before a stop
  zx::Relaxed<long long> morEpochDiffTime;
  long long originalMorEpochDiffTime;
  long long changeOriginalTime;
  zx::Relaxed<int> TestRunIDValue;
  int isClusterMode;

  // Control-link state.
  long long lastHeartBeatRcvTime;
  long long lastConnectionTime;
  long long connDuration;
  char connDestination[ZX_CONN_DESTINATION_SIZE];
  int requestType;

  // Run state. The atomic ones are read off the control thread (data thread,
  // application threads).
  int controlCommunicationBusyFlag;
  std::atomic<int> InstrumentationBusy;
  std::atomic<int> testRunRunning;
  std::atomic<int> retryForDataConn;
  std::atomic<int> retryForAutoSensorConn;
  zx::Relaxed<int> gettingstopInstrumenatation;
  int numberOfTestRunsTillNow;
  int captrueIndependentQuery;
  char isRuntimeApplied;
  zx::Relaxed<int> isTenRecordDump;
  char startInstrRespBuffer[ZX_START_RESP_BUFFER_SIZE];
};
static_assert(std::is_standard_layout_v<Server_t>);

inline constexpr int ZX_KEYWORD_COUNT = 133;
inline constexpr int ZX_KEYWORD_NAME_SIZE = 32;
inline constexpr int ZX_MAX_MESSAGE_TOKENS = 1024;

struct ZXAppSettings;
using zx_keyword_parser_t = void (*)(ZXAppSettings &app, char *value, char *keyword, int index);
using zx_keyword_setter_t = void (*)(ZXAppSettings &app, int index, char *value);
using zx_keyword_converter_t = void (*)(void *target, const char *value, int length);

struct zx_keyword_row_t {
  char name[ZX_KEYWORD_NAME_SIZE];
  int offset;  // -1 for parser rows
  int length;  // bytes the converter writes; 0 for parser rows
  zx_keyword_parser_t parser;
  zx_keyword_setter_t setter;
  zx_keyword_converter_t fill_data;
};

extern const zx_keyword_row_t keywordsMap[ZX_KEYWORD_COUNT];

// Row index by exact, case-sensitive name; -1 for null or unknown.
int NameToIndex(const char *keyword);

// Converters: write exactly `length` bytes (at most 8 for numbers) of the
// value, little-endian low bytes first. fill_char_data never reads past the
// value's terminator: a shorter value is zero-padded to the width.
void fill_int_data(void *target, const char *value, int length);
void fill_long_long_data(void *target, const char *value, int length);
void fill_double_data(void *target, const char *value, int length);
void fill_char_data(void *target, const char *value, int length);

// Setters: target = record base + row offset.
void fill_server_info(ZXAppSettings &app, int index, char *value);
void fill_ZXSys_info(ZXAppSettings &app, int index, char *value);
void fill_ZXBCISetting_info(ZXAppSettings &app, int index, char *value);
void fill_ZXAutoInstrumentation_info(ZXAppSettings &app, int index, char *value);
void fill_ZXFlowpathGenerator_info(ZXAppSettings &app, int index, char *value);
void fill_ZXInterfaceProcessor_info(ZXAppSettings &app, int index, char *value);
void fill_ZXDynamicSettings_info(ZXAppSettings &app, int index, char *value);
void fill_ZXASsettings_info(ZXAppSettings &app, int index, char *value);
void fill_ZXBTMonitor_info(ZXAppSettings &app, int index, char *value);
void fill_ZXBackendMonitor_info(ZXAppSettings &app, int index, char *value);
void fill_zxAutoSensorUsingStackTrace_info(ZXAppSettings &app, int index, char *value);

// Applies the keyword list of a collector message. The message is split in
// place (";" becomes a terminator), as the collector's text is ours to use.
void findStatusFromClientMsg(ZXAppSettings &app, char *message);

// Defaults reset before a fresh keyword set is applied (start of a run).
void zxlb_init_all_keywords(ZXAppSettings &app);
