#include "zxlb_encode.h"

#include <atomic>
#include <cstdint>
#include <cstring>
#include <iterator>

#include "ZXAppLink.h"
#include "ZXDataDispatcher.h"
#include "zxlb_frame_build.h"
#include "zxlb_mt_log.h"

namespace {

std::int32_t len32(const ZXFrameString &s) {
  return static_cast<std::int32_t>(s.len);
}

// Lost frames logged: the first, then one in a thousand, so that a stalled
// proxy does not turn every event into a log write on the host's thread.
std::atomic<unsigned long long> framesLostLogged{0};

// A fixed block's field at its place in a frame, whatever the alignment.
template <typename Block, typename T>
std::size_t fieldOffset(T Block::*field) {
  static const Block probe{};
  return static_cast<std::size_t>(reinterpret_cast<const char *>(&(probe.*field)) -
                                  reinterpret_cast<const char *>(&probe));
}

// Encoders name their fields once, as `fields(set)` with set(&Block::f, v);
// these are the two ways of setting them.
template <typename Block>
struct SetInPlace {
  char *at;
  template <typename T, typename V>
  void operator()(T Block::*field, V v) const {
    const T x = static_cast<T>(v);
    std::memcpy(at + fieldOffset(field), &x, sizeof x);
  }
};
template <typename Block>
struct SetAside {
  Block &b;
  template <typename T, typename V>
  void operator()(T Block::*field, V v) const {
    b.*field = static_cast<T>(v);
  }
};

// Short strings (most names) without a call.
[[gnu::always_inline]] inline void putString(char *out, const ZXFrameString &s) {
  if (s.len >= 8 && s.len <= 16) {
    std::memcpy(out, s.text, 8);
    std::memcpy(out + s.len - 8, s.text + s.len - 8, 8);
  } else if (s.len) {  // an absent string has no text
    std::memcpy(out, s.text, s.len);
  }
}

// Writes the whole frame of `total` bytes at `out`. The block's fields are
// stored where they go, padding zeroed first: a block built aside and
// copied would be read back across its own narrower stores, which stalls.
template <typename Block, typename Fields, typename... Strings>
[[gnu::always_inline]] inline void writeFrame(char *out, ZXFrameType type, std::size_t total,
                                              const Fields &fields, const Strings &...strings) {
  writeFrameHead(out, type, total);
  std::memset(out + ZX_FRAME_FIXED_AT, 0, sizeof(Block));
  fields(SetInPlace<Block>{out + ZX_FRAME_FIXED_AT});
  out += ZX_FRAME_FIXED_AT + sizeof(Block);
  [[maybe_unused]] const auto put = [&out](const ZXFrameString &s) {
    putString(out, s);
    out += s.len;
  };
  (put(strings), ...);
  *out = ZX_FRAME_END;
}

// The frame is written where it is to be sent from: in the flowpath's stage,
// else in the filling buffer; one that fits neither whole goes in parts
// ("^" with the header and "|", the fixed block, each string, the end byte),
// split, dropped and counted by the pool.
template <typename Block, typename Fields, typename... Strings>
[[gnu::always_inline]] inline void send(ZXAppLink *app, ZXFrameStage *stage, ZXFrameType type,
                                        const Fields &fields, const char *what,
                                        const Strings &...strings) {
  const std::size_t total =
      ZX_FRAME_OVERHEAD + sizeof(Block) + (std::size_t{0} + ... + strings.len);
  const int len = static_cast<int>(total);
  if (stage) {
    if (char *out = stage->reserve(app, len)) {
      writeFrame<Block>(out, type, total, fields, strings...);
      stage->commit(len);
      return;
    }
  }
  {
    ZXFrameSlot slot(app, len);
    if (char *out = slot.at()) {
      writeFrame<Block>(out, type, total, fields, strings...);
      slot.commit();
      return;
    }
  }
  Block fixed;
  std::memset(&fixed, 0, sizeof fixed);  // padding goes out as zero
  fields(SetAside<Block>{fixed});
  char lead[ZX_FRAME_FIXED_AT];
  writeFrameHead(lead, type, total);
  static constexpr char end = ZX_FRAME_END;
  const ZXFramePart parts[] = {{lead, sizeof lead},
                               {reinterpret_cast<const char *>(&fixed), sizeof fixed},
                               {strings.text, strings.len}...,
                               {&end, 1}};
  if (dumpFrameParts(app, parts, static_cast<int>(std::size(parts)), len) == 0) return;
  if (framesLostLogged.fetch_add(1, std::memory_order_relaxed) % 1000 == 0)
    ZX_CTRL_LOG(0, "Error", "Send failed for %s. Lost %d bytes", what, len);
}

}  // namespace

void MethodEntryEncode(ZXAppLink *app, int mid, long long flowpathinstance, long long threadId,
                       const char *methodName, const char *query_string, const char *urlParameter,
                       long long startTime, ZXFrameStage *stage) {
  const ZXFrameString name = frameString(methodName), query = frameString(query_string),
                      param = frameString(urlParameter);
  const auto fields = [&](auto &&set) {
    set(&MethodEntryVar_t::mid, frameNumber(mid));
    set(&MethodEntryVar_t::flowpathinstance, frameNumber(flowpathinstance));
    set(&MethodEntryVar_t::threadId, frameNumber(threadId));
    set(&MethodEntryVar_t::startTime, frameNumber(startTime));
    set(&MethodEntryVar_t::methodName, len32(name));
    set(&MethodEntryVar_t::query_string, len32(query));
    set(&MethodEntryVar_t::urlParameter, len32(param));
  };
  send<MethodEntryVar_t>(app, stage, ZX_FRAME_METHOD_ENTRY, fields, "Method Entry", name, query,
                         param);
}

void transactionStartEncode(ZXAppLink *app, long long qTimeMS, long long flowpathinstance,
                            const char *fp_header, const char *url, const char *btHeaderValue,
                            const char *zxCookieSet, const char *rbCookieSet,
                            const char *correlationHeader, long long startTimeFP,
                            ZXFrameStage *stage) {
  const ZXFrameString header = frameString(fp_header), u = frameString(url),
                      bt = frameString(btHeaderValue), zx = frameString(zxCookieSet),
                      rb = frameString(rbCookieSet), corr = frameString(correlationHeader);
  const auto fields = [&](auto &&set) {
    set(&transactionStartVar_t::fp_header, len32(header));
    set(&transactionStartVar_t::url, len32(u));
    set(&transactionStartVar_t::btHeaderValue, len32(bt));
    set(&transactionStartVar_t::zxCookieSet, len32(zx));
    set(&transactionStartVar_t::rbCookieSet, len32(rb));
    set(&transactionStartVar_t::correlationHeader, len32(corr));
    set(&transactionStartVar_t::flowpathinstance, frameNumber(flowpathinstance));
    set(&transactionStartVar_t::qTimeMS, frameNumber(qTimeMS));
    set(&transactionStartVar_t::startTimeFP, frameNumber(startTimeFP));
  };
  send<transactionStartVar_t>(app, stage, ZX_FRAME_TRANSACTION_START, fields, "Transaction Start",
                              header, u, bt, zx, rb, corr);
}

void MethodExitEncode(ZXAppLink *app, int mid, int statusCode, int eventType, int isCallout,
                      long long threadId, long long duration, long long flowpathinstance,
                      long long cpuTime, const char *methodName, const char *backend_header,
                      long long tierCallOutSeqNum, long long endTime,
                      const char *requestNotificationPhase, ZXFrameStage *stage) {
  const ZXFrameString name = frameString(methodName), backend = frameString(backend_header),
                      phase = frameString(requestNotificationPhase);
  const auto fields = [&](auto &&set) {
    set(&MethodExitVar_t::statusCode, frameNumber(statusCode));
    set(&MethodExitVar_t::mid, frameNumber(mid));
    set(&MethodExitVar_t::eventType, frameNumber(eventType));
    set(&MethodExitVar_t::isCallout, frameNumber(isCallout));
    set(&MethodExitVar_t::threadId, frameNumber(threadId));
    set(&MethodExitVar_t::duration, frameNumber(duration));
    set(&MethodExitVar_t::flowpathinstance, frameNumber(flowpathinstance));
    set(&MethodExitVar_t::cpuTime, frameNumber(cpuTime));
    set(&MethodExitVar_t::methodName, len32(name));
    set(&MethodExitVar_t::backend_header, len32(backend));
    set(&MethodExitVar_t::requestNotificationPhase, len32(phase));
    set(&MethodExitVar_t::tierCallOutSeqNum, frameNumber(tierCallOutSeqNum));
    set(&MethodExitVar_t::endTime, frameNumber(endTime));
  };
  send<MethodExitVar_t>(app, stage, ZX_FRAME_METHOD_EXIT, fields, "Method Exit", name, backend,
                        phase);
}

void transactionEndEncode(ZXAppLink *app, int statuscode, long long flowpathinstance,
                          long long endTime, ZXFrameStage *stage) {
  const auto fields = [&](auto &&set) {
    set(&transactionEnd_t::statuscode, frameNumber(statuscode));
    set(&transactionEnd_t::flowpathinstance, frameNumber(flowpathinstance));
    set(&transactionEnd_t::endTime, frameNumber(endTime));
  };
  send<transactionEnd_t>(app, stage, ZX_FRAME_TRANSACTION_END, fields, "Transaction End");
}

void transactionResetEncode(ZXAppLink *app, long long flowpathinstance, ZXFrameStage *stage) {
  const auto fields = [&](auto &&set) {
    set(&transactionReset_t::flowpathinstance, frameNumber(flowpathinstance));
  };
  send<transactionReset_t>(app, stage, ZX_FRAME_TRANSACTION_RESET, fields, "Reset");
}

void encodeHttpHeaderReq(ZXAppLink *app, long long flowpathinstance, const char *buffer,
                         const char *type, int statusCode) {
  const ZXFrameString buf = frameString(buffer), t = frameString(type);
  const auto fields = [&](auto &&set) {
    set(&transactionEncodeVarHttp_t::statuscode, frameNumber(statusCode));
    set(&transactionEncodeVarHttp_t::buffer_len, len32(buf));
    set(&transactionEncodeVarHttp_t::type_len, len32(t));
    set(&transactionEncodeVarHttp_t::flowpathinstance, frameNumber(flowpathinstance));
  };
  send<transactionEncodeVarHttp_t>(app, nullptr, ZX_FRAME_HTTP_HEADER, fields, "Http Header", buf,
                                   t);
}

void ExceptionDataEncode(ZXAppLink *app, long long flowpathInstance, long long startTime,
                         const char *ExceptionclassName, const char *Exceptionmessage,
                         const char *throwingClassName, const char *throwingmethodName,
                         const char *ExceptionCause, int lineNumber,
                         const char *exceptionStackTrace) {
  const ZXFrameString cls = frameString(ExceptionclassName), msg = frameString(Exceptionmessage),
                      tcls = frameString(throwingClassName), tm = frameString(throwingmethodName),
                      cause = frameString(ExceptionCause), stack = frameString(exceptionStackTrace);
  const auto fields = [&](auto &&set) {
    set(&ExceptionEncodeVar_t::lineNumber, frameNumber(lineNumber));
    set(&ExceptionEncodeVar_t::lenofExceptionClassName, len32(cls));
    set(&ExceptionEncodeVar_t::lenofExceptionThrowingClassName, len32(tcls));
    set(&ExceptionEncodeVar_t::lenofExceptionThrowingMethodName, len32(tm));
    set(&ExceptionEncodeVar_t::lenofExceptionMessage, len32(msg));
    set(&ExceptionEncodeVar_t::lenofExceptionCause, len32(cause));
    set(&ExceptionEncodeVar_t::lenofExceptionStackTrace, len32(stack));
    set(&ExceptionEncodeVar_t::flowpathInstance, frameNumber(flowpathInstance));
    set(&ExceptionEncodeVar_t::startTime, frameNumber(startTime));
  };
  // The strings' order differs from their lengths' order: both are the wire's.
  send<ExceptionEncodeVar_t>(app, nullptr, ZX_FRAME_EXCEPTION, fields, "Exception Data", cls, msg,
                             tcls, tm, cause, stack);
}

void zxMethodExitExceptionEncode(ZXAppLink *app, long long flowPathInstance,
                                 const char *ExceptionMethodName, const char *ExceptionBackendName,
                                 long long threadId, int ExceptionExitType, ZXFrameStage *stage) {
  const ZXFrameString name = frameString(ExceptionMethodName),
                      backend = frameString(ExceptionBackendName);
  const auto fields = [&](auto &&set) {
    set(&ExceptionMethodExitEncodeVar_t::ExceptionExitType, frameNumber(ExceptionExitType));
    set(&ExceptionMethodExitEncodeVar_t::lenofExceptionMethodName, len32(name));
    set(&ExceptionMethodExitEncodeVar_t::lenofExceptionBackendName, len32(backend));
    set(&ExceptionMethodExitEncodeVar_t::flowpathInstance, frameNumber(flowPathInstance));
    set(&ExceptionMethodExitEncodeVar_t::threadId, frameNumber(threadId));
  };
  send<ExceptionMethodExitEncodeVar_t>(app, stage, ZX_FRAME_METHOD_EXIT_EXCEPTION, fields,
                                       "Exception Method Exit Data", name, backend);
}
