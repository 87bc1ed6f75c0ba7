#include "tdigest/tdigest.h"

#include <algorithm>
#include <bit>
#include <climits>
#include <cmath>
#include <cstdlib>
#include <cstring>
#include <limits>
#include <new>
#include <numbers>
#include <string>

namespace {

// Marks "no previous node yet" in td_value_at's walk. A real mean of exactly
// this value is read the same way; the walk never relies on it for bounds.
constexpr double kNoPreviousMean = -999.0;
constexpr int kDefaultK = 100;
constexpr double kDefaultDelta = 0.01;
constexpr double kNoDeltaInverse = 100.0;
constexpr std::size_t kSerialHeaderSize = 16;

bool mean_less(const td_node_t &a, const td_node_t &b) {
  // NaN sorts last so the comparator stays a strict weak order even if a
  // non-finite mean slips in through arithmetic.
  return a.mean < b.mean || (std::isnan(b.mean) && !std::isnan(a.mean));
}

void fold_into(td_node_t &cur, const td_node_t &next, double proposed) {
  const double old_mean = cur.mean;
  cur.count = proposed;
  if (proposed <= 0) return;  // zero weights carry no position
  cur.mean += (next.mean - cur.mean) * next.count / cur.count;
  if (!std::isfinite(cur.mean)) {
    // The difference overflowed for means near the double range.
    const double w = next.count / proposed;
    cur.mean = old_mean * (1 - w) + next.mean * w;
  }
}

void merge(td_histogram_t *h) {
  if (h->unmerged_nodes == 0) return;
  td_node_t *nodes = h->nodes();
  const int n = h->merged_nodes + h->unmerged_nodes;
  std::sort(nodes, nodes + n, mean_less);

  const double total_count = h->merged_count + h->unmerged_count;
  const double normalizer =
      h->compression / (2 * std::numbers::pi * total_count * std::log(total_count));
  int cur = 0;
  double count_so_far = 0;
  for (int i = 1; i < n; ++i) {
    const double proposed = nodes[cur].count + nodes[i].count;
    const double z = proposed * normalizer;
    const double q0 = count_so_far / total_count;
    const double q2 = (count_so_far + proposed) / total_count;
    if (z <= q0 * (1 - q0) && z <= q2 * (1 - q2)) {
      fold_into(nodes[cur], nodes[i], proposed);
    } else {
      count_so_far += nodes[cur].count;
      ++cur;
      nodes[cur] = nodes[i];
    }
    if (cur != i) nodes[i] = td_node_t{0, 0};
  }
  h->merged_nodes = cur + 1;
  h->merged_count = total_count;
  h->unmerged_nodes = 0;
  h->unmerged_count = 0;
}

double my_quantile(double index, double previous_index, double next_index, double previous_mean,
                   double next_mean) {
  const double span = next_index - previous_index;
  return next_mean * (index - previous_index) / span + previous_mean * (next_index - index) / span;
}

// Truncation toward zero, saturated, so odd weights never hit an undefined
// conversion.
std::uint32_t count_to_u32(double count) {
  if (!(count > 0)) return 0;
  if (count >= 4294967295.0) return UINT32_MAX;
  return static_cast<std::uint32_t>(count);
}

std::size_t varint_len(std::uint32_t v) {
  std::size_t len = 1;
  while (v >= 0x80) {
    v >>= 7;
    ++len;
  }
  return len;
}

void put_u32(unsigned char *p, std::uint32_t v) {
  for (int i = 0; i < 4; ++i) p[i] = static_cast<unsigned char>(v >> (8 * i));
}

void put_u64(unsigned char *p, std::uint64_t v) {
  for (int i = 0; i < 8; ++i) p[i] = static_cast<unsigned char>(v >> (8 * i));
}

// Bounds-checked little-endian reader over untrusted bytes.
struct Reader {
  const unsigned char *p;
  std::size_t len;
  std::size_t pos;

  template <typename U>
  bool unsigned_le(U *out) {
    if (len - pos < sizeof(U)) return false;
    U v = 0;
    for (std::size_t i = 0; i < sizeof(U); ++i) v |= static_cast<U>(p[pos + i]) << (8 * i);
    pos += sizeof(U);
    *out = v;
    return true;
  }
  bool u32(std::uint32_t *out) { return unsigned_le(out); }
  bool u64(std::uint64_t *out) { return unsigned_le(out); }
  bool i32(std::int32_t *out) {
    std::uint32_t v;
    if (!u32(&v)) return false;
    *out = std::bit_cast<std::int32_t>(v);
    return true;
  }
  bool f64(double *out) {
    std::uint64_t v;
    if (!u64(&v)) return false;
    *out = std::bit_cast<double>(v);
    return true;
  }
  bool f32(float *out) {
    std::uint32_t v;
    if (!u32(&v)) return false;
    *out = std::bit_cast<float>(v);
    return true;
  }
  // Counts are written from 32-bit integers, so at most five groups.
  bool varint(std::uint32_t *out) {
    std::uint64_t v = 0;
    for (int shift = 0; shift < 35; shift += 7) {
      if (pos >= len) return false;
      const unsigned char b = p[pos++];
      v |= static_cast<std::uint64_t>(b & 0x7f) << shift;
      if ((b & 0x80) == 0) {
        if (v > UINT32_MAX) return false;
        *out = static_cast<std::uint32_t>(v);
        return true;
      }
    }
    return false;
  }
};

std::string debug_text(const td_histogram_t *h) {
  std::string out;
  char line[256];
  std::snprintf(line, sizeof line,
                "td_histogram delta=%f K=%d compression=%f cap=%d merged_nodes=%d "
                "unmerged_nodes=%d merged_count=%f unmerged_count=%f\n",
                h->delta, h->K, h->compression, h->cap, h->merged_nodes, h->unmerged_nodes,
                h->merged_count, h->unmerged_count);
  out += line;
  const td_node_t *nodes = h->nodes();
  const int n = h->merged_nodes + h->unmerged_nodes;
  for (int i = 0; i < n; ++i) {
    std::snprintf(line, sizeof line, "node[%d] mean=%f count=%f%s\n", i, nodes[i].mean,
                  nodes[i].count, i < h->merged_nodes ? "" : " unmerged");
    out += line;
  }
  return out;
}

}  // namespace

int cap_from_compression(double compression) {
  // Clamped so that out-of-range input cannot overflow the conversion.
  if (!(compression >= 0)) compression = 0;
  if (compression > TD_MAX_COMPRESSION) compression = TD_MAX_COMPRESSION;
  return 6 * static_cast<int>(compression) + 10;
}

std::size_t td_required_buf_size(double compression) {
  return TD_HEADER_SIZE +
         sizeof(td_node_t) * static_cast<std::size_t>(cap_from_compression(compression));
}

double td_compression_of(double delta, int K) {
  return delta == 0 ? static_cast<double>(K) : K / delta;
}

td_histogram_t *td_init(double delta, int K, std::size_t buf_size, void *buf) {
  const double compression = td_compression_of(delta, K);
  if (buf == nullptr || buf_size < TD_HEADER_SIZE) return nullptr;
  if (reinterpret_cast<std::uintptr_t>(buf) % alignof(td_histogram_t) != 0) return nullptr;
  if (!(compression >= 0) || !std::isfinite(compression)) return nullptr;
  const std::size_t cap = (buf_size - TD_HEADER_SIZE) / sizeof(td_node_t);
  if (cap > static_cast<std::size_t>(INT_MAX)) return nullptr;

  std::memset(buf, 0, TD_HEADER_SIZE + cap * sizeof(td_node_t));
  auto *h = ::new (buf) td_histogram_t{};
  h->delta = delta;
  h->K = K;
  h->compression = compression;
  h->cap = static_cast<int>(cap);
  return h;
}

td_histogram_t *td_new(double delta, int K) {
  const double compression = td_compression_of(delta, K);
  if (!(compression >= 0) || compression > TD_MAX_COMPRESSION) return nullptr;
  const std::size_t size = td_required_buf_size(compression);
  // One malloc'd block for header and nodes, released only by td_free.
  void *block = std::malloc(size);
  if (block == nullptr) return nullptr;
  td_histogram_t *h = td_init(delta, K, size, block);
  if (h == nullptr) std::free(block);
  return h;
}

void td_free(td_histogram_t *h) {
  std::free(h);
}

int td_add(td_histogram_t *h, double mean, double count) {
  if (h == nullptr || !std::isfinite(mean) || !std::isfinite(count) || count < 0) return -1;
  if (h->merged_nodes + h->unmerged_nodes >= h->cap) {
    merge(h);
    if (h->merged_nodes >= h->cap) return -1;
  }
  td_node_t &node = h->nodes()[h->merged_nodes + h->unmerged_nodes];
  node.mean = mean;
  node.count = count;
  ++h->unmerged_nodes;
  h->unmerged_count += count;
  return 0;
}

int td_merge(td_histogram_t *into, td_histogram_t *from) {
  if (into == nullptr || from == nullptr || into == from) return -1;
  merge(into);
  merge(from);
  const td_node_t *nodes = from->nodes();
  int rc = 0;
  for (int i = 0; i < from->merged_nodes; ++i) {
    if (td_add(into, nodes[i].mean, nodes[i].count) != 0) rc = -1;
  }
  return rc;
}

void td_reset(td_histogram_t *h) {
  if (h == nullptr) return;
  // Positions past the last node are already zero.
  std::memset(static_cast<void *>(h->nodes()), 0,
              sizeof(td_node_t) * static_cast<std::size_t>(h->merged_nodes + h->unmerged_nodes));
  h->merged_nodes = 0;
  h->unmerged_nodes = 0;
  h->merged_count = 0;
  h->unmerged_count = 0;
}

double td_total_count(const td_histogram_t *h) {
  return h == nullptr ? 0 : h->merged_count + h->unmerged_count;
}

int td_centroid_count(td_histogram_t *h) {
  if (h == nullptr) return 0;
  merge(h);
  return h->merged_nodes;
}

double td_value_at(td_histogram_t *h, double q) {
  if (h == nullptr) return 0;
  merge(h);
  const int n = h->merged_nodes;
  const td_node_t *nodes = h->nodes();
  if (n == 0) return 0;
  if (n == 1) return nodes[0].mean;
  if (n == 2) {
    const double d = nodes[1].mean - nodes[0].mean;
    if (q > 0.75) return nodes[1].mean + (4 * q - 3) * d / 2;
    return nodes[0].mean + (4 * q - 1) * d / 2;
  }

  const double last_index = h->merged_count - 1;
  const double index = last_index * q;
  double total = 0;  // whole counts only, as the walk has always truncated them
  double previous_mean = kNoPreviousMean;
  double previous_index = 0;
  for (int i = 0; i < n; ++i) {
    const td_node_t &c = nodes[i];
    const double its_index = (c.count - 1) / 2 + total;
    if (its_index >= index) {
      if (previous_mean != kNoPreviousMean) {
        return my_quantile(index, previous_index, its_index, previous_mean, c.mean);
      }
      if (its_index == previous_index) return c.mean;
      if (i + 1 >= n) return c.mean;  // only reachable when a real mean is -999
      const td_node_t &next = nodes[i + 1];
      const double next_index = (next.count - 1) / 2 + c.count + total;
      const double extrapolated =
          (c.mean * next_index - next.mean * its_index) / (next_index - its_index);
      return my_quantile(index, previous_index, its_index, extrapolated, c.mean);
    }
    if (i == n - 1) {
      const double next_mean =
          ((last_index - previous_index) * c.mean - (last_index - its_index) * previous_mean) /
          (its_index - previous_index);
      return my_quantile(index, its_index, last_index, c.mean, next_mean);
    }
    total = std::trunc(total + c.count);
    previous_mean = c.mean;
    previous_index = its_index;
  }
  return 0;  // not reached: the last node always returns
}

double td_quantile_of(td_histogram_t *h, double val) {
  constexpr double kNaN = std::numeric_limits<double>::quiet_NaN();
  if (h == nullptr) return kNaN;
  merge(h);
  const int n = h->merged_nodes;
  const td_node_t *nodes = h->nodes();
  if (n == 0 || std::isnan(val)) return kNaN;

  double before = 0;
  int i = 0;
  while (i < n && nodes[i].mean < val) before += nodes[i++].count;
  if (i < n && nodes[i].mean == val) {
    double equal = 0;
    for (int j = i; j < n && nodes[j].mean == val; ++j) equal += nodes[j].count;
    return (equal / 2 + before) / h->merged_count;
  }
  if (i == n) return 1;
  if (i == 0) return 0;

  const td_node_t &prev = nodes[i - 1];
  const td_node_t &next = nodes[i];
  const double left = before - prev.count / 2;
  const double right = before + next.count / 2;
  const double frac = (val - prev.mean) / (next.mean - prev.mean);
  return (left + (right - left) * frac) / h->merged_count;
}

unsigned char *td_serialize(td_histogram_t *p_key, int mode, std::vector<unsigned char> *buf,
                            std::size_t *tdgsz) {
  if (p_key == nullptr || buf == nullptr) return nullptr;
  if (mode != TD_SERIALIZE_RAW && mode != TD_SERIALIZE_COMPACT) return nullptr;
  merge(p_key);
  const int ncentroids = p_key->merged_nodes;
  const td_node_t *nodes = p_key->nodes();
  const auto n = static_cast<std::size_t>(ncentroids);

  // Mode 2 is sized exactly: a count can take five bytes, more than the four
  // a fixed per-node allowance would leave it.
  std::size_t needed = kSerialHeaderSize + n * 12;
  if (mode == TD_SERIALIZE_COMPACT) {
    needed = kSerialHeaderSize + n * 4;
    for (std::size_t i = 0; i < n; ++i) needed += varint_len(count_to_u32(nodes[i].count));
  }
  if (buf->size() < needed) buf->resize(needed);
  unsigned char *out = buf->data();

  put_u32(out, static_cast<std::uint32_t>(mode));
  const double inverse_delta = p_key->delta == 0 ? kNoDeltaInverse : 1 / p_key->delta;
  put_u64(out + 4, std::bit_cast<std::uint64_t>(inverse_delta));
  put_u32(out + 12, static_cast<std::uint32_t>(ncentroids));
  std::size_t pos = kSerialHeaderSize;

  if (mode == TD_SERIALIZE_RAW) {
    for (std::size_t i = 0; i < n; ++i, pos += 8) {
      put_u64(out + pos, std::bit_cast<std::uint64_t>(nodes[i].mean));
    }
    // The low half of the count's bit pattern, as the format has always had.
    for (std::size_t i = 0; i < n; ++i, pos += 4) {
      put_u32(out + pos, static_cast<std::uint32_t>(std::bit_cast<std::uint64_t>(nodes[i].count)));
    }
  } else {
    double previous = 0;
    for (std::size_t i = 0; i < n; ++i, pos += 4) {
      const auto diff = static_cast<float>(nodes[i].mean - previous);
      put_u32(out + pos, std::bit_cast<std::uint32_t>(diff));
      previous = nodes[i].mean;
    }
    for (std::size_t i = 0; i < n; ++i) {
      std::uint32_t v = count_to_u32(nodes[i].count);
      while (v >= 0x80) {
        out[pos++] = static_cast<unsigned char>((v & 0x7f) | 0x80);
        v >>= 7;
      }
      out[pos++] = static_cast<unsigned char>(v);
    }
  }
  if (tdgsz != nullptr) *tdgsz = pos;
  return out;
}

td_histogram_t *td_deserialize(const unsigned char *buf, std::size_t len, int K) {
  if (buf == nullptr) return nullptr;
  if (K == 0) K = kDefaultK;
  Reader header{buf, len, 0};
  std::int32_t mode = 0;
  double inverse_delta = 0;
  std::int32_t ncentroids = 0;
  if (!header.i32(&mode) || !header.f64(&inverse_delta) || !header.i32(&ncentroids)) {
    return nullptr;
  }
  if ((mode != TD_SERIALIZE_RAW && mode != TD_SERIALIZE_COMPACT) || ncentroids < 0) return nullptr;
  const auto n = static_cast<std::size_t>(ncentroids);
  const std::size_t mean_size = mode == TD_SERIALIZE_RAW ? 8 : 4;
  const std::size_t min_count_size = mode == TD_SERIALIZE_RAW ? 4 : 1;
  if ((len - kSerialHeaderSize) / (mean_size + min_count_size) < n) return nullptr;

  const double delta = inverse_delta == 0 ? kDefaultDelta : 1 / inverse_delta;
  td_histogram_ptr h(td_new(delta, K));
  if (!h) return nullptr;

  // Means and counts are two consecutive arrays; read them side by side.
  Reader means{buf, len, kSerialHeaderSize};
  Reader counts{buf, len, kSerialHeaderSize + n * mean_size};
  double running = 0;
  for (std::size_t i = 0; i < n; ++i) {
    double mean = 0;
    double count = 0;
    if (mode == TD_SERIALIZE_RAW) {
      std::int32_t c = 0;
      if (!means.f64(&mean) || !counts.i32(&c)) return nullptr;
      count = c;
    } else {
      float diff = 0;
      std::uint32_t c = 0;
      if (!means.f32(&diff) || !counts.varint(&c)) return nullptr;
      running += diff;
      mean = running;
      count = c;
    }
    if (td_add(h.get(), mean, count) != 0) return nullptr;
  }
  return h.release();
}

void td_debug(const td_histogram_t *h, std::FILE *out) {
  if (h == nullptr || out == nullptr) return;
  std::fputs(debug_text(h).c_str(), out);
}

int td_debug_dump_output_in_buf(const td_histogram_t *h, char *buf, std::size_t buf_len) {
  if (h == nullptr || buf == nullptr || buf_len == 0) return -1;
  const std::string text = debug_text(h);
  const std::size_t n = std::min(text.size(), std::min(buf_len - 1, std::size_t{INT_MAX}));
  std::memcpy(buf, text.data(), n);
  buf[n] = '\0';
  return static_cast<int>(n);
}
