// Merging t-digest with a fixed-size node buffer: a compact sketch of a
// distribution from which any quantile can be read, and which travels to the
// collector in a small binary form so that sketches can be merged there.
//
// The histogram header and its nodes live in one block owned by whoever called
// td_new/td_deserialize and released with td_free. The default block has room
// for 60,010 nodes (about 960 KB) while a digest usually holds a few thousand,
// so the block is never cleared: only pages that nodes were written to become
// resident; a quantile read also writes an index of the merged nodes, 8 bytes
// a node, into the free space behind them. Nothing here logs, locks or throws;
// callers serialise access. Serialised input may come from outside, so
// td_deserialize never reads past the length it is given.

#ifndef PWCORE_TDIGEST_TDIGEST_H
#define PWCORE_TDIGEST_TDIGEST_H

#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <memory>
#include <vector>

struct td_node_t {
  double mean;
  double count;
};

// Layout is part of the sizing contract: 56 header bytes, then `cap` nodes.
struct td_histogram_t {
  double delta;
  int K;
  // These two fill padding.
  std::uint8_t mapped;   // set by td_new: the block is whole pages of its own
  std::uint8_t centres;  // state of td_value_at's index behind the merged nodes
  double compression;
  int cap;
  int merged_nodes;
  int unmerged_nodes;
  int touched_nodes;  // furthest node written since pages were handed back (fills padding)
  double merged_count;
  double unmerged_count;

  // Merged nodes first, then unmerged ones; they follow the header in the
  // same block.
  td_node_t *nodes() { return reinterpret_cast<td_node_t *>(this + 1); }
  const td_node_t *nodes() const { return reinterpret_cast<const td_node_t *>(this + 1); }
};
typedef td_histogram_t td_histogram;

inline constexpr std::size_t TD_HEADER_SIZE = 56;
static_assert(sizeof(td_histogram_t) == TD_HEADER_SIZE);
static_assert(sizeof(td_node_t) == 16);

// Compression above this is refused: a deserialised 1/delta could otherwise
// ask for an arbitrarily large block.
inline constexpr double TD_MAX_COMPRESSION = 1e6;

inline constexpr int TD_SERIALIZE_RAW = 1;      // raw doubles, low half of each count
inline constexpr int TD_SERIALIZE_COMPACT = 2;  // float deltas, base-128 counts

// Node capacity for a compression: 6 * trunc(c) + 10, with c clamped to
// [0, TD_MAX_COMPRESSION].
int cap_from_compression(double compression);
// Block size for a compression: 56 + 16 * cap.
std::size_t td_required_buf_size(double compression);

// K / delta, or K itself when delta is 0.
double td_compression_of(double delta, int K);

// Null when the compression is negative, not finite, above
// TD_MAX_COMPRESSION, or memory runs out.
td_histogram_t *td_new(double delta, int K);
// Lays an empty histogram over buf; cap = (buf_size - 56) / 16. Only the
// header is written. buf must be aligned for double. Null when it is too small
// or misaligned.
td_histogram_t *td_init(double delta, int K, std::size_t buf_size, void *buf);
// Releases a digest from td_new or td_deserialize (or a malloc'd td_init
// buffer).
void td_free(td_histogram_t *h);

struct td_free_deleter {
  void operator()(td_histogram_t *h) const { td_free(h); }
};
using td_histogram_ptr = std::unique_ptr<td_histogram_t, td_free_deleter>;

// 0 on success. Refuses a non-finite mean and a negative or non-finite count
// (either would break the ordering the merge relies on), and drops the point
// when the buffer is still full after a merge (only possible with degenerate
// weights such as all zero).
int td_add(td_histogram_t *h, double mean, double count);
// Adds every merged node of from into into; 0 on success. A digest cannot be
// merged into itself.
int td_merge(td_histogram_t *into, td_histogram_t *from);
// Empties the digest; pages its nodes had filled are handed back where the
// block allows it.
void td_reset(td_histogram_t *h);

double td_total_count(const td_histogram_t *h);
// Merges pending nodes and returns the number of centroids.
int td_centroid_count(td_histogram_t *h);
// The first call after an add indexes the nodes in one pass; later calls
// binary-search that index.
double td_value_at(td_histogram_t *h, double q);
double td_quantile_of(td_histogram_t *h, double val);

// Writes mode 1 or 2 into *buf, growing it when it is smaller than needed,
// and sets *tdgsz to the bytes written. Returns buf->data(), or null for a
// null digest or buffer, or another mode.
unsigned char *td_serialize(td_histogram_t *p_key, int mode, std::vector<unsigned char> *buf,
                            std::size_t *tdgsz);
// New digest from len bytes; K of 0 means 100. Null for a null buffer, a
// truncated or malformed payload, or values td_add refuses.
td_histogram_t *td_deserialize(const unsigned char *buf, std::size_t len, int K);

// Text dump of the header and every node, merged or not.
void td_debug(const td_histogram_t *h, std::FILE *out);
// The same text into buf, cut to fit and always terminated. Returns the
// characters written without the terminator, or -1 when buf is unusable.
int td_debug_dump_output_in_buf(const td_histogram_t *h, char *buf, std::size_t buf_len);

#endif  // PWCORE_TDIGEST_TDIGEST_H
