// Business-transaction objects: one per BT name, made by the rule readers
// and by request threads naming a new BT, and never freed while the agent
// runs (the BT manager keeps every one). Request threads read them without a
// lock, so every field that changes after an object is published is atomic;
// the name never changes.
//
// Ids: 1 = "Others", 0 = the overall monitor slot, 2..max_bt_count handed
// out at run time, pattern rules bring their own; -2 marks an excluded
// request and never names an object.
#pragma once

#include <atomic>

#include "zxbt_published.h"

struct ZXProxyInstance_t;

inline constexpr int ZXBT_NAME_SIZE = 257;  // 256 characters kept
inline constexpr int ZXBT_OTHERS_ID = 1;
inline constexpr int ZXBT_EXCLUDED_ID = -2;
inline constexpr int ZXBT_MAX_BT_COUNT = 256;
inline constexpr int ZXBT_META_RECORD_SIZE = 1024;

// Categories of a finished transaction.
enum : char {
  ZXBT_CATEGORY_NONE = 0,
  ZXBT_CATEGORY_NORMAL = 10,
  ZXBT_CATEGORY_SLOW = 11,
  ZXBT_CATEGORY_VERY_SLOW = 12,
  ZXBT_CATEGORY_ERROR = 13,
};

struct Threshold {
  std::atomic<int> slow{0};  // milliseconds
  std::atomic<int> very_slow{0};
};

struct BTObject {
  char bt_name[ZXBT_NAME_SIZE] = {};
  std::atomic<char> bt_category{ZXBT_CATEGORY_NONE};
  std::atomic<int> is_meta_data_dumped{0};
  std::atomic<int> bt_id{0};
  // Dynamic-diagnostics window, seconds.
  std::atomic<long long> bt_startTime{0};
  std::atomic<long long> bt_endTime{0};
  std::atomic<long long> dd_IntervalTime{0};
  std::atomic<char> AIFlag{0};
  Threshold bt_threshold;
  // Rule hierarchy ids, stored for the method-based rules.
  std::atomic<int> selfID{0};
  std::atomic<int> parentID{0};
  // Owned by body capture and the method-based rules, which are built
  // elsewhere; kept here so that the object has its full shape.
  int enableBodyCapture = 0;
  int maxBodySize = 0;
  int prevPID = 0;
  int isBTOverride = 0;
  int btCounter = 0;
};

// Dynamic-diagnostics auto-instrumentation switch and window length, set by
// the diagnostics subsystem; read on every BT look-up.
struct ZXBTDynamicDiagnostics {
  std::atomic<int> enableDDAI{0};
  std::atomic<long long> ddAIInterval{0};  // seconds
};

// Applies the window rule to a found object when auto-instrumentation is on.
void zxbt_apply_dd_window(BTObject *obj);

// A new object: name cut to 256 characters, bt_id only when positive. Made
// in the BT manager's arena, so it lives as long as the application; the
// caller holds the manager lock. Null when memory is short.
BTObject *make_new_bt_obj(const char *bt_name, int bt_id, int slow, int verySlow);

// The configuration object for a name (see the rule reader): created and
// kept when bt_id >= 1, a throw-away otherwise. Takes the manager lock.
BTObject *find_bt_obj_in_config_map(const char *bt_name, int bt_id, int slow, int verySlow,
                                    int selfID, int parentID);

// As find_bt_obj_in_config_map, but a throw-away object is made in
// *scratch (zeroed by the caller) rather than kept in the arena.
BTObject *zxbt_config_object(const char *bt_name, int bt_id, int slow, int verySlow, int selfID,
                             int parentID, BTObject *scratch);

// The application's default thresholds (allSlow, allVerySlow), read and
// written under the manager lock.
void zxbt_default_thresholds(int *slow, int *verySlow);
void zxbt_set_default_thresholds(int slow, int verySlow);

// Plain lock-free look-up in the manager map.
BTObject *find_bt_obj_in_manager_map(const char *bt_name);

// Finds or creates the object that requests named bt_name are attributed
// to. bt_name must hold ZXBT_NAME_SIZE bytes: past the id limit it is
// overwritten with "Others". Null when no object could be made.
BTObject *updateBTObject(char *bt_name);

// Record 7, "7,<id>,<name>\n", through dumpData.
void dumpBtMetaData(const char *BtName, int BtId);

// Clears both maps and the id counter, starts the BT monitor, registers the
// file-keyword readers and reads "<home>/BTThresholdFile.txt" and
// "<home>/BTRuleFile.txt", then applies the default global rule when no rule
// family was set. 0, or -1 without an application object.
int ZXBTConfigModelInit();
