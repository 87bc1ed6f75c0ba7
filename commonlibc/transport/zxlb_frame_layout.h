// The binary event frames an application process in proxy mode sends to the
// proxy, as laid out on the wire: "^", a 12-byte header, "|", the fixed block
// of the message type, the strings (lengths in the fixed block, no
// terminators) and "\n". Integers are little-endian in the x86-64 natural
// layout, so the fixed blocks are plain structs whose padding the sender
// writes as zero. Shared by the encoders (application side) and the decoder
// (proxy side); the static_asserts pin every offset to the wire.
#pragma once

#include <cstddef>
#include <cstdint>

enum ZXFrameType : std::int32_t {
  ZX_FRAME_METHOD_ENTRY = 0,
  ZX_FRAME_METHOD_EXIT = 1,
  ZX_FRAME_TRANSACTION_START = 2,
  ZX_FRAME_TRANSACTION_END = 3,
  ZX_FRAME_TRANSACTION_RESET = 4,
  ZX_FRAME_EXCEPTION = 5,
  ZX_FRAME_HTTP_HEADER = 6,
  ZX_FRAME_METHOD_EXIT_EXCEPTION = 7,
};

inline constexpr char ZX_FRAME_START = '^';
inline constexpr char ZX_FRAME_SEPARATOR = '|';
inline constexpr char ZX_FRAME_END = '\n';
inline constexpr std::int32_t ZX_FRAME_HEADER_LEN = 12;
// Start byte, header and separator before the fixed block; the end byte after
// the strings.
inline constexpr std::size_t ZX_FRAME_FIXED_AT = 14;
inline constexpr std::size_t ZX_FRAME_OVERHEAD = 15;

struct msgHdr_t {
  std::int32_t header_len;
  std::int32_t total_len;
  std::int32_t msg_type;
};

struct MethodEntryVar_t {
  std::int32_t mid;
  std::int64_t flowpathinstance;
  std::int64_t threadId;
  std::int64_t startTime;
  std::int32_t methodName;
  std::int32_t query_string;
  std::int32_t urlParameter;
};

struct MethodExitVar_t {
  std::int32_t statusCode;
  std::int32_t mid;
  std::int32_t eventType;
  std::int32_t isCallout;
  std::int64_t threadId;
  std::int64_t duration;
  std::int64_t flowpathinstance;
  std::int64_t cpuTime;
  std::int32_t methodName;
  std::int32_t backend_header;
  std::int32_t requestNotificationPhase;
  std::int64_t tierCallOutSeqNum;
  std::int64_t endTime;
};

struct transactionStartVar_t {
  std::int32_t fp_header;
  std::int32_t url;
  std::int32_t btHeaderValue;
  std::int32_t zxCookieSet;
  std::int32_t rbCookieSet;
  std::int32_t correlationHeader;
  std::int64_t flowpathinstance;
  std::int64_t qTimeMS;
  std::int64_t startTimeFP;
};

struct transactionEnd_t {
  std::int32_t statuscode;
  std::int64_t flowpathinstance;
  std::int64_t endTime;
};

struct transactionReset_t {
  std::int64_t flowpathinstance;
};

// The lengths stand in a different order from the strings (class name,
// message, throwing class, throwing method, cause, stack trace on the wire).
struct ExceptionEncodeVar_t {
  std::int32_t lineNumber;
  std::int32_t lenofExceptionClassName;
  std::int32_t lenofExceptionThrowingClassName;
  std::int32_t lenofExceptionThrowingMethodName;
  std::int32_t lenofExceptionMessage;
  std::int32_t lenofExceptionCause;
  std::int32_t lenofExceptionStackTrace;
  std::int64_t flowpathInstance;
  std::int64_t startTime;
};

struct transactionEncodeVarHttp_t {
  std::int32_t statuscode;
  std::int32_t buffer_len;
  std::int32_t type_len;
  std::int64_t flowpathinstance;
};

struct ExceptionMethodExitEncodeVar_t {
  std::int32_t ExceptionExitType;
  std::int32_t lenofExceptionMethodName;
  std::int32_t lenofExceptionBackendName;
  std::int64_t flowpathInstance;
  std::int64_t threadId;
};

static_assert(sizeof(msgHdr_t) == 12);
static_assert(sizeof(MethodEntryVar_t) == 48 && offsetof(MethodEntryVar_t, flowpathinstance) == 8 &&
              offsetof(MethodEntryVar_t, methodName) == 32 &&
              offsetof(MethodEntryVar_t, urlParameter) == 40);
static_assert(sizeof(MethodExitVar_t) == 80 && offsetof(MethodExitVar_t, threadId) == 16 &&
              offsetof(MethodExitVar_t, methodName) == 48 &&
              offsetof(MethodExitVar_t, requestNotificationPhase) == 56 &&
              offsetof(MethodExitVar_t, tierCallOutSeqNum) == 64 &&
              offsetof(MethodExitVar_t, endTime) == 72);
static_assert(sizeof(transactionStartVar_t) == 48 &&
              offsetof(transactionStartVar_t, flowpathinstance) == 24 &&
              offsetof(transactionStartVar_t, startTimeFP) == 40);
static_assert(sizeof(transactionEnd_t) == 24 && offsetof(transactionEnd_t, flowpathinstance) == 8 &&
              offsetof(transactionEnd_t, endTime) == 16);
static_assert(sizeof(transactionReset_t) == 8);
static_assert(sizeof(ExceptionEncodeVar_t) == 48 &&
              offsetof(ExceptionEncodeVar_t, lenofExceptionStackTrace) == 24 &&
              offsetof(ExceptionEncodeVar_t, flowpathInstance) == 32 &&
              offsetof(ExceptionEncodeVar_t, startTime) == 40);
static_assert(sizeof(transactionEncodeVarHttp_t) == 24 &&
              offsetof(transactionEncodeVarHttp_t, flowpathinstance) == 16);
static_assert(sizeof(ExceptionMethodExitEncodeVar_t) == 32 &&
              offsetof(ExceptionMethodExitEncodeVar_t, flowpathInstance) == 16 &&
              offsetof(ExceptionMethodExitEncodeVar_t, threadId) == 24);
