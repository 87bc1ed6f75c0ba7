#include "ZXMethodManager.h"

#include <sys/stat.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <mutex>
#include <new>
#include <string>
#include <string_view>
#include <vector>

#include "ZXAppTracing.h"
#include "ZXDataDispatcher.h"
#include "ZXFeatureKeywords.h"
#include "ZXRunTimeChangeHandle.h"
#include "zxlb_mt_log.h"
#include "zxlb_utiles.h"

namespace {

constexpr size_t kMetaBufSize = 1024;
constexpr size_t kSigArgsMax = 2048;

bool ZXMethodIdIndexSetFailed(int id) {
  ZX_LOG_OOM(sizeof(methodPropProperties *) * ZX_METHOD_ID_CHUNK, "method id index", id);
  return false;
}

// Record 5 reaches the collector only while the data thread runs; an id given
// out meanwhile is never announced (the collector's rule, kept).
void announce(ZXAppTracing *app, const std::string &line) {
  if (app->dataThreadRunning.load(std::memory_order_acquire))
    dumpData(app, line.data(), static_cast<int>(line.size()));
}

std::string plainMetaRecord(const methodPropProperties &r) {
  char buf[kMetaBufSize];
  int n = std::snprintf(buf, sizeof buf, "5,%s,%d\n", r.methodName.c_str(), r.methodId);
  if (n >= 0 && static_cast<size_t>(n) < sizeof buf) return std::string(buf, n);
  // A name too long for the buffer still makes one whole line.
  return "5," + std::string(r.methodName.c_str()) + "," + std::to_string(r.methodId) + "\n";
}

std::string signatureMetaRecord(const methodPropProperties &r) {
  std::string args;
  for (unsigned i = 0; i < r.methodArgsListCount; ++i) {
    const char *name = r.methodArgList[i].argName.c_str();
    if (args.size() + std::strlen(name) + 1 > kSigArgsMax) break;
    args += name;
    args += ';';
  }
  return "5," + std::string(r.methodName.c_str()) + "(" + args + ")" + r.methodRetType.c_str() +
         "," + std::to_string(r.methodId) + "\n";
}

std::string_view trim(std::string_view s) {
  while (!s.empty() && (s.front() == ' ' || s.front() == '\t')) s.remove_prefix(1);
  while (!s.empty() && (s.back() == ' ' || s.back() == '\t' || s.back() == '\r'))
    s.remove_suffix(1);
  return s;
}

int numberOr(std::string_view s, int fallback) {
  s = trim(s);
  if (s.empty()) return fallback;
  std::string text(s);
  char *end = nullptr;
  long v = std::strtol(text.c_str(), &end, 0);
  if (end == text.c_str() || *end != '\0' || v < 0 || v > 0x7fffffff) return fallback;
  return static_cast<int>(v);
}

// One line of a profile or entry-point file, see the README for the grammar.
struct MethodLine {
  std::string_view name, args, ret;
  bool hasSignature = false;
  int isEntryPoint = 0, type = 0;
  std::string_view module, alias;
};

bool absent(std::string_view field) {
  return field.empty() || field == "-";
}

bool parseMethodLine(std::string_view line, int defaultEntryPoint, MethodLine &out) {
  std::string_view fields[5];
  int count = 0;
  while (count < 5) {
    size_t bar = line.find('|');
    fields[count++] = trim(line.substr(0, bar));
    if (bar == std::string_view::npos) break;
    line.remove_prefix(bar + 1);
  }
  std::string_view sig = fields[0];
  size_t open = sig.find('(');
  if (open != std::string_view::npos) {
    size_t close = sig.rfind(')');
    if (close == std::string_view::npos || close < open) return false;
    out.hasSignature = true;
    out.args = sig.substr(open + 1, close - open - 1);
    out.ret = trim(sig.substr(close + 1));
    sig = trim(sig.substr(0, open));
  }
  if (sig.empty()) return false;
  out.name = sig;
  out.isEntryPoint = count > 1 ? numberOr(fields[1], defaultEntryPoint) : defaultEntryPoint;
  out.type = count > 2 ? numberOr(fields[2], 0) & 0x7f : 0;
  if (count > 3 && !absent(fields[3])) out.module = fields[3];
  if (count > 4 && !absent(fields[4])) out.alias = fields[4];
  return true;
}

// "int qty, String sku" -> {type int, name qty}, {type String, name sku}. A
// lone word is a name (dynamic languages give no types).
bool setArguments(methodPropProperties &r, std::string_view args) {
  std::vector<std::string_view> parts;
  while (!args.empty()) {
    size_t cut = args.find_first_of(",;");
    std::string_view part = trim(args.substr(0, cut));
    if (!part.empty()) parts.push_back(part);
    if (cut == std::string_view::npos) break;
    args.remove_prefix(cut + 1);
  }
  r.methodArgList.reset();
  r.methodArgsListCount = 0;
  if (parts.empty()) return true;
  std::unique_ptr<methodArgList_t[]> list(new (std::nothrow) methodArgList_t[parts.size()]);
  if (!list) return false;
  for (size_t i = 0; i < parts.size(); ++i) {
    size_t blank = parts[i].find_last_of(" \t");
    if (blank == std::string_view::npos) {
      list[i].argName.assign(parts[i]);
    } else {
      list[i].type.assign(trim(parts[i].substr(0, blank)));
      list[i].argName.assign(parts[i].substr(blank + 1));
    }
  }
  r.methodArgList = std::move(list);
  r.methodArgsListCount = static_cast<unsigned>(parts.size());
  return true;
}

// A record with the same identity as `src`, for changing a record that older
// nodes still share.
methodPropProperties *copyRecord(const methodPropProperties &src) {
  methodPropProperties *r = newMethodRecord(src.methodName.c_str());
  if (!r) return nullptr;
  r->type = src.type;
  r->callOutValue = src.callOutValue;
  r->moduleName = src.moduleName;
  r->mon_methodName = src.mon_methodName;
  r->customCalloutName = src.customCalloutName;
  r->aliasMethodName = src.aliasMethodName;
  r->methodRetType = src.methodRetType;
  r->autoDeInstrFlg = src.autoDeInstrFlg;
  r->isInBlackListFlg = src.isInBlackListFlg;
  r->methodId = src.methodId;
  r->isEntryPoint = src.isEntryPoint;
  r->instrumentationProp = src.instrumentationProp;
  r->isAsyncCall = src.isAsyncCall;
  r->customCalloutptr = src.customCalloutptr;
  if (src.methodArgsListCount) {
    std::unique_ptr<methodArgList_t[]> list(new (std::nothrow)
                                                methodArgList_t[src.methodArgsListCount]);
    if (!list) {
      releaseMethodRecord(r);  // held by nothing yet: mapRefs 0 -> frees
      return nullptr;
    }
    for (unsigned i = 0; i < src.methodArgsListCount; ++i) list[i] = src.methodArgList[i];
    r->methodArgList = std::move(list);
    r->methodArgsListCount = src.methodArgsListCount;
  }
  return r;
}

void freeUnheld(methodPropProperties *r) {
  // A record no map took yet; mapRefs is 0.
  std::unique_ptr<methodPropProperties> owned(r);
}

// Puts `r` into the node's maps and id index (replacing what was there).
void placeRecord(node_t &node, methodPropProperties *r, bool inProfile) {
  node.byId.set(r->methodId, r);
  if (inProfile) modify_hashmap(r->methodName.c_str(), r, node.ptr);
  modify_hashmap(r->methodName.c_str(), r, node.dynamic_ptr);
}

// A new id for `name` in the node, not announced. Caller holds the lock.
methodPropProperties *giveId(ZXAppTracing *app, node_t &node, std::string_view name,
                             int isEntryPoint, int type, bool inProfile) {
  std::string key(name);
  methodPropProperties *r = newMethodRecord(key.c_str());
  if (!r) return nullptr;
  r->methodId = app->methodIDGlobal++;
  r->isEntryPoint = isEntryPoint;
  r->type = static_cast<char>(type);
  placeRecord(node, r, inProfile);
  return r;
}

enum class LineKind { Profile, EntryPoint };

// Applies one parsed line to the node being built.
void applyLine(ZXAppTracing *app, node_t &node, const MethodLine &m, LineKind kind) {
  std::string key(m.name);
  methodPropProperties *existing = search_hashmap(key.c_str(), node.dynamic_ptr);
  const bool isProfile = kind == LineKind::Profile;
  methodPropProperties *r = existing ? copyRecord(*existing) : newMethodRecord(key.c_str());
  if (!r) return;
  if (!existing) r->methodId = app->methodIDGlobal++;
  if (isProfile) {
    r->isEntryPoint = m.isEntryPoint;
    r->type = static_cast<char>(m.type);
    if (!m.module.empty()) r->moduleName.assign(m.module);
    if (!m.alias.empty()) r->aliasMethodName.assign(m.alias);
  } else {
    r->isEntryPoint |= m.isEntryPoint;
  }
  if (m.hasSignature) {
    r->methodRetType.assign(m.ret);
    if (!setArguments(*r, m.args)) {
      ZX_LOG_OOM(m.args.size(), "methodArgList", r->methodId);
      if (existing) {
        freeUnheld(r);
        return;
      }
    }
  }
  const bool inProfile = isProfile || (existing && search_hashmap(key.c_str(), node.ptr));
  placeRecord(node, r, inProfile);
  if (existing) return;
  std::string line = m.hasSignature ? signatureMetaRecord(*r) : plainMetaRecord(*r);
  ZX_CTRL_LOG(2, "Info", "Going to dump 5 record at RTC.buf = [%s]", line.c_str());
  announce(app, line);
}

void parseMethodText(ZXAppTracing *app, node_t &node, std::string_view text, LineKind kind) {
  int lineNo = 0;
  while (!text.empty()) {
    size_t nl = text.find('\n');
    std::string_view line = trim(text.substr(0, nl));
    text.remove_prefix(nl == std::string_view::npos ? text.size() : nl + 1);
    ++lineNo;
    if (line.empty() || line.front() == '#') continue;
    MethodLine m;
    if (!parseMethodLine(line, kind == LineKind::EntryPoint ? 1 : 0, m)) {
      ZX_CTRL_LOG(0, "Warning", "Invalid method line %d skipped: '%.*s'", lineNo,
                  static_cast<int>(line.size()), line.data());
      continue;
    }
    applyLine(app, node, m, kind);
  }
}

// Every table knows the pseudo method that opens each flowpath.
void ensureBeginRequest(ZXAppTracing *app, node_t &node) {
  node.beginRequest = search_hashmap(ZX_BEGIN_REQUEST_METHOD, node.dynamic_ptr);
  if (node.beginRequest) return;
  node.beginRequest = giveId(app, node, ZX_BEGIN_REQUEST_METHOD, 1, 0, false);
  if (node.beginRequest) announce(app, plainMetaRecord(*node.beginRequest));
}

// Clears the run state of the records a successor shares with its
// predecessor; names, ids and profile settings carry over.
void resetmethodHashMapNode(node_t &node) {
  for (apr_hash_index_t *hi = apr_hash_first(nullptr, node.dynamic_ptr); hi;
       hi = apr_hash_next(hi)) {
    void *v = nullptr;
    apr_hash_this(hi, nullptr, nullptr, &v);
    auto *r = static_cast<methodPropProperties *>(v);
    r->usedFlag.store(0, std::memory_order_relaxed);
    r->instrumentationStatus.store(0, std::memory_order_relaxed);
  }
}

// The successor of the node in force (a copy sharing its records), or a new
// node when none is in force. Caller holds the lock.
ZXMethodNodePtr makeSuccessor(ZXAppTracing *app) {
  ZXMethodNodePtr next = newMethodNode();
  if (!next) return nullptr;
  node_t *cur = app->methodHashMapNode.get();
  if (cur) {
    copy_hashmap(cur->ptr, next->ptr);
    copy_hashmap(cur->dynamic_ptr, next->dynamic_ptr);
    next->byId.copyFrom(cur->byId);
    next->type = cur->type;
    resetmethodHashMapNode(*next);
  }
  return next;
}

// Publishes methodHashMapNodeTemp, retiring the node it replaces. Caller
// holds the lock.
void publishTemp(ZXAppTracing *app) {
  ZXMethodNodePtr old = std::move(app->methodHashMapNode);
  app->methodHashMapNode = std::move(app->methodHashMapNodeTemp);
  if (old) {
    old->timeStamp = my_gettimeofday();
    addNodeToLinklist(app, old.release());
    ZX_CTRL_LOG(1, "Info", "Added to linklist and make copy., methodHashMapNode = %p",
                static_cast<void *>(app->methodHashMapNode.get()));
  }
}

bool saveProfileRequested(const ZXAppTracing *app) {
  return app->ZXBCISetting.fileBasedKeywordMode != 0 && app->InstrFileData_flag == 1;
}

int installText(ZXAppTracing *app, const char *content, LineKind kind, bool maySave) {
  if (!app) return -1;
  std::lock_guard lk(app->methodEntryLock);
  app->methodHashMapNodeTemp = makeSuccessor(app);
  if (!app->methodHashMapNodeTemp) return -1;
  node_t &node = *app->methodHashMapNodeTemp;
  if (content) {
    if (kind == LineKind::Profile && maySave && saveProfileRequested(app))
      makingFileOfInstrMethod(app, content);
    parseMethodText(app, node, content, kind);
  }
  ensureBeginRequest(app, node);
  if (kind == LineKind::Profile) node.type = 1;
  publishTemp(app);
  return 0;
}

std::string homeFile(const ZXAppTracing *app, const char *name) {
  return std::string(app->ZXSys.zxHomePath.c_str()) + "/" + name;
}

// Reads at most ZX_INSTR_FILE_READ_MAX bytes of the file; a line cut by that
// limit is dropped rather than read as a shorter method name.
int readMethodFile(ZXAppTracing *app, const char *name, LineKind kind) {
  if (!app) return 1;
  const std::string path = homeFile(app, name);
  struct stat st {};
  if (stat(path.c_str(), &st) != 0) {
    ZX_CTRL_LOG(0, "Info", "%s is not present, so returning", path.c_str());
    return 1;
  }
  FILE *fp = std::fopen(path.c_str(), "r");
  if (!fp) {
    ZX_CTRL_LOG(0, "Error", "Error in opening '%s' file, so returning", path.c_str());
    return 1;
  }
  std::string text(ZX_INSTR_FILE_READ_MAX, '\0');
  size_t n = std::fread(text.data(), 1, text.size(), fp);
  std::fclose(fp);
  text.resize(n);
  if (st.st_size > static_cast<off_t>(n)) {
    size_t nl = text.rfind('\n');
    text.resize(nl == std::string::npos ? 0 : nl + 1);
  }
  return installText(app, text.c_str(), kind, false) == 0 ? 0 : 1;
}

}  // namespace

bool ZXMethodIdIndex::set(int id, methodPropProperties *record) {
  if (id < 0 || id >= ZX_MAX_METHOD_IDS) return false;
  auto &slot = dir_[static_cast<unsigned>(id) / ZX_METHOD_ID_CHUNK];
  Chunk *c = slot.load(std::memory_order_relaxed);
  if (!c) {
    std::unique_ptr<Chunk> made(new (std::nothrow) Chunk());
    if (!made) return ZXMethodIdIndexSetFailed(id);
    try {
      owned_.push_back(std::move(made));
    } catch (const std::bad_alloc &) {
      return ZXMethodIdIndexSetFailed(id);
    }
    c = owned_.back().get();
    slot.store(c, std::memory_order_release);
  }
  (*c)[static_cast<unsigned>(id) % ZX_METHOD_ID_CHUNK].store(record, std::memory_order_release);
  return true;
}

void ZXMethodIdIndex::copyFrom(const ZXMethodIdIndex &other) {
  for (size_t d = 0; d < dir_.size(); ++d) {
    const Chunk *c = other.dir_[d].load(std::memory_order_relaxed);
    if (!c) continue;
    for (int i = 0; i < ZX_METHOD_ID_CHUNK; ++i) {
      methodPropProperties *r = (*c)[i].load(std::memory_order_relaxed);
      if (r) set(static_cast<int>(d) * ZX_METHOD_ID_CHUNK + i, r);
    }
  }
}

node_t::~node_t() {
  iterate_hashtable_and_free_hashmap(ptr);
  iterate_hashtable_and_free_hashmap(dynamic_ptr);
}

void ZXMethodNodeDeleter::operator()(node_t *n) const {
  std::unique_ptr<node_t> owned(n);
}

ZXMethodNodePtr newMethodNode() {
  ZXMethodNodePtr n(new (std::nothrow) node_t());
  if (!n) {
    ZX_LOG_OOM(sizeof(node_t), "method map node", -1);
    return nullptr;
  }
  n->pool = zx::make_pool();
  n->ptr = create_hashmap(n->pool.get());
  n->dynamic_ptr = create_hashmap(n->pool.get());
  if (!n->ptr || !n->dynamic_ptr) return nullptr;
  return n;
}

void getMethodHashMapLock(ZXAppTracing *app) {
  if (app) app->methodEntryLock.lock();
}

void releaseMethodHashMapLock(ZXAppTracing *app) {
  if (app) app->methodEntryLock.unlock();
}

methodPropProperties *getMethodPropFromMethodName(ZXAppTracing *app, const char *name,
                                                  node_t *node) {
  if (!name || !node || !app) return nullptr;
  std::lock_guard lk(app->methodEntryLock);
  return search_hashmap(name, node->dynamic_ptr);
}

methodPropProperties *updateMethodHashMap(ZXAppTracing *app, const char *name, int isEntryPoint,
                                          int type, node_t *node) {
  if (!app || !name || !node) return nullptr;
  methodPropProperties *r = giveId(app, *node, name, isEntryPoint, type, false);
  if (!r) return nullptr;
  std::string line = plainMetaRecord(*r);
  ZX_CTRL_LOG(3, "Info", "Going to send metadata, buf[%s]", line.c_str());
  announce(app, line);
  return r;
}

void dumpMetadataForSig(ZXAppTracing *app, methodPropProperties *record) {
  if (!record || !app) return;
  std::string line = signatureMetaRecord(*record);
  ZX_CTRL_LOG(2, "Info", "Signature buffer is:%s", line.c_str());
  announce(app, line);
}

int setMethodHashMapNode(ZXAppTracing *app, const char *content) {
  return installText(app, content, LineKind::Profile, true);
}

int makingFileOfInstrMethod(ZXAppTracing *app, const char *content) {
  if (!app || !content) return -1;
  const std::string path = homeFile(app, "instrProfile.txt");
  FILE *fp = std::fopen(path.c_str(), "w");
  if (!fp) {
    ZX_CTRL_LOG(0, "Error", "Error in opening '%s' file, so returning", path.c_str());
    return -1;
  }
  const size_t len = std::strlen(content);
  const size_t keep = len ? len - 1 : 0;  // the last character is the closing line feed
  const bool ok = std::fwrite(content, 1, keep, fp) == keep;
  return (std::fclose(fp) == 0 && ok) ? 0 : -1;
}

int readingFileInstrProfile(ZXAppTracing *app) {
  return readMethodFile(app, "instrProfile.txt", LineKind::Profile);
}

int readingEntryPointfile(ZXAppTracing *app) {
  return readMethodFile(app, "entryPointFile.txt", LineKind::EntryPoint);
}

node_t *acquireMethodHashMapNode(ZXAppTracing *app) {
  if (!app) return nullptr;
  std::lock_guard lk(app->methodEntryLock);
  if (!app->methodHashMapNode) {
    app->methodHashMapNodeTemp = makeSuccessor(app);
    if (!app->methodHashMapNodeTemp) return nullptr;
    ensureBeginRequest(app, *app->methodHashMapNodeTemp);
    publishTemp(app);
  }
  node_t *n = app->methodHashMapNode.get();
  n->ref_count.fetch_add(1, std::memory_order_relaxed);
  return n;
}

void releaseMethodHashMapNode(node_t *node) {
  if (node) node->ref_count.fetch_sub(1, std::memory_order_release);
}

void freeMethodHashMap(ZXAppTracing *app) {
  if (!app) return;
  {
    std::lock_guard lk(app->methodEntryLock);
    ZXMethodNodePtr old = std::move(app->methodHashMapNode);
    if (old) {
      old->timeStamp = my_gettimeofday();
      addNodeToLinklist(app, old.release());
    }
  }
  checkAndDeleteNode(app);
}

void setInstrProfileKeyword(ZXAppTracing &app, const char *keyword, const char *value) {
  if (!keyword || !value) return;
  ZXInstrProfileInfo_t &info = app.instrProfileInfo;
  if (std::strcmp(keyword, "instrProfile") == 0) {
    info.name.assign(value);
  } else if (std::strcmp(keyword, "lmd") == 0) {
    info.lmd.assign(value);
  } else if (std::strcmp(keyword, "size") == 0) {
    char *end = nullptr;
    long long v = std::strtoll(value, &end, 10);
    info.size = (end != value && v >= 0) ? v : -1;
  }
}

void parseInstrProfile(ZXAppTracing &app, char *value, char *keyword, int index) {
  storeFeatureKeyword(app, value, keyword, index);
  setInstrProfileKeyword(app, keyword, value);
}

bool instrProfileNeedsFetch(ZXAppTracing *app) {
  if (!app || app->instrProfileInfo.name.empty()) return false;
  struct stat st {};
  if (stat(homeFile(app, "instrProfile.txt").c_str(), &st) != 0) return true;
  // The file holds the profile without its closing line feed.
  const long long size = app->instrProfileInfo.size;
  return size < 0 || (st.st_size != size && st.st_size + 1 != size);
}
