// Exception and HTTP-header capture as the proxy receives them from an
// application process. Neither feature is built out yet: an exception's
// texts are kept on its flowpath's record for the exception records to come,
// and captured headers are only traced. Called on the record owner's thread
// (the proxy's decoding thread), so no lock.
#pragma once

struct ZXPerThreadData_t;
struct methodPropProperties;

// Stores the texts (null: none) in the record's exception fields. The cause and line number have no
// field yet.
void handleExceptionParameters(ZXPerThreadData_t *record, methodPropProperties *method,
                               long long startTime, const char *className, const char *message,
                               const char *throwingClassName, const char *throwingMethodName,
                               const char *cause, int lineNumber, const char *stackTrace);

// Request ("req") and response headers of the record's flowpath.
void sendHttpHdrReq(ZXPerThreadData_t *record, const char *buffer, const char *type,
                    int statusCode);
void sendHttpHdrRep(ZXPerThreadData_t *record, const char *buffer, const char *type,
                    int statusCode);
