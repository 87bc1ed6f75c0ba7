#include "ZXFlowpathGenerator.h"

#include <apr_atomic.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <bit>
#include <charconv>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <iterator>
#include <new>
#include <utility>

#include "ZXAppTracing.h"
#include "ZXBTMonitor.h"
#include "ZXCallOut.h"
#include "ZXDataDispatcher.h"
#include "ZXEventsToProxy.h"
#include "ZXFeatureKeywords.h"
#include "ZXManageTierCallOut.h"
#include "ZXMethodManager.h"
#include "ZXSessionCookie.h"
#include "zxbt_bt_object.h"
#include "zxbt_rule_execute.h"
#include "zxlb_mem_pool.h"
#include "zxlb_utiles.h"

namespace {

constexpr int ZX_DECODED_URL_SIZE = 2048;
std::atomic<int> gMaxCharactersInSeqBlob{ZX_MAX_CHARS_IN_SEQ_BLOB};

constexpr auto kDigitPairs = [] {
  std::array<char, 200> pairs{};
  for (int i = 0; i < 100; ++i) {
    pairs[2 * i] = static_cast<char>('0' + i / 10);
    pairs[2 * i + 1] = static_cast<char>('0' + i % 10);
  }
  return pairs;
}();

// Exactly eight digits of v < 10^8, in two independent halves.
char *putEightDigits(char *p, unsigned v) {
  const unsigned hi = v / 10000, lo = v % 10000;
  std::memcpy(p, &kDigitPairs[2 * (hi / 100)], 2);
  std::memcpy(p + 2, &kDigitPairs[2 * (hi % 100)], 2);
  std::memcpy(p + 4, &kDigitPairs[2 * (lo / 100)], 2);
  std::memcpy(p + 6, &kDigitPairs[2 * (lo % 100)], 2);
  return p + 8;
}

// The decimal text of v (at most 20 characters). Ids and times run to 19
// digits; cut in eight-digit pieces, they cost a few short digit chains of
// 32-bit arithmetic instead of one long chain of 64-bit divisions.
char *putDecimal(char *p, unsigned long long v) {
  constexpr unsigned long long kPiece = 100000000;
  if (v < kPiece) return std::to_chars(p, p + 8, static_cast<unsigned>(v)).ptr;
  const unsigned long long high = v / kPiece;
  if (high < kPiece) {
    p = std::to_chars(p, p + 8, static_cast<unsigned>(high)).ptr;
  } else {
    p = std::to_chars(p, p + 4, static_cast<unsigned>(high / kPiece)).ptr;
    p = putEightDigits(p, static_cast<unsigned>(high % kPiece));
  }
  return putEightDigits(p, static_cast<unsigned>(v % kPiece));
}

// Appender for blob entries and record lines: the same bytes as the printf
// formats, without parsing a format on every method event. A bounded writer
// cuts its output at `end` rather than overrunning; an unbounded one is for
// callers that made sure of the room first, and checks nothing.
template <bool kBounded>
struct Writer {
  char *p;
  char *end;
  [[gnu::always_inline]] void num(long long v) {
    if (kBounded && end - p < kNumMax) {
      auto r = std::to_chars(p, end, v);
      p = r.ec == std::errc{} ? r.ptr : end;
    } else if (v >= 0 && v < 10000) {
      // Method ids, thread numbers and the times in a blob mostly are this
      // small: two pairs at most.
      const auto n = static_cast<unsigned>(v);
      if (n >= 100) {
        const unsigned hi = n / 100;
        if (hi >= 10) *p++ = kDigitPairs[2 * hi];
        *p++ = kDigitPairs[2 * hi + 1];
        std::memcpy(p, &kDigitPairs[2 * (n % 100)], 2);
        p += 2;
      } else {
        if (n >= 10) *p++ = kDigitPairs[2 * n];
        *p++ = kDigitPairs[2 * n + 1];
      }
    } else if (v >= 0) {
      p = putDecimal(p, static_cast<unsigned long long>(v));
    } else {
      p = std::to_chars(p, p + kNumMax, v).ptr;
    }
  }
  void ch(char c) {
    if (!kBounded || p < end) *p++ = c;
  }
  void str(const char *s) { mem(s, std::strlen(s)); }
  void mem(const char *s, std::size_t len) {
    const std::size_t n = kBounded ? std::min(len, static_cast<std::size_t>(end - p)) : len;
    std::memcpy(p, s, n);
    p += n;
  }
  // "%0<width>lld" for a positive value.
  void zeroPadded(long long v, int width) {
    char digits[kNumMax];
    auto r = std::to_chars(digits, digits + sizeof digits, v);
    for (long n = r.ptr - digits; n < width; ++n) ch('0');
    mem(digits, static_cast<std::size_t>(r.ptr - digits));
  }
  void instance(long long id, bool forced) {
    num(id);
    if (forced) ch('F');
  }
  // The record's own id, from its text while that spells it.
  void instance(const ZXPerThreadData_t *r) {
    if (r->flowpathInstanceStrLen > 0 && r->flowpathInstanceStrOf == r->flowpathInstance)
      mem(r->flowpathInstanceStr, static_cast<std::size_t>(r->flowpathInstanceStrLen));
    else
      num(r->flowpathInstance);
    if (r->tlIsForceDump) ch('F');
  }
  static constexpr int kNumMax = 20;  // "-9223372036854775808"
};
using LineWriter = Writer<true>;

// The longest entry without a URL: an exit with its sequence number and CPU
// time, five numbers and eight separators.
constexpr int kPlainEntryMax = 5 * Writer<false>::kNumMax + 8;

// Inlined where it is called, so that a caller's constant arguments prune
// the shapes it never writes.
template <class W>
[[gnu::always_inline]] inline bool writeBlobEntry(W &w, ZXAppTracing *app,
                                                  const ZXPerThreadData_t *r, int mid,
                                                  long long startTime, int eventID, int pageID,
                                                  long long cpuTime, int isAsyncCall,
                                                  long long threadID, const char *urlStr,
                                                  int captureArgument) {
  if (eventID == ZX_FP_EVENT_ENTRY) {
    if (pageID >= 0) {
      w.num(mid), w.str("_0_"), w.num(startTime), w.ch('_'), w.num(pageID), w.ch('_');
    } else if (isAsyncCall) {
      w.num(mid), w.ch(':'), w.num(threadID), w.str(":1:"), w.str(urlStr ? urlStr : "");
      w.str("_0_"), w.num(startTime), w.str("__");
    } else {
      w.num(mid), w.ch(':'), w.num(threadID), w.str("_0_"), w.num(startTime), w.str("__");
    }
  } else if (eventID == ZX_FP_EVENT_EXIT || eventID == 3 || eventID == 4) {
    w.num(mid), w.ch(':'), w.num(threadID), w.ch('_'), w.num(eventID);
    if (eventID == ZX_FP_EVENT_EXIT && captureArgument &&
        app->ZXSys.enableProcessNotificationPhase == 1) {
      w.ch(':'), w.num(r->seqNum);
    }
    w.ch('_'), w.num(startTime);
    if (cpuTime < 0) {
      w.str("____");
    } else {
      w.ch('_'), w.num(cpuTime), w.str("___");
    }
  } else {
    return false;
  }
  return true;
}

// Ends the blob at `written`.
void closeBlob(ZXPerThreadData_t *r, char *written) {
  *written = '\0';
  r->sequenceBlobLen = static_cast<int>(written - r->sequenceBlob);
}

// An entry with a URL, or one into a blob near its end.
[[gnu::noinline]] int appendBoundedEntry(ZXAppTracing *app, ZXPerThreadData_t *r, int mid,
                                         long long startTime, int eventID, int pageID,
                                         long long cpuTime, int isAsyncCall, long long threadID,
                                         const char *urlStr, int captureArgument) {
  LineWriter w{r->sequenceBlob + r->sequenceBlobLen, r->sequenceBlob + ZX_SEQ_BLOB_SIZE - 1};
  if (!writeBlobEntry(w, app, r, mid, startTime, eventID, pageID, cpuTime, isAsyncCall, threadID,
                      urlStr, captureArgument))
    return 0;
  closeBlob(r, w.p);
  return 1;
}

[[gnu::always_inline]] inline int appendBlobEntry(ZXAppTracing *app, ZXPerThreadData_t *r, int mid,
                                                  long long startTime, int eventID, int pageID,
                                                  long long cpuTime, int isAsyncCall,
                                                  long long threadID, const char *urlStr,
                                                  int captureArgument) {
  char *at = r->sequenceBlob + r->sequenceBlobLen;
  char *end = r->sequenceBlob + ZX_SEQ_BLOB_SIZE - 1;
  // A URL has no bound here; every other entry fits the room checked once.
  const bool plain = eventID != ZX_FP_EVENT_ENTRY || pageID >= 0 || !isAsyncCall;
  if (!plain || end - at < kPlainEntryMax)
    return appendBoundedEntry(app, r, mid, startTime, eventID, pageID, cpuTime, isAsyncCall,
                              threadID, urlStr, captureArgument);
  Writer<false> w{at, end};
  if (!writeBlobEntry(w, app, r, mid, startTime, eventID, pageID, cpuTime, isAsyncCall, threadID,
                      urlStr, captureArgument))
    return 0;
  closeBlob(r, w.p);
  return 1;
}

bool isChained(const ZXPerThreadData_t *r) {
  return r->firstFlowpathInstance != 0;
}

// After its last record a flowpath takes no more entries: a late append
// could only come out as a record 3 behind its end. Caller holds
// sequenceBlobLock.
bool blobClosed(const ZXPerThreadData_t *r) {
  return r->fpPhase.load(std::memory_order_relaxed) >= ZX_FP_ENDED;
}

}  // namespace

std::size_t ZXFpiToTLS::home(long long id) const {
  // Ids step by two in their low bits; a multiplicative hash spreads them.
  return static_cast<std::size_t>((static_cast<unsigned long long>(id) * 0x9E3779B97F4A7C15ULL) >>
                                  shift_);
}

bool ZXFpiToTLS::grow() {
  const std::size_t capacity = slots_ ? 2 * (mask_ + 1) : 128;
  std::unique_ptr<Entry[]> bigger(new (std::nothrow) Entry[capacity]());
  if (!bigger) return false;
  std::unique_ptr<Entry[]> old = std::exchange(slots_, std::move(bigger));
  const std::size_t oldCapacity = old ? mask_ + 1 : 0;
  mask_ = capacity - 1;
  shift_ = 64 - std::countr_zero(capacity);
  for (std::size_t i = 0; i < oldCapacity; ++i) {
    if (!old[i].record) continue;
    std::size_t j = home(old[i].id);
    while (slots_[j].record) j = (j + 1) & mask_;
    slots_[j] = old[i];
  }
  return true;
}

bool ZXFpiToTLS::put(long long id, ZXPerThreadData_t *record) {
  std::lock_guard lk(lock_);
  // Kept at most half full; a table that cannot grow fills up before it fails.
  if ((count_ + 1) * 2 > (slots_ ? mask_ + 1 : 0) && !grow() && count_ + 1 > mask_) return false;
  std::size_t i = home(id);
  while (slots_[i].record && slots_[i].id != id) i = (i + 1) & mask_;
  if (!slots_[i].record) ++count_;
  slots_[i] = Entry{id, record};
  return true;
}

void ZXFpiToTLS::erase(long long id, const ZXPerThreadData_t *record) {
  std::lock_guard lk(lock_);
  if (!slots_) return;
  std::size_t i = home(id);
  while (slots_[i].record && slots_[i].id != id) i = (i + 1) & mask_;
  if (slots_[i].record != record || !record) return;
  --count_;
  // Backward shift: later entries of the run move up unless they already
  // sit between their home and the gap, so look-ups need no tombstones.
  for (std::size_t j = (i + 1) & mask_; slots_[j].record; j = (j + 1) & mask_) {
    const std::size_t k = home(slots_[j].id);
    const bool stays = i <= j ? (i < k && k <= j) : (i < k || k <= j);
    if (stays) continue;
    slots_[i] = slots_[j];
    i = j;
  }
  slots_[i].record = nullptr;
}

ZXPerThreadData_t *ZXFpiToTLS::find(long long id) {
  std::lock_guard lk(lock_);
  if (!slots_) return nullptr;
  for (std::size_t i = home(id); slots_[i].record; i = (i + 1) & mask_)
    if (slots_[i].id == id) return slots_[i].record;
  return nullptr;
}

std::size_t ZXFpiToTLS::size() {
  std::lock_guard lk(lock_);
  return count_;
}

long long generate_flowpath_instance(ZXAppTracing *app) {
  return generate_flowpath_instance(app, my_gettimeofday() - app->Server.morEpochDiffTime);
}

long long generate_flowpath_instance(ZXAppTracing *app, long long t) {
  const ZXFlowpathIdSettings_t &s = app->ZXFlowpathIds;
  apr_atomic_inc32(&app->ZXSys.rSeq);
  long long base = s.flowPathInstanceInitialID + ((t & s.timeStampMask) << s.seqNoDigits);
  long long seq = apr_atomic_inc32(&app->ZXSys.rSeq);
  if (const int slot = s.proxyProcIndex; slot >= 0) {
    const int width = std::bit_width(static_cast<unsigned long long>(s.seqNumMask.load()));
    const int count = std::max(1, width - kProxySlotBits);
    seq = (static_cast<long long>(slot) << count) | (seq & ((1LL << count) - 1));
  }
  return base + (seq & s.seqNumMask);
}

int tokenize_flowpathmasks(char *text, char **parts, const char *separator, int max) {
  if (!text || !separator || !*separator || max <= 0) return 0;
  std::size_t sepLen = std::strlen(separator);
  int n = 0;
  char *p = text;
  while (n < max) {
    parts[n++] = p;
    char *next = std::strstr(p, separator);
    if (!next || n == max) break;
    *next = '\0';
    p = next + sepLen;
  }
  return n;
}

int parse_flowpath_mask(ZXAppTracing *app, const char *text) {
  if (!app || !text) return -1;
  char copy[256];
  std::snprintf(copy, sizeof copy, "%s", text);
  char *parts[6] = {};
  if (tokenize_flowpathmasks(copy, parts, "%20", 6) < 4) return -1;
  ZXFlowpathIdSettings_t &s = app->ZXFlowpathIds;
  s.timeStampMask = std::strtoll(parts[1], nullptr, 16);
  s.seqNoDigits = std::strtoll(parts[2], nullptr, 10);
  s.seqNumMask = std::strtoll(parts[3], nullptr, 16);
  return 0;
}

void parseZXFlowpathMasks(ZXAppTracing &app, char *value, char *keyword, int index) {
  storeFeatureKeyword(app, value, keyword, index);
  parse_flowpath_mask(&app, value);
}

int getMaxCharactersInSeqBlob() {
  return gMaxCharactersInSeqBlob.load(std::memory_order_relaxed);
}

void setMaxCharactersInSeqBlob(int value) {
  // Above the array less one entry's room, a blob could overrun before its flush.
  if (value > 0 && value <= ZX_SEQ_BLOB_SIZE - 1024)
    gMaxCharactersInSeqBlob.store(value, std::memory_order_relaxed);
}

namespace {

// updateFPSeqBlob's work. Caller holds sequenceBlobLock, or has not yet made
// the record reachable by another thread.
[[gnu::always_inline]] inline void appendEvent(ZXAppTracing *app, ZXPerThreadData_t *r, int mid,
                                               long long startTime, int eventID, int pageID,
                                               long long cpuTime, int isAsyncCall,
                                               long long threadID, const char *urlStr,
                                               int captureArgument) {
  if (!blobClosed(r) && appendBlobEntry(app, r, mid, startTime, eventID, pageID, cpuTime,
                                        isAsyncCall, threadID, urlStr, captureArgument))
    checkToDumpFPSeqBlob(app, r);
}

}  // namespace

void updateFPSeqBlob(ZXAppTracing *app, ZXPerThreadData_t *record, int mid, long long startTime,
                     int eventID, int pageID, long long cpuTime, int isAsyncCall,
                     long long threadID, const char *urlStr, int captureArgument) {
  if (!app || !record) return;
  std::lock_guard lk(record->sequenceBlobLock);
  appendEvent(app, record, mid, startTime, eventID, pageID, cpuTime, isAsyncCall, threadID, urlStr,
              captureArgument);
}

void updateFPSeqBlobWithTierCallOutRecord(ZXAppTracing *app, ZXPerThreadData_t *r,
                                          long long methodStartTime, long long duration,
                                          const methodPropProperties *method,
                                          long long resourceID) {
  if (!app || !r || !method) return;
  const bool error = r->tlStatusCode > 399;
  r->sequenceBlobLock.lock();
  if (blobClosed(r)) {
    r->sequenceBlobLock.unlock();
    return;
  }
  char *blob = r->sequenceBlob;
  LineWriter w{blob + r->sequenceBlobLen, blob + ZX_SEQ_BLOB_SIZE - 1};
  w.ch(error ? 'E' : 'T');
  if (method->type == 2) {
    w.num(r->seqNum), w.ch(':'), w.num(method->methodId), w.ch(':'), w.num(duration);
    w.str(":10:"), w.num(resourceID), w.ch(':'), w.num(methodStartTime);
    if (error) w.ch(':'), w.num(r->tlStatusCode);
  } else {
    const bool other = method->type != 6;
    long long seq = other && r->tierCallOutSeqNum ? r->tierCallOutSeqNum : r->seqNum;
    w.num(seq), w.ch(':'), w.num(method->methodId), w.ch(':'), w.num(duration);
    w.str(other ? ":1:0:" : ":8:0:"), w.num(methodStartTime);
    if (error) w.ch(':'), w.num(r->tlStatusCode);
    if (other && app->ZXSys.enableIPResourceURL) w.ch(':'), w.num(resourceID);
    if (other) r->tierCallOutSeqNum = 0;
  }
  w.ch('_');
  *w.p = '\0';
  r->sequenceBlobLen = static_cast<int>(w.p - blob);
  checkToDumpFPSeqBlob(app, r);
  r->sequenceBlobLock.unlock();
}

void checkToDumpFPSeqBlob(ZXAppTracing *app, ZXPerThreadData_t *record) {
  // The keyword's value counts only below the array less one entry's room.
  int limit = app->ZXFlowpathGenerator.maxCharactersInSeqBlob;
  if (limit <= 0 || limit > ZX_SEQ_BLOB_SIZE - 1024) limit = getMaxCharactersInSeqBlob();
  if (record->sequenceBlobLen >= limit) dumpIncompleteFlowpathSeqBlock(app, record);
}

namespace {

// Record 2 into line[0, ZX_FP_RECORD_MAX); returns its length. Sets
// tlIsFPHeaderDumped.
int formatHeader(ZXAppTracing *app, ZXPerThreadData_t *r, char *line) {
  const bool forced = r->tlIsForceDump != 0;
  LineWriter w{line, line + ZX_FP_RECORD_MAX - 1};
  w.str("2,"), w.instance(r);
  if (isChained(r)) {
    w.ch(':'), w.instance(r->firstFlowpathInstance, forced);
    w.ch(':'), w.instance(r->prevFlowpathInstance, forced);
  }
  w.ch(','), w.num(r->tlFlowPathTimeStampInMS / 1000), w.ch(','), w.num(r->tlThreadId), w.ch(',');
  if (isChained(r))
    w.str(r->prevTierSeq.c_str());
  else
    w.num(r->tlThreadId);
  w.str(".1,"), w.num(r->tlBTObj ? r->tlBTObj->bt_id.load(std::memory_order_relaxed) : 0);
  w.ch(','), w.str(r->tlURL);
  if (r->tlURLParameters[0]) w.ch('?'), w.str(r->tlURLParameters);
  w.ch(',');
  if (app->ZXFlowpathIds.captureCorrelationEnabled) w.str(r->tlCorrelationIdHeader);
  w.ch(','), w.num(r->zxSessionId), w.ch(',');
  if (r->morSID > 0)
    w.zeroPadded(r->morSID, 21);
  else
    w.num(r->morSID);
  w.ch(','), w.num(r->ZXPageID), w.str(",,"), w.num(r->tlFlowpathType), w.ch(',');
  w.num(r->qTimeInMS);
  *w.p++ = '\n';
  r->tlIsFPHeaderDumped = 1;
  return static_cast<int>(w.p - line);
}

}  // namespace

int dumpFPHeaderRecord(ZXAppTracing *app, ZXPerThreadData_t *r) {
  char line[ZX_FP_RECORD_MAX];
  return dumpData(app, line, formatHeader(app, r, line));
}

int dumpIncompleteFlowpathSeqBlock(ZXAppTracing *app, ZXPerThreadData_t *r) {
  if (!r->tlIsFPHeaderDumped) dumpFPHeaderRecord(app, r);
  char line[ZX_FP_RECORD_MAX];
  LineWriter w{line, line + sizeof line - 1};
  w.str("3,"), w.instance(r), w.ch(',');
  w.mem(r->sequenceBlob, static_cast<std::size_t>(r->sequenceBlobLen));
  *w.p++ = '\n';
  r->sequenceBlobLen = 0;
  r->sequenceBlob[0] = '\0';
  return dumpData(app, line, static_cast<int>(w.p - line));
}

int dumpCompleteFlowpathSeqBlock(ZXAppTracing *app, ZXPerThreadData_t *r, int category,
                                 long long fpCPUTime, long long respTime) {
  int status = r->tlStatusCode;
  const bool discardable =
      !r->tlIsFPCaptured && !app->btMonitor.doNotDisacrdAnyTransaction.load() && category == 10;
  if (r->tlIsBTExcluded || discardable) {
    // Once a header went out the collector expects the flowpath's end.
    if (!r->tlIsFPHeaderDumped) return 0;
    status = -99;
  }
  // The header, when not yet out, and the end go under one hold of the send
  // buffers' lock.
  char lines[2 * ZX_FP_RECORD_MAX];
  ZXRecordSpan out[2];
  int count = 0;
  char *line = lines;
  if (!r->tlIsFPHeaderDumped) {
    out[count++] = ZXRecordSpan{line, formatHeader(app, r, line)};
    line += out[0].len;
  }
  LineWriter w{line, line + ZX_FP_RECORD_MAX - 1};
  w.str("4,"), w.instance(r), w.ch(',');
  w.num(status), w.ch(','), w.num(category), w.ch(','), w.num(fpCPUTime), w.ch(',');
  w.num(respTime), w.ch(',');
  w.num(r->tlBTObj ? r->tlBTObj->bt_id.load(std::memory_order_relaxed) : 0), w.ch(',');
  w.num(r->tlFlowpathType), w.ch(',');
  w.mem(r->sequenceBlob, static_cast<std::size_t>(r->sequenceBlobLen));
  *w.p++ = '\n';
  out[count++] = ZXRecordSpan{line, static_cast<int>(w.p - line)};
  dumpRecords(app, out, count);
  return 1;
}

namespace {

void copyText(char *dst, std::size_t size, const char *src) {
  const std::size_t n = src ? strnlen(src, size - 1) : 0;
  std::memcpy(dst, src ? src : "", n);
  dst[n] = '\0';
}

// "path?query" into tlURL and tlURLParameters, each cut to its array.
void splitUrl(ZXPerThreadData_t *r, const char *url) {
  if (!url) url = "";
  const char *q = std::strchr(url, '?');
  const std::size_t pathLen = q ? static_cast<std::size_t>(q - url) : std::strlen(url);
  const std::size_t n = std::min(pathLen, sizeof r->tlURL - 1);
  std::memcpy(r->tlURL, url, n);
  r->tlURL[n] = '\0';
  copyText(r->tlURLParameters, sizeof r->tlURLParameters, q ? q + 1 : "");
}

void detachFlowpath(ZXAppTracing *app, ZXPerThreadData_t *r);

bool writesMethodEvents(const ZXPerThreadData_t *r, const methodPropProperties *m,
                        long long limit) {
  return r->tlNonServiceMethodCount <= limit && !r->tlIsBTExcluded &&
         (r->tlIsFPCaptured || r->tlIsForceDump || (m->isEntryPoint & 8));
}

// Counts a method's entry; true when the entry is to be written.
bool enterMethod(ZXAppTracing *app, ZXPerThreadData_t *r, const methodPropProperties *m) {
  if (m->isEntryPoint & 1)
    ++r->tlServiceMethodDepth;
  else
    ++r->tlNonServiceMethodCount;
  if (!writesMethodEvents(r, m, app->ZXSys.bciMaxNonServiceMethodsPerFP)) return false;
  r->seqNum += 1;
  return true;
}

// Counts a method's exit; true when the exit is to be written.
bool exitMethod(ZXAppTracing *app, ZXPerThreadData_t *r, const methodPropProperties *m) {
  const long long limit = app->ZXSys.bciMaxNonServiceMethodsPerFP;
  if (m->isEntryPoint & 1) {
    --r->tlServiceMethodDepth;
  } else if (r->tlNonServiceMethodCount > limit) {
    // Its entry was not written either: only undo the count.
    --r->tlNonServiceMethodCount;
    return false;
  }
  return writesMethodEvents(r, m, limit);
}

}  // namespace

ZXPerThreadData_t *startFP(ZXAppTracing *app, const char *flowpathinstance, const char *url,
                           char *btHeaderValue, long long TLS, const char *ZXCookieStr,
                           const char *RBCookieStr, const char *correlationIdHeader,
                           long long qTimeInMS, long long startTimeFP) {
  (void)TLS;
  if (!app || !app->Server.testRunRunning.load() || app->Server.gettingstopInstrumenatation)
    return nullptr;
  ZXPerThreadData_t *r = get_free_tls_slot(app);
  if (!r) return nullptr;
  // Short of memory below (the id map, the method table), a throw must not
  // keep the slot: it goes back, detached, on the way out.
  struct GiveBack {
    ZXAppTracing *app;
    ZXPerThreadData_t *r;
    ~GiveBack() {
      if (!r) return;
      detachFlowpath(app, r);
      reset(app, r);
    }
  } giveBack{app, r};
  // The pool hands out cleared slots (free_tls_slot clears them).
  const long long now = my_gettimeofday();
  const long long start = startTimeFP > 0 ? startTimeFP : now;
  r->tlFlowPathTimeStampInMS = start - app->Server.morEpochDiffTime;
  const long long idTime = now - app->Server.morEpochDiffTime;

  if (flowpathinstance && *flowpathinstance) {
    if (std::strpbrk(flowpathinstance, "Ff")) r->tlIsForceDump = 1;
    if (std::strchr(flowpathinstance, '_')) {
      (void)parseTierCallOut(r, flowpathinstance);
      r->flowpathInstance = generate_flowpath_instance(app, idTime);
    } else {
      r->flowpathInstance = std::atoll(flowpathinstance);
    }
  } else {
    r->flowpathInstance = generate_flowpath_instance(app, idTime);
  }
  Writer<false> id{r->flowpathInstanceStr, nullptr};
  id.num(r->flowpathInstance);
  char *idEnd = id.p;
  *idEnd = '\0';
  r->flowpathInstanceStrLen = static_cast<int>(idEnd - r->flowpathInstanceStr);
  r->flowpathInstanceStrOf = r->flowpathInstance;
  if (app->ZXAgentSetting.enableProxyServer == 1) {
    // Texts relayed from application processes arrive escaped.
    parseRBCookieStr(r, RBCookieStr);
    char decoded[ZX_DECODED_URL_SIZE];
    zx_unescape_url(url ? url : "", decoded, sizeof decoded);
    splitUrl(r, decoded);
    zx_unescape_url(correlationIdHeader ? correlationIdHeader : "", r->tlCorrelationIdHeader,
                    sizeof r->tlCorrelationIdHeader);
  } else {
    parseRBCookieStr(r, nullptr);  // clears what a reused slot held
    splitUrl(r, url);
    copyText(r->tlCorrelationIdHeader, sizeof r->tlCorrelationIdHeader, correlationIdHeader);
  }
  r->qTimeInMS = qTimeInMS;
  zx_decide_capture(app, r, ZXCookieStr, start);
  if (app->sendsEventsToProxy()) {
    startFPForProxy(app, r, flowpathinstance, url, btHeaderValue, ZXCookieStr, RBCookieStr,
                    correlationIdHeader, qTimeInMS, start);
    giveBack.r = nullptr;
    return r;
  }

  r->tlBTObj =
      get_obj_from_bt_name(*app, r->tlURL, r->tlURLParameters, btHeaderValue, &r->updateBTLock, "");
  r->tlIsBTExcluded = !r->tlBTObj || r->tlBTObj->bt_id.load(std::memory_order_relaxed) == -2;
  r->hasMapNodePtr = acquireMethodHashMapNode(app);
  // Kept for the end; the node holds it.
  r->tlBeginRequestMethod = r->hasMapNodePtr ? r->hasMapNodePtr->beginRequest : nullptr;
  // No other thread can reach the record before it is registered and
  // published, so its first entry needs no lock.
  if (const methodPropProperties *m = r->tlBeginRequestMethod; m && enterMethod(app, r, m))
    appendEvent(app, r, m->methodId, 0, ZX_FP_EVENT_ENTRY, -1, -1, m->isAsyncCall, r->tlThreadId,
                r->tlURL, 0);
  if (!app->fpiToTLS.put(r->flowpathInstance, r)) return nullptr;
  r->idListed = 1;
  // Filled: from here a stop walk may write the flowpath out.
  r->fpPhase.store(ZX_FP_RUNNING, std::memory_order_release);
  giveBack.r = nullptr;
  return r;
}

void zxMethodEntryEx(ZXAppTracing *app, ZXPerThreadData_t *r, const methodPropProperties *m,
                     long long nowMs) {
  if (!app || !r || !m || !enterMethod(app, r, m)) return;
  std::lock_guard lk(r->sequenceBlobLock);
  appendEvent(app, r, m->methodId, nowMs - r->tlFlowPathTimeStampInMS, ZX_FP_EVENT_ENTRY, -1, -1,
              m->isAsyncCall, r->tlThreadId, r->tlURL, 0);
}

void zxMethodExitEx(ZXAppTracing *app, ZXPerThreadData_t *r, const methodPropProperties *m,
                    long long methodWallTime, long long fpCPUTime, int eventID) {
  if (!app || !r || !m || !exitMethod(app, r, m)) return;
  {
    std::lock_guard lk(r->sequenceBlobLock);
    appendEvent(app, r, m->methodId, methodWallTime, eventID, -1, fpCPUTime, m->isAsyncCall,
                r->tlThreadId, nullptr, 0);
  }
  if (m->isEntryPoint & 8) {
    // Only call-outs pay for a clock read: their entry carries the start.
    long long end = my_gettimeofday() - app->Server.morEpochDiffTime - r->tlFlowPathTimeStampInMS;
    updateFPSeqBlobWithTierCallOutRecord(app, r, end - methodWallTime, methodWallTime, m, 0);
  }
}

long long zxAgentTimeNow(const ZXAppTracing *app) {
  return my_gettimeofday() - app->Server.morEpochDiffTime;
}

methodPropProperties *findOrAddMethod(ZXAppTracing *app, ZXPerThreadData_t *r, const char *name,
                                      int isEntryPoint, int type) {
  if (!app || !r || !name || !*name || !r->hasMapNodePtr) return nullptr;
  // A held node maps a name to one record for good: the cache cannot go stale.
  auto &cache = r->nameCache;
  for (methodPropProperties *m : cache)
    if (m && std::strcmp(m->methodName.c_str(), name) == 0) return m;
  methodPropProperties *m;
  {
    std::lock_guard lk(app->methodEntryLock);
    m = search_hashmap(name, r->hasMapNodePtr->dynamic_ptr);
    if (!m) m = updateMethodHashMap(app, name, isEntryPoint, type, r->hasMapNodePtr);
  }
  if (m) {
    std::copy_backward(std::begin(cache), std::end(cache) - 1, std::end(cache));
    cache[0] = m;
  }
  return m;
}

namespace {

// The wall time of the innermost open by-name entry, which it closes.
long long popMethodEntry(ZXPerThreadData_t *r, long long nowAgentMs) {
  if (r->methodStackDepth <= 0) return 0;
  const int top = --r->methodStackDepth;
  if (top >= ZX_METHOD_STACK_DEPTH) return 0;
  return std::max(0LL, nowAgentMs - r->methodEntryTimes[top]);
}

long long agentTimeOf(const ZXAppTracing *app, long long absoluteMs) {
  return absoluteMs > 0 ? absoluteMs - app->Server.morEpochDiffTime : zxAgentTimeNow(app);
}

}  // namespace

void zxMethodEntry(ZXAppTracing *app, methodPropProperties *method, ZXPerThreadData_t *r,
                   const char *methodName, const char *queryString, const char *urlParameter,
                   long long threadId, const char *packageName, long long TLS,
                   long long startTime) {
  (void)packageName, (void)TLS;
  if (!app || !r) return;
  if (app->sendsEventsToProxy())
    return methodEntryForProxy(app, r, methodName, queryString, urlParameter, threadId, startTime);
  (void)queryString, (void)urlParameter, (void)threadId;
  if (!method) method = findOrAddMethod(app, r, methodName, 0, 0);
  if (!method) return;
  const long long now = agentTimeOf(app, startTime);
  if (r->methodStackDepth < ZX_METHOD_STACK_DEPTH) r->methodEntryTimes[r->methodStackDepth] = now;
  ++r->methodStackDepth;
  zxMethodEntryEx(app, r, method, now);
}

void zxMethodExit(ZXAppTracing *app, methodPropProperties *method, ZXPerThreadData_t *r,
                  const char *methodName, long long cpuTime, int statusCode,
                  const char *backendHeader, long long duration, long long threadId, int isCallout,
                  long long TLS, int eventType, int reqNotificationPhase, long long endTime) {
  (void)TLS, (void)reqNotificationPhase;
  if (!app || !r) return;
  if (app->sendsEventsToProxy())
    return methodExitForProxy(app, r, methodName, cpuTime, statusCode, backendHeader, duration,
                              threadId, isCallout, eventType, endTime);
  (void)statusCode, (void)threadId;
  if (isCallout > 0) {
    // A whole call-out from an application process: the name is its host.
    replayCallOut(app, r, isCallout == 2 ? ZXCallOutKind::Database : ZXCallOutKind::Http,
                  methodName, backendHeader, endTime, duration);
    return;
  }
  if (!method) method = findOrAddMethod(app, r, methodName, 0, 0);
  if (!method) return;
  const long long wall = popMethodEntry(r, agentTimeOf(app, endTime));
  zxMethodExitEx(app, r, method, duration >= 0 ? duration : wall, cpuTime,
                 eventType == 3 || eventType == 4 ? eventType : ZX_FP_EVENT_EXIT);
}

void zxMethodExitException(ZXAppTracing *app, methodPropProperties *method, ZXPerThreadData_t *r,
                           const char *methodName, long long cpuTime, int statusCode,
                           const char *backendName, long long wallTime, int forcedDump,
                           long long threadId, int calloutDone, long long TLS,
                           int ExceptionExitType) {
  (void)forcedDump, (void)calloutDone;
  if (app && r && app->sendsEventsToProxy())
    return methodExitExceptionForProxy(app, r, methodName, backendName, threadId,
                                       ExceptionExitType);
  zxMethodExit(app, method, r, methodName, cpuTime, statusCode, backendName,
               wallTime > 0 ? wallTime : -1, threadId, 0, TLS, ExceptionExitType == 4 ? 4 : 3, 0,
               0);
}

namespace {

// The owner's flowpath lets go of its method table and its id entry. Only the
// owner calls it, so the node stays valid for as long as the owner can use it.
void detachFlowpath(ZXAppTracing *app, ZXPerThreadData_t *r) {
  if (r->hasMapNodePtr) {
    releaseMethodHashMapNode(r->hasMapNodePtr);
    r->hasMapNodePtr = nullptr;
    std::fill(std::begin(r->nameCache), std::end(r->nameCache), nullptr);
  }
  // The stop walk may have dropped the entry already; erasing again is harmless.
  if (r->idListed) {
    app->fpiToTLS.erase(r->flowpathInstance, r);
    r->idListed = 0;
  }
}

}  // namespace

void endFP(ZXAppTracing *app, ZXPerThreadData_t *r, int statusCode, long long TLS,
           long long endTime) {
  (void)TLS;
  if (!app || !r || !app->Server.testRunRunning.load()) return;
  const long long epochDiff = app->Server.morEpochDiffTime;
  if (endTime <= 0) endTime = r->tlFlowPathTimeStampInMS + epochDiff;
  r->setEndFPFlag = 1;
  r->tlStatusCode = statusCode;
  r->tlDuration = endTime - epochDiff - r->tlFlowPathTimeStampInMS;
  if (app->sendsEventsToProxy()) return endFPForProxy(app, r, statusCode, endTime);
  // The request's own exit is decided now (the category below may uncapture
  // the flowpath) and written under the same hold as the last record.
  const methodPropProperties *request = r->tlBeginRequestMethod;
  bool requestExit = false;
  if (request && (request->isEntryPoint & 8))
    zxMethodExitEx(app, r, request, r->tlDuration, -1);
  else if (request)
    requestExit = exitMethod(app, r, request);

  BTObject *bt = r->tlBTObj;
  int category = 0;
  if (bt) {
    category = r->tlIsBTExcluded ? 157
                                 : findCategoryOfBT(*app, bt->bt_threshold, r->tlDuration,
                                                    statusCode, &r->tlIsFPCaptured);
    r->btCategory = category;
  }
  // A flowpath the stop already wrote out (or an end called twice) is
  // neither written nor counted again.
  bool last = false;
  r->sequenceBlobLock.lock();
  if (requestExit)
    appendEvent(app, r, request->methodId, r->tlDuration, ZX_FP_EVENT_EXIT, -1, -1,
                request->isAsyncCall, r->tlThreadId, nullptr, 0);
  if (r->fpPhase.load(std::memory_order_relaxed) < ZX_FP_ENDED) {
    r->fpPhase.store(ZX_FP_ENDED, std::memory_order_relaxed);
    last = true;
    if (bt) dumpCompleteFlowpathSeqBlock(app, r, category, 0, r->tlDuration);
  }
  r->sequenceBlobLock.unlock();
  if (last && bt && !r->tlIsBTExcluded) {
    ZXBTTransaction_t tx;
    tx.btObj = bt;
    tx.duration = r->tlDuration;
    tx.category = static_cast<char>(category);
    tx.queueTime = r->qTimeInMS;
    tx.waitTime = r->waitTime;
    tx.syncTime = r->syncTime;
    tx.endTime = endTime;
    updateCounterAndDurationForBT(*app, tx);
  }
  detachFlowpath(app, r);
}

void reset(ZXAppTracing *app, ZXPerThreadData_t *r) {
  if (!app || !r) return;
  if (app->sendsEventsToProxy()) resetForProxy(app, r);
  // A flowpath let go without its end (none while no run is going) is
  // claimed first, so that a stop walk holding the record leaves it alone.
  // Ended ones need no lock: the walk never touches them again.
  if (r->fpPhase.load(std::memory_order_acquire) == ZX_FP_RUNNING) {
    r->sequenceBlobLock.lock();
    if (r->fpPhase.load(std::memory_order_relaxed) == ZX_FP_RUNNING)
      r->fpPhase.store(ZX_FP_ENDED, std::memory_order_relaxed);
    r->sequenceBlobLock.unlock();
  }
  // The table reference is the owner's to drop: the stop leaves it, as the
  // owner may still be resolving names in the node.
  detachFlowpath(app, r);
  free_tls_slot(app, r);
}

void releaseFP(ZXAppTracing *app, ZXPerThreadData_t *r) {
  if (!app || !r) return;
  if (!fpEnded(r)) endFP(app, r, r->tlStatusCode, 0, my_gettimeofday());
  reset(app, r);
}

void dumpIncompleteFPAtTestStop(ZXAppTracing *app, ZXPerThreadData_t *r) {
  if (!app || !r) return;
  long long id = 0;
  bool written = false;
  r->sequenceBlobLock.lock();
  // Acquire: the fields startFP filled before publishing are read below.
  if (r->fpPhase.load(std::memory_order_acquire) == ZX_FP_RUNNING) {
    dumpIncompleteFlowpathSeqBlock(app, r);
    id = r->flowpathInstance;
    // The walk's last touch of the record: the owner may reset it once it
    // sees the mark.
    r->fpPhase.store(ZX_FP_ENDED_BY_STOP, std::memory_order_release);
    written = true;
  }
  r->sequenceBlobLock.unlock();
  if (written) app->fpiToTLS.erase(id, r);
}

ZXPerThreadData_t *findFPFromInstance(ZXAppTracing *app, const char *flowpathInstanceStr) {
  if (!app || !flowpathInstanceStr) return nullptr;
  long long id = 0;
  const char *end = flowpathInstanceStr + std::strlen(flowpathInstanceStr);
  auto [p, ec] = std::from_chars(flowpathInstanceStr, end, id);
  if (ec != std::errc{} || p != end || p == flowpathInstanceStr) return nullptr;
  return app->fpiToTLS.find(id);
}
