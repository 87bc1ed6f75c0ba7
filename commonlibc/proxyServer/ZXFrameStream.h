// One application process's byte stream of event frames, read after read.
// decodeFrames stops before a frame that a read holds only part of; the
// stream keeps that tail and completes it with the next read, so that the
// frames replayed are the same however the stream is cut into reads.
//
// The tail is bounded: a frame declaring more than kMaxFrameBytes is skipped
// whole (decided on its header, so the cut does not matter either) and
// counted, never buffered. Bytes still held when the connection closes are
// lost: close() returns their count, and the destructor logs it.
// Used by the proxy's decoding thread only.
#pragma once

#include <cstddef>
#include <vector>

#include "zxlb_frame_build.h"

struct ZXProxyInstance_t;

class ZXFrameStream {
 public:
  // The longest frame an application process sends (six strings at most,
  // each cut at ZX_FRAME_MAX_STRING), with room to spare.
  static constexpr std::size_t kMaxFrameBytes = 8 * ZX_FRAME_MAX_STRING;

  ZXFrameStream() = default;
  ~ZXFrameStream();
  ZXFrameStream(const ZXFrameStream &) = delete;
  ZXFrameStream &operator=(const ZXFrameStream &) = delete;

  // Decodes what the held tail and `data` complete; keeps the rest. Returns
  // the frames replayed.
  std::size_t feed(ZXProxyInstance_t &app, const char *data, std::size_t n, int processIndex);
  // The connection is gone: drops the tail, returns its size.
  std::size_t close();

  std::size_t pending() const { return tail_.size(); }
  unsigned long long framesOversized() const { return oversized_; }

 private:
  // Bytes the tail must gain before the decoder can decide on its first byte.
  std::size_t missing() const;
  std::size_t scan(ZXProxyInstance_t &app, const char *data, std::size_t n, int processIndex);

  static constexpr std::size_t kKeepCapacity = 1 << 16;

  std::vector<char> tail_;   // starts at a frame (or keep-alive) the decoder stopped at
  std::size_t discard_ = 0;  // bytes of a skipped oversized frame still to come
  unsigned long long oversized_ = 0;
  std::size_t replayed_ = 0;  // by the current feed
};
