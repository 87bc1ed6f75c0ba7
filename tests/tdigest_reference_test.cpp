// Holds the digest to a plain reading of its rules: every merge re-sorts all
// nodes with a stable sort and folds them in one pass of divisions, and the
// quantile walk steps node by node. The digest's faster sort, two-pass fold
// and block skipping must give bit-identical nodes and values.

#include <algorithm>
#include <bit>
#include <cmath>
#include <cstdint>
#include <cstring>
#include <functional>
#include <numbers>
#include <random>
#include <vector>

#include <gtest/gtest.h>

#include "tdigest/tdigest.h"

namespace {

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
