// The encoders of an application process in proxy mode: each event the
// engine sees becomes one frame (zxlb_frame_layout.h) queued whole for the
// proxy, written straight into the flowpath's stage when one is given (the
// encoders of the engine's hot events take it), else into the send buffers
// (ZXFrameSlot, or dumpFrameParts when it spans two). A flowpath's frames
// go through its stage or none at all, or their order is lost. They allocate nothing. Negative
// numbers go out as 0. A frame that cannot be queued is lost: counted by the
// send buffers, and logged now and then, never retried. They never block and
// never touch the network.
#pragma once

struct ZXAppLink;
class ZXFrameStage;

void MethodEntryEncode(ZXAppLink *app, int mid, long long flowpathinstance, long long threadId,
                       const char *methodName, const char *query_string, const char *urlParameter,
                       long long startTime, ZXFrameStage *stage = nullptr);
void transactionStartEncode(ZXAppLink *app, long long qTimeMS, long long flowpathinstance,
                            const char *fp_header, const char *url, const char *btHeaderValue,
                            const char *zxCookieSet, const char *rbCookieSet,
                            const char *correlationHeader, long long startTimeFP,
                            ZXFrameStage *stage = nullptr);
void MethodExitEncode(ZXAppLink *app, int mid, int statusCode, int eventType, int isCallout,
                      long long threadId, long long duration, long long flowpathinstance,
                      long long cpuTime, const char *methodName, const char *backend_header,
                      long long tierCallOutSeqNum, long long endTime,
                      const char *requestNotificationPhase, ZXFrameStage *stage = nullptr);
void transactionEndEncode(ZXAppLink *app, int statuscode, long long flowpathinstance,
                          long long endTime, ZXFrameStage *stage = nullptr);
void transactionResetEncode(ZXAppLink *app, long long flowpathinstance,
                            ZXFrameStage *stage = nullptr);
void encodeHttpHeaderReq(ZXAppLink *app, long long flowpathinstance, const char *buffer,
                         const char *type, int statusCode);
void ExceptionDataEncode(ZXAppLink *app, long long flowpathInstance, long long startTime,
                         const char *ExceptionclassName, const char *Exceptionmessage,
                         const char *throwingClassName, const char *throwingmethodName,
                         const char *ExceptionCause, int lineNumber,
                         const char *exceptionStackTrace);
void zxMethodExitExceptionEncode(ZXAppLink *app, long long flowPathInstance,
                                 const char *ExceptionMethodName, const char *ExceptionBackendName,
                                 long long threadId, int ExceptionExitType,
                                 ZXFrameStage *stage = nullptr);
