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

// The fixed block zeroed first: its padding goes out as zero.
template <typename Block>
Block zeroed() {
  Block b;
  std::memset(&b, 0, sizeof b);
  return b;
}

// The frame is written where it is to be sent from, in the filling buffer;
// one that does not fit there whole goes in parts ("^" with the header and
// "|", the fixed block, each string, the end byte), split, dropped and
// counted by the pool. Nothing is assembled aside. The block's fields were
// stored just before: copied once the pool lock's atomic has drained them,
// so the copy does not stall on its own stores.
template <typename Block, typename... Strings>
void send(ZXAppLink *app, ZXFrameType type, const Block &fixed, const char *what,
          const Strings &...strings) {
  const std::size_t total = ZX_FRAME_OVERHEAD + sizeof fixed + (std::size_t{0} + ... + strings.len);
  const int len = static_cast<int>(total);
  {
    ZXFrameSlot slot(app, len);
    if (char *out = slot.at()) {
      writeFrameHead(out, type, total);
      std::memcpy(out + ZX_FRAME_FIXED_AT, &fixed, sizeof fixed);
      out += ZX_FRAME_FIXED_AT + sizeof fixed;
      [[maybe_unused]] const auto put = [&out](const ZXFrameString &s) {
        if (s.len) std::memcpy(out, s.text, s.len);  // an absent string has no text
        out += s.len;
      };
      (put(strings), ...);
      *out = ZX_FRAME_END;
      slot.commit();
      return;
    }
  }
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
                       long long startTime) {
  const ZXFrameString name = frameString(methodName), query = frameString(query_string),
                      param = frameString(urlParameter);
  auto b = zeroed<MethodEntryVar_t>();
  b.mid = frameNumber(mid);
  b.flowpathinstance = frameNumber(flowpathinstance);
  b.threadId = frameNumber(threadId);
  b.startTime = frameNumber(startTime);
  b.methodName = len32(name);
  b.query_string = len32(query);
  b.urlParameter = len32(param);
  send(app, ZX_FRAME_METHOD_ENTRY, b, "Method Entry", name, query, param);
}

void transactionStartEncode(ZXAppLink *app, long long qTimeMS, long long flowpathinstance,
                            const char *fp_header, const char *url, const char *btHeaderValue,
                            const char *zxCookieSet, const char *rbCookieSet,
                            const char *correlationHeader, long long startTimeFP) {
  const ZXFrameString header = frameString(fp_header), u = frameString(url),
                      bt = frameString(btHeaderValue), zx = frameString(zxCookieSet),
                      rb = frameString(rbCookieSet), corr = frameString(correlationHeader);
  auto b = zeroed<transactionStartVar_t>();
  b.fp_header = len32(header);
  b.url = len32(u);
  b.btHeaderValue = len32(bt);
  b.zxCookieSet = len32(zx);
  b.rbCookieSet = len32(rb);
  b.correlationHeader = len32(corr);
  b.flowpathinstance = frameNumber(flowpathinstance);
  b.qTimeMS = frameNumber(qTimeMS);
  b.startTimeFP = frameNumber(startTimeFP);
  send(app, ZX_FRAME_TRANSACTION_START, b, "Transaction Start", header, u, bt, zx, rb, corr);
}

void MethodExitEncode(ZXAppLink *app, int mid, int statusCode, int eventType, int isCallout,
                      long long threadId, long long duration, long long flowpathinstance,
                      long long cpuTime, const char *methodName, const char *backend_header,
                      long long tierCallOutSeqNum, long long endTime,
                      const char *requestNotificationPhase) {
  const ZXFrameString name = frameString(methodName), backend = frameString(backend_header),
                      phase = frameString(requestNotificationPhase);
  auto b = zeroed<MethodExitVar_t>();
  b.statusCode = frameNumber(statusCode);
  b.mid = frameNumber(mid);
  b.eventType = frameNumber(eventType);
  b.isCallout = frameNumber(isCallout);
  b.threadId = frameNumber(threadId);
  b.duration = frameNumber(duration);
  b.flowpathinstance = frameNumber(flowpathinstance);
  b.cpuTime = frameNumber(cpuTime);
  b.methodName = len32(name);
  b.backend_header = len32(backend);
  b.requestNotificationPhase = len32(phase);
  b.tierCallOutSeqNum = frameNumber(tierCallOutSeqNum);
  b.endTime = frameNumber(endTime);
  send(app, ZX_FRAME_METHOD_EXIT, b, "Method Exit", name, backend, phase);
}

void transactionEndEncode(ZXAppLink *app, int statuscode, long long flowpathinstance,
                          long long endTime) {
  auto b = zeroed<transactionEnd_t>();
  b.statuscode = frameNumber(statuscode);
  b.flowpathinstance = frameNumber(flowpathinstance);
  b.endTime = frameNumber(endTime);
  send(app, ZX_FRAME_TRANSACTION_END, b, "Transaction End");
}

void transactionResetEncode(ZXAppLink *app, long long flowpathinstance) {
  auto b = zeroed<transactionReset_t>();
  b.flowpathinstance = frameNumber(flowpathinstance);
  send(app, ZX_FRAME_TRANSACTION_RESET, b, "Reset");
}

void encodeHttpHeaderReq(ZXAppLink *app, long long flowpathinstance, const char *buffer,
                         const char *type, int statusCode) {
  const ZXFrameString buf = frameString(buffer), t = frameString(type);
  auto b = zeroed<transactionEncodeVarHttp_t>();
  b.statuscode = frameNumber(statusCode);
  b.buffer_len = len32(buf);
  b.type_len = len32(t);
  b.flowpathinstance = frameNumber(flowpathinstance);
  send(app, ZX_FRAME_HTTP_HEADER, b, "Http Header", buf, t);
}

void ExceptionDataEncode(ZXAppLink *app, long long flowpathInstance, long long startTime,
                         const char *ExceptionclassName, const char *Exceptionmessage,
                         const char *throwingClassName, const char *throwingmethodName,
                         const char *ExceptionCause, int lineNumber,
                         const char *exceptionStackTrace) {
  const ZXFrameString cls = frameString(ExceptionclassName), msg = frameString(Exceptionmessage),
                      tcls = frameString(throwingClassName), tm = frameString(throwingmethodName),
                      cause = frameString(ExceptionCause), stack = frameString(exceptionStackTrace);
  auto b = zeroed<ExceptionEncodeVar_t>();
  b.lineNumber = frameNumber(lineNumber);
  b.lenofExceptionClassName = len32(cls);
  b.lenofExceptionThrowingClassName = len32(tcls);
  b.lenofExceptionThrowingMethodName = len32(tm);
  b.lenofExceptionMessage = len32(msg);
  b.lenofExceptionCause = len32(cause);
  b.lenofExceptionStackTrace = len32(stack);
  b.flowpathInstance = frameNumber(flowpathInstance);
  b.startTime = frameNumber(startTime);
  // The strings' order differs from their lengths' order: both are the wire's.
  send(app, ZX_FRAME_EXCEPTION, b, "Exception Data", cls, msg, tcls, tm, cause, stack);
}

void zxMethodExitExceptionEncode(ZXAppLink *app, long long flowPathInstance,
                                 const char *ExceptionMethodName, const char *ExceptionBackendName,
                                 long long threadId, int ExceptionExitType) {
  const ZXFrameString name = frameString(ExceptionMethodName),
                      backend = frameString(ExceptionBackendName);
  auto b = zeroed<ExceptionMethodExitEncodeVar_t>();
  b.ExceptionExitType = frameNumber(ExceptionExitType);
  b.lenofExceptionMethodName = len32(name);
  b.lenofExceptionBackendName = len32(backend);
  b.flowpathInstance = frameNumber(flowPathInstance);
  b.threadId = frameNumber(threadId);
  send(app, ZX_FRAME_METHOD_EXIT_EXCEPTION, b, "Exception Method Exit Data", name, backend);
}
