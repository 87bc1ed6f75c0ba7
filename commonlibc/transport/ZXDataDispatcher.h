// The send-buffer pool: where every record line the agent produces waits for
// the data thread.
//
// Producers (application threads, monitors, meta records) hand whole lines to
// dumpData, which copies them into a fixed set of buffers allocated once by
// buff_list_init. The data thread takes filled buffers from the read list,
// sends them and gives them back. Producers must never block on the network
// and never allocate: when no buffer is free the record is dropped and
// counted. A record lands under one lock hold, so records from different
// threads never interleave; one may be split across two buffers (the
// collector reads a byte stream of lines).
//
//   write list (free)                       read list (filled, to send)
//   writeList                writeListLast  readList                readListLast
//   [filling] -> [free] -> ... -> [free]    [sending] -> [full] -> ... -> [full]
//       |  moveToReadList / movePartialToReadList  ^                  |
//       +------------------------------------------+                  |
//       |  ^  moveToWriteList (fully sent)                            |
//       |  +----------------------------------------------------------+
//   The head of the write list is the buffer being filled; the head of the
//   read list is the buffer being sent. A sent buffer goes back right behind
//   the filling one, so the next producer to need a buffer takes the one
//   used last: a pool that keeps up touches a few buffers, not all of them
//   (the storage is mapped untouched, and pages become resident only where
//   records were written).
//
// Every record line handed to the pool is counted once where it ends up:
// sent, still queued, or lost for one cause (ZXSendCounters).
//
// In proxy mode a flowpath's frames may wait a while in its own stage
// (ZXFrameStage) before they are handed to the pool; they are counted from
// the handover.
#pragma once

#include <atomic>
#include <condition_variable>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <mutex>

#include <apr_time.h>

#include "zxlb_apr.h"
#include "zxlb_status.h"

struct ZXAppLink;
class ZXFrameStage;

// One send buffer. Owned by the pool; `buff` points into the pool's storage.
struct nioSettings_t {
  char *buff = nullptr;
  int use_len = 0;   // bytes filled; written only by bufferWriteLock holders
  int send_len = 0;  // bytes sent; the sender only
  int buff_size = 0;
  // Atomic because a producer peeks at the buffer behind the filling one
  // under bufferWriteLock while the data thread may be linking a sent one
  // in behind it under bufferMoveLock.
  std::atomic<nioSettings_t *> next{nullptr};
};

// Where a sender stands in a stream of event frames: the bytes of the
// current frame still to go, or while its length is not yet known, the
// first bytes of its header (a frame may be cut by a buffer's end anywhere).
struct ZXFrameWalk {
  long long left = 0;
  unsigned char head[9] = {};  // the start byte, header_len and total_len
  int headHave = 0;
  bool midUnit() const { return left > 0 || headHave > 0; }
  // Walks `n` bytes: the units they complete. With `toUnitEnd` it stops at
  // the end of the unit in progress (or of the first one) and returns, in
  // `walked`, the bytes taken.
  unsigned long long walk(const char *p, std::size_t n, bool toUnitEnd, std::size_t &walked);
};

// Why a record line never reached the socket.
enum class ZXSendLoss { PoolFull, ConnDown, AtExit, Oversized };

// Where the record lines handed to the pool went, counted by their "\n"
// bytes (one dumpData call may carry several lines, as record 74 does). At
// any moment records == sent + queued + the four losses; queued is derived.
struct ZXSendCounters {
  // Written by bufferWriteLock holders only, so a plain load and store
  // (no locked add) is enough on the producer path.
  std::atomic<unsigned long long> records{0};
  std::atomic<unsigned long long> lostPoolFull{0};
  std::atomic<unsigned long long> lostOversized{0};
  // Written per buffer by the sender and by discards: locked adds.
  std::atomic<unsigned long long> sent{0};
  std::atomic<unsigned long long> lostConnDown{0};
  std::atomic<unsigned long long> lostAtExit{0};
};

// A consistent-enough reading of ZXSendCounters: never less queued than 0.
struct ZXSendCounts {
  unsigned long long records = 0;
  unsigned long long sent = 0;
  unsigned long long queued = 0;
  unsigned long long lostPoolFull = 0;
  unsigned long long lostConnDown = 0;
  unsigned long long lostAtExit = 0;
  unsigned long long lostOversized = 0;
  unsigned long long lost() const {
    return lostPoolFull + lostConnDown + lostAtExit + lostOversized;
  }
};

// Unmaps the pool's storage.
struct ZXSendStorageUnmap {
  std::size_t bytes = 0;
  void operator()(char *p) const;
};

// Preallocated buffers and their two lists.
//
// Lock order: sendLock, then bufferWriteLock, then bufferMoveLock; never the
// reverse.
struct ZXSendBufferPool {
  ZXSendBufferPool() = default;
  ZXSendBufferPool(const ZXSendBufferPool &) = delete;
  ZXSendBufferPool &operator=(const ZXSendBufferPool &) = delete;

  // bufferWriteLock guards the filling buffer (the write list's head and its
  // use_len), the decision to drop and the producer-side counters. It is
  // taken for every record. Logging happens after unlock, so nothing under
  // it re-enters dumpData.
  zx::NestedMutex bufferWriteLock;

  // bufferMoveLock guards the list links and sizes below: every move between
  // the lists, and the data thread's reads of the read list. A producer that
  // holds bufferWriteLock may read `writeList` and a `next` without it (both
  // are atomic; only bufferWriteLock holders detach the write list's head).
  zx::NestedMutex bufferMoveLock;
  std::atomic<nioSettings_t *> writeList{nullptr};
  nioSettings_t *writeListLast = nullptr;
  int writeListSize = 0;
  nioSettings_t *readList = nullptr;
  nioSettings_t *readListLast = nullptr;
  int readListSize = 0;

  // sendLock is held by whoever takes bytes off the read list: the data
  // thread around each send, a discard throughout. It never waits on a
  // producer, and a producer never waits on it. midLine (the sender's) is
  // set while the bytes taken off so far end inside a line.
  std::mutex sendLock;
  bool midLine = false;

  // A pool of event frames (an application process of proxy mode) rather
  // than record lines: its units are whole frames, and the lone "\n" of the
  // data heartbeat. Frames are binary, so the sender finds their ends from
  // their lengths: `frame` is its place in the stream (under sendLock).
  // Set by buff_list_init before the first record, never changed.
  bool framed = false;
  ZXFrameWalk frame;

  ZXSendCounters counters;

  // Every frame stage with a buffer, for movePartialToReadList to take their
  // frames (under bufferWriteLock).
  ZXFrameStage *stages = nullptr;

  // Raised once the exit deadline has passed: nothing more is sent, and
  // what is or becomes queued is discarded as lost at exit.
  std::atomic<bool> closedForExit{false};
  // The exit drain's request to the data thread: drainDeadline non-zero
  // asks for one; drainDone (under drainMutex, with drainCond) answers.
  std::atomic<apr_time_t> drainDeadline{0};
  std::mutex drainMutex;
  std::condition_variable drainCond;
  bool drainDone = false;

  // How often at most the data thread logs what was lost since its last
  // summary; tests shorten it.
  apr_interval_time_t lossSummaryInterval = apr_time_from_sec(60);

  // Set once by buff_list_init, freed with the application object.
  int bufferCount = 0;
  std::unique_ptr<nioSettings_t[]> nodes;
  std::unique_ptr<char[], ZXSendStorageUnmap> storage;
};

// Allocates ZXSys.dataBuffMaxCount buffers of ZXSys.bciDataBufferMaxSize
// bytes into the write list. Idempotent: a pool that exists is kept (the data
// thread calls this on every reconnect). 0 on success, -1 on bad settings or
// no memory.
int buff_list_init(ZXAppLink *app);

// Allocates `count` buffers of `size` bytes into the pool's write list unless
// it has buffers already; `what` names the pool in log lines. The storage is
// mapped, not written: none of it is resident until records land in it.
// Caller holds both pool locks. bad_input for sizes not above 0.
zx::Status allocSendBuffers(ZXSendBufferPool &pool, int size, int count, const char *what);

// A record handed to the pool by reference.
struct ZXRecordSpan {
  const char *data;
  int len;
};

// Queues one whole event frame (a unit of its own in a framed pool); the
// results are dumpData's.
int dumpFrame(ZXAppLink *app, const char *data, int len);
// One piece of a frame; null data only with len 0.
struct ZXFramePart {
  const char *data;
  std::size_t len;
};
// dumpFrame for a frame of `len` bytes given as `count` parts in order,
// copied straight into the send buffers: nothing is assembled aside first.
int dumpFrameParts(ZXAppLink *app, const ZXFramePart *parts, int count, int len);

// The place of one frame of `len` bytes in the filling buffer, for a
// producer to write it there itself: bufferWriteLock is held for the slot's
// life. at() is null when the frame does not fit that buffer whole (or there
// is none); the producer then lets the slot go and calls dumpFrameParts,
// which splits, drops and counts. Nothing is counted until commit(). While
// it holds a slot a producer only writes the frame: no log, no other lock.
class ZXFrameSlot {
 public:
  ZXFrameSlot(ZXAppLink *app, int len);
  ~ZXFrameSlot();
  ZXFrameSlot(const ZXFrameSlot &) = delete;
  ZXFrameSlot &operator=(const ZXFrameSlot &) = delete;
  char *at() const { return at_; }
  // The `len` bytes at at() are written: they are one queued frame.
  void commit();

 private:
  ZXSendBufferPool *pool_ = nullptr;
  nioSettings_t *buf_ = nullptr;
  char *at_ = nullptr;
  int len_;
};

// A flowpath's frames staged by its owner thread with no lock and no locked
// instruction, and handed to the pool in one locked copy: when the stage is
// full, when the owner says so (the transaction's end), and whenever anyone
// moves the partly filled buffer on (movePartialToReadList: the data
// thread's tick, the exit drain, a discard), which takes every stage's
// frames so far without the owner's help, so frames of a thread that
// stalls or is gone still flow. A stage's frames reach the pool whole and in
// order. Frames larger than a stage go through ZXFrameSlot after a handover.
//
// The owner appends at `used_` and publishes each frame (a release store of
// `published_`); takers copy only the published bytes past `taken_`, under
// bufferWriteLock, and the owner rewinds to the start only under that lock.
// So the bytes a taker reads are never written meanwhile.
class ZXFrameStage {
 public:
  ZXFrameStage() = default;
  ~ZXFrameStage();  // hands over what is left
  ZXFrameStage(const ZXFrameStage &) = delete;
  ZXFrameStage &operator=(const ZXFrameStage &) = delete;

  // Owner only. Room for a frame of `len` bytes, after a handover when the
  // stage is full; null when the frame is larger than a stage or the stage
  // cannot be made (the caller then sends it through the pool directly,
  // which keeps the order: the stage was handed over).
  char *reserve(ZXAppLink *app, int len) {
    if (len <= cap_ - used_) return buf_.get() + used_;
    return reserveSlow(app, len);
  }
  // Owner only: the `len` bytes at reserve() are one frame.
  void commit(int len) {
    used_ += len;
    ++frames_;
    published_.store(pack(frames_, used_), std::memory_order_release);
  }
  // Owner only: everything staged into the pool now.
  void handOver();

  // Bytes in one stage at most (smaller when the pool's buffers are).
  static constexpr int kBytes = 8192;

 private:
  friend void takeStagedFrames(ZXSendBufferPool &pool);
  static std::uint64_t pack(std::uint32_t frames, int bytes) {
    return std::uint64_t{frames} << 32 | static_cast<std::uint32_t>(bytes);
  }
  char *reserveSlow(ZXAppLink *app, int len);
  // The published frames past taken_ into the pool. Caller holds
  // bufferWriteLock.
  void takeLocked();

  ZXAppLink *app_ = nullptr;  // set with buf_
  std::unique_ptr<char[]> buf_;
  int cap_ = 0;
  int used_ = 0;              // the owner's
  std::uint32_t frames_ = 0;  // the owner's: frames staged since the last rewind
  std::atomic<std::uint64_t> published_{0};
  std::uint64_t taken_ = 0;  // frames and bytes already handed over; bufferWriteLock
  ZXFrameStage *prev_ = nullptr, *next_ = nullptr;  // pool.stages; bufferWriteLock
};

// Every stage's published frames into the pool. Caller holds bufferWriteLock.
void takeStagedFrames(ZXSendBufferPool &pool);

// The single entry for producers; a no-op (0) for null data or len <= 0, -99
// without an application. Otherwise the result of addDataInSendBuffer.
int dumpData(ZXAppLink *app, const char *data, int len);

// Records that go out together (a flowpath's header and its end) under one
// hold of bufferWriteLock: each is stored or dropped, and counted, exactly as
// its own dumpData call would store it, and nothing lands between them.
inline constexpr int ZX_MAX_RECORDS_AT_ONCE = 4;
// dumpData for each of `count` (at most ZX_MAX_RECORDS_AT_ONCE) records:
// the first non-zero result, or 0; -99 without an application.
int dumpRecords(ZXAppLink *app, const ZXRecordSpan *records, int count);

// 0 stored; -1 no free buffer (dropped); -2 nothing being filled while a
// buffer is being sent (dropped); -3 larger than the filling buffer's room
// and the next buffer together (dropped whole); -99 no buffers at all.
// Caller holds bufferWriteLock.
int addDataInSendBuffer(ZXAppLink *app, const char *data, int len);

// The "\n" bytes in data[0, len).
unsigned long long countRecordLines(const char *data, std::size_t len);

// The pool's counters, read so that queued is never negative.
ZXSendCounts readSendCounts(const ZXSendBufferPool &pool);

// List moves; each takes bufferMoveLock.
// Filling head -> read tail; returns the new filling head. Caller holds
// bufferWriteLock.
nioSettings_t *moveToReadList(ZXSendBufferPool &pool);
// Sent head of the read list (counts already zeroed) -> right behind the
// filling head, where the next producer takes it.
void moveToWriteList(ZXSendBufferPool &pool);
// Staged frames, then the partly filled head -> read tail (flush). Takes
// both locks itself.
void movePartialToReadList(ZXSendBufferPool &pool);

// The sender's side. These assume one sender (the data thread, or a
// sendLock holder).
// The buffer being sent, or null.
nioSettings_t *sendBufferHead(ZXSendBufferPool &pool);
// Records `n` more bytes of `b` (the head) as sent; once all are, zeroes its
// counts and returns it to the write list. Returns the bytes still to send.
int markBufferSent(ZXSendBufferPool &pool, nioSettings_t *b, int n);
// The bytes of `b` from its sent mark that finish the line or frame that
// the sender is in the middle of (all of them when it does not end there).
int bytesToUnitEnd(const ZXSendBufferPool &pool, const nioSettings_t *b);
// As markBufferSent, for `n` bytes thrown away unsent; their lines count as
// lost for `cause`.
int markBufferDiscarded(ZXSendBufferPool &pool, nioSettings_t *b, int n, ZXSendLoss cause);
// Throws away what is queued now, the partly filled buffer included, and
// counts its lines as lost for `cause`; returns them. Records stored later
// are kept. Caller holds sendLock.
unsigned long long discardQueued(ZXSendBufferPool &pool, ZXSendLoss cause);
