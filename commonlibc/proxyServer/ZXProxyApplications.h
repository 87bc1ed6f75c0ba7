// The proxy's table of the applications it serves, by application index,
// and of each application's processes, by process index: how a frame read
// from a process's connection finds the application object to replay into,
// and how the registration of a connection finds its process.
//
// The table does not own the application objects; whoever creates one (the
// proxy server, a test) keeps it alive for as long as it is registered.
// Objects are never removed while the proxy runs, so an index stays valid;
// a process slot is reused once its process has no connection left.
// Only the proxy's poll thread (which also decodes) uses the table: no lock.
#pragma once

#include <string>
#include <vector>

struct ZXProxyInstance_t;
struct ZXProxyConnection;

// One application process as the proxy sees it: one slot of its application.
struct instanceProcess_t {
  // Bytes of a frame held over from the last read. The decoder zeroes it
  // after every frame it replays.
  int data_len = 0;
  // Descriptors of the process's connections; -1 when absent, and always
  // -1 over WebSocket, where a connection has no descriptor of its own.
  int ctrlFd = -1, dcFd = -1, asFd = -1, aiFd = -1;
  long long processId = -1;  // -1: the slot is free
  std::string data;          // pending data of the process
  // The connections themselves, owned by the server.
  ZXProxyConnection *ctrlSocket = nullptr, *dcSocket = nullptr, *asSocket = nullptr,
                    *aiSocket = nullptr;
  // Relayed collector commands up to this number were posted before the
  // process registered: the kept start command stands for them.
  unsigned long long joinedAfterRelay = 0;

  // By the connections, not the descriptors: a process over WebSocket
  // would otherwise lose its slot with its first closed connection.
  bool connected() const { return ctrlSocket || dcSocket || asSocket || aiSocket; }
};
using ZXProxyProcessInfo_t = instanceProcess_t;

class ZXProxyApplications {
 public:
  // Registers `app` and returns its application index.
  int add(ZXProxyInstance_t &app);
  // Forgets every application (tests, a clean stop).
  void clear();
  int numInstances() const { return static_cast<int>(apps_.size()); }
  // Null for an index out of range.
  ZXProxyInstance_t *at(int appIndex) const;

  // A new process record of the application; its process index, or -1 for
  // an unknown application.
  int addProcess(int appIndex);
  // The slot of process `pid`, else a free slot, else a new one (-1 for an
  // unknown application). `reused` tells whether the pid had the slot.
  int slotFor(int appIndex, long long pid, bool &reused);
  int processCount(int appIndex) const;
  // Processes with a live control connection.
  int activeProcessCount(int appIndex) const;
  void setActiveProcessCount(int appIndex, int n);
  // Null for an unknown application or process.
  instanceProcess_t *process(int appIndex, int processIndex);
  instanceProcess_t *process(const ZXProxyInstance_t &app, int processIndex);

 private:
  struct Entry {
    ZXProxyInstance_t *app;
    std::vector<instanceProcess_t> processInfo;
    int activeProcessCount = 0;
  };
  std::vector<Entry> apps_;
};

// The proxy process's table.
ZXProxyApplications &zxProxyApplications();
