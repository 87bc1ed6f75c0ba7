#include <sys/mman.h>
#include <unistd.h>

#include <algorithm>
#include <bit>
#include <cmath>
#include <cstdint>
#include <cstring>
#include <functional>
#include <numbers>
#include <random>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "tdigest/pwlb_t_digest_quantile.h"
#include "tdigest/tdigest.h"

namespace {

using Bytes = std::vector<unsigned char>;

td_histogram_ptr digest_of(std::initializer_list<std::pair<double, double>> points) {
  td_histogram_ptr h(td_new(0.01, 100));
  for (auto [mean, count] : points) EXPECT_EQ(td_add(h.get(), mean, count), 0);
  return h;
}

Bytes serialize(td_histogram_t *h, int mode) {
  Bytes buf;
  std::size_t size = 0;
  EXPECT_NE(td_serialize(h, mode, &buf, &size), nullptr);
  buf.resize(size);
  return buf;
}

TEST(TDigestAdd, RefusesBadParametersAndPointsAndNeverOverrunsTheBuffer) {
  EXPECT_EQ(td_histogram_ptr(td_new(0, 7))->cap, 52);  // delta 0: compression is K
  EXPECT_EQ(td_new(-0.01, 100), nullptr);
  EXPECT_EQ(td_new(1e-9, 100), nullptr);  // asks for an absurd block
  alignas(8) unsigned char block[56 + 16 * 3];
  EXPECT_EQ(td_init(0.5, 1, sizeof block, block)->cap, 3);
  EXPECT_EQ(td_init(0.5, 1, 55, block), nullptr);

  auto h = digest_of({});
  for (auto [mean, count] : {std::pair{NAN, 1.0}, {INFINITY, 1.0}, {1.0, -1.0}})
    EXPECT_EQ(td_add(h.get(), mean, count), -1);
  EXPECT_EQ(td_total_count(h.get()), 0);
  EXPECT_EQ(td_merge(h.get(), h.get()), -1);

  td_histogram_ptr tiny(td_new(0, 1));  // cap 16
  for (int i = 0; i < 1000; ++i) ASSERT_EQ(td_add(tiny.get(), i, 1), 0);
  EXPECT_EQ(td_total_count(tiny.get()), 1000);
  EXPECT_NEAR(td_value_at(tiny.get(), 0.5), 500, 150);
  // Zero weights never fold, so a full buffer drops the point.
  td_histogram_ptr zeros(td_new(0, 1));
  int rejected = 0;
  for (int i = 0; i < 40; ++i) rejected += td_add(zeros.get(), i, 0) != 0;
  EXPECT_EQ(rejected, 40 - 16);
}

// The fixed answers below three nodes; longer walks are held to the plain
// rules by TDigestReference below.
TEST(TDigestQuantiles, SmallDigestsFollowTheFixedRules) {
  EXPECT_EQ(td_value_at(digest_of({}).get(), 0.5), 0);
  EXPECT_TRUE(std::isnan(td_quantile_of(digest_of({}).get(), 1)));
  auto single = digest_of({{42, 1}});
  for (double q : {0.0, 0.3, 1.0}) EXPECT_EQ(td_value_at(single.get(), q), 42);
  auto two = digest_of({{20, 1}, {10, 1}});
  EXPECT_DOUBLE_EQ(td_value_at(two.get(), 0.5), 15);
  EXPECT_DOUBLE_EQ(td_value_at(two.get(), 0.9), 23);
  EXPECT_DOUBLE_EQ(td_value_at(two.get(), 0.1), 7);

  // td_quantile_of: half weights at equal and neighbouring means.
  auto h = digest_of({{10, 1}, {10, 1}, {20, 1}});
  EXPECT_DOUBLE_EQ(td_quantile_of(h.get(), 10), 1.0 / 3);
  EXPECT_DOUBLE_EQ(td_quantile_of(h.get(), 20), 2.5 / 3);
  EXPECT_DOUBLE_EQ(td_quantile_of(h.get(), 15), 2.0 / 3);
  EXPECT_EQ(td_quantile_of(h.get(), 5), 0);
  EXPECT_EQ(td_quantile_of(h.get(), 25), 1);
}

// A buffer with no room behind its nodes for td_value_at's index still
// answers, and answers as a roomy digest with the same nodes does.
TEST(TDigestQuantiles, FullBufferAnswersAsARoomyOne) {
  alignas(8) unsigned char block[56 + 16 * 4];
  td_histogram_t *full = td_init(0.5, 1, sizeof block, block);
  td_histogram_t roomy_block[8];  // header-aligned room for 4 nodes and more
  td_histogram_t *roomy = td_init(0.5, 1, sizeof roomy_block, roomy_block);
  for (double mean : {40.0, 10.0, 30.0, 20.0}) {
    ASSERT_EQ(td_add(full, mean, 1), 0);
    ASSERT_EQ(td_add(roomy, mean, 1), 0);
  }
  // Three centroids would need two nodes' room for their index; one is left.
  ASSERT_EQ(td_centroid_count(full), 3);
  ASSERT_EQ(td_centroid_count(roomy), 3);
  for (int i = 0; i <= 100; ++i)
    EXPECT_EQ(td_value_at(full, i / 100.0), td_value_at(roomy, i / 100.0)) << i;
}

TEST(TDigestQuantiles, DistributionsWithinTolerance) {
  std::mt19937_64 rng(7);
  std::normal_distribution<double> normal(500, 100);
  std::uniform_real_distribution<double> uniform(0, 1000);
  for (int dist = 0; dist < 2; ++dist) {
    td_histogram_ptr h(td_new(0.01, 100));
    std::vector<double> values;
    for (int i = 0; i < 200000; ++i) {  // more points than nodes: merges run
      values.push_back(dist == 0 ? normal(rng) : uniform(rng));
      ASSERT_EQ(td_add(h.get(), values.back(), 1), 0);
    }
    std::sort(values.begin(), values.end());
    EXPECT_EQ(td_total_count(h.get()), 200000);
    EXPECT_LT(td_centroid_count(h.get()), h->cap / 6);
    EXPECT_EQ(h->nodes()[0].count, 1);  // the extremes are never folded
    EXPECT_EQ(h->nodes()[h->merged_nodes - 1].count, 1);
    for (double q : {0.01, 0.25, 0.5, 0.8, 0.9, 0.99, 0.999}) {
      const double expected = values[static_cast<std::size_t>(q * (values.size() - 1))];
      EXPECT_NEAR(td_value_at(h.get(), q), expected, 0.2) << "dist " << dist << " q " << q;
      EXPECT_NEAR(td_quantile_of(h.get(), expected), q, 2e-4) << "dist " << dist;
    }
  }
}

// 1/0.01 as a double is exactly 100.0: 0x4059000000000000.
#define TD_HEADER(mode, n) mode, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0x59, 0x40, n, 0, 0, 0

TEST(TDigestSerialize, TinyDigestBytes) {
  auto h = digest_of({{20, 300}, {10, 1.1}});
  // clang-format off
  const Bytes mode1 = {TD_HEADER(1, 2),
                       0, 0, 0, 0, 0, 0, 0x24, 0x40,  // 10.0
                       0, 0, 0, 0, 0, 0, 0x34, 0x40,  // 20.0
                       0x9a, 0x99, 0x99, 0x99,        // low half of 1.1
                       0, 0, 0, 0};                   // low half of 300.0
  const Bytes mode2 = {TD_HEADER(2, 2),
                       0, 0, 0x20, 0x41,  // 10.0f
                       0, 0, 0x20, 0x41,  // +10.0f
                       0x01, 0xac, 0x02};
  // clang-format on
  EXPECT_EQ(serialize(h.get(), 1), mode1);
  EXPECT_EQ(serialize(h.get(), 2), mode2);
  EXPECT_EQ(serialize(digest_of({}).get(), 2), Bytes({TD_HEADER(2, 0)}));

  // A larger buffer is kept; a count of 2^28 needs five bytes, not four.
  Bytes big(100, 0xee);
  std::size_t size = 0;
  ASSERT_EQ(td_serialize(h.get(), 2, &big, &size), big.data());
  EXPECT_TRUE(big.size() == 100 && size == mode2.size());
  EXPECT_EQ(td_serialize(h.get(), 3, &big, &size), nullptr);
  EXPECT_EQ(serialize(digest_of({{1, 1u << 28}}).get(), 2).size(), 16u + 4 + 5);
}

TEST(TDigestSerialize, RoundTrips) {
  // Mode 2 keeps every centroid: weights exactly, means to float precision.
  std::mt19937_64 rng(3);
  std::lognormal_distribution<double> dist(5, 1);
  td_histogram_ptr h(td_new(0.02, 50));
  for (int i = 0; i < 20000; ++i) td_add(h.get(), dist(rng), 1);
  const Bytes mode2 = serialize(h.get(), 2);
  td_histogram_ptr back(td_deserialize(mode2.data(), mode2.size(), 50));
  ASSERT_TRUE(back);
  EXPECT_DOUBLE_EQ(back->delta, 0.02);
  ASSERT_EQ(back->unmerged_nodes, h->merged_nodes);
  for (int i = 0; i < h->merged_nodes; ++i) {
    EXPECT_EQ(back->nodes()[i].count, h->nodes()[i].count);
    EXPECT_NEAR(back->nodes()[i].mean, h->nodes()[i].mean, 1e-3);
  }
  // Mode 1 keeps the means; integer weights read back as their zero low half.
  auto tiny = digest_of({{10, 1}, {20, 300}});
  const Bytes mode1 = serialize(tiny.get(), 1);
  td_histogram_ptr raw(td_deserialize(mode1.data(), mode1.size(), 0));
  ASSERT_TRUE(raw);
  EXPECT_EQ(raw->K, 100);
  EXPECT_EQ(td_total_count(raw.get()), 0);
  EXPECT_EQ(serialize(raw.get(), 1), mode1);
}

TEST(TDigestSerialize, DeserializeRejectsTruncatedAndMalformedInput) {
  const Bytes good = serialize(digest_of({{10, 1}, {20, 300}, {30, 5}}).get(), 2);
  EXPECT_EQ(td_deserialize(nullptr, 10, 100), nullptr);
  for (std::size_t len = 0; len < good.size(); ++len) {
    Bytes cut(good.begin(), good.begin() + static_cast<std::ptrdiff_t>(len));  // exact heap size
    EXPECT_EQ(td_deserialize(cut.data(), cut.size(), 100), nullptr) << len;
  }
  Bytes trailing = good;
  trailing.push_back('\n');
  EXPECT_NE(td_histogram_ptr(td_deserialize(trailing.data(), trailing.size(), 100)), nullptr);

  auto corrupt = [&](std::size_t at, std::initializer_list<unsigned char> bytes) {
    Bytes b = good;
    std::copy(bytes.begin(), bytes.end(), b.begin() + static_cast<std::ptrdiff_t>(at));
    return td_histogram_ptr(td_deserialize(b.data(), b.size(), 100));
  };
  EXPECT_EQ(corrupt(0, {3}), nullptr);                        // mode
  EXPECT_EQ(corrupt(12, {0xff, 0xff, 0xff, 0x7f}), nullptr);  // node count past the end
  EXPECT_EQ(corrupt(12, {0xff, 0xff, 0xff, 0xff}), nullptr);  // negative node count
  EXPECT_EQ(corrupt(11, {0xc0}), nullptr);                    // 1/delta negative
  EXPECT_EQ(corrupt(10, {0xe0, 0x7f}), nullptr);              // 1/delta asks for a huge block
  EXPECT_EQ(corrupt(10, {0xf8, 0x7f}), nullptr);              // 1/delta NaN
  EXPECT_EQ(corrupt(16, {0, 0, 0xc0, 0x7f}), nullptr);        // NaN mean

  // One node with mean 0: a count of 2^32-1 fits five groups; wider does not.
  auto one_count = [](std::initializer_list<unsigned char> count) {
    Bytes b = {TD_HEADER(2, 1), 0, 0, 0, 0};
    b.insert(b.end(), count);
    return td_histogram_ptr(td_deserialize(b.data(), b.size(), 100));
  };
  EXPECT_EQ(td_total_count(one_count({0xff, 0xff, 0xff, 0xff, 0x0f}).get()), 4294967295.0);
  EXPECT_EQ(one_count({0xff, 0xff, 0xff, 0xff, 0x1f}), nullptr);
  EXPECT_EQ(one_count({0xff, 0xff, 0xff, 0xff, 0xff, 0x01}), nullptr);
}

// The handle's life and merges are the monitor's (bt_monitor_report_test).
TEST(TDigestHandle, DebugDumpStaysWithinItsBufferAndDeserializeReplaces) {
  td_histogram_t *slot = nullptr;
  ASSERT_EQ(pwlb_t_digest_init(&slot, 0.01, 100), 0);
  pwlb_t_digest_insert(slot, 10, 1);
  pwlb_t_digest_insert(slot, 20, 2);
  char full[512], small[16];
  ASSERT_GT(pwlb_t_digest_debug_ex(slot, full, sizeof full), 0);
  memset(small, 'x', sizeof small);
  EXPECT_EQ(pwlb_t_digest_debug_ex(slot, small, sizeof small), 15);
  EXPECT_EQ(std::string(small), std::string(full, 15));
  EXPECT_EQ(pwlb_t_digest_debug_ex(slot, small, 0), -1);

  const Bytes bytes = serialize(slot, 2);
  EXPECT_EQ(pwlb_t_digest_deserialize(&slot, bytes.data(), bytes.size(), 100), 0);
  EXPECT_EQ(pwlb_t_digest_get_data_count(slot), 3);
  pwlb_t_digest_destroy(&slot);
}

// A digest's block is sized for 60,010 nodes but must only become resident
// where nodes were written: 256 live BTs cannot each pay ~960 KB. mincore()
// reports which pages of a block are backed, independent of whatever else the
// process holds.
const std::size_t kPage = static_cast<std::size_t>(sysconf(_SC_PAGESIZE));

std::size_t resident_pages(const td_histogram_t *h) {
  const auto begin = reinterpret_cast<std::uintptr_t>(h) & ~(kPage - 1);
  const auto end = reinterpret_cast<std::uintptr_t>(h->nodes() + h->cap);
  std::vector<unsigned char> in_core((end - begin + kPage - 1) / kPage);
  if (mincore(reinterpret_cast<void *>(begin), end - begin, in_core.data()) != 0) return SIZE_MAX;
  std::size_t n = 0;
  for (unsigned char page : in_core) n += page & 1;
  return n;
}

// Pages a digest may touch for `nodes` nodes: those they span, the header's,
// and one for the allocator's own bookkeeping in sanitised builds.
std::size_t allowance(int nodes) {
  return (static_cast<std::size_t>(nodes) * sizeof(td_node_t) + kPage - 1) / kPage + 3;
}

TEST(TDigestMemory, OnlyWrittenPagesBecomeResident) {
  std::mt19937_64 rng(1);
  std::lognormal_distribution<double> response_ms(5, 1);
  std::vector<td_histogram_ptr> digests;
  for (int d = 0; d < 256; ++d) {
    digests.emplace_back(td_new(0.01, 100));
    ASSERT_EQ(digests.back()->cap, 60010);
    ASSERT_LE(resident_pages(digests.back().get()), allowance(0)) << "creation touched the block";
    // One point per thread per interval over a report period.
    for (int i = 0; i < 240; ++i) td_add(digests.back().get(), response_ms(rng), 1);
  }
  std::size_t total = 0;
  for (const auto &h : digests) {
    td_centroid_count(h.get());
    const std::size_t pages = resident_pages(h.get());
    EXPECT_LE(pages, allowance(240));
    total += pages;
  }
  EXPECT_LT(total * kPage, 256u * 64 * 1024);  // against ~245 MB if blocks were cleared
}

TEST(TDigestMemory, MergeBeforeAReadAndResetReturnPages) {
  td_histogram_ptr h(td_new(0.01, 100));
  std::mt19937_64 rng(2);
  std::uniform_real_distribution<double> uniform(0, 1000);
  for (int i = 0; i < h->cap; ++i) td_add(h.get(), uniform(rng), 1);
  EXPECT_GT(resident_pages(h.get()), allowance(h->cap) - 4);
  // Only a block of its own can give pages back; sanitised builds allocate.
  const int centroids = td_centroid_count(h.get());
  auto bound = [&](int nodes) { return h->mapped ? allowance(nodes) : SIZE_MAX; };
  EXPECT_LE(resident_pages(h.get()), bound(centroids));
  // A read indexes the centroids behind them, 8 bytes each; a reset hands
  // those pages back too, and leaves nothing of the old points behind.
  td_value_at(h.get(), 0.5);
  EXPECT_LE(resident_pages(h.get()), bound(centroids + (centroids + 1) / 2));
  td_reset(h.get());
  EXPECT_EQ(td_total_count(h.get()), 0);
  EXPECT_EQ(td_value_at(h.get(), 0.5), 0);
  EXPECT_LE(resident_pages(h.get()), bound(0));
  td_add(h.get(), 10, 1);
  td_add(h.get(), 20, 300);
  EXPECT_EQ(serialize(h.get(), 2), serialize(digest_of({{10, 1}, {20, 300}}).get(), 2));
}

// Holds the digest to a plain reading of its rules: every merge re-sorts all
// nodes with a stable sort and folds them in one pass of divisions, and the
// quantile walk steps node by node. The digest's faster sort, two-pass fold
// and block skipping must give bit-identical nodes and values.
std::uint64_t order_key(double mean) {
  const auto bits = std::bit_cast<std::uint64_t>(mean);
  return bits >> 63 ? ~bits : bits | (std::uint64_t{1} << 63);
}

struct Reference {
  double compression;
  std::size_t cap;
  std::vector<td_node_t> nodes;  // merged first, then unmerged
  std::size_t merged = 0;
  double merged_count = 0, unmerged_count = 0;

  explicit Reference(const td_histogram_t &h)
      : compression(h.compression), cap(static_cast<std::size_t>(h.cap)) {}

  void add(double mean, double count) {
    if (nodes.size() == cap) merge();
    nodes.push_back({mean, count});
    unmerged_count += count;
  }

  void merge() {
    if (nodes.size() == merged) return;
    std::stable_sort(nodes.begin(), nodes.end(), [](const td_node_t &a, const td_node_t &b) {
      return order_key(a.mean) < order_key(b.mean);
    });
    const double total = merged_count + unmerged_count;
    const double normalizer = compression / (2 * std::numbers::pi * total * std::log(total));
    std::size_t cur = 0;
    double so_far = 0;
    for (std::size_t i = 1; i < nodes.size(); ++i) {
      const double proposed = nodes[cur].count + nodes[i].count;
      const double z = proposed * normalizer;
      const double q0 = so_far / total, q2 = (so_far + proposed) / total;
      if (z <= q0 * (1 - q0) && z <= q2 * (1 - q2)) {
        const double old_mean = nodes[cur].mean;
        nodes[cur].count = proposed;
        if (proposed <= 0) continue;
        nodes[cur].mean += (nodes[i].mean - nodes[cur].mean) * nodes[i].count / proposed;
        if (!std::isfinite(nodes[cur].mean)) {
          const double w = nodes[i].count / proposed;
          nodes[cur].mean = old_mean * (1 - w) + nodes[i].mean * w;
        }
      } else {
        so_far += nodes[cur].count;
        nodes[++cur] = nodes[i];
      }
    }
    nodes.resize(cur + 1);
    merged = nodes.size();
    merged_count = total;
    unmerged_count = 0;
  }

  // Only the general walk; digests here have more than two nodes.
  double value_at(double q) {
    merge();
    const double last = merged_count - 1, index = last * q;
    double total = 0, prev_mean = -999.0, prev_index = 0;
    for (std::size_t i = 0; i < nodes.size(); ++i) {
      const td_node_t &c = nodes[i];
      const double at = (c.count - 1) / 2 + total;
      auto interpolate = [&](double lo_i, double hi_i, double lo_m, double hi_m) {
        return hi_m * (index - lo_i) / (hi_i - lo_i) + lo_m * (hi_i - index) / (hi_i - lo_i);
      };
      if (at >= index) {
        if (prev_mean != -999.0) return interpolate(prev_index, at, prev_mean, c.mean);
        if (at == prev_index || i + 1 == nodes.size()) return c.mean;
        const td_node_t &next = nodes[i + 1];
        const double next_at = (next.count - 1) / 2 + c.count + total;
        return interpolate(prev_index, at, (c.mean * next_at - next.mean * at) / (next_at - at),
                           c.mean);
      }
      if (i + 1 == nodes.size()) {
        const double next_mean =
            ((last - prev_index) * c.mean - (last - at) * prev_mean) / (at - prev_index);
        return interpolate(at, last, c.mean, next_mean);
      }
      total = std::trunc(total + c.count);
      prev_mean = c.mean;
      prev_index = at;
    }
    return 0;
  }
};

void expect_same(td_histogram_t *h, Reference &ref, const char *what) {
  ref.merge();
  ASSERT_EQ(td_centroid_count(h), static_cast<int>(ref.nodes.size())) << what;
  ASSERT_EQ(std::memcmp(h->nodes(), ref.nodes.data(), ref.nodes.size() * sizeof(td_node_t)), 0)
      << what;
  for (int i = 0; i <= 1000; ++i) {
    const double q = i / 1000.0;
    const double got = td_value_at(h, q), want = ref.value_at(q);
    ASSERT_EQ(std::bit_cast<std::uint64_t>(got), std::bit_cast<std::uint64_t>(want))
        << what << " q " << q << ": " << got << " vs " << want;
  }
}

// Each case feeds both sides, checking them against each other several times
// on the way; each drives the digest down another of its paths.
TEST(TDigestReference, SameNodesAndValuesAsThePlainRules) {
  std::mt19937_64 rng(5);
  std::lognormal_distribution<double> lognormal(5, 1.5), lognormal1(5, 1);
  std::uniform_real_distribution<double> uniform(-1000, 1000);
  std::uniform_int_distribution<int> weight(1, 5000);
  auto point = [&](double mean, double count) { return td_node_t{mean, count}; };
  const struct {
    const char *what;
    double delta;
    int K;
    long points;
    std::function<td_node_t(long)> point;
  } cases[] = {
      // Weight 1 through several full-buffer merges: the key-only sort.
      {"lognormal", 0.01, 100, 200000, [&](long) { return point(lognormal(rng), 1); }},
      // Whole milliseconds: many equal means, merged centroids among them.
      {"ties", 0.01, 100, 150000, [&](long) { return point(std::round(lognormal(rng)), 1); }},
      // Mixed weights (whole-node sort) on a small buffer, with signed zeros.
      {"weighted", 0, 200, 50000,
       [&](long i) {
         return point(i % 97 == 0 ? (i % 2 ? -0.0 : 0.0) : uniform(rng), weight(rng));
       }},
      // Fractional and huge weights: the quantile walk cannot skip blocks.
      {"fractional", 0, 300, 20000,
       [&](long i) { return point(uniform(rng), i % 5 == 0 ? 0.5 : (i % 7 == 0 ? 1e10 : 1)); }},
      // Means a few ulps apart among spread ones: the high-byte sort leaves the
      // cluster unordered and the insertion finish must hand over to full passes.
      {"crowded", 0.01, 100, 130000,
       [&](long i) {
         return point(i % 2 ? 100.0 + static_cast<double>(rng() % 4096) * 1e-13 : lognormal(rng),
                      1);
       }},
      // The quantile index of node centres at compression 100.
      {"compression 100", 1, 100, 100000, [&](long) { return point(lognormal1(rng), 1); }},
      // A real mean equal to the walk's "no previous node" marker.
      {"marker means", 0, 200, 20000,
       [&](long i) { return point(i % 13 == 0 ? -999.0 : 2 * uniform(rng), 1); }},
      // Half and zero counts: the index follows the walk's truncated sums.
      {"fractional counts", 0, 300, 20000,
       [&](long i) { return point(2 * uniform(rng), i % 3 == 0 ? 0.5 : (i % 3 == 1 ? 0 : 1)); }},
      // Whole counts, too heavy to fold, whose sums pass 2^53 and round.
      {"huge sums", 0.01, 100, 30,
       [&](long i) { return point(2 * uniform(rng), i % 2 ? 1e15 + 1 : 3); }},
  };
  for (const auto &c : cases) {
    td_histogram_ptr h(td_new(c.delta, c.K));
    Reference ref(*h);
    for (long i = 1; i <= c.points; ++i) {
      const td_node_t p = c.point(i);
      ASSERT_EQ(td_add(h.get(), p.mean, p.count), 0);
      ref.add(p.mean, p.count);
      if (i % (c.points / 3) == 0) expect_same(h.get(), ref, c.what);
    }
  }
}

TEST(TDigestReference, MergeMatchesAddingTheCentroids) {
  std::mt19937_64 rng(9);
  std::exponential_distribution<double> exp_dist(0.01);
  td_histogram_ptr a(td_new(0.01, 100)), b(td_new(0.01, 100));
  Reference ref(*a);
  for (int i = 0; i < 70000; ++i) {
    const double v = exp_dist(rng);
    td_add(a.get(), v, 1);
    ref.add(v, 1);
    td_add(b.get(), exp_dist(rng) * 2, 3);
  }
  ASSERT_EQ(td_merge(a.get(), b.get()), 0);
  ref.merge();  // td_merge merges both sides first
  for (int i = 0; i < b->merged_nodes; ++i) ref.add(b->nodes()[i].mean, b->nodes()[i].count);
  expect_same(a.get(), ref, "merged");
}

}  // namespace
