#include "ZXFrameStream.h"

#include <algorithm>
#include <cstring>

#include "zxlb_decode.h"
#include "zxlb_frame_layout.h"
#include "zxlb_mt_log.h"

ZXFrameStream::~ZXFrameStream() {
  if (const std::size_t lost = close())
    ZX_LOG_IF(true, "PROXY", "Warning", "Data connection closed mid-frame: %zu bytes lost", lost);
}

std::size_t ZXFrameStream::close() {
  const std::size_t lost = tail_.size();
  tail_.clear();
  tail_.shrink_to_fit();
  discard_ = 0;
  return lost;
}

std::size_t ZXFrameStream::missing() const {
  const std::size_t have = tail_.size();
  if (tail_[0] != ZX_FRAME_START) return 4 - have;  // a keep-alive's start
  if (have <= 13) return 14 - have;
  msgHdr_t h;
  std::memcpy(&h, tail_.data() + 1, sizeof h);
  return static_cast<std::size_t>(h.total_len) - have;
}

std::size_t ZXFrameStream::scan(ZXProxyInstance_t &app, const char *data, std::size_t n,
                                int processIndex) {
  const ZXFrameScan s = scanFrames(app, data, n, processIndex, kMaxFrameBytes);
  oversized_ += s.oversized;
  discard_ = s.discard;
  replayed_ += s.replayed;
  return s.consumed;
}

std::size_t ZXFrameStream::feed(ZXProxyInstance_t &app, const char *data, std::size_t n,
                                int processIndex) {
  replayed_ = 0;
  while (n > 0) {
    if (discard_) {
      const std::size_t d = std::min(discard_, n);
      discard_ -= d, data += d, n -= d;
      continue;
    }
    if (tail_.empty()) {
      const std::size_t used = scan(app, data, n, processIndex);
      tail_.assign(data + used, data + n);
      break;
    }
    // Only what the held frame lacks is copied; the rest is decoded in place.
    const std::size_t want = missing();
    const std::size_t take = std::min(want, n);
    tail_.insert(tail_.end(), data, data + take);
    data += take, n -= take;
    if (take < want) break;
    const std::size_t used = scan(app, tail_.data(), tail_.size(), processIndex);
    tail_.erase(tail_.begin(), tail_.begin() + static_cast<std::ptrdiff_t>(used));
    if (tail_.empty() && tail_.capacity() > kKeepCapacity) tail_.shrink_to_fit();
  }
  return replayed_;
}
