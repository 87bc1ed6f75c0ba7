#include "ZXEventsToProxy.h"

#include <algorithm>

#include "ZXAppTracing.h"
#include "ZXFlowpathGenerator.h"
#include "zxlb_encode.h"
#include "zxlb_utiles.h"

namespace {

long long absoluteNow(long long t) {
  return t > 0 ? t : my_gettimeofday();
}

// Whether the in-process engine would write this method's events (and so
// step the sequence number): within the method limit, captured or forced.
bool written(const ZXAppTracing *app, const ZXPerThreadData_t *r) {
  return r->tlNonServiceMethodCount <= app->ZXSys.bciMaxNonServiceMethodsPerFP &&
         (r->tlIsFPCaptured || r->tlIsForceDump);
}

ZXPerThreadData_t::ProxiedCallOut *callOutOf(ZXPerThreadData_t *r, int kind) {
  return kind == 1 || kind == 2 ? &r->proxiedCallOuts[kind - 1] : nullptr;
}

}  // namespace

void startFPForProxy(ZXAppTracing *app, ZXPerThreadData_t *r, const char *fpHeader, const char *url,
                     const char *btHeaderValue, const char *zxCookie, const char *rbCookie,
                     const char *correlationHeader, long long qTimeMS, long long start) {
  // The request's own entry opens every captured flowpath's blob.
  r->seqNum = r->tlIsFPCaptured || r->tlIsForceDump ? 1 : 0;
  transactionStartEncode(app, qTimeMS, r->flowpathInstance, fpHeader, url, btHeaderValue, zxCookie,
                         rbCookie, correlationHeader, start, &r->frameStage);
}

void methodEntryForProxy(ZXAppTracing *app, ZXPerThreadData_t *r, const char *methodName,
                         const char *queryString, const char *urlParameter, long long threadId,
                         long long startTime) {
  const long long now = absoluteNow(startTime);
  if (r->methodStackDepth < ZX_METHOD_STACK_DEPTH) r->methodEntryTimes[r->methodStackDepth] = now;
  ++r->methodStackDepth;
  ++r->tlNonServiceMethodCount;
  if (written(app, r)) ++r->seqNum;
  MethodEntryEncode(app, 0, r->flowpathInstance, threadId, methodName, queryString, urlParameter,
                    now, &r->frameStage);
}

void methodExitForProxy(ZXAppTracing *app, ZXPerThreadData_t *r, const char *methodName,
                        long long cpuTime, int statusCode, const char *backendHeader,
                        long long duration, long long threadId, int isCallout, int eventType,
                        long long endTime) {
  const long long end = absoluteNow(endTime);
  long long wall = 0;
  if (r->methodStackDepth > 0) {
    const int top = --r->methodStackDepth;
    if (top < ZX_METHOD_STACK_DEPTH) wall = std::max(0LL, end - r->methodEntryTimes[top]);
  }
  if (r->tlNonServiceMethodCount > app->ZXSys.bciMaxNonServiceMethodsPerFP)
    --r->tlNonServiceMethodCount;
  MethodExitEncode(app, 0, statusCode, eventType, isCallout, threadId,
                   duration >= 0 ? duration : wall, r->flowpathInstance, cpuTime, methodName,
                   backendHeader, r->tierCallOutSeqNum, end, nullptr, &r->frameStage);
}

void methodExitExceptionForProxy(ZXAppTracing *app, ZXPerThreadData_t *r, const char *methodName,
                                 const char *backendName, long long threadId,
                                 int exceptionExitType) {
  if (r->methodStackDepth > 0) --r->methodStackDepth;
  if (r->tlNonServiceMethodCount > app->ZXSys.bciMaxNonServiceMethodsPerFP)
    --r->tlNonServiceMethodCount;
  zxMethodExitExceptionEncode(app, r->flowpathInstance, methodName, backendName, threadId,
                              exceptionExitType, &r->frameStage);
}

void endFPForProxy(ZXAppTracing *app, ZXPerThreadData_t *r, int statusCode, long long endTime) {
  transactionEndEncode(app, statusCode, r->flowpathInstance, endTime, &r->frameStage);
  r->frameStage.handOver();
}

void resetForProxy(ZXAppTracing *app, ZXPerThreadData_t *r) {
  if (r->flowpathInstance) transactionResetEncode(app, r->flowpathInstance, &r->frameStage);
  r->frameStage.handOver();
}

void callOutBeginForProxy(ZXAppTracing *app, ZXPerThreadData_t *r, int kind, const char *host,
                          const char *query) {
  ZXPerThreadData_t::ProxiedCallOut *c = callOutOf(r, kind);
  if (!c) return;
  if (c->depth++ > 0) return;  // only the outermost call is sent
  c->host.assign(host);
  c->query.assign(kind == 2 ? query : nullptr);
  c->startMs = zxAgentTimeNow(app);
}

void callOutEndForProxy(ZXAppTracing *app, ZXPerThreadData_t *r, int kind) {
  ZXPerThreadData_t::ProxiedCallOut *c = callOutOf(r, kind);
  if (!c) return;
  ++r->seqNum;
  if (c->depth <= 0 || --c->depth > 0) return;
  const long long end = my_gettimeofday();
  MethodExitEncode(app, 0, r->tlStatusCode, 1, kind, r->tlThreadId,
                   end - app->Server.morEpochDiffTime - c->startMs, r->flowpathInstance, -1,
                   c->host.c_str(), c->query.is_set() ? c->query.c_str() : nullptr,
                   r->tierCallOutSeqNum, end, nullptr, &r->frameStage);
  // The call-out's entry consumed the outgoing call's sequence number.
  r->tierCallOutSeqNum = 0;
}
