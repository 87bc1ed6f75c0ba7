#include "ZXCallOut.h"

#include "ZXAppTracing.h"
#include "ZXEventsToProxy.h"
#include "ZXFlowpathGenerator.h"
#include "ZXSQLProcessor.h"

namespace {

// The call-out handle of a proxy-mode application process, which keeps no
// method table: the call itself is kept on the record.
methodPropProperties proxiedBackend;

long long sinceFlowpathStart(const ZXAppTracing *app, const ZXPerThreadData_t *r) {
  return zxAgentTimeNow(app) - r->tlFlowPathTimeStampInMS;
}

}  // namespace

methodPropProperties *beginCallOut(ZXAppTracing *app, ZXPerThreadData_t *r, ZXCallOutKind kind,
                                   const char *host, const char *query) {
  if (!app || !r) return nullptr;
  if (app->sendsEventsToProxy()) {
    if (!host || !*host) return nullptr;
    callOutBeginForProxy(app, r, static_cast<int>(kind), host, query);
    return &proxiedBackend;
  }
  methodPropProperties *backend = findOrAddMethod(app, r, host, 0, static_cast<int>(kind));
  if (!backend) return nullptr;
  app->backendMonitor.grow(backend->methodId);  // a load once the counters exist
  r->tlTierStartTime = sinceFlowpathStart(app, r);
  if (kind == ZXCallOutKind::Database)
    dbMethodEntry(r, query, host);
  else
    r->httpCallOutDepth += 1;
  return backend;
}

namespace {

// Closes a call-out that lasted `duration`; only the outermost of nested
// calls of one kind is recorded.
void finishCallOut(ZXAppTracing *app, ZXPerThreadData_t *r, ZXCallOutKind kind,
                   methodPropProperties *backend, long long duration) {
  r->seqNum += 1;
  int &depthOfKind =
      kind == ZXCallOutKind::Database ? r->tlSQLObj.dbCallDepth : r->httpCallOutDepth;
  const int depth = --depthOfKind;
  if (kind == ZXCallOutKind::Database && depth < 1) r->tlSQLObj.lastDbBackendId = backend->methodId;
  if (depth < 1) {
    // No query ids are announced, so a database entry names resource 0 too.
    updateFPSeqBlobWithTierCallOutRecord(app, r, r->tlTierStartTime, duration, backend, 0);
    app->backendMonitor.update(backend->methodId, duration, r->tlStatusCode);
  }
  // An end without its begin must not leave later calls looking nested.
  if (depthOfKind < 0) depthOfKind = 0;
}

}  // namespace

void endCallOut(ZXAppTracing *app, ZXPerThreadData_t *r, ZXCallOutKind kind,
                methodPropProperties *backend) {
  if (!app || !r || !backend) return;
  if (app->sendsEventsToProxy()) return callOutEndForProxy(app, r, static_cast<int>(kind));
  finishCallOut(app, r, kind, backend, sinceFlowpathStart(app, r) - r->tlTierStartTime);
}

void replayCallOut(ZXAppTracing *app, ZXPerThreadData_t *r, ZXCallOutKind kind, const char *host,
                   const char *query, long long endTime, long long duration) {
  methodPropProperties *backend = beginCallOut(app, r, kind, host, query);
  if (!backend) return;
  const long long end =
      (endTime > 0 ? endTime - app->Server.morEpochDiffTime : zxAgentTimeNow(app)) -
      r->tlFlowPathTimeStampInMS;
  if (duration < 0) duration = 0;
  r->tlTierStartTime = end - duration;
  finishCallOut(app, r, kind, backend, duration);
}
