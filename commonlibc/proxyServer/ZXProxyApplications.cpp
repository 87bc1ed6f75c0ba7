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
  std::vector<instanceProcess_t> &procs = apps_[appIndex].processInfo;
  procs.emplace_back();
  return static_cast<int>(procs.size()) - 1;
}

int ZXProxyApplications::slotFor(int appIndex, long long pid, bool &reused) {
  reused = false;
  if (!at(appIndex)) return -1;
  std::vector<instanceProcess_t> &procs = apps_[appIndex].processInfo;
  int freeSlot = -1;
  for (int i = 0; i < static_cast<int>(procs.size()); ++i) {
    if (procs[i].processId == pid) {
      reused = true;
      return i;
    }
    if (freeSlot < 0 && procs[i].processId == -1) freeSlot = i;
  }
  return freeSlot >= 0 ? freeSlot : addProcess(appIndex);
}

int ZXProxyApplications::processCount(int appIndex) const {
  return at(appIndex) ? static_cast<int>(apps_[appIndex].processInfo.size()) : 0;
}

int ZXProxyApplications::activeProcessCount(int appIndex) const {
  return at(appIndex) ? apps_[appIndex].activeProcessCount : 0;
}

void ZXProxyApplications::setActiveProcessCount(int appIndex, int n) {
  if (at(appIndex)) apps_[appIndex].activeProcessCount = n;
}

instanceProcess_t *ZXProxyApplications::process(int appIndex, int processIndex) {
  if (processIndex < 0 || processIndex >= processCount(appIndex)) return nullptr;
  return &apps_[appIndex].processInfo[processIndex];
}

instanceProcess_t *ZXProxyApplications::process(const ZXProxyInstance_t &app, int processIndex) {
  for (int i = 0; i < numInstances(); ++i)
    if (apps_[i].app == &app) return process(i, processIndex);
  return nullptr;
}

ZXProxyApplications &zxProxyApplications() {
  static ZXProxyApplications table;
  return table;
}
