// The per-thread record: everything one flowpath in progress keeps on the
// thread that runs it.
//
// Records live in blocks of 64 taken from the slot pool (zxlb_mem_pool.h) or,
// for threads that a traced thread starts, in the thread-id map
// (ZXManageTIdToTLocal.h). Value-initialising a record zeroes it: every field
// has a zero default. A record belongs to its thread while busy; only the
// blob and the BT object are touched by other threads (a call-out thread, the
// hotspot sampler, the stop walk), under sequenceBlobLock and updateBTLock.
//
// fpPhase says who writes the flowpath's last record. The owner publishes
// Running (release) once startFP has filled the record; from then the stop
// walk may, under sequenceBlobLock, write it as incomplete and mark it
// EndedByStop (release, its last touch of the record). The owner's end claims
// it as Ended under the same lock. Whoever claims first writes; the other
// writes nothing. The slot stays the owner's until it lets go (reset).
#pragma once

#include <atomic>
#include <memory>

#include "ZXDataDispatcher.h"
#include "ZXSQLProcessor.h"
#include "zxlb_apr.h"
#include "zxlb_owned_string.h"

struct BTObject;
struct ZXMonitorDataModel;
struct node_t;
struct methodPropProperties;
struct ZXAppTracing;

inline constexpr int ZX_SEQ_BLOB_SIZE = 16384;
inline constexpr int ZX_CORRELATION_ID_SIZE = 128;
inline constexpr int ZX_TL_URL_SIZE = 512;
inline constexpr int ZX_FPI_STR_SIZE = 32;
inline constexpr int ZX_DEBUG_MODE_BUF_SIZE = 128;
// Methods reported by name pair their exits with entries on this stack;
// deeper calls still pair, with an unknown (0) wall time.
inline constexpr int ZX_METHOD_STACK_DEPTH = 256;

// A record's blob lock. Its owner takes it for every method event and other
// threads (the stop walk, a thread the host handed the flowpath to) seldom,
// and each holds it for at most one record's formatting. So the free case is
// inline, and giving it back is a plain store: no locked instruction waiting
// for the record just written to drain. A waiter spins, then yields, then
// naps; nobody has to wake it. Not recursive.
class ZXBlobLock {
 public:
  void lock() noexcept {
    if (!taken_.exchange(true, std::memory_order_acquire)) return;
    lockSlow();
  }
  void unlock() noexcept { taken_.store(false, std::memory_order_release); }

 private:
  void lockSlow() noexcept;
  std::atomic<bool> taken_{false};
};

enum ZXFpPhase : unsigned char {
  ZX_FP_IDLE = 0,           // taken, not (yet) a published flowpath
  ZX_FP_RUNNING = 1,        // published by startFP
  ZX_FP_ENDED = 2,          // claimed by its owner's end (or release)
  ZX_FP_ENDED_BY_STOP = 3,  // written as incomplete by the stop walk
};

struct ZXPerThreadData_t {
  ZXPerThreadData_t() = default;
  ZXPerThreadData_t(const ZXPerThreadData_t &) = delete;
  ZXPerThreadData_t &operator=(const ZXPerThreadData_t &) = delete;

  char tlIsFPCaptured = 0;
  char tlIsBTExcluded = 0;
  char tlIsForceDump = 0;
  zx::OwnedString prevTierSeq;
  char tlCorrelationIdHeader[ZX_CORRELATION_ID_SIZE] = {};
  char tlLogCompleteFlowPath = 0;
  char sequenceBlob[ZX_SEQ_BLOB_SIZE] = {};
  char tlIsFPHeaderDumped = 0;
  char tlCategory = 0;
  char tlURL[ZX_TL_URL_SIZE] = {};
  char tlURLParameters[ZX_TL_URL_SIZE] = {};
  int tlStatusCode = 0;  // -3: a child thread primed by its parent
  int tlServiceMethodDepth = 0, tlServiceMethodCount = 0;
  int sequenceBlobLen = 0;
  int tlNonServiceMethodCount = 0;
  int httpCallOutDepth = 0;
  char flowpathInstanceStr[ZX_FPI_STR_SIZE] = {};
  long long flowpathInstance = 0;
  // flowpathInstanceStr's length and the id it spells: records copy the text
  // rather than format the id again while it still spells flowpathInstance.
  int flowpathInstanceStrLen = 0;
  long long flowpathInstanceStrOf = 0;
  long long tlsIdx = 0;  // unique slot number in the process (g_tlsidx)
  long long seqNum = 0;
  long long tlTestRunNumber = 0;
  long long tlFlowPathTimeStampInMS = 0;
  long long tlThreadId = 0;
  long long tlFpCPUTime = 0, tlDuration = 0;
  long long firstFlowpathInstance = 0, prevFlowpathInstance = 0;
  long long tlTierStartTime = 0;
  // Last call-out header built; capacity in tierCallOutHeaderLen.
  std::unique_ptr<char[]> tierCallOutHeader;
  int tierCallOutHeaderLen = 0;
  long long tierCallOutSeqNum = 0;
  BTObject *tlBTObj = nullptr;
  ZXSQLProperties_t tlSQLObj;
  ZXMonitorDataModel *tlMonitorDataModel = nullptr;
  // The method-table node this flowpath holds a reference on.
  node_t *hasMapNodePtr = nullptr;
  // The request's pseudo method in that node (its entry opens the blob).
  const methodPropProperties *tlBeginRequestMethod = nullptr;
  // Pool links; tlsMutex guards them and isBusy.
  ZXPerThreadData_t *free_next = nullptr, *free_prev = nullptr;
  ZXPerThreadData_t *busy_next = nullptr, *busy_prev = nullptr;
  char isBusy = 0;  // on the busy list: guards against giving a slot back twice
  // Changed from Running only under sequenceBlobLock (see the top).
  std::atomic<unsigned char> fpPhase{ZX_FP_IDLE};
  char setEndFPFlag = 0;
  char idListed = 0;  // the owner's: whether it registered the id in fpiToTLS
  long long zxSessionId = 0;
  long long prev_fp_start_time = 0;
  int instrumented = 0, btCategory = 0, exceptionCount = 0, totalFpcount = 0;
  int tierID = 0, zxAppServerID = 0, appID = 0, tlFlowpathType = 0;
  long long morSID = 0, ZXPageID = 0, last_fptimestamp_from_cookie = 0;
  long long agentThreadID = 0, syncTime = 0, waitTime = 0;
  long long qTimeInMS = 0;  // -1: unknown
  int debugModeLen = 0;
  char debugModeBuf[ZX_DEBUG_MODE_BUF_SIZE] = {};
  int bitFlags = 0;
  ZXBlobLock sequenceBlobLock;
  zx::NestedMutex updateBTLock;
  // Exception being recorded (filled by exception capture).
  zx::OwnedString excepMessage;
  char dumpERecordFlag = 0;
  unsigned long long unwindfID = 0;
  int exceptionFlagForEventType = 0;
  zx::OwnedString excepClassName, throwingCName, throwingMName, exceptionBackendName,
      exceptionStackTrace;
  long long fpStartTimeforReset = 0;
  // The methods this flowpath resolved by name last, newest first: records
  // of hasMapNodePtr, valid while it is held. A name called again (an exit
  // after its entry) skips the method table's lock.
  static constexpr int kNameCacheSize = 4;
  methodPropProperties *nameCache[kNameCacheSize] = {};
  // Agent times (ms) of the open by-name method entries.
  int methodStackDepth = 0;
  long long methodEntryTimes[ZX_METHOD_STACK_DEPTH] = {};
  int prevPID = 0, isBTOverride = 0;

  // In a proxy-mode application process: the call-outs in progress by kind
  // (HTTP, database), each sent to the proxy whole at its outermost end.
  struct ProxiedCallOut {
    zx::OwnedString host, query;
    long long startMs = 0;
    int depth = 0;
  };
  ProxiedCallOut proxiedCallOuts[2];
  // In a proxy-mode application process: this flowpath's frames on their way
  // to the send buffers. Kept across transactions, with its buffer.
  ZXFrameStage frameStage;

  // The application this record belongs to (its slot pool or thread-id map);
  // functions given only a record find the application here. In a fork's
  // child a handle from before the fork names the parent's object and is
  // refused.
  ZXAppTracing *owner = nullptr;
};

// One entry per slot number, for the hotspot sampler.
struct TLSDataStruct {
  ZXPerThreadData_t *Tlsdata;
  long long threadId;
  unsigned long long timestamp;
};

// Clears the record's transaction fields (not its identity, locks, links or
// monitor model). Only whoever holds the record may call it.
void clearTransactionFields(ZXPerThreadData_t *record);
// clearTransactionFields, and zeroes the record's tlsdatastruct entry under
// tlsMutex.
void resetAllThreadLocals(ZXPerThreadData_t *record, ZXAppTracing *app);
