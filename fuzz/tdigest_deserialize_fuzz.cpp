// Feeds arbitrary bytes to the t-digest decoder; whatever it accepts must be
// readable and re-encodable without faults.

#include <cstddef>
#include <cstdint>
#include <vector>

#include "tdigest/tdigest.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t *data, std::size_t size) {
  // Copy so that the decoder's reads are checked against the exact length.
  const std::vector<unsigned char> bytes(data, data + size);
  td_histogram_ptr h(td_deserialize(bytes.data(), bytes.size(), 0));
  if (!h) return 0;
  for (double q : {0.0, 0.25, 0.5, 0.99, 1.0}) (void)td_value_at(h.get(), q);
  (void)td_quantile_of(h.get(), 100.0);
  std::vector<unsigned char> out;
  std::size_t n = 0;
  td_serialize(h.get(), 1, &out, &n);
  td_serialize(h.get(), 2, &out, &n);
  td_histogram_ptr again(td_deserialize(out.data(), n, 0));
  if (again) td_merge(h.get(), again.get());
  char text[256];
  td_debug_dump_output_in_buf(h.get(), text, sizeof text);
  return 0;
}
