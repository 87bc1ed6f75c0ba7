// Business-transaction objects as the rules make them: creation, look-up,
// the dynamic-diagnostics window and record 7. The object record itself and
// the store that owns every object are the BT manager's (ZXBTManager.h).
#pragma once

#include "ZXBTManager.h"

struct ZXAppRules;

inline constexpr int ZXBT_META_RECORD_SIZE = 1024;

// Applies the window rule to a found object when auto-instrumentation is on.
void zxbt_apply_dd_window(const ZXAppRules &app, BTObject *obj);

// A new object: name cut to 256 characters, bt_id only when positive. Made
// in the BT manager's arena, so it lives as long as the application; the
// caller holds the manager lock. Null when memory is short.
BTObject *make_new_bt_obj(ZXAppRules &app, const char *bt_name, int bt_id, int slow, int verySlow);

// The configuration object for a name (see the rule reader): created and
// kept when bt_id >= 1, a throw-away otherwise. Takes the manager lock.
BTObject *find_bt_obj_in_config_map(ZXAppRules &app, const char *bt_name, int bt_id, int slow,
                                    int verySlow, int selfID, int parentID);

// As find_bt_obj_in_config_map, but a throw-away object is made in
// *scratch (zeroed by the caller) rather than kept in the arena.
BTObject *zxbt_config_object(ZXAppRules &app, const char *bt_name, int bt_id, int slow,
                             int verySlow, int selfID, int parentID, BTObject *scratch);

// The application's default thresholds (allSlow, allVerySlow), read and
// written under the manager lock.
void zxbt_default_thresholds(ZXAppRules &app, int *slow, int *verySlow);
void zxbt_set_default_thresholds(ZXAppRules &app, int slow, int verySlow);

// Plain lock-free look-up in the manager map.
BTObject *find_bt_obj_in_manager_map(const ZXAppRules &app, const char *bt_name);

// Finds or creates the object that requests named bt_name are attributed
// to. bt_name must hold ZXBT_NAME_SIZE bytes: past the id limit it is
// overwritten with "Others". Null when no object could be made.
BTObject *updateBTObject(ZXAppRules &app, char *bt_name);

// Record 7, "7,<id>,<name>\n", through dumpData.
void dumpBtMetaData(ZXAppRules &app, const char *BtName, int BtId);
