#include "ZXDataDispatcher.h"

#include <sys/mman.h>

#include <algorithm>
#include <cstdint>
#include <cstring>
#include <mutex>
#include <new>

#include "ZXAppLink.h"
#include "zxlb_mt_log.h"

namespace {

// Adds to a counter that only bufferWriteLock holders write: no locked add on
// the producer path. Release, so that a reader that sees a loss also sees the
// record counted before it.
void bump(std::atomic<unsigned long long> &c, unsigned long long n) {
  c.store(c.load(std::memory_order_relaxed) + n, std::memory_order_release);
}

std::atomic<unsigned long long> &lossCounter(ZXSendCounters &c, ZXSendLoss cause) {
  switch (cause) {
    case ZXSendLoss::PoolFull:
      return c.lostPoolFull;
    case ZXSendLoss::ConnDown:
      return c.lostConnDown;
    case ZXSendLoss::AtExit:
      return c.lostAtExit;
    case ZXSendLoss::Oversized:
      break;
  }
  return c.lostOversized;
}

// Counts a dropped record; true when this is the one drop in a thousand worth
// a line.
bool countDrop(ZXAppLink *app, ZXSendLoss cause, unsigned long long lines) {
  bump(lossCounter(app->sendBuffers.counters, cause), lines);
  // Writers hold bufferWriteLock, so a relaxed read-modify-write suffices.
  long long n = app->ZXSys.discardCount.fetch_add(1, std::memory_order_relaxed) + 1;
  return n % 1000 == 999;
}

// Appends `len` bytes to the filling buffer; moves it on once exactly full so
// that the head of the write list always has room. Returns that head.
nioSettings_t *fill(ZXSendBufferPool &pool, nioSettings_t *b, const char *data, int len) {
  std::memcpy(b->buff + b->use_len, data, static_cast<size_t>(len));
  b->use_len += len;
  return b->use_len == b->buff_size ? moveToReadList(pool) : b;
}

// fill for a record in parts, which may run past the filling buffer's end
// into the next one (room checked by the caller).
void fillParts(ZXSendBufferPool &pool, nioSettings_t *b, const ZXFramePart *parts, int count) {
  for (int i = 0; i < count; ++i) {
    const char *p = parts[i].data;
    int n = static_cast<int>(parts[i].len);
    while (n > 0) {  // never a null part: it has no bytes
      const int take = std::min(n, b->buff_size - b->use_len);
      b = fill(pool, b, p, take);
      p += take, n -= take;
    }
  }
}

// The whole of addDataInSendBuffer except logging, so that dumpData can log
// after releasing bufferWriteLock: one record of `len` bytes given in
// `count` parts, `lines` its line count.
int addLocked(ZXAppLink *app, const ZXFramePart *parts, int count, int len,
              unsigned long long lines, bool &logDrop) {
  ZXSendBufferPool &pool = app->sendBuffers;
  bump(pool.counters.records, lines);
  // Only bufferWriteLock holders detach the head, so it stays ours; acquire
  // pairs with the data thread's release when it hands an empty list a buffer.
  nioSettings_t *cur = pool.writeList.load(std::memory_order_acquire);
  if (!cur) {
    logDrop = countDrop(app, ZXSendLoss::PoolFull, lines);
    std::lock_guard move(pool.bufferMoveLock);
    return pool.readList ? -2 : -99;
  }
  const int room = cur->buff_size - cur->use_len;
  if (room >= len) {
    if (count == 1) {
      fill(pool, cur, parts[0].data, len);
      return 0;
    }
    // Straight into place, and only the last part can fill the buffer.
    char *out = cur->buff + cur->use_len;
    for (int i = 0; i < count; ++i) {
      if (parts[i].len == 0) continue;  // an absent string: no data to copy from
      std::memcpy(out, parts[i].data, parts[i].len);
      out += parts[i].len;
    }
    cur->use_len += len;
    if (cur->use_len == cur->buff_size) moveToReadList(pool);
    return 0;
  }
  // Every buffer of a pool has the same size. A record is stored whole or
  // not at all: a cut line would reach the collector as a corrupt record.
  const int rest = len - room;
  if (rest > cur->buff_size) {
    logDrop = countDrop(app, ZXSendLoss::Oversized, lines);
    return -3;
  }
  if (!cur->next.load(std::memory_order_acquire)) {
    logDrop = countDrop(app, ZXSendLoss::PoolFull, lines);
    return -1;
  }
  // The buffer behind may have been replaced by a just-sent one since the
  // peek; any free buffer will do, and the move returns the one in place.
  fillParts(pool, cur, parts, count);
  return 0;
}

int addLocked(ZXAppLink *app, const char *data, int len, unsigned long long lines, bool &logDrop) {
  const ZXFramePart whole{data, static_cast<std::size_t>(len)};
  return addLocked(app, &whole, 1, len, lines, logDrop);
}

void logDropped(ZXAppLink *app, int rc, int len) {
  ZX_CTRL_LOG(0, "Warning",
              "Send buffers full: record of %d bytes dropped (rc %d), %lld records dropped so "
              "far\n",
              len, rc, app->ZXSys.discardCount.load(std::memory_order_relaxed));
}

// Takes `n` bytes off the head `b`, counted as sent or lost in `counter`.
int consume(ZXSendBufferPool &pool, nioSettings_t *b, int n,
            std::atomic<unsigned long long> &counter) {
  if (n > 0) {
    const char *from = b->buff + b->send_len;
    const std::size_t len = static_cast<std::size_t>(n);
    std::size_t walked = 0;
    counter.fetch_add(
        pool.framed ? pool.frame.walk(from, len, false, walked) : countRecordLines(from, len),
        std::memory_order_release);
    pool.midLine = pool.framed ? pool.frame.midUnit() : from[n - 1] != '\n';
  }
  b->send_len += n;
  int left = b->use_len - b->send_len;
  if (left > 0) return left;
  b->use_len = 0;
  b->send_len = 0;
  moveToWriteList(pool);
  return 0;
}

}  // namespace

unsigned long long ZXFrameWalk::walk(const char *p, std::size_t n, bool toUnitEnd,
                                     std::size_t &walked) {
  unsigned long long units = 0;
  const char *const start = p;
  while (n > 0 && !(toUnitEnd && units > 0)) {
    if (left == 0 && headHave == 0 && *p != '^') {
      // Not a frame: the heartbeat's newline, one unit of one byte.
      ++units, ++p, --n;
      continue;
    }
    if (left == 0 && headHave == 0 && n >= sizeof head) {
      // The whole header in view, as for all but a frame cut by a buffer's
      // end: its length read in place, and the frame taken below.
      std::int32_t total;
      std::memcpy(&total, p + 5, sizeof total);
      left = std::max<long long>(total, static_cast<long long>(sizeof head));
    } else if (left == 0) {
      const std::size_t take =
          std::min<std::size_t>(n, sizeof head - static_cast<std::size_t>(headHave));
      std::memcpy(head + headHave, p, take);
      headHave += static_cast<int>(take);
      p += take, n -= take;
      if (headHave < static_cast<int>(sizeof head)) break;
      std::int32_t total;
      std::memcpy(&total, head + 5, sizeof total);
      headHave = 0;
      // The pool holds only frames it was given whole, so the length is sound.
      left = std::max<long long>(0, total - static_cast<long long>(sizeof head));
      if (left == 0) ++units;
      continue;
    }
    const std::size_t take =
        static_cast<std::size_t>(std::min<long long>(left, static_cast<long long>(n)));
    left -= static_cast<long long>(take);
    p += take, n -= take;
    if (left == 0) ++units;
  }
  walked = static_cast<std::size_t>(p - start);
  return units;
}

int bytesToUnitEnd(const ZXSendBufferPool &pool, const nioSettings_t *b) {
  const char *from = b->buff + b->send_len;
  const std::size_t left = static_cast<std::size_t>(b->use_len - b->send_len);
  if (pool.framed) {
    ZXFrameWalk probe = pool.frame;
    std::size_t walked = 0;
    probe.walk(from, left, true, walked);
    return static_cast<int>(walked);
  }
  const auto *nl = static_cast<const char *>(std::memchr(from, '\n', left));
  return nl ? static_cast<int>(nl + 1 - from) : static_cast<int>(left);
}

void ZXSendStorageUnmap::operator()(char *p) const {
  if (p) munmap(p, bytes);
}

unsigned long long countRecordLines(const char *data, std::size_t len) {
  // Most records are one line: one scan that finds nothing before the end.
  if (len > 0 && data[len - 1] == '\n' && !std::memchr(data, '\n', len - 1)) return 1;
  unsigned long long n = 0;
  const char *end = data + len;
  while (const void *nl = std::memchr(data, '\n', static_cast<std::size_t>(end - data))) {
    ++n;
    data = static_cast<const char *>(nl) + 1;
  }
  return n;
}

ZXSendCounts readSendCounts(const ZXSendBufferPool &pool) {
  const ZXSendCounters &c = pool.counters;
  ZXSendCounts r;
  // Outcomes first, records last: a line is counted in records before any
  // outcome of it, so the later reading of records covers every outcome read.
  r.sent = c.sent.load(std::memory_order_acquire);
  r.lostConnDown = c.lostConnDown.load(std::memory_order_acquire);
  r.lostAtExit = c.lostAtExit.load(std::memory_order_acquire);
  r.lostPoolFull = c.lostPoolFull.load(std::memory_order_acquire);
  r.lostOversized = c.lostOversized.load(std::memory_order_acquire);
  r.records = c.records.load(std::memory_order_acquire);
  const unsigned long long out = r.sent + r.lost();
  r.queued = r.records > out ? r.records - out : 0;
  return r;
}

zx::Status allocSendBuffers(ZXSendBufferPool &pool, int size, int count, const char *what) {
  if (pool.nodes) return zx::Ok;
  if (size <= 0 || count <= 0) {
    ZX_CTRL_LOG(0, "Error", "%s not created: size %d, count %d\n", what, size, count);
    return zx::Errc::bad_input;
  }
  const size_t total = static_cast<size_t>(size) * static_cast<size_t>(count);
  std::unique_ptr<nioSettings_t[]> nodes(new (std::nothrow) nioSettings_t[count]);
  // Mapped rather than allocated: never written up front, and never a heap
  // block that an earlier owner had already made resident.
  void *mem = mmap(nullptr, total, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
  std::unique_ptr<char[], ZXSendStorageUnmap> storage(
      mem == MAP_FAILED ? nullptr : static_cast<char *>(mem), ZXSendStorageUnmap{total});
  if (!nodes || !storage) {
    ZX_LOG_OOM(total, what, count);
    return zx::Errc::no_memory;
  }
  for (int i = 0; i < count; ++i) {
    nioSettings_t &b = nodes[i];
    b.buff = storage.get() + static_cast<size_t>(i) * static_cast<size_t>(size);
    b.buff_size = size;
    b.next.store(i + 1 < count ? &nodes[i + 1] : nullptr, std::memory_order_relaxed);
  }
  pool.writeListLast = &nodes[count - 1];
  pool.writeListSize = count;
  pool.bufferCount = count;
  pool.writeList.store(&nodes[0], std::memory_order_release);
  pool.nodes = std::move(nodes);
  pool.storage = std::move(storage);
  ZX_CTRL_LOG(1, "Info", "%s created: %d of %d bytes\n", what, count, size);
  return zx::Ok;
}

int buff_list_init(ZXAppLink *app) {
  if (!app) return -1;
  ZXSendBufferPool &pool = app->sendBuffers;
  std::lock_guard write(pool.bufferWriteLock);
  std::lock_guard move(pool.bufferMoveLock);
  if (!pool.nodes) pool.framed = app->sendsEventsToProxy();
  return zx::asZeroOrMinusOne(allocSendBuffers(pool, app->ZXSys.bciDataBufferMaxSize,
                                               app->ZXSys.dataBuffMaxCount, "Send buffers"));
}

int addDataInSendBuffer(ZXAppLink *app, const char *data, int len) {
  if (!data || len <= 0) return 0;
  bool logDrop = false;
  int rc =
      addLocked(app, data, len, countRecordLines(data, static_cast<std::size_t>(len)), logDrop);
  if (logDrop) logDropped(app, rc, len);
  return rc;
}

int dumpData(ZXAppLink *app, const char *data, int len) {
  if (!data || len <= 0) return 0;
  if (!app) return -99;
  // Counted before the lock: the scan costs as much as the copy.
  const unsigned long long lines = countRecordLines(data, static_cast<std::size_t>(len));
  bool logDrop = false;
  int rc;
  {
    std::lock_guard write(app->sendBuffers.bufferWriteLock);
    rc = addLocked(app, data, len, lines, logDrop);
  }
  if (logDrop) logDropped(app, rc, len);
  return rc;
}

int dumpFrame(ZXAppLink *app, const char *data, int len) {
  if (!data) return 0;
  const ZXFramePart whole{data, static_cast<std::size_t>(len)};
  return dumpFrameParts(app, &whole, 1, len);
}

int dumpFrameParts(ZXAppLink *app, const ZXFramePart *parts, int count, int len) {
  if (!parts || count <= 0 || len <= 0) return 0;
  if (!app) return -99;
  bool logDrop = false;
  int rc;
  {
    std::lock_guard write(app->sendBuffers.bufferWriteLock);
    rc = addLocked(app, parts, count, len, 1, logDrop);
  }
  if (logDrop) logDropped(app, rc, len);
  return rc;
}

ZXFrameSlot::ZXFrameSlot(ZXAppLink *app, int len) : len_(len) {
  if (!app || len <= 0) return;
  pool_ = &app->sendBuffers;
  pool_->bufferWriteLock.lock();
  // As addLocked: the head is ours while we hold the lock.
  buf_ = pool_->writeList.load(std::memory_order_acquire);
  if (buf_ && buf_->buff_size - buf_->use_len >= len) at_ = buf_->buff + buf_->use_len;
}

ZXFrameSlot::~ZXFrameSlot() {
  if (pool_) pool_->bufferWriteLock.unlock();
}

void ZXFrameSlot::commit() {
  if (!at_) return;
  bump(pool_->counters.records, 1);
  buf_->use_len += len_;
  if (buf_->use_len == buf_->buff_size) moveToReadList(*pool_);
  at_ = nullptr;
}

ZXFrameStage::~ZXFrameStage() {
  if (!app_) return;
  ZXSendBufferPool &pool = app_->sendBuffers;
  std::lock_guard write(pool.bufferWriteLock);
  takeLocked();
  (prev_ ? prev_->next_ : pool.stages) = next_;
  if (next_) next_->prev_ = prev_;
}

char *ZXFrameStage::reserveSlow(ZXAppLink *app, int len) {
  if (buf_) {
    handOver();
    return len <= cap_ ? buf_.get() : nullptr;
  }
  if (!app) return nullptr;
  ZXSendBufferPool &pool = app->sendBuffers;
  std::lock_guard write(pool.bufferWriteLock);
  // No buffers yet: the direct route drops and counts.
  if (!pool.nodes) return nullptr;
  // A handover must fit one buffer: it is stored whole or dropped whole.
  const int cap = std::min(kBytes, pool.nodes[0].buff_size);
  if (len > cap) return nullptr;
  buf_.reset(new (std::nothrow) char[static_cast<std::size_t>(cap)]);
  if (!buf_) return nullptr;
  cap_ = cap;
  app_ = app;
  next_ = pool.stages;
  if (next_) next_->prev_ = this;
  pool.stages = this;
  return buf_.get();
}

void ZXFrameStage::handOver() {
  if (!app_ || used_ == 0) return;
  std::lock_guard write(app_->sendBuffers.bufferWriteLock);
  takeLocked();
  used_ = 0;
  frames_ = 0;
  taken_ = 0;
  published_.store(0, std::memory_order_relaxed);
}

void ZXFrameStage::takeLocked() {
  const std::uint64_t pub = published_.load(std::memory_order_acquire);
  const auto from = static_cast<std::uint32_t>(taken_), to = static_cast<std::uint32_t>(pub);
  if (to <= from) return;
  const ZXFramePart chunk{buf_.get() + from, to - from};
  bool logDrop = false;  // a drop is counted; the data thread's summary tells of it
  (void)addLocked(app_, &chunk, 1, static_cast<int>(to - from), (pub >> 32) - (taken_ >> 32),
                  logDrop);
  taken_ = pub;
}

void takeStagedFrames(ZXSendBufferPool &pool) {
  for (ZXFrameStage *s = pool.stages; s; s = s->next_) s->takeLocked();
}

int dumpRecords(ZXAppLink *app, const ZXRecordSpan *records, int count) {
  if (!app) return -99;
  if (count > ZX_MAX_RECORDS_AT_ONCE) count = ZX_MAX_RECORDS_AT_ONCE;
  // Counted before the lock, as dumpData counts.
  unsigned long long lines[ZX_MAX_RECORDS_AT_ONCE] = {};
  for (int i = 0; i < count; ++i)
    if (records[i].data && records[i].len > 0)
      lines[i] = countRecordLines(records[i].data, static_cast<std::size_t>(records[i].len));
  int rcs[ZX_MAX_RECORDS_AT_ONCE] = {};
  bool logDrop[ZX_MAX_RECORDS_AT_ONCE] = {};
  {
    std::lock_guard write(app->sendBuffers.bufferWriteLock);
    for (int i = 0; i < count; ++i)
      if (records[i].data && records[i].len > 0)
        rcs[i] = addLocked(app, records[i].data, records[i].len, lines[i], logDrop[i]);
  }
  int first = 0;
  for (int i = 0; i < count; ++i) {
    if (logDrop[i]) logDropped(app, rcs[i], records[i].len);
    if (!first) first = rcs[i];
  }
  return first;
}

nioSettings_t *moveToReadList(ZXSendBufferPool &pool) {
  std::lock_guard move(pool.bufferMoveLock);
  nioSettings_t *b = pool.writeList.load(std::memory_order_relaxed);
  if (!b) return nullptr;
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
  return rest;
}

void moveToWriteList(ZXSendBufferPool &pool) {
  std::lock_guard move(pool.bufferMoveLock);
  nioSettings_t *b = pool.readList;
  if (!b) return;
  pool.readList = b->next.load(std::memory_order_relaxed);
  if (!pool.readList) pool.readListLast = nullptr;
  --pool.readListSize;
  ++pool.writeListSize;
  // Release: a producer that finds `b` through either link must also see
  // its zeroed counts.
  nioSettings_t *head = pool.writeList.load(std::memory_order_relaxed);
  if (!head) {
    b->next.store(nullptr, std::memory_order_relaxed);
    pool.writeListLast = b;
    pool.writeList.store(b, std::memory_order_release);
    return;
  }
  // Behind the filling head, not at the tail: reused while its pages are
  // still resident and cached, so the pool's working set is what is in
  // flight rather than every buffer in turn.
  nioSettings_t *after = head->next.load(std::memory_order_relaxed);
  b->next.store(after, std::memory_order_relaxed);
  if (!after) pool.writeListLast = b;
  head->next.store(b, std::memory_order_release);
}

void movePartialToReadList(ZXSendBufferPool &pool) {
  std::lock_guard write(pool.bufferWriteLock);
  takeStagedFrames(pool);
  nioSettings_t *b = pool.writeList.load(std::memory_order_relaxed);
  if (b && b->use_len > 0) moveToReadList(pool);
}

nioSettings_t *sendBufferHead(ZXSendBufferPool &pool) {
  std::lock_guard move(pool.bufferMoveLock);
  return pool.readList;
}

int markBufferSent(ZXSendBufferPool &pool, nioSettings_t *b, int n) {
  return consume(pool, b, n, pool.counters.sent);
}

int markBufferDiscarded(ZXSendBufferPool &pool, nioSettings_t *b, int n, ZXSendLoss cause) {
  return consume(pool, b, n, lossCounter(pool.counters, cause));
}

unsigned long long discardQueued(ZXSendBufferPool &pool, ZXSendLoss cause) {
  // The snapshot is taken under bufferWriteLock, so every record in it is
  // whole there and every later one starts in a buffer of its own.
  int queued;
  {
    std::lock_guard write(pool.bufferWriteLock);
    movePartialToReadList(pool);
    std::lock_guard move(pool.bufferMoveLock);
    queued = pool.readListSize;
  }
  std::atomic<unsigned long long> &counter = lossCounter(pool.counters, cause);
  const unsigned long long before = counter.load(std::memory_order_relaxed);
  for (int i = 0; i < queued; ++i) {
    nioSettings_t *b = sendBufferHead(pool);
    if (!b) break;
    markBufferDiscarded(pool, b, b->use_len - b->send_len, cause);
  }
  pool.midLine = false;
  pool.frame = ZXFrameWalk{};
  return counter.load(std::memory_order_relaxed) - before;
}
