// The send-buffer pool: where every record line the agent produces waits for
// the data thread.
//
// Producers (application threads, monitors, meta records) hand whole lines to
// dumpData, which copies them into a fixed set of buffers allocated once by
// buff_list_init. The data thread takes filled buffers from the read list,
// sends them and gives them back. Producers must never block on the network
// and never allocate: when no buffer is free the record is dropped and counted
// in ZXSys.discardCount. A record lands under one lock hold, so records from
// different threads never interleave; one may be split across two buffers (the
// collector reads a byte stream of lines).
//
//   write list (free)                       read list (filled, to send)
//   writeList                writeListLast  readList                readListLast
//   [filling] -> [free] -> ... -> [free]    [sending] -> [full] -> ... -> [full]
//       |  moveToReadList / movePartialToReadList  ^                  |
//       +------------------------------------------+                  |
//       ^                        moveToWriteList (fully sent, zeroed) |
//       +-------------------------------------------------------------+
//   The head of the write list is the buffer being filled; the head of the
//   read list is the buffer being sent.
#pragma once

#include <atomic>
#include <memory>

#include "zxlb_apr.h"

struct ZXProxyInstance_t;

// One send buffer. Owned by the pool; `buff` points into the pool's storage.
struct nioSettings_t {
  char *buff = nullptr;
  int use_len = 0;   // bytes filled; written only by bufferWriteLock holders
  int send_len = 0;  // bytes sent; the data thread only
  int buff_size = 0;
  // Atomic because a producer peeks at the buffer behind the filling one
  // under bufferWriteLock while the data thread may be appending behind it
  // under bufferMoveLock.
  std::atomic<nioSettings_t *> next{nullptr};
};

// Preallocated buffers and their two lists.
//
// Lock order: bufferWriteLock before bufferMoveLock, never the reverse.
struct ZXSendBufferPool {
  // bufferWriteLock guards the filling buffer (the write list's head and its
  // use_len) and the decision to drop. It is taken for every record; an APR
  // nested mutex costs about 25 ns per 200-byte record against 18 ns for a
  // std::mutex, well inside the budget, so it stays an APR lock like every
  // other lock of the agent. Logging happens after unlock, so nothing under
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

  // Set once by buff_list_init, freed with the application object.
  std::unique_ptr<nioSettings_t[]> nodes;
  std::unique_ptr<char[]> storage;
};

// Allocates ZXSys.dataBuffMaxCount buffers of ZXSys.bciDataBufferMaxSize
// bytes into the write list. Idempotent: a pool that exists is kept (the data
// thread calls this on every reconnect). 0 on success, -1 on bad settings or
// no memory.
int buff_list_init(ZXProxyInstance_t *app);

// Allocates `count` buffers of `size` bytes into the pool's write list unless
// it has buffers already; `what` names the pool in log lines. Caller holds
// both pool locks. 0 on success, -1 on bad sizes or no memory.
int allocSendBuffers(ZXSendBufferPool &pool, int size, int count, const char *what);

// The single entry for producers; a no-op (0) for null data or len <= 0.
// Otherwise the result of addDataInSendBuffer.
int dumpData(const char *data, int len);
int dumpData(ZXProxyInstance_t *app, const char *data, int len);

// 0 stored; -1 no free buffer (dropped); -2 nothing being filled while a
// buffer is being sent; -3 the rest of a record larger than the next buffer
// was replaced by a lone "\n"; -99 no buffers at all.
// Caller holds bufferWriteLock.
int addDataInSendBuffer(ZXProxyInstance_t *app, const char *data, int len);

// List moves; each takes bufferMoveLock.
// Filling head -> read tail. Caller holds bufferWriteLock.
void moveToReadList(ZXSendBufferPool &pool);
// Sent head of the read list (counts already zeroed) -> write tail.
void moveToWriteList(ZXSendBufferPool &pool);
// Partly filled head -> read tail (flush). Takes both locks itself.
void movePartialToReadList(ZXSendBufferPool &pool);

// The data thread's side. These assume one sender.
// The buffer being sent, or null.
nioSettings_t *sendBufferHead(ZXSendBufferPool &pool);
// Records `n` more bytes of `b` (the head) as sent; once all are, zeroes its
// counts and returns it to the write list. Returns the bytes still to send.
int markBufferSent(ZXSendBufferPool &pool, nioSettings_t *b, int n);
