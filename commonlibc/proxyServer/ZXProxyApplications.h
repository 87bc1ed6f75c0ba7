// The proxy's table of the applications it serves, by application index,
// and of each application's processes, by process index: how a frame read
// from a process's connection finds the application object to replay into.
//
// The table does not own the application objects; whoever creates one (the
// proxy server, a test) keeps it alive for as long as it is registered.
// Objects are never removed while the proxy runs, so an index stays valid.
// Only the proxy's poll thread (which also decodes) uses the table: no lock.
#pragma once

#include <vector>

struct ZXProxyInstance_t;

// One application process as the proxy sees it.
struct ZXProxyProcessInfo_t {
  // Bytes of a frame held over from the last read. The decoder zeroes it
  // after every frame it replays.
  int data_len = 0;
};

class ZXProxyApplications {
 public:
  // Registers `app` and returns its application index.
  int add(ZXProxyInstance_t &app);
  // Forgets every application (tests).
  void clear();
  int numInstances() const { return static_cast<int>(apps_.size()); }
  // Null for an index out of range.
  ZXProxyInstance_t *at(int appIndex) const;

  // A new process record of the application; its process index, or -1 for
  // an unknown application.
  int addProcess(int appIndex);
  int processCount(int appIndex) const;
  // Null for an unknown application or process.
  ZXProxyProcessInfo_t *process(int appIndex, int processIndex);
  ZXProxyProcessInfo_t *process(const ZXProxyInstance_t &app, int processIndex);

 private:
  struct Entry {
    ZXProxyInstance_t *app;
    std::vector<ZXProxyProcessInfo_t> processInfo;
  };
  std::vector<Entry> apps_;
};

// The proxy process's table.
ZXProxyApplications &zxProxyApplications();
