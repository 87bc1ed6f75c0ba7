#include "ZXDataDispatcher.h"

#include <cstring>
#include <mutex>
#include <new>

#include "ZXProxyInstance.h"
#include "zxlb_mt_log.h"

namespace {

// Counts a drop; true when this is the one drop in a thousand worth a line.
bool countDrop(ZXSys_t &sys) {
  // Writers hold bufferWriteLock, so a relaxed read-modify-write suffices.
  long long n = sys.discardCount.fetch_add(1, std::memory_order_relaxed) + 1;
  return n % 1000 == 999;
}

// Appends `len` bytes to the filling buffer; moves it on once exactly full so
// that the head of the write list always has room.
void fill(ZXSendBufferPool &pool, nioSettings_t *b, const char *data, int len) {
  std::memcpy(b->buff + b->use_len, data, static_cast<size_t>(len));
  b->use_len += len;
  if (b->use_len == b->buff_size) moveToReadList(pool);
}

// The whole of addDataInSendBuffer except logging, so that dumpData can log
// after releasing bufferWriteLock.
int addLocked(ZXProxyInstance_t *app, const char *data, int len, bool &logDrop) {
  ZXSendBufferPool &pool = app->sendBuffers;
  // Only bufferWriteLock holders detach the head, so it stays ours; acquire
  // pairs with the data thread's release when it hands an empty list a buffer.
  nioSettings_t *cur = pool.writeList.load(std::memory_order_acquire);
  if (!cur) {
    logDrop = countDrop(app->ZXSys);
    std::lock_guard move(pool.bufferMoveLock);
    return pool.readList ? -2 : -99;
  }
  int room = cur->buff_size - cur->use_len;
  if (room >= len) {
    fill(pool, cur, data, len);
    return 0;
  }
  nioSettings_t *next = cur->next.load(std::memory_order_acquire);
  if (!next) {
    logDrop = countDrop(app->ZXSys);
    return -1;
  }
  fill(pool, cur, data, room);  // exactly full: moves it, `next` is the head
  int rest = len - room;
  if (rest > next->buff_size) {
    logDrop = countDrop(app->ZXSys);
    fill(pool, next, "\n", 1);
    return -3;
  }
  fill(pool, next, data + room, rest);
  return 0;
}

void logDropped(ZXProxyInstance_t *app, int rc, int len) {
  ZX_CTRL_LOG(0, "Warning",
              "Send buffers full: record of %d bytes dropped (rc %d), %lld records dropped so "
              "far\n",
              len, rc, app->ZXSys.discardCount.load(std::memory_order_relaxed));
}

}  // namespace

int allocSendBuffers(ZXSendBufferPool &pool, int size, int count, const char *what) {
  if (pool.nodes) return 0;
  if (size <= 0 || count <= 0) {
    ZX_CTRL_LOG(0, "Error", "%s not created: size %d, count %d\n", what, size, count);
    return -1;
  }
  const size_t total = static_cast<size_t>(size) * static_cast<size_t>(count);
  std::unique_ptr<nioSettings_t[]> nodes(new (std::nothrow) nioSettings_t[count]);
  std::unique_ptr<char[]> storage(new (std::nothrow) char[total]);
  if (!nodes || !storage) {
    ZX_LOG_OOM(total, what, count);
    return -1;
  }
  for (int i = 0; i < count; ++i) {
    nioSettings_t &b = nodes[i];
    b.buff = storage.get() + static_cast<size_t>(i) * static_cast<size_t>(size);
    b.buff_size = size;
    b.next.store(i + 1 < count ? &nodes[i + 1] : nullptr, std::memory_order_relaxed);
  }
  pool.writeListLast = &nodes[count - 1];
  pool.writeListSize = count;
  pool.writeList.store(&nodes[0], std::memory_order_release);
  pool.nodes = std::move(nodes);
  pool.storage = std::move(storage);
  ZX_CTRL_LOG(1, "Info", "%s created: %d of %d bytes\n", what, count, size);
  return 0;
}

int buff_list_init(ZXProxyInstance_t *app) {
  if (!app) return -1;
  ZXSendBufferPool &pool = app->sendBuffers;
  std::lock_guard write(pool.bufferWriteLock);
  std::lock_guard move(pool.bufferMoveLock);
  return allocSendBuffers(pool, app->ZXSys.bciDataBufferMaxSize, app->ZXSys.dataBuffMaxCount,
                          "Send buffers");
}

int addDataInSendBuffer(ZXProxyInstance_t *app, const char *data, int len) {
  bool logDrop = false;
  int rc = addLocked(app, data, len, logDrop);
  if (logDrop) logDropped(app, rc, len);
  return rc;
}

int dumpData(ZXProxyInstance_t *app, const char *data, int len) {
  if (!data || len <= 0) return 0;
  if (!app) return -99;
  bool logDrop = false;
  int rc;
  {
    std::lock_guard write(app->sendBuffers.bufferWriteLock);
    rc = addLocked(app, data, len, logDrop);
    if (rc == 0) app->ZXSys.recordCount.fetch_add(1, std::memory_order_relaxed);
  }
  if (logDrop) logDropped(app, rc, len);
  return rc;
}

int dumpData(const char *data, int len) {
  return dumpData(tlzxApplication, data, len);
}

void moveToReadList(ZXSendBufferPool &pool) {
  std::lock_guard move(pool.bufferMoveLock);
  nioSettings_t *b = pool.writeList.load(std::memory_order_relaxed);
  if (!b) return;
  nioSettings_t *rest = b->next.load(std::memory_order_relaxed);
  pool.writeList.store(rest, std::memory_order_relaxed);
  if (!rest) pool.writeListLast = nullptr;
  --pool.writeListSize;
  b->next.store(nullptr, std::memory_order_relaxed);
  if (pool.readListLast)
    pool.readListLast->next.store(b, std::memory_order_relaxed);
  else
    pool.readList = b;
  pool.readListLast = b;
  ++pool.readListSize;
}

void moveToWriteList(ZXSendBufferPool &pool) {
  std::lock_guard move(pool.bufferMoveLock);
  nioSettings_t *b = pool.readList;
  if (!b) return;
  pool.readList = b->next.load(std::memory_order_relaxed);
  if (!pool.readList) pool.readListLast = nullptr;
  --pool.readListSize;
  b->next.store(nullptr, std::memory_order_relaxed);
  // Release: a producer that finds `b` through either link must also see
  // its zeroed counts.
  if (pool.writeListLast)
    pool.writeListLast->next.store(b, std::memory_order_release);
  else
    pool.writeList.store(b, std::memory_order_release);
  pool.writeListLast = b;
  ++pool.writeListSize;
}

void movePartialToReadList(ZXSendBufferPool &pool) {
  std::lock_guard write(pool.bufferWriteLock);
  nioSettings_t *b = pool.writeList.load(std::memory_order_relaxed);
  if (b && b->use_len > 0) moveToReadList(pool);
}

nioSettings_t *sendBufferHead(ZXSendBufferPool &pool) {
  std::lock_guard move(pool.bufferMoveLock);
  return pool.readList;
}

int markBufferSent(ZXSendBufferPool &pool, nioSettings_t *b, int n) {
  b->send_len += n;
  int left = b->use_len - b->send_len;
  if (left > 0) return left;
  b->use_len = 0;
  b->send_len = 0;
  moveToWriteList(pool);
  return 0;
}
