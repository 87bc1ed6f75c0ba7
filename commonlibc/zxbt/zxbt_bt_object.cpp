#include "zxbt_bt_object.h"

#include <apr_time.h>

#include <cstdio>
#include <new>
#include <string>

#include "ZXAppRules.h"
#include "ZXDataDispatcher.h"
#include "zxbt_utils.h"

namespace {

void init_bt_obj(BTObject &o, const char *bt_name, int bt_id, int slow, int verySlow) {
  zxbt_copy(o.bt_name, sizeof o.bt_name, bt_name);
  if (bt_id > 0) o.bt_id.store(bt_id, std::memory_order_relaxed);
  o.bt_threshold.slow.store(slow, std::memory_order_relaxed);
  o.bt_threshold.very_slow.store(verySlow, std::memory_order_relaxed);
  o.is_meta_data_dumped.store(0, std::memory_order_relaxed);
}

long long now_secs() {
  return static_cast<long long>(apr_time_sec(apr_time_now()));
}

void set_dd_window(BTObject *obj, const ZXBTDynamicDiagnostics &dd) {
  const long long now = now_secs();
  const long long interval = dd.ddAIInterval.load(std::memory_order_relaxed);
  obj->bt_startTime.store(now, std::memory_order_relaxed);
  obj->dd_IntervalTime.store(interval, std::memory_order_relaxed);
  obj->bt_endTime.store(now + interval, std::memory_order_relaxed);
  obj->AIFlag.store(1, std::memory_order_relaxed);
}

}  // namespace

void zxbt_apply_dd_window(const ZXAppRules &app, BTObject *obj) {
  if (!obj) return;
  const ZXBTDynamicDiagnostics &dd = app.btManager.dd;
  if (dd.enableDDAI.load(std::memory_order_relaxed) == 1) set_dd_window(obj, dd);
}

BTObject *make_new_bt_obj(ZXAppRules &app, const char *bt_name, int bt_id, int slow, int verySlow) {
  if (!bt_name) return nullptr;
  std::lock_guard guard(app.btManager.bt_obj_map_lock);
  BTObject *o;
  try {
    o = &app.btManager.objects.emplace_back();
  } catch (const std::bad_alloc &) {
    ZX_LOG_OOM(sizeof(BTObject), "BT object", bt_id);
    return nullptr;
  }
  init_bt_obj(*o, bt_name, bt_id, slow, verySlow);
  return o;
}

void zxbt_default_thresholds(ZXAppRules &app, int *slow, int *verySlow) {
  std::lock_guard guard(app.btManager.bt_obj_map_lock);
  *slow = app.allSlow;
  *verySlow = app.allVerySlow;
}

void zxbt_set_default_thresholds(ZXAppRules &app, int slow, int verySlow) {
  std::lock_guard guard(app.btManager.bt_obj_map_lock);
  app.allSlow = slow;
  app.allVerySlow = verySlow;
}

BTObject *zxbt_config_object(ZXAppRules &app, const char *bt_name, int bt_id, int slow,
                             int verySlow, int selfID, int parentID, BTObject *scratch) {
  if (!bt_name) return nullptr;
  ZXBTManager &mgr = app.btManager;
  std::lock_guard guard(mgr.bt_obj_map_lock);
  BTObject *obj = mgr.config.bt_obj_map.get(bt_name);
  ZXBT_APP_LOG(app, 1, "Info", "bt obj in config map:%p", static_cast<void *>(obj));
  // The atomic twin of ZXBCISetting.data_thread_running: request threads read it.
  const bool live_run =
      app.Server.testRunRunning && app.dataThreadRunning.load(std::memory_order_acquire);
  if (live_run && obj) {
    obj->bt_threshold.slow.store(slow, std::memory_order_relaxed);
    obj->bt_threshold.very_slow.store(verySlow, std::memory_order_relaxed);
    app.allSlow = slow;
    app.allVerySlow = verySlow;
    insert_in_hasmap(bt_name, obj, mgr.config.bt_obj_map);
    ZXBT_APP_LOG(app, 0, "Info", "Value update for category slw is:%d,very slw:%d", slow, verySlow);
  }
  bool created = false;
  if (!obj && bt_id >= 1) {
    obj = make_new_bt_obj(app, bt_name, bt_id, slow, verySlow);
    if (!obj) return nullptr;
    created = true;
    if (live_run) {
      dumpBtMetaData(app, obj->bt_name, bt_id);
      obj->is_meta_data_dumped.store(1, std::memory_order_relaxed);
    }
    insert_in_hasmap(bt_name, obj, mgr.config.bt_obj_map);
  } else if (!obj) {
    if (scratch) {
      init_bt_obj(*scratch, bt_name, bt_id, slow, verySlow);
      obj = scratch;
    } else {
      obj = make_new_bt_obj(app, bt_name, bt_id, slow, verySlow);
      if (!obj) return nullptr;
    }
  }
  if (bt_id > 0) {
    obj->bt_id.store(bt_id, std::memory_order_relaxed);
    if (created && bt_id >= 2) {
      const int total = mgr.config.total_bt_count.load(std::memory_order_relaxed) + 1;
      mgr.config.total_bt_count.store(total, std::memory_order_relaxed);
      ZXBT_APP_LOG(app, 1, "Info", "Enter in config map of config value:%d", total);
    }
    obj->selfID.store(selfID, std::memory_order_relaxed);
    obj->parentID.store(parentID, std::memory_order_relaxed);
    insert_in_hasmap(bt_name, obj, mgr.bt_obj_map);
  }
  return obj;
}

BTObject *find_bt_obj_in_config_map(ZXAppRules &app, const char *bt_name, int bt_id, int slow,
                                    int verySlow, int selfID, int parentID) {
  return zxbt_config_object(app, bt_name, bt_id, slow, verySlow, selfID, parentID, nullptr);
}

BTObject *find_bt_obj_in_manager_map(const ZXAppRules &app, const char *bt_name) {
  if (!bt_name) return nullptr;
  return app.btManager.bt_obj_map.get(bt_name);
}

BTObject *updateBTObject(ZXAppRules &app, char *bt_name) {
  if (!bt_name) return nullptr;
  ZXBTManager &mgr = app.btManager;
  if (BTObject *found = mgr.bt_obj_map.get(bt_name)) {
    zxbt_apply_dd_window(app, found);
    ZXBT_APP_LOG(app, 1, "Info", "bt_obj found, returning %s", found->bt_name);
    return found;
  }
  std::lock_guard guard(mgr.bt_obj_map_lock);
  // Another thread may have made it between the look-up and the lock.
  if (BTObject *found = mgr.bt_obj_map.get(bt_name)) {
    zxbt_apply_dd_window(app, found);
    return found;
  }
  int id = mgr.config.total_bt_count.load(std::memory_order_relaxed) + 1;
  if (id > mgr.config.max_bt_count) {
    ZXBT_APP_LOG(app, 0, "Info", "max_bt_count '%d' reached, assiging id '%d' to Others",
                 mgr.config.max_bt_count, ZXBT_OTHERS_ID);
    zxbt_copy(bt_name, ZXBT_NAME_SIZE, "Others");
    id = ZXBT_OTHERS_ID;
  } else {
    mgr.config.total_bt_count.store(id, std::memory_order_relaxed);
  }
  BTObject scratch;
  BTObject *config =
      zxbt_config_object(app, bt_name, -1, app.allSlow, app.allVerySlow, -1, -1, &scratch);
  BTObject *obj = nullptr;
  if (config && !config->is_meta_data_dumped.load(std::memory_order_relaxed)) {
    config->bt_id.store(id, std::memory_order_relaxed);
    if (mgr.dd.enableDDAI.load(std::memory_order_relaxed) == 1) {
      set_dd_window(config, mgr.dd);
    } else {
      config->bt_startTime.store(0, std::memory_order_relaxed);
      config->bt_endTime.store(0, std::memory_order_relaxed);
      config->dd_IntervalTime.store(0, std::memory_order_relaxed);
      config->AIFlag.store(0, std::memory_order_relaxed);
    }
    if (!mgr.bt_obj_map.get(bt_name) && id >= 1 && *bt_name) {
      obj = make_new_bt_obj(app, bt_name, id, app.allSlow, app.allVerySlow);
      if (obj) {
        insert_in_hasmap(bt_name, obj, mgr.bt_obj_map);
        ZXBT_APP_LOG(app, 0, "Info", "Adding BT in manager map, name = %s, id = %d", bt_name, id);
        dumpBtMetaData(app, obj->bt_name, id);
        obj->is_meta_data_dumped.store(1, std::memory_order_relaxed);
      }
    }
  }
  if (!obj) obj = mgr.bt_obj_map.get(bt_name);
  if (obj) checkAndIncrementAggrBTDataArray(app, obj);
  return obj;
}

void dumpBtMetaData(ZXAppRules &app, const char *BtName, int BtId) {
  char record[ZXBT_META_RECORD_SIZE];
  const int n = snprintf(record, sizeof record, "7,%d,%s\n", BtId, BtName ? BtName : "");
  if (n <= 0) return;
  const int len = n < static_cast<int>(sizeof record) ? n : static_cast<int>(sizeof record) - 1;
  if (len == static_cast<int>(sizeof record) - 1) record[len - 1] = '\n';
  dumpData(&app, record, len);
  ZXBT_APP_LOG(app, 0, "Info", "BT meta data record dumped, id = %d, name = %s", BtId, BtName);
}
