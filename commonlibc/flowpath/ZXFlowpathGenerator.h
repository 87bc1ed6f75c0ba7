// The flowpath generator: instance ids, the sequence blob of one traced
// transaction, and the flowpath records (2 header, 3 incomplete block,
// 4 complete block) handed to dumpData.
//
// Blob appends run on the application's hot path: they format with
// std::to_chars straight into the record's fixed blob, never allocate and
// never block on the network (dumpData drops and counts what does not fit).
// Every blob write and every record 3/4 write happens under the record's
// sequenceBlobLock, because a call-out thread may append to the same blob and
// the stop walk may write the flowpath out; only startFP writes the request's
// entry without it, before any other thread can reach the record. A flowpath
// written out (ended, or ended by the stop) takes no more entries.
#pragma once

#include <cstddef>
#include <memory>
#include <mutex>

#include "ZXPerThreadData.h"
#include "zxlb_relaxed.h"

struct ZXAppTracing;
struct methodPropProperties;

// Instance id layout (the "zxFlowpathMasks" keyword sets the three masks)
// and the header's correlation switch. Written by the control thread, read
// without locks like every settings record.
// Until the collector sends masks, ids are 41 bits of agent milliseconds
// over a 22-bit counter: unique up to 2^21 ids per millisecond (the counter
// steps twice per id), and positive.
// A new mask set applies field by field: an id made meanwhile may mix old
// and new masks once.
struct ZXFlowpathIdSettings_t {
  zx::Relaxed<long long> flowPathInstanceInitialID{0};
  zx::Relaxed<long long> timeStampMask{0x1FFFFFFFFFFLL};
  zx::Relaxed<long long> seqNoDigits{22};  // a shift in bits
  zx::Relaxed<long long> seqNumMask{0x3FFFFFLL};
  zx::Relaxed<char> captureCorrelationEnabled{0};
  // An application process of the proxy: its process index there (-1:
  // none). The application's processes share one identity and may start in
  // the same millisecond with the same counter, so the counter's upper
  // kProxySlotBits name the process and only the rest count.
  zx::Relaxed<int> proxyProcIndex{-1};
};

// The proxy's slots that get ids of their own: as many as its pollset holds.
inline constexpr int kProxySlotBits = 11;

// Flowpaths in progress by id, so that a later call (a call-out thread, the
// proxy's reader) finds one by its id text. Keyed by the number the text
// spells. Open addressing in one array that grows with the number of
// flowpaths running at once, never per flowpath: registering and forgetting
// an id allocate nothing once the table has seen that many.
class ZXFpiToTLS {
 public:
  // Registers `record` under `id`, replacing whichever held it. False only
  // when the table is full and cannot grow.
  bool put(long long id, ZXPerThreadData_t *record);
  // Forgets `id` if `record` still holds it.
  void erase(long long id, const ZXPerThreadData_t *record);
  ZXPerThreadData_t *find(long long id);
  std::size_t size();

 private:
  struct Entry {
    long long id;
    ZXPerThreadData_t *record;  // null: a free entry
  };
  std::size_t home(long long id) const;
  bool grow();

  std::mutex lock_;  // guards everything below
  std::unique_ptr<Entry[]> slots_;
  std::size_t mask_ = 0;  // capacity less one; capacity is a power of two
  int shift_ = 64;        // 64 less log2(capacity)
  std::size_t count_ = 0;
};

inline constexpr int ZX_MAX_CHARS_IN_SEQ_BLOB = 13312;
inline constexpr int ZX_FP_RECORD_MAX = 16384;

// Event ids of blob entries.
inline constexpr int ZX_FP_EVENT_ENTRY = 0;
inline constexpr int ZX_FP_EVENT_EXIT = 1;

// A new id from agent time and the application's rSeq. The counter is
// advanced twice per id, so consecutive ids use every second value.
long long generate_flowpath_instance(ZXAppTracing *app);
// The same for an agent time the caller has just read.
long long generate_flowpath_instance(ZXAppTracing *app, long long agentTimeMs);

// Cuts `text` in place at each `separator`, storing at most `max` pieces;
// returns their count.
int tokenize_flowpathmasks(char *text, char **parts, const char *separator, int max);
// "ignored%20<timeStampMask hex>%20<seqNoDigits>%20<seqNumMask hex>".
// Leaves the settings alone when a piece is missing. 0 on success, -1 not.
int parse_flowpath_mask(ZXAppTracing *app, const char *text);
// Keyword row "zxFlowpathMasks": applies the masks and keeps the raw value.
void parseZXFlowpathMasks(ZXAppTracing &app, char *value, char *keyword, int index);

int getMaxCharactersInSeqBlob();
void setMaxCharactersInSeqBlob(int value);

// Appends one entry (event 0 entry, 1 exit, 3 and 4 as exits); other events
// append nothing. For an entry startTime is ms since the flowpath began, for
// an exit the method's wall time. cpuTime < 0: unknown. Flushes the blob as
// record 3 once it reaches getMaxCharactersInSeqBlob(). Takes
// sequenceBlobLock.
void updateFPSeqBlob(ZXAppTracing *app, ZXPerThreadData_t *record, int mid, long long startTime,
                     int eventID, int pageID, long long cpuTime, int isAsyncCall,
                     long long threadID, const char *urlStr, int captureArgument);

// A call-out's entry: "T" (success) or "E" with the status (tlStatusCode >
// 399), by the method's type: 2 database (resourceID is the query's id), 6,
// else HTTP and the like (resourceID written with enableIPResourceURL).
// Resets tierCallOutSeqNum. Takes sequenceBlobLock.
void updateFPSeqBlobWithTierCallOutRecord(ZXAppTracing *app, ZXPerThreadData_t *record,
                                          long long methodStartTime, long long duration,
                                          const methodPropProperties *method, long long resourceID);

// Caller holds sequenceBlobLock; uses the "maxCharInSeqBlob" setting when
// one was given.
void checkToDumpFPSeqBlob(ZXAppTracing *app, ZXPerThreadData_t *record);

// Record 2; sets tlIsFPHeaderDumped. Returns dumpData's result.
int dumpFPHeaderRecord(ZXAppTracing *app, ZXPerThreadData_t *record);
// Record 3 (header first when not yet written) and empties the blob. Caller
// holds sequenceBlobLock.
int dumpIncompleteFlowpathSeqBlock(ZXAppTracing *app, ZXPerThreadData_t *record);
// Record 4 under the discarding rules; 1 when a record was written, 0 when
// the flowpath was dropped. Caller holds sequenceBlobLock.
int dumpCompleteFlowpathSeqBlock(ZXAppTracing *app, ZXPerThreadData_t *record, int category,
                                 long long fpCPUTime, long long respTime);

// A new flowpath on a free slot, or null while no test run is running or a
// stop is under way. flowpathinstance (may be null): the id ("F" or "f"
// forces it) or a caller tier's call-out header. The session cookie decides
// capture (ZXSessionCookie.h); in the proxy the browser cookie, URL and
// correlation id are decoded. startTimeFP <= 0: now.
ZXPerThreadData_t *startFP(ZXAppTracing *app, const char *flowpathinstance, const char *url,
                           char *btHeaderValue, long long TLS, const char *ZXCookieStr,
                           const char *RBCookieStr, const char *correlationIdHeader,
                           long long qTimeInMS, long long startTimeFP);

// Method events. nowMs is agent time; the exit's methodWallTime and
// fpCPUTime (< 0: unknown) are the method's own. Methods past
// bciMaxNonServiceMethodsPerFP write neither entry nor exit.
void zxMethodEntryEx(ZXAppTracing *app, ZXPerThreadData_t *record,
                     const methodPropProperties *method, long long nowMs);
// eventID: 1 a return, 3 and 4 exits by exception.
void zxMethodExitEx(ZXAppTracing *app, ZXPerThreadData_t *record,
                    const methodPropProperties *method, long long methodWallTime,
                    long long fpCPUTime, int eventID = ZX_FP_EVENT_EXIT);

// Method events by name, as the SDK and the proxy's reader report them.
// `method` (may be null) is otherwise looked up by name in the flowpath's
// method-table node; a name seen for the first time gets an id. Times are
// absolute ms, <= 0 meaning now. Exits pair with entries like a call stack:
// a negative duration means "since the matching entry".
void zxMethodEntry(ZXAppTracing *app, methodPropProperties *method, ZXPerThreadData_t *record,
                   const char *methodName, const char *queryString, const char *urlParameter,
                   long long threadId, const char *packageName, long long TLS, long long startTime);
void zxMethodExit(ZXAppTracing *app, methodPropProperties *method, ZXPerThreadData_t *record,
                  const char *methodName, long long cpuTime, int statusCode,
                  const char *backendHeader, long long duration, long long threadId, int isCallout,
                  long long TLS, int eventType, int reqNotificationPhase, long long endTime);
// ExceptionExitType 4 writes exit event 4, anything else event 3.
void zxMethodExitException(ZXAppTracing *app, methodPropProperties *method,
                           ZXPerThreadData_t *record, const char *methodName, long long cpuTime,
                           int statusCode, const char *backendName, long long wallTime,
                           int forcedDump, long long threadId, int calloutDone, long long TLS,
                           int ExceptionExitType);

// The record for `name` in the flowpath's node, given an id (type and
// entry-point bits as passed) when new. Null without a node, a name, or memory.
methodPropProperties *findOrAddMethod(ZXAppTracing *app, ZXPerThreadData_t *record,
                                      const char *name, int isEntryPoint, int type);
// Agent time now (ms): the wall clock less morEpochDiffTime.
long long zxAgentTimeNow(const ZXAppTracing *app);

// Categorises the flowpath, writes record 4, counts it in the BT monitor and
// drops its method-table reference and fpiToTLS entry. endTime <= 0: the
// flowpath's own start. A flowpath the stop wrote out, or one already ended,
// is neither written nor counted again; it only lets go of its references.
// The slot stays taken until reset.
void endFP(ZXAppTracing *app, ZXPerThreadData_t *record, int statusCode, long long TLS,
           long long endTime);
// The owner lets go: drops what the flowpath still holds, clears the record
// and gives the slot back.
void reset(ZXAppTracing *app, ZXPerThreadData_t *record);
// Whether the record's flowpath was ended by its owner (endFP), or the record
// holds none: another end would write record 4 again and count the BT twice.
inline bool fpEnded(const ZXPerThreadData_t *record) {
  return record->setEndFPFlag || !record->flowpathInstance;
}
// The owner lets go of a flowpath it may not have ended: ends it now first
// (with its last status), which gives back its method-table reference and its
// id entry, then resets it.
void releaseFP(ZXAppTracing *app, ZXPerThreadData_t *record);
// At stop, from the stop walk's thread: a published flowpath still running
// goes out as record 3 (header first) and is marked ended by the stop. The
// record, its method-table reference and its slot stay its owner's.
void dumpIncompleteFPAtTestStop(ZXAppTracing *app, ZXPerThreadData_t *record);

// The flowpath registered under its id text, or null.
ZXPerThreadData_t *findFPFromInstance(ZXAppTracing *app, const char *flowpathInstanceStr);
