#include "ZXExceptionHttpCapture.h"

#include "ZXPerThreadData.h"
#include "zxlb_mt_log.h"

#define ZX_CAPTURE_LOG(...) \
  ZX_LOG_IF(zx::logLevel(zx::LogContext::Area::Exception) > 1, "EXCEPTION", "Info", __VA_ARGS__)

namespace {

void traceHeaders(const ZXPerThreadData_t *r, const char *what, const char *buffer,
                  int statusCode) {
  ZX_CAPTURE_LOG("HTTP %s headers of flowpath %lld, status %d: %s", what, r->flowpathInstance,
                 statusCode, buffer ? buffer : "");
}

}  // namespace

void handleExceptionParameters(ZXPerThreadData_t *r, methodPropProperties *method,
                               long long startTime, const char *className, const char *message,
                               const char *throwingClassName, const char *throwingMethodName,
                               const char *cause, int lineNumber, const char *stackTrace) {
  (void)method, (void)startTime;
  if (!r) return;
  r->excepClassName.assign(className);
  r->excepMessage.assign(message);
  r->throwingCName.assign(throwingClassName);
  r->throwingMName.assign(throwingMethodName);
  r->exceptionStackTrace.assign(stackTrace);
  ZX_CAPTURE_LOG("Exception %s at %s.%s:%d in flowpath %lld, cause: %s", className ? className : "",
                 throwingClassName ? throwingClassName : "",
                 throwingMethodName ? throwingMethodName : "", lineNumber, r->flowpathInstance,
                 cause ? cause : "");
}

void sendHttpHdrReq(ZXPerThreadData_t *r, const char *buffer, const char *type, int statusCode) {
  (void)type;
  if (r) traceHeaders(r, "request", buffer, statusCode);
}

void sendHttpHdrRep(ZXPerThreadData_t *r, const char *buffer, const char *type, int statusCode) {
  (void)type;
  if (r) traceHeaders(r, "response", buffer, statusCode);
}
