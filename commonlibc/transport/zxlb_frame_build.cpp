#include "zxlb_frame_build.h"

#include <new>

std::atomic<unsigned long long> zxFrameStringsCut{0};

ZXFrameString frameStringOf(const char *text) noexcept {
  std::size_t n = strnlen(text, ZX_FRAME_MAX_STRING + 1);
  if (n > ZX_FRAME_MAX_STRING) {
    n = ZX_FRAME_MAX_STRING;
    zxFrameStringsCut.fetch_add(1, std::memory_order_relaxed);
  }
  return {text, n};
}

bool ZXFrameBuffer::build(ZXFrameType type, const void *fixed, std::size_t fixedLen,
                          std::initializer_list<ZXFrameString> strings) noexcept {
  std::size_t total = ZX_FRAME_OVERHEAD + fixedLen;
  for (const ZXFrameString &s : strings) total += s.len;
  char *out = inline_;
  heap_.reset();
  if (total > sizeof inline_) {
    heap_.reset(new (std::nothrow) char[total]);
    if (!heap_) return false;
    out = heap_.get();
  }
  writeFrameHead(out, type, total);
  std::memcpy(out + ZX_FRAME_FIXED_AT, fixed, fixedLen);
  char *p = out + ZX_FRAME_FIXED_AT + fixedLen;
  for (const ZXFrameString &s : strings) {
    if (s.len) std::memcpy(p, s.text, s.len);
    p += s.len;
  }
  *p = ZX_FRAME_END;
  size_ = total;
  return true;
}
