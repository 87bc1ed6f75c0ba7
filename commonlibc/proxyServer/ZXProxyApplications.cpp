#include "ZXProxyApplications.h"

int ZXProxyApplications::add(ZXProxyInstance_t &app) {
  apps_.push_back(Entry{&app, {}});
  return numInstances() - 1;
}

void ZXProxyApplications::clear() {
  apps_.clear();
}

ZXProxyInstance_t *ZXProxyApplications::at(int appIndex) const {
  return appIndex >= 0 && appIndex < numInstances() ? apps_[appIndex].app : nullptr;
}

int ZXProxyApplications::addProcess(int appIndex) {
  if (!at(appIndex)) return -1;
  std::vector<ZXProxyProcessInfo_t> &procs = apps_[appIndex].processInfo;
  procs.emplace_back();
  return static_cast<int>(procs.size()) - 1;
}

int ZXProxyApplications::processCount(int appIndex) const {
  return at(appIndex) ? static_cast<int>(apps_[appIndex].processInfo.size()) : 0;
}

ZXProxyProcessInfo_t *ZXProxyApplications::process(int appIndex, int processIndex) {
  if (processIndex < 0 || processIndex >= processCount(appIndex)) return nullptr;
  return &apps_[appIndex].processInfo[processIndex];
}

ZXProxyProcessInfo_t *ZXProxyApplications::process(const ZXProxyInstance_t &app, int processIndex) {
  for (int i = 0; i < numInstances(); ++i)
    if (apps_[i].app == &app) return process(i, processIndex);
  return nullptr;
}

ZXProxyApplications &zxProxyApplications() {
  static ZXProxyApplications table;
  return table;
}
