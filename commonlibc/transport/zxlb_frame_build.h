// The pieces of an event frame (zxlb_frame_layout.h): its strings, cut at
// ZX_FRAME_MAX_STRING and counted, and its head. The encoders write frames
// in place in the send buffers; ZXFrameBuffer builds one whole frame aside
// (small ones on the stack, long ones on the heap) for whoever needs a frame
// as bytes of its own: the decoder's feeders in tests, fuzzing, benchmarks.
#pragma once

#include <atomic>
#include <cstddef>
#include <cstring>
#include <initializer_list>
#include <memory>

#include "zxlb_frame_layout.h"

// Longest string sent whole; the wire allows up to INT32_MAX in all.
inline constexpr std::size_t ZX_FRAME_MAX_STRING = 1u << 20;

// Strings cut to ZX_FRAME_MAX_STRING, process-wide.
extern std::atomic<unsigned long long> zxFrameStringsCut;

struct ZXFrameString {
  const char *text;  // null: length 0
  std::size_t len;
};
// strnlen bounded by the limit (one byte more, to tell a cut).
ZXFrameString frameStringOf(const char *text) noexcept;
// Most optional strings are absent: that case costs no call.
inline ZXFrameString frameString(const char *text) noexcept {
  return text ? frameStringOf(text) : ZXFrameString{nullptr, 0};
}

// "^", the header of a frame of `total` bytes and "|": the first
// ZX_FRAME_FIXED_AT bytes at `out`.
inline void writeFrameHead(char *out, ZXFrameType type, std::size_t total) noexcept {
  // Field by field: a header assembled aside and copied whole would be read
  // back across two of its own stores, which stalls.
  const std::int32_t total32 = static_cast<std::int32_t>(total), type32 = type;
  out[0] = ZX_FRAME_START;
  std::memcpy(out + 1 + offsetof(msgHdr_t, header_len), &ZX_FRAME_HEADER_LEN, 4);
  std::memcpy(out + 1 + offsetof(msgHdr_t, total_len), &total32, 4);
  std::memcpy(out + 1 + offsetof(msgHdr_t, msg_type), &type32, 4);
  out[ZX_FRAME_FIXED_AT - 1] = ZX_FRAME_SEPARATOR;
}

class ZXFrameBuffer {
 public:
  ZXFrameBuffer() = default;
  ZXFrameBuffer(const ZXFrameBuffer &) = delete;
  ZXFrameBuffer &operator=(const ZXFrameBuffer &) = delete;

  // The whole frame; `fixed` is the type's block with its length fields
  // already set from the strings, `fixedLen` its size. The block must have
  // been memset to zero before its fields were set: aggregate initialisation
  // leaves padding unspecified, and padding goes out as zero. False without
  // memory.
  bool build(ZXFrameType type, const void *fixed, std::size_t fixedLen,
             std::initializer_list<ZXFrameString> strings) noexcept;
  const char *data() const noexcept { return heap_ ? heap_.get() : inline_; }
  int size() const noexcept { return static_cast<int>(size_); }

 private:
  char inline_[512];
  std::unique_ptr<char[]> heap_;
  std::size_t size_ = 0;
};

// Negative numbers go out as 0.
template <typename T>
constexpr T frameNumber(T v) noexcept {
  return v < 0 ? T{0} : v;
}
