// Feeds arbitrary bytes to the reference collector's stream decoder, once whole and once
// in chunks; both must decode to the same frames, and no frame may outgrow the limit.

#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

#include "collector_protocol.h"

namespace {

std::vector<zxref::Frame> decode(std::string_view bytes, std::size_t chunk, std::size_t max_line) {
  zxref::StreamDecoder decoder(max_line);
  std::vector<zxref::Frame> frames;
  for (std::size_t i = 0; i < bytes.size(); i += chunk)
    decoder.feed(bytes.substr(i, chunk), frames);
  return frames;
}

bool same(const zxref::Frame &a, const zxref::Frame &b) {
  return a.type == b.type && a.kind == b.kind && a.text == b.text &&
         a.record.number == b.record.number && a.record.fields == b.record.fields &&
         a.record.payload == b.record.payload;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t *data, std::size_t size) {
  if (size < 2) return 0;
  // The first two bytes pick the chunk size and a small line limit, so the limit is hit.
  const std::size_t chunk = 1 + data[0] % 16;
  const std::size_t max_line = 1 + data[1];
  const std::string_view bytes(reinterpret_cast<const char *>(data) + 2, size - 2);

  const auto whole = decode(bytes, bytes.size() + 1, max_line);
  const auto chunked = decode(bytes, chunk, max_line);
  if (whole.size() != chunked.size()) __builtin_trap();
  for (std::size_t i = 0; i < whole.size(); ++i) {
    if (!same(whole[i], chunked[i])) __builtin_trap();
    const auto &f = whole[i];
    if (f.type != zxref::Frame::Type::Error && f.text.size() > max_line) __builtin_trap();
    if (f.record.payload.size() > max_line) __builtin_trap();
    (void)zxref::parse_agent_heartbeat(f.text);
    (void)zxref::printable(f.text, 64);
  }
  return 0;
}
