#include "tdigest/tdigest.h"

#include <algorithm>
#include <array>
#include <bit>
#include <climits>
#include <cmath>
#include <cstddef>
#include <cstdlib>
#include <cstring>
#include <limits>
#include <new>
#include <numbers>
#include <string>
#include <utility>

#include <sys/mman.h>
#include <unistd.h>

namespace {

// Marks "no previous node yet" in td_value_at's walk. A real mean of exactly
// this value is read the same way; the walk never relies on it for bounds.
constexpr double kNoPreviousMean = -999.0;
// td_histogram_t::centres; a zeroed header reads stale.
enum CentresState : std::uint8_t { kCentresStale = 0, kCentresReady = 1, kCentresNone = 2 };
constexpr int kDefaultK = 100;
constexpr double kDefaultDelta = 0.01;
constexpr double kNoDeltaInverse = 100.0;
constexpr std::size_t kSerialHeaderSize = 16;

// Blocks come straight from the system as whole pages, which stay unbacked
// until a node is written to them; the allocator would hand back pages that an
// earlier block had already made resident. AddressSanitizer cannot watch the
// slack at the end of a mapping, so sanitised builds keep the allocator.
#if defined(__SANITIZE_ADDRESS__)
constexpr bool kMapBlocks = false;
#elif defined(__has_feature)
#if __has_feature(address_sanitizer)
constexpr bool kMapBlocks = false;
#else
constexpr bool kMapBlocks = true;
#endif
#else
constexpr bool kMapBlocks = true;
#endif

std::size_t page_size() {
  static const std::size_t size = static_cast<std::size_t>(sysconf(_SC_PAGESIZE));
  return size;
}

std::size_t round_to_pages(std::size_t size) {
  return (size + page_size() - 1) & ~(page_size() - 1);
}

void *map_block(std::size_t size) {
  void *p = mmap(nullptr, round_to_pages(size), PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS,
                 -1, 0);
  return p == MAP_FAILED ? nullptr : p;
}

void release_block(void *block, std::size_t size, bool mapped) {
  if (mapped) {
    munmap(block, round_to_pages(size));
  } else {
    std::free(block);
  }
}

std::size_t block_size(const td_histogram_t *h) {
  return TD_HEADER_SIZE + sizeof(td_node_t) * static_cast<std::size_t>(h->cap);
}

// A merge keeps fewer vacated pages than this: not worth a system call.
constexpr std::size_t kGiveBackMinPages = 16;
constexpr std::size_t kKeepPages = std::numeric_limits<std::size_t>::max();

// Zeroes nodes [first, last). A block of our own instead hands back the whole
// pages from there up to the furthest node written since the last time (a
// fuller buffer may have touched more than `last`), when there are at least
// min_pages of them; they read as zero when touched again.
void clear_nodes(td_histogram_t *h, int first, int last, std::size_t min_pages) {
  auto *from = reinterpret_cast<unsigned char *>(h->nodes() + first);
  const std::size_t bytes = sizeof(td_node_t) * static_cast<std::size_t>(last - first);
  const int touched = std::max(last, h->touched_nodes);
  if (min_pages != kKeepPages && h->mapped != 0) {
    const auto start = reinterpret_cast<std::uintptr_t>(from);
    const std::uintptr_t begin = round_to_pages(start);
    const std::uintptr_t end =
        reinterpret_cast<std::uintptr_t>(h->nodes() + touched) & ~(std::uintptr_t{page_size()} - 1);
    if (begin + min_pages * page_size() <= end &&
        madvise(reinterpret_cast<void *>(begin), end - begin, MADV_DONTNEED) == 0) {
      std::memset(from, 0, std::min<std::size_t>(bytes, begin - start));
      if (end < start + bytes) std::memset(reinterpret_cast<void *>(end), 0, start + bytes - end);
      h->touched_nodes = first;
      return;
    }
  }
  std::memset(from, 0, bytes);
  h->touched_nodes = touched;
}

// Sort key of a mean: its bit pattern turned so that unsigned order is numeric
// order. -0.0 keys below +0.0; as equal means they may come in either order.
constexpr std::uint64_t kSignBit = std::uint64_t{1} << 63;

std::uint64_t mean_key(double mean) {
  const auto bits = std::bit_cast<std::uint64_t>(mean);
  return (bits & kSignBit) != 0 ? ~bits : bits | kSignBit;
}

double mean_of_key(std::uint64_t key) {
  return std::bit_cast<double>((key & kSignBit) != 0 ? key ^ kSignBit : ~key);
}

std::uint64_t key_of(const td_node_t &node) {
  return mean_key(node.mean);
}

bool sorted_by_mean(const td_node_t *nodes, std::size_t n) {
  for (std::size_t i = 1; i < n; ++i) {
    if (key_of(nodes[i - 1]) > key_of(nodes[i])) return false;
  }
  return true;
}

// Per-thread room for the merge's sort and boundaries, viewed as an array of
// whatever the step needs. It grows to the largest buffer merged on the thread
// and is reused, so merges do not allocate in the steady state.
template <typename T>
T *scratch_as(std::size_t n) {
  thread_local std::vector<std::byte> scratch;
  const std::size_t bytes = n * sizeof(T);
  if (scratch.size() < bytes) {
    try {
      scratch.resize(bytes);
    } catch (const std::bad_alloc &) {
      return nullptr;
    }
  }
  // Starts the lifetime of the view's objects without writing to them.
  return ::new (static_cast<void *>(scratch.data())) T[bytes / sizeof(T)];
}

// Below this many nodes clearing the radix counters costs more than it saves.
constexpr std::size_t kInsertionSortMax = 48;
constexpr std::size_t kNoBudget = std::numeric_limits<std::size_t>::max();

using Histograms = std::array<std::array<std::uint32_t, 256>, 8>;

std::uint64_t plain_key(std::uint64_t key) {
  return key;
}
std::uint64_t plain_key(const td_node_t &node) {
  return key_of(node);
}

template <typename T>
Histograms digit_counts(const T *items, std::size_t n) {
  Histograms counts{};
  for (std::size_t i = 0; i < n; ++i) {
    const std::uint64_t key = plain_key(items[i]);
    for (int b = 0; b < 8; ++b) ++counts[b][(key >> (8 * b)) & 0xff];
  }
  return counts;
}

// Stable LSD radix passes over bytes [first, 8) of the keys, each moving the
// items between src and tmp; bytes in which every key agrees are skipped.
// Returns src or tmp, whichever holds the result.
template <typename T>
T *radix_passes(T *src, T *tmp, std::size_t n, Histograms &counts, int first) {
  for (int b = first; b < 8; ++b) {
    std::array<std::uint32_t, 256> &offsets = counts[b];
    const int shift = 8 * b;
    if (offsets[(plain_key(src[0]) >> shift) & 0xff] == n) continue;
    std::uint32_t sum = 0;
    for (std::uint32_t &c : offsets) sum += std::exchange(c, sum);
    for (std::size_t i = 0; i < n; ++i) {
      tmp[offsets[(plain_key(src[i]) >> shift) & 0xff]++] = src[i];
    }
    std::swap(src, tmp);
  }
  return src;
}

// Stable insertion sort that gives up once about `budget` items have moved;
// false then, with the items still a stable reordering of what they were.
template <typename T>
bool insertion_sort_within(T *items, std::size_t n, std::size_t budget) {
  for (std::size_t i = 1; i < n; ++i) {
    const std::uint64_t key = plain_key(items[i]);
    if (plain_key(items[i - 1]) <= key) continue;
    const T item = items[i];
    std::size_t j = i;
    for (; j > 0 && plain_key(items[j - 1]) > key; --j) items[j] = items[j - 1];
    items[j] = item;
    if (i - j >= budget) return false;
    budget -= i - j;
  }
  return true;
}

// Stable sort by key of n items, using tmp (room for n) as well. The four
// highest bytes in which the keys differ hold some 28 bits of mantissa below
// the exponent, enough to leave only rare neighbours out of order, so those
// bytes are sorted by radix and insertion finishes. Keys crowded into equal
// high bytes (values a few ulps apart) make the finish give up, and every
// byte is sorted by radix after all.
template <typename T>
T *radix_sort(T *items, T *tmp, std::size_t n) {
  Histograms counts = digit_counts(items, n);
  const std::uint64_t first_key = plain_key(items[0]);
  int top = 7;
  while (top > 0 && counts[top][(first_key >> (8 * top)) & 0xff] == n) --top;
  const int low = std::max(0, top - 3);
  T *sorted = radix_passes(items, tmp, n, counts, low);
  if (low == 0 || insertion_sort_within(sorted, n, n)) return sorted;
  counts = digit_counts(sorted, n);
  return radix_passes(sorted, sorted == items ? tmp : items, n, counts, 0);
}

// A sorted run of nodes read by position, either whole nodes or, when every
// node has the same count (points fed with one weight), bare keys.
struct NodeRun {
  const td_node_t *nodes;
  std::uint64_t key(std::size_t j) const { return key_of(nodes[j]); }
  td_node_t node(std::size_t j) const { return nodes[j]; }
};

struct KeyRun {
  const std::uint64_t *keys;
  double count;
  std::uint64_t key(std::size_t j) const { return keys[j]; }
  td_node_t node(std::size_t j) const { return td_node_t{mean_of_key(keys[j]), count}; }
};

// Merges the sorted nodes[0, m) with a sorted run of u nodes into nodes[0,
// m + u). From the back, so the merged run is read before it is overwritten;
// on equal keys the run's node lands later.
template <typename Run>
void merge_runs(td_node_t *nodes, std::size_t m, std::size_t u, const Run &run) {
  std::size_t i = m;
  std::size_t j = u;
  std::size_t k = m + u;
  while (j > 0) {
    if (i > 0 && key_of(nodes[i - 1]) > run.key(j - 1)) {
      nodes[--k] = nodes[--i];
    } else {
      --j;
      nodes[--k] = run.node(j);
    }
  }
}

// Orders nodes[0, n) by mean as a stable sort would: equal means keep the
// merged nodes first, then the order in which nodes were added. The merged
// part [0, m) is normally in order already, so only the tail is sorted and
// the two runs are merged.
void sort_nodes(td_node_t *nodes, std::size_t m, std::size_t n) {
  if (!sorted_by_mean(nodes, m)) m = 0;  // rounding in a fold can break the order
  td_node_t *tail = nodes + m;
  const std::size_t u = n - m;
  const bool tail_sorted = sorted_by_mean(tail, u);
  if (tail_sorted && (m == 0 || key_of(nodes[m - 1]) <= key_of(tail[0]))) return;

  const bool small = tail_sorted || u <= kInsertionSortMax;
  bool same_count = !small;
  for (std::size_t i = 1; same_count && i < u; ++i) {
    same_count =
        std::bit_cast<std::uint64_t>(tail[i].count) == std::bit_cast<std::uint64_t>(tail[0].count);
  }
  td_node_t *scratch = nullptr;
  std::uint64_t *keys = nullptr;
  if (same_count) {
    keys = scratch_as<std::uint64_t>(2 * u);
  } else {
    scratch = scratch_as<td_node_t>(u);
  }
  if (scratch == nullptr && keys == nullptr) {
    std::stable_sort(nodes, nodes + n,
                     [](const td_node_t &a, const td_node_t &b) { return key_of(a) < key_of(b); });
    return;
  }
  if (small) {
    if (!tail_sorted) insertion_sort_within(tail, u, kNoBudget);
    std::memcpy(static_cast<void *>(scratch), tail, u * sizeof(td_node_t));
    merge_runs(nodes, m, u, NodeRun{scratch});
    return;
  }

  if (same_count) {
    // Keys alone move when the counts agree: half the bytes of whole nodes.
    for (std::size_t i = 0; i < u; ++i) keys[i] = key_of(tail[i]);
    merge_runs(nodes, m, u, KeyRun{radix_sort(keys, keys + u, u), tail[0].count});
    return;
  }
  const td_node_t *sorted = radix_sort(tail, scratch, u);
  if (sorted == tail) {
    std::memcpy(static_cast<void *>(scratch), tail, u * sizeof(td_node_t));
    sorted = scratch;
  }
  merge_runs(nodes, m, u, NodeRun{sorted});
}

// A centroid being built: each folded node moves the mean toward its own by
// its share of the weight.
struct Centroid {
  double mean;
  double count;

  void fold(const td_node_t &next) {
    const double proposed = count + next.count;
    const double old_mean = mean;
    count = proposed;
    if (proposed <= 0) return;  // zero weights carry no position
    mean += (next.mean - mean) * next.count / count;
    if (!std::isfinite(mean)) {
      // The difference overflowed for means near the double range.
      const double w = next.count / proposed;
      mean = old_mean * (1 - w) + next.mean * w;
    }
  }
};

// The merge's size limit: a node joins the current centroid while the
// proposed weight stays within q * (1 - q) of the normalised rank at both of
// the centroid's edges.
class FoldRule {
 public:
  explicit FoldRule(const td_histogram_t &h)
      : total_count_(h.merged_count + h.unmerged_count),
        normalizer_(h.compression / (2 * std::numbers::pi * total_count_ * std::log(total_count_))),
        inverse_total_(1 / total_count_),
        estimate_(total_count_ > 1e-300 && total_count_ < 1e300) {
    start_centroid(0);
  }

  double total_count() const { return total_count_; }

  bool fits(double proposed) const {
    const double z = proposed * normalizer_;
    if (!(z <= limit0_)) return false;  // q0 moves only when a centroid starts
    const double sum = count_so_far_ + proposed;
    if (estimate_) {
      // A product for the quotient is within a few units in the last place of
      // it, and so is its bound; only a z that close to the bound needs the
      // division to decide as the division would.
      const double q = sum * inverse_total_;
      const double limit = q * (1 - q);
      if (z <= limit - kBoundSlack) return true;
      if (z > limit + kBoundSlack) return false;
    }
    const double q2 = sum / total_count_;
    return z <= q2 * (1 - q2);
  }

  // The finished centroid's weight moves the left edge of the next one.
  void start_centroid(double finished_count) {
    count_so_far_ += finished_count;
    const double q0 = count_so_far_ / total_count_;
    limit0_ = q0 * (1 - q0);
  }

 private:
  // Far above the few 1e-16 that the product and the division can differ by.
  static constexpr double kBoundSlack = 4e-15;

  double total_count_;
  double normalizer_;
  double inverse_total_;
  bool estimate_;
  double count_so_far_ = 0;
  double limit0_ = 0;
};

// One pass, folding in place: the fallback when there is no scratch room.
int compress_in_place(td_node_t *nodes, int n, FoldRule &rule) {
  int cur = 0;
  Centroid c{nodes[0].mean, nodes[0].count};
  for (int i = 1; i < n; ++i) {
    if (rule.fits(c.count + nodes[i].count)) {
      c.fold(nodes[i]);
    } else {
      nodes[cur++] = td_node_t{c.mean, c.count};
      rule.start_centroid(c.count);
      c = Centroid{nodes[i].mean, nodes[i].count};
    }
  }
  nodes[cur] = td_node_t{c.mean, c.count};
  return cur;
}

// Folds nodes[first, last) into one centroid.
td_node_t fold_range(const td_node_t *nodes, std::uint32_t first, std::uint32_t last) {
  Centroid c{nodes[first].mean, nodes[first].count};
  for (std::uint32_t i = first + 1; i < last; ++i) c.fold(nodes[i]);
  return td_node_t{c.mean, c.count};
}

// Two passes: the boundaries first, from the weights alone, then the means.
// Each mean is a chain of dependent divisions, so neighbouring centroids are
// folded side by side to keep more than one chain in flight. Every centroid
// sees the same operations in the same order as in one pass.
int compress(td_node_t *nodes, int n, FoldRule &rule) {
  auto *starts = scratch_as<std::uint32_t>(static_cast<std::size_t>(n) + 1);
  if (starts == nullptr) return compress_in_place(nodes, n, rule);
  std::uint32_t centroids = 1;
  starts[0] = 0;
  double count = nodes[0].count;
  for (int i = 1; i < n; ++i) {
    const double proposed = count + nodes[i].count;
    if (rule.fits(proposed)) {
      count = proposed;
    } else {
      rule.start_centroid(count);
      starts[centroids++] = static_cast<std::uint32_t>(i);
      count = nodes[i].count;
    }
  }
  starts[centroids] = static_cast<std::uint32_t>(n);

  // A centroid lands at its index, which is at or before its first node; the
  // pair is written only after both are folded, since the second's slot may
  // hold a node of the first.
  std::uint32_t k = 0;
  for (; k + 1 < centroids; k += 2) {
    const std::uint32_t a = starts[k], b = starts[k + 1], end = starts[k + 2];
    Centroid left{nodes[a].mean, nodes[a].count};
    Centroid right{nodes[b].mean, nodes[b].count};
    const std::uint32_t both = std::min(b - a, end - b);
    for (std::uint32_t j = 1; j < both; ++j) {
      left.fold(nodes[a + j]);
      right.fold(nodes[b + j]);
    }
    for (std::uint32_t j = a + both; j < b; ++j) left.fold(nodes[j]);
    for (std::uint32_t j = b + both; j < end; ++j) right.fold(nodes[j]);
    nodes[k] = td_node_t{left.mean, left.count};
    nodes[k + 1] = td_node_t{right.mean, right.count};
  }
  if (k < centroids) nodes[k] = fold_range(nodes, starts[k], starts[k + 1]);
  return static_cast<int>(centroids) - 1;
}

// give_back: a merge before a read leaves the digest smaller than it was at its
// fullest, and the pages it vacates can go; a merge for a full buffer keeps
// them, since the adds that follow fill them again at once.
void merge(td_histogram_t *h, bool give_back = true) {
  if (h->unmerged_nodes == 0) return;
  h->centres = kCentresStale;
  td_node_t *nodes = h->nodes();
  const int n = h->merged_nodes + h->unmerged_nodes;
  sort_nodes(nodes, static_cast<std::size_t>(h->merged_nodes), static_cast<std::size_t>(n));
  FoldRule rule(*h);
  const int cur = compress(nodes, n, rule);
  clear_nodes(h, cur + 1, n, give_back ? kGiveBackMinPages : kKeepPages);
  h->merged_nodes = cur + 1;
  h->merged_count = rule.total_count();
  h->unmerged_nodes = 0;
  h->unmerged_count = 0;
}

double my_quantile(double index, double previous_index, double next_index, double previous_mean,
                   double next_mean) {
  const double span = next_index - previous_index;
  return next_mean * (index - previous_index) / span + previous_mean * (next_index - index) / span;
}

// td_value_at's answer once its walk stops at node i, the first whose centre
// (its_index) reaches index, given what the walk carried there.
double stop_at(const td_node_t *nodes, int n, int i, double index, double its_index, double total,
               double previous_mean, double previous_index) {
  const td_node_t &c = nodes[i];
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

// Beyond the centre of the last node c: a next mean is extrapolated.
double past_last(const td_node_t &c, double its_index, double previous_mean, double previous_index,
                 double last_index, double index) {
  const double next_mean =
      ((last_index - previous_index) * c.mean - (last_index - its_index) * previous_mean) /
      (its_index - previous_index);
  return my_quantile(index, its_index, last_index, c.mean, next_mean);
}

double walk_nodes(const td_node_t *nodes, int n, double last_index, double index) {
  double total = 0;  // whole counts only, as the walk has always truncated them
  double previous_mean = kNoPreviousMean;
  double previous_index = 0;
  for (int i = 0; i < n; ++i) {
    const td_node_t &c = nodes[i];
    const double its_index = (c.count - 1) / 2 + total;
    if (its_index >= index) {
      return stop_at(nodes, n, i, index, its_index, total, previous_mean, previous_index);
    }
    if (i == n - 1) {
      return past_last(c, its_index, previous_mean, previous_index, last_index, index);
    }
    total = std::trunc(total + c.count);
    previous_mean = c.mean;
    previous_index = its_index;
  }
  return 0;  // not reached: the last node always returns
}

// The centres of the merged nodes, computed exactly as the walk computes them,
// make its stopping node a binary search away. They are kept as doubles in the
// free node space right behind the merged nodes: no allocation, nothing for
// td_add to do (its first node overwrites them, and the merge that follows
// marks them stale), and 8 bytes per merged node resident once a digest is
// read. Built by the first read after a merge; a digest whose centres do not
// ascend (fractional counts) or that leaves no room keeps walking.
const double *centres_of(const td_histogram_t *h) {
  return std::launder(reinterpret_cast<const double *>(h->nodes() + h->merged_nodes));
}

constexpr double kTwo52 = 4503599627370496.0;
// Non-negative doubles order as their bit patterns do; the rest sort above.
constexpr std::uint64_t kTwo52Bits = std::bit_cast<std::uint64_t>(kTwo52);

// Negative, huge and NaN counts fail the first test.
bool whole_count(double c) {
  const bool in_range = std::bit_cast<std::uint64_t>(c) < kTwo52Bits;
  return in_range & (static_cast<double>(static_cast<std::int64_t>(in_range ? c : 0)) == c);
}

// Centres as if every count were whole and every sum exact: then the walk's
// truncations change nothing, the sums need no particular order, and two
// counts are added at a time to halve the dependency chain. False when that
// did not hold. Branch-free, so that a fraction anywhere costs only the check.
bool whole_centres(const td_node_t *nodes, int n, double *centres) {
  bool whole = true;
  double total = 0;
  int i = 0;
  for (; i + 2 <= n; i += 2) {
    const double a = nodes[i].count, b = nodes[i + 1].count;
    centres[i] = (a - 1) / 2 + total;
    centres[i + 1] = (b - 1) / 2 + (total + a);
    whole &= whole_count(a);
    whole &= whole_count(b);
    total += a + b;
  }
  if (i < n) {
    centres[i] = (nodes[i].count - 1) / 2 + total;
    whole &= whole_count(nodes[i].count);
    total += nodes[i].count;
  }
  // Sums of whole counts only grow: the last below 2^52 keeps all exact.
  return whole & (total < kTwo52);
}

CentresState build_centres(td_histogram_t *h) {
  const int n = h->merged_nodes;
  const int span = (n + 1) / 2;  // nodes' worth of room for n doubles
  if (span > h->cap - n) return kCentresNone;
  const td_node_t *nodes = h->nodes();
  double *centres = ::new (static_cast<void *>(h->nodes() + n)) double[static_cast<std::size_t>(n)];
  h->touched_nodes = std::max(h->touched_nodes, n + span);
  if (whole_centres(nodes, n, centres)) return kCentresReady;  // ascending by construction
  double total = 0;
  bool ascending = true;
  for (int i = 0; i < n; ++i) {
    centres[i] = (nodes[i].count - 1) / 2 + total;
    if (i > 0) ascending &= centres[i] >= centres[i - 1];  // false for NaN too
    total = std::trunc(total + nodes[i].count);
  }
  return ascending ? kCentresReady : kCentresNone;
}

// First i whose centre reaches index, n if none does (NaN reaches none, as in
// the walk). Branch-free: which half holds it is as good as random.
int first_reaching(const double *centres, int n, double index) {
  const double *base = centres;
  int len = n;
  while (len > 1) {
    const int half = len / 2;
    base = !(base[half - 1] >= index) ? base + half : base;
    len -= half;
  }
  return static_cast<int>(base - centres) + (!(*base >= index) ? 1 : 0);
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

// Byte by byte: measured faster than a whole-word copy for the float
// differences of mode 2, whose loop the compiler would otherwise vectorise.
void put_u32(unsigned char *p, std::uint32_t v) {
  for (int i = 0; i < 4; ++i) p[i] = static_cast<unsigned char>(v >> (8 * i));
}

// The wire is little-endian, as is every host this runs on.
static_assert(std::endian::native == std::endian::little);

void put_u64(unsigned char *p, std::uint64_t v) {
  std::memcpy(p, &v, sizeof v);
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

  // Nodes are read only after they are written, so the node area is left as
  // it is: clearing it would make the whole block resident.
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
  const bool mapped = kMapBlocks;
  void *block = mapped ? map_block(size) : std::malloc(size);
  if (block == nullptr) return nullptr;
  td_histogram_t *h = td_init(delta, K, size, block);
  if (h == nullptr) {
    release_block(block, size, mapped);
    return nullptr;
  }
  h->mapped = mapped ? 1 : 0;
  return h;
}

void td_free(td_histogram_t *h) {
  if (h == nullptr) return;
  release_block(h, block_size(h), h->mapped != 0);
}

int td_add(td_histogram_t *h, double mean, double count) {
  if (h == nullptr || !std::isfinite(mean) || !std::isfinite(count) || count < 0) return -1;
  if (h->merged_nodes + h->unmerged_nodes >= h->cap) {
    merge(h, false);
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
  const int used = h->merged_nodes + h->unmerged_nodes;
  h->merged_nodes = 0;
  h->unmerged_nodes = 0;
  h->merged_count = 0;
  h->unmerged_count = 0;
  clear_nodes(h, 0, used, 1);
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
  if (h->centres == kCentresStale) h->centres = build_centres(h);
  if (h->centres == kCentresReady) {
    const double *centres = centres_of(h);
    const int i = first_reaching(centres, n, index);
    if (i == n) {
      return past_last(nodes[n - 1], centres[n - 1], nodes[n - 2].mean, centres[n - 2], last_index,
                       index);
    }
    if (i == 0) return stop_at(nodes, n, 0, index, centres[0], 0, kNoPreviousMean, 0);
    // A real mean of -999 reads as no previous node, which needs the running
    // total; only the walk has it.
    if (nodes[i - 1].mean != kNoPreviousMean) {
      return my_quantile(index, centres[i - 1], centres[i], nodes[i - 1].mean, nodes[i].mean);
    }
  }
  return walk_nodes(nodes, n, last_index, index);
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
