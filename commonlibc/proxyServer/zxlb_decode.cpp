#include "zxlb_decode.h"

#include <strings.h>

#include <algorithm>
#include <array>
#include <charconv>
#include <cstring>
#include <initializer_list>
#include <memory>
#include <new>
#include <tuple>

#include "ZXCallOut.h"
#include "ZXExceptionHttpCapture.h"
#include "ZXFlowpathGenerator.h"
#include "ZXManageTierCallOut.h"
#include "ZXProxyApplications.h"
#include "ZXProxyInstance.h"
#include "zxlb_frame_layout.h"
#include "zxlb_mt_log.h"
#include "zxlb_utiles.h"

std::atomic<long long> counterforfpi_tls_map{0};
std::atomic<long long> counterforNumofResetCalled{0};
std::atomic<unsigned long long> zxFramesNotReplayed{0};

// Framing and replay lines: above 0 what was skipped, above 2 every frame.
#define ZX_DECODE_LOG(above, severity, ...) \
  ZX_LOG_IF(zx::logLevel(zx::LogContext::Area::Control) > (above), "PROXY", severity, __VA_ARGS__)

namespace {

// Terminated copies of one frame's strings. One buffer for the decoding
// thread, grown to the largest frame seen and given back when that was
// unusually large, so a steady stream allocates nothing.
class Scratch {
 public:
  char *get(std::size_t n) {
    if (n > cap_) {
      buf_.reset(new (std::nothrow) char[n]);
      cap_ = buf_ ? n : 0;
    }
    return buf_.get();
  }
  void trim() {
    if (cap_ > kKeep) buf_.reset(), cap_ = 0;
  }

 private:
  static constexpr std::size_t kKeep = 1 << 16;
  std::unique_ptr<char[]> buf_;
  std::size_t cap_ = 0;
};

thread_local Scratch scratch;

enum class Fit { Ok, Negative, Short, NoMemory };

// Each string after the fixed block (lengths in wire order) as a terminated
// copy, or null when empty. Copies nothing unless all fit in the frame.
template <std::size_t N>
Fit takeStrings(const char *block, long long len, std::size_t fixedLen,
                const std::array<std::int32_t, N> &lens, std::array<char *, N> &out) {
  long long total = 0;
  for (std::int32_t n : lens) {
    if (n < 0) return Fit::Negative;
    total += n;
  }
  if (len - static_cast<long long>(fixedLen) - total < 0) return Fit::Short;
  out.fill(nullptr);
  if (!total) return Fit::Ok;
  char *dst = scratch.get(static_cast<std::size_t>(total) + N);
  if (!dst) {
    ZX_LOG_OOM(total + static_cast<long long>(N), "frame strings", 0);
    return Fit::NoMemory;
  }
  const char *src = block + fixedLen;
  for (std::size_t i = 0; i < N; ++i) {
    if (lens[i] <= 0) continue;
    std::memcpy(dst, src, static_cast<std::size_t>(lens[i]));
    dst[lens[i]] = '\0';
    out[i] = dst;
    dst += lens[i] + 1;
    src += lens[i];
  }
  return Fit::Ok;
}

ZXPerThreadData_t *findFlowpath(ZXAppTracing &app, const ZXFpiKey &id) {
  if (!app.fpi_tls_map) return nullptr;
  auto it = app.fpi_tls_map->find(id);
  return it == app.fpi_tls_map->end() ? nullptr : it->second;
}

// Types 0 to 7: fixed block size, and the lines for lengths that do not fit
// (negative; frame too short).
struct TypeInfo {
  std::size_t fixedLen;
  const char *negative;
  const char *shortFrame;
  const char *done;
};
constexpr TypeInfo kTypes[] = {
    {sizeof(MethodEntryVar_t), "Invalid(Negative) values received at Method Entry. Returning.",
     "Invalid(Negative) values received length -Ve at MethodEntry. Returning.",
     "Message Type 0, Method Entry processed."},
    {sizeof(MethodExitVar_t), "Invalid(Negative) values received at MethodExit. Returning.",
     "Invalid(Negative) values for length received at MethodExit. Returning.",
     "Message Type 1, Method Exit processed."},
    {sizeof(transactionStartVar_t),
     "Invalid(Negative) values received at transactionStart. Returning.",
     "Invalid(Negative) values received at transactionStart. Returning.",
     "Message Type 2, Transaction Start processed."},
    {sizeof(transactionEnd_t), "Invalid(Negative) values received at transactionEnd. Returning.",
     "Invalid(Negative) values received at transactionEnd. Returning.",
     "Message Type 3, Transaction End processed."},
    {sizeof(transactionReset_t),
     "Invalid(Negative) values received at transactionReset. Returning.",
     "Invalid(Negative) values received at transactionReset. Returning.",
     "Message Type 4, Transaction Reset processed."},
    {sizeof(ExceptionEncodeVar_t), "Invalid(Negative) values received at ExceptionData. Returning.",
     "Invalid(Negative) values received at ExceptionData. Returning.",
     "Message Type 5, Exception Data processed."},
    {sizeof(transactionEncodeVarHttp_t),
     "Invalid(Negative) values received at HttpHeader. Returning.",
     "Invalid(Negative) values received at HttpHeader. Returning.",
     "Message Type 6, Http Header processed."},
    {sizeof(ExceptionMethodExitEncodeVar_t),
     "Invalid(Negative) values received at ExceptionMethodExit. Returning.",
     "Invalid(Negative) values received at ExceptionMethodExit. Returning.",
     "Message Type 7, Exception Method Exit processed."},
};

// The sweep when this application's last one is over ZX_STALE_FP_SECONDS old.
void sweepIfDue(ZXAppTracing &app) {
  const long long now = my_gettimeofday();
  if (now / 1000 - app.resetTimeInterval / 1000 <= ZX_STALE_FP_SECONDS) return;
  app.resetTimeInterval = now;
  ZX_DECODE_LOG(0, "Info", "Five minutes expired now resseting");
  resetFPafterThreshold();
}

void startFlowpath(ZXAppTracing &app, int processIndex, const transactionStartVar_t &f,
                   const std::array<char *, 6> &s) {
  char *header = s[0];
  // A forced flowpath stays forced through the proxy.
  char id[32];
  char *end = std::to_chars(id, id + sizeof id - 2, static_cast<long long>(f.flowpathinstance)).ptr;
  if (header && std::strpbrk(header, "Ff")) *end++ = 'F';
  *end = '\0';
  ZXPerThreadData_t *r =
      startFP(&app, id, s[1], s[2], 0, s[3], s[4], s[5], f.qTimeMS, f.startTimeFP);
  if (!r) {
    zxFramesNotReplayed.fetch_add(1, std::memory_order_relaxed);
    return;
  }
  if (header && std::strchr(header, '_')) (void)parseTierCallOut(r, header);
  r->fpStartTimeforReset = my_gettimeofday();
  ZXFpiTlsMap::iterator it;
  bool inserted;
  try {
    std::tie(it, inserted) =
        app.fpi_tls_map->try_emplace(ZXFpiKey{processIndex, f.flowpathinstance}, r);
  } catch (const std::bad_alloc &) {
    // No frame could reach the flowpath: it goes at once.
    ZX_LOG_OOM(sizeof(ZXFpiTlsMap::value_type), "fpi_tls_map entry", 0);
    reset(&app, r);
    return;
  }
  if (!inserted) {
    // A second start under a live id: the first can no longer be reached by
    // its frames, so it goes now rather than hold its slot until the sweep.
    reset(&app, it->second);
    it->second = r;
  }
  counterforfpi_tls_map.fetch_add(1, std::memory_order_relaxed);
}

int replayFrame(ZXProxyInstance_t &app, const char *buff, long long len, int type,
                int processIndex) {
  if (len <= 0) return -1;
  if (static_cast<unsigned>(type) > ZX_FRAME_METHOD_EXIT_EXCEPTION) {
    ZX_DECODE_LOG(0, "Error", "M Type unknown");
    return -1;
  }
  const TypeInfo &info = kTypes[type];
  if (len < static_cast<long long>(info.fixedLen)) {
    ZX_DECODE_LOG(0, "Error", "%s", info.shortFrame);
    return 0;
  }
  // Only the headers go without a map: they simply find no flowpath.
  if (type != ZX_FRAME_HTTP_HEADER && !app.fpi_tls_map) {
    zxFramesNotReplayed.fetch_add(1, std::memory_order_relaxed);
    return -2;
  }

  // The fixed block, then the strings whose lengths lensOf names in wire
  // order; false when the event is dropped.
  auto take = [&](auto &fixed, auto &strings, auto lensOf) {
    std::memcpy(&fixed, buff, sizeof fixed);
    const Fit fit = takeStrings(buff, len, sizeof fixed, lensOf(fixed), strings);
    if (fit == Fit::Negative) ZX_DECODE_LOG(0, "Error", "%s", info.negative);
    if (fit == Fit::Short) ZX_DECODE_LOG(0, "Error", "%s", info.shortFrame);
    return fit == Fit::Ok;
  };
  auto lookup = [&](long long id) {
    ZXPerThreadData_t *r = findFlowpath(app, ZXFpiKey{processIndex, id});
    if (!r) {
      zxFramesNotReplayed.fetch_add(1, std::memory_order_relaxed);
      ZX_DECODE_LOG(2, "Info", "-- Not M Type %d  pfpi = %lld", type, id);
    }
    return r;
  };

  switch (type) {
    case ZX_FRAME_METHOD_ENTRY: {
      MethodEntryVar_t f;
      std::array<char *, 3> s;
      if (!take(f, s, [](const auto &v) {
            return std::array{v.methodName, v.query_string, v.urlParameter};
          }))
        return 0;
      if (ZXPerThreadData_t *r = lookup(f.flowpathinstance))
        zxMethodEntry(&app, nullptr, r, s[0], s[1], s[2], f.threadId, nullptr, 0, f.startTime);
      break;
    }
    case ZX_FRAME_METHOD_EXIT: {
      MethodExitVar_t f;
      std::array<char *, 3> s;
      if (!take(f, s, [](const auto &v) {
            return std::array{v.methodName, v.backend_header, v.requestNotificationPhase};
          }))
        return 0;
      // The auto-instrumentation map of script agents has no home here yet.
      ZX_LOG_IF(zx::logLevel(zx::LogContext::Area::AutoInstr) > 2 &&
                    strcasecmp(app.ZXBCISetting.agentType.c_str(), "php") == 0,
                "PROXY", "Info", "Auto-instrumentation map not kept; method %s skipped",
                s[0] ? s[0] : "");
      if (ZXPerThreadData_t *r = lookup(f.flowpathinstance)) {
        r->tierCallOutSeqNum = f.tierCallOutSeqNum;
        zxMethodExit(&app, nullptr, r, s[0], f.cpuTime, f.statusCode, s[1], f.duration, f.threadId,
                     f.isCallout, 0, f.eventType, s[2] ? std::atoi(s[2]) : 0, f.endTime);
      }
      break;
    }
    case ZX_FRAME_TRANSACTION_START: {
      transactionStartVar_t f;
      std::array<char *, 6> s;
      if (!take(f, s, [](const auto &v) {
            return std::array{v.fp_header,   v.url,         v.btHeaderValue,
                              v.zxCookieSet, v.rbCookieSet, v.correlationHeader};
          }))
        return 0;
      startFlowpath(app, processIndex, f, s);
      break;
    }
    case ZX_FRAME_TRANSACTION_END: {
      transactionEnd_t f;
      std::memcpy(&f, buff, sizeof f);
      if (ZXPerThreadData_t *r = lookup(f.flowpathinstance))
        endFP(&app, r, f.statuscode, 0, f.endTime);
      break;
    }
    case ZX_FRAME_TRANSACTION_RESET: {
      transactionReset_t f;
      std::memcpy(&f, buff, sizeof f);
      sweepIfDue(app);
      if (ZXPerThreadData_t *r = lookup(f.flowpathinstance)) {
        app.fpi_tls_map->erase(ZXFpiKey{processIndex, f.flowpathinstance});
        reset(&app, r);
      }
      break;
    }
    case ZX_FRAME_EXCEPTION: {
      ExceptionEncodeVar_t f;
      std::array<char *, 6> s;  // in wire order, not in the order of their lengths
      if (!take(f, s, [](const auto &v) {
            return std::array{v.lenofExceptionClassName,
                              v.lenofExceptionMessage,
                              v.lenofExceptionThrowingClassName,
                              v.lenofExceptionThrowingMethodName,
                              v.lenofExceptionCause,
                              v.lenofExceptionStackTrace};
          }))
        return 0;
      if (ZXPerThreadData_t *r = lookup(f.flowpathInstance))
        handleExceptionParameters(r, nullptr, f.startTime, s[0], s[1], s[2], s[3], s[4],
                                  f.lineNumber, s[5]);
      break;
    }
    case ZX_FRAME_HTTP_HEADER: {
      transactionEncodeVarHttp_t f;
      std::array<char *, 2> s;
      if (!take(f, s, [](const auto &v) { return std::array{v.buffer_len, v.type_len}; })) return 0;
      if (ZXPerThreadData_t *r = lookup(f.flowpathinstance)) {
        if (s[1] && std::strcmp(s[1], "req") == 0)
          sendHttpHdrReq(r, s[0], s[1], f.statuscode);
        else
          sendHttpHdrRep(r, s[0], s[1], f.statuscode);
      }
      break;
    }
    case ZX_FRAME_METHOD_EXIT_EXCEPTION: {
      ExceptionMethodExitEncodeVar_t f;
      std::array<char *, 2> s;
      if (!take(f, s, [](const auto &v) {
            return std::array{v.lenofExceptionMethodName, v.lenofExceptionBackendName};
          }))
        return 0;
      if (ZXPerThreadData_t *r = lookup(f.flowpathInstance))
        zxMethodExitException(&app, nullptr, r, s[0], -1, 200, s[1], 0, 0, f.threadId, 0, 0,
                              f.ExceptionExitType);
      break;
    }
  }
  scratch.trim();
  ZX_DECODE_LOG(2, "Info", "%s", info.done);
  return 0;
}

}  // namespace

ZXFrameScan scanFrames(ZXProxyInstance_t &app, const char *buf, std::size_t len, int processIndex,
                       std::size_t maxFrame) {
  static constexpr char kKeepAlive[] = "10,\n";
  ZXFrameScan out;
  instanceProcess_t *proc = zxProxyApplications().process(app, processIndex);
  const char *p = buf;
  const char *const end = buf + len;
  // Bytes counted as consumed, for the log lines only: after a bad frame the
  // count stays one byte behind the cursor. Every decision uses the cursor.
  std::size_t counted = 0;
  auto countedLeft = [&] { return static_cast<int>(len - std::min(counted, len)); };
  while (p < end) {
    const std::size_t left = static_cast<std::size_t>(end - p);
    if (*p == '\n') {
      ++p, ++counted;
      continue;
    }
    if (*p == '1' && std::memcmp(p, kKeepAlive, std::min<std::size_t>(left, 4)) == 0) {
      if (left < 4) break;  // the rest of the keep-alive is still to come
      ZX_DECODE_LOG(1, "Info", "10 Record received for processIndex %d", processIndex);
      p += 4, counted += 4;
      continue;
    }
    if (*p != ZX_FRAME_START) {
      ZX_DECODE_LOG(0, "Warning", "Invalid character %c, bytes left = %d, procIndex = '%d'", *p,
                    countedLeft(), processIndex);
      ++p, ++counted;
      continue;
    }
    if (left <= 13) {
      ZX_DECODE_LOG(0, "Warning", "<2.>bytes ignored = %d, procIndex = '%d'",
                    static_cast<int>(left), processIndex);
      break;
    }
    msgHdr_t h;
    std::memcpy(&h, p + 1, sizeof h);
    if (h.header_len != ZX_FRAME_HEADER_LEN ||
        h.header_len > static_cast<long long>(h.total_len) + 2) {
      ZX_DECODE_LOG(0, "Warning", "procIndex = '%d', Corrupt data received, ignoring byte",
                    processIndex);
      p += 2, counted += 2;
      continue;
    }
    const auto total = static_cast<std::size_t>(h.total_len);  // at least 10 here
    if (maxFrame && total > maxFrame) {
      ZX_DECODE_LOG(0, "Warning", "procIndex = '%d', frame of %d bytes skipped", processIndex,
                    h.total_len);
      ++out.oversized;
      const std::size_t here = std::min(total, left);
      out.discard = total - here;
      p += here, counted += here;
      continue;
    }
    if (total > left) {
      ZX_DECODE_LOG(0, "Info", "<1.>records processed = '%'d, bytes ignored = %d, procIndex = '%d'",
                    static_cast<int>(out.replayed), static_cast<int>(left), processIndex);
      break;
    }
    if (p[total - 1] != ZX_FRAME_END || replayFrame(app, p + ZX_FRAME_FIXED_AT, h.total_len - 14LL,
                                                    h.msg_type, processIndex) == -1) {
      ZX_DECODE_LOG(0, "Warning", "procIndex = '%d', Corrupt data received, ignoring byte",
                    processIndex);
      // Resynchronise past the header (a frame may be as short as 10 bytes).
      p += std::min<std::size_t>(15, left), counted += 14;
      continue;
    }
    p += total, counted += total;
    ++out.replayed;
    if (proc) proc->data_len = 0;
  }
  out.consumed = static_cast<std::size_t>(p - buf);
  return out;
}

std::size_t decodeFrames(ZXProxyInstance_t &app, const char *buf, std::size_t len,
                         int processIndex) {
  return scanFrames(app, buf, len, processIndex, 0).consumed;
}

int decodeMessage(char *buff, int readBytes, int appIndex, int processIndex) {
  ZXProxyInstance_t *app = zxProxyApplications().at(appIndex);
  if (app && buff && readBytes > 0)
    (void)decodeFrames(*app, buff, static_cast<std::size_t>(readBytes), processIndex);
  return 0;
}

int readDataMessage(char *buff, long long len, int type, int appIndex, int processIndex) {
  ZXProxyInstance_t *app = zxProxyApplications().at(appIndex);
  if (!app) return -2;
  return replayFrame(*app, buff, len, type, processIndex);
}

void resetFPafterThreshold() {
  const long long now = my_gettimeofday() / 1000;
  ZXProxyApplications &apps = zxProxyApplications();
  for (int i = 0; i < apps.numInstances(); ++i) {
    ZXProxyInstance_t &app = *apps.at(i);
    if (!app.fpi_tls_map || app.fpi_tls_map->empty()) {
      ZX_DECODE_LOG(0, "Info", "print No memory needed to be freed");
      continue;
    }
    ZXFpiTlsMap &map = *app.fpi_tls_map;
    long long resets = 0;
    for (auto it = map.begin(); it != map.end();) {
      ZXPerThreadData_t *r = it->second;
      if (r->fpStartTimeforReset > 0 && now - r->fpStartTimeforReset / 1000 > ZX_STALE_FP_SECONDS) {
        reset(&app, r);
        it = map.erase(it);
        ++resets;
      } else {
        ++it;
      }
    }
    counterforNumofResetCalled.fetch_add(resets, std::memory_order_relaxed);
    ZX_DECODE_LOG(0, "Info", "Flowpath map size %zu after the sweep, %lld flowpaths reset",
                  map.size(), resets);
  }
}
