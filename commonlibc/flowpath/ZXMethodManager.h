// The method table: method (and backend) names to small integer ids.
//
// The node in force (methodHashMapNode) holds two maps, `ptr` for the methods
// of the instrumentation profile and `dynamic_ptr` for every named method
// (profile methods included, so that one look-up finds both). Each new id is
// announced to the collector as record 5. Installing a profile never edits
// the node in force: a successor is built from copies of its maps, filled,
// and then published, and the old node is retired (ZXRunTimeChangeHandle.h)
// until the flowpaths that hold it have ended. Ids come from methodIDGlobal
// and are never reused.
//
// Locking: methodEntryLock guards the node pointers, methodIDGlobal, the maps
// and the retirement list. The id index of a node is also readable without
// it, by a flowpath that holds a reference on the node.
#pragma once

#include <apr_hash.h>

#include <array>
#include <atomic>
#include <memory>
#include <string_view>
#include <vector>

#include "zxlb_apr.h"
#include "zxlb_hashMapMethod.h"
#include "zxlb_owned_string.h"

struct ZXAppTracing;

inline constexpr const char *ZX_BEGIN_REQUEST_METHOD = "Profiler.Morvane.BeginRequest";
inline constexpr int ZX_METHOD_ID_CHUNK = 1024;
inline constexpr int ZX_MAX_METHOD_IDS = 1 << 20;
inline constexpr int ZX_INSTR_FILE_READ_MAX = 10240;

// Records by id. Chunks are made under methodEntryLock and published before
// any id in them, so a reader needs no lock; they never move.
class ZXMethodIdIndex {
 public:
  methodPropProperties *find(int id) const noexcept {
    if (id < 0 || id >= ZX_MAX_METHOD_IDS) return nullptr;
    const Chunk *c =
        dir_[static_cast<unsigned>(id) / ZX_METHOD_ID_CHUNK].load(std::memory_order_acquire);
    if (!c) return nullptr;
    return (*c)[static_cast<unsigned>(id) % ZX_METHOD_ID_CHUNK].load(std::memory_order_acquire);
  }
  // Caller holds methodEntryLock. false for an id out of range or no memory.
  bool set(int id, methodPropProperties *record);
  void copyFrom(const ZXMethodIdIndex &other);  // both under methodEntryLock

 private:
  using Chunk = std::array<std::atomic<methodPropProperties *>, ZX_METHOD_ID_CHUNK>;
  std::array<std::atomic<Chunk *>, ZX_MAX_METHOD_IDS / ZX_METHOD_ID_CHUNK> dir_{};
  std::vector<std::unique_ptr<Chunk>> owned_;
};

struct node_t {
  apr_hash_t *ptr = nullptr;
  apr_hash_t *dynamic_ptr = nullptr;
  std::atomic<int> ref_count{0};  // flowpaths holding this node
  char type = 0;                  // 1 once filled from a profile
  long long timeStamp = 0;        // ms, when retired
  node_t *next = nullptr;         // retirement list
  // The pseudo method that opens each flowpath, set before the node is
  // published: a flowpath starts without a look-up by name.
  methodPropProperties *beginRequest = nullptr;
  zx::PoolPtr pool;  // the maps' memory
  ZXMethodIdIndex byId;

  node_t() = default;
  node_t(const node_t &) = delete;
  node_t &operator=(const node_t &) = delete;
  ~node_t();  // releases the records of both maps
};

struct ZXMethodNodeDeleter {
  void operator()(node_t *n) const;
};
using ZXMethodNodePtr = std::unique_ptr<node_t, ZXMethodNodeDeleter>;

// A node with two empty maps; null when memory is short.
ZXMethodNodePtr newMethodNode();

// The values of the keywords "instrProfile" (the profile's name at the
// collector), "lmd" (its last modification) and "size" (its length in bytes),
// from the latest start or run-time change. Control thread only.
struct ZXInstrProfileInfo_t {
  zx::OwnedString name;
  zx::OwnedString lmd;
  long long size = -1;  // -1: not given
};

void getMethodHashMapLock(ZXAppTracing *app);
void releaseMethodHashMapLock(ZXAppTracing *app);

// The record for `name` in the node's dynamic_ptr map, or null. Takes the
// lock of `app`, the node's application.
methodPropProperties *getMethodPropFromMethodName(ZXAppTracing *app, const char *name,
                                                  node_t *node);
// Lock-free: for a flowpath that holds a reference on `node`.
inline methodPropProperties *getMethodPropFromMethodId(int id, const node_t *node) {
  return node ? node->byId.find(id) : nullptr;
}

// Gives `name` a new record and id in the node and announces it (record 5)
// while the data thread runs. Caller holds the lock. Null when memory is short.
methodPropProperties *updateMethodHashMap(ZXAppTracing *app, const char *name, int isEntryPoint,
                                          int type, node_t *node);

// The record's signature meta record: "5,name(arg;arg;)ret,id".
void dumpMetadataForSig(ZXAppTracing *app, methodPropProperties *record);

// Installs a profile text (null: an empty table) as a new node in force.
// Takes the lock. 0, or -1 when memory is short (the table is then as it was).
int setMethodHashMapNode(ZXAppTracing *app, const char *content);
// Writes the text, without its final character, to <home>/instrProfile.txt.
// 0, or -1 when the file cannot be written.
int makingFileOfInstrMethod(ZXAppTracing *app, const char *content);

// Read <home>/instrProfile.txt (at most 10,240 bytes) or <home>/entryPointFile.txt
// into the table: 0 read, 1 absent or unreadable.
int readingFileInstrProfile(ZXAppTracing *app);
int readingEntryPointfile(ZXAppTracing *app);

// Flowpath start and end: the node in force with a reference taken (a node is
// made when none exists yet), and its release, which never frees (see
// ZXRunTimeChangeHandle.h). Null when memory is short.
node_t *acquireMethodHashMapNode(ZXAppTracing *app);
void releaseMethodHashMapNode(node_t *node);

// Retires the node in force and frees the retired nodes no flowpath holds;
// held ones wait for a later checkAndDeleteNode. Takes the lock.
void freeMethodHashMap(ZXAppTracing *app);

// Applies one of the keywords "instrProfile", "lmd", "size".
void setInstrProfileKeyword(ZXAppTracing &app, const char *keyword, const char *value);
// Keyword rows "instrProfile", "lmd", "size": keeps the raw value and applies it.
void parseInstrProfile(ZXAppTracing &app, char *value, char *keyword, int index);
// True when a profile is named and <home>/instrProfile.txt is absent or not
// of the announced size: the profile has to be fetched from the collector.
bool instrProfileNeedsFetch(ZXAppTracing *app);
