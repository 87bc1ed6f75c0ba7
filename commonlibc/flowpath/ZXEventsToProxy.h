// The engine's entry points in an application process of proxy mode: each
// event goes to the proxy as a frame (zxlb_encode.h) and nothing is traced
// here. The proxy replays the frames into its own engine, so what the record
// still keeps here is only what the frames need and what the host may ask
// of the record: its id, its open method entries (an exit's wall time), and
// the sequence number that the in-process engine would have reached (an
// outgoing call's tier header), counted by the same rules on the
// assumption that the proxy's BT is not excluded.
#pragma once

struct ZXAppTracing;
struct ZXPerThreadData_t;

// After startFP has taken the slot, set the id and decided capture; `start`
// is absolute ms.
void startFPForProxy(ZXAppTracing *app, ZXPerThreadData_t *record, const char *fpHeader,
                     const char *url, const char *btHeaderValue, const char *zxCookie,
                     const char *rbCookie, const char *correlationHeader, long long qTimeMS,
                     long long start);
// Times are absolute ms, <= 0 meaning now; a negative duration means "since
// the matching entry", as for zxMethodExit.
void methodEntryForProxy(ZXAppTracing *app, ZXPerThreadData_t *record, const char *methodName,
                         const char *queryString, const char *urlParameter, long long threadId,
                         long long startTime);
void methodExitForProxy(ZXAppTracing *app, ZXPerThreadData_t *record, const char *methodName,
                        long long cpuTime, int statusCode, const char *backendHeader,
                        long long duration, long long threadId, int isCallout, int eventType,
                        long long endTime);
void methodExitExceptionForProxy(ZXAppTracing *app, ZXPerThreadData_t *record,
                                 const char *methodName, const char *backendName,
                                 long long threadId, int exceptionExitType);
void endFPForProxy(ZXAppTracing *app, ZXPerThreadData_t *record, int statusCode, long long endTime);
void resetForProxy(ZXAppTracing *app, ZXPerThreadData_t *record);
// A call-out (kind as ZXCallOutKind: 1 HTTP, 2 database) goes out as one
// method-exit frame at its outermost end: the backend as the method name,
// the kind in isCallout, the query as the backend header.
void callOutBeginForProxy(ZXAppTracing *app, ZXPerThreadData_t *record, int kind, const char *host,
                          const char *query);
void callOutEndForProxy(ZXAppTracing *app, ZXPerThreadData_t *record, int kind);
