#include <bit>
#include <cmath>
#include <cstdint>
#include <random>
#include <vector>

#include <benchmark/benchmark.h>

#include "tdigest/tdigest.h"

namespace {

std::vector<double> response_times(std::size_t n) {
  std::mt19937_64 rng(42);
  std::lognormal_distribution<double> dist(5, 1);
  std::vector<double> v(n);
  for (double &x : v) x = dist(rng);
  return v;
}

// Compression is K / delta; K stays at the default 100.
td_histogram_ptr filled_digest(std::size_t n, double compression = 10000) {
  td_histogram_ptr h(td_new(100 / compression, 100));
  for (double x : response_times(n)) td_add(h.get(), x, 1);
  td_centroid_count(h.get());
  return h;
}

// The quantile read node by node, the simplest way, from the merged nodes of
// a digest with more than two of them: the yardstick td_value_at must match in
// answer and in speed. The counts here are whole, so an integer running total
// is the truncated one of the rules.
__attribute__((noinline)) double plain_walk(const td_histogram_t *h, double q) {
  const td_node_t *nodes = h->nodes();
  const int n = h->merged_nodes;
  const double last = h->merged_count - 1, index = last * q;
  std::uint64_t total = 0;
  double prev_mean = -999.0, prev_index = 0;
  auto interpolate = [index](double lo_i, double hi_i, double lo_m, double hi_m) {
    return hi_m * (index - lo_i) / (hi_i - lo_i) + lo_m * (hi_i - index) / (hi_i - lo_i);
  };
  for (int i = 0; i < n; ++i) {
    const td_node_t &c = nodes[i];
    const double at = (c.count - 1) / 2 + static_cast<double>(total);
    if (at >= index) {
      if (prev_mean != -999.0) return interpolate(prev_index, at, prev_mean, c.mean);
      if (at == prev_index || i + 1 == n) return c.mean;
      const double next_at = (nodes[i + 1].count - 1) / 2 + c.count + static_cast<double>(total);
      return interpolate(prev_index, at,
                         (c.mean * next_at - nodes[i + 1].mean * at) / (next_at - at), c.mean);
    }
    if (i + 1 == n) {
      return interpolate(
          at, last, c.mean,
          ((last - prev_index) * c.mean - (last - at) * prev_mean) / (at - prev_index));
    }
    total += static_cast<std::uint64_t>(c.count);
    prev_mean = c.mean;
    prev_index = at;
  }
  return 0;
}

__attribute__((noinline)) double empty_call(const td_histogram_t *h, double q) {
  benchmark::DoNotOptimize(h);
  return q;
}

// Args: compression, points. Quantiles 0 to 0.99 in turn, so the time is the
// average over where the walk stops. Both readers must give the same bits at
// every quantile on a fine grid, or the run is void.
template <typename Fn>
void run_quantiles(benchmark::State &state, Fn fn) {
  td_histogram_ptr h =
      filled_digest(static_cast<std::size_t>(state.range(1)), static_cast<double>(state.range(0)));
  for (int i = 0; i <= 10000; ++i) {
    const double q = i / 10000.0;
    if (std::bit_cast<std::uint64_t>(td_value_at(h.get(), q)) !=
        std::bit_cast<std::uint64_t>(plain_walk(h.get(), q))) {
      state.SkipWithError("td_value_at and the plain walk disagree");
      return;
    }
  }
  double q = 0;
  for (auto _ : state) {
    benchmark::DoNotOptimize(fn(h.get(), q));
    q = q >= 0.99 ? 0 : q + 0.01;
  }
  state.counters["centroids"] = h->merged_nodes;
}

void BM_EmptyCallBaseline(benchmark::State &state) {
  run_quantiles(state, empty_call);
}
BENCHMARK(BM_EmptyCallBaseline)->Args({100, 1000});

void BM_td_value_at(benchmark::State &state) {
  run_quantiles(state, td_value_at);
}
BENCHMARK(BM_td_value_at)->ArgsProduct({{100, 10000}, {1000, 1000000}});

void BM_plain_walk(benchmark::State &state) {
  run_quantiles(state, plain_walk);
}
BENCHMARK(BM_plain_walk)->ArgsProduct({{100, 10000}, {1000, 1000000}});

// The first read after an add, which indexes the nodes before it searches.
double first_read(td_histogram_t *h, double q) {
  h->centres = 0;  // stale, as a merge leaves it
  return td_value_at(h, q);
}
void BM_td_value_at_first(benchmark::State &state) {
  run_quantiles(state, first_read);
}
BENCHMARK(BM_td_value_at_first)->ArgsProduct({{100, 10000}, {1000, 1000000}});

// Includes the periodic merge once the 60,010-node buffer fills.
void BM_td_add(benchmark::State &state) {
  const std::vector<double> values = response_times(1 << 20);
  td_histogram_ptr h(td_new(0.01, 100));
  std::size_t i = 0;
  for (auto _ : state) {
    benchmark::DoNotOptimize(td_add(h.get(), values[i], 1));
    i = (i + 1) & (values.size() - 1);
  }
  state.SetItemsProcessed(state.iterations());
}
BENCHMARK(BM_td_add);

void BM_td_serialize(benchmark::State &state) {
  td_histogram_ptr h = filled_digest(static_cast<std::size_t>(state.range(1)));
  std::vector<unsigned char> buf(1024);
  std::size_t size = 0;
  for (auto _ : state) {
    benchmark::DoNotOptimize(td_serialize(h.get(), static_cast<int>(state.range(0)), &buf, &size));
  }
  state.SetBytesProcessed(static_cast<std::int64_t>(state.iterations() * size));
  state.counters["centroids"] = h->merged_nodes;
  state.counters["bytes"] = static_cast<double>(size);
}
// Mode, points added: 1,000 points stay 1,000 nodes; a million fold to ~3,000.
BENCHMARK(BM_td_serialize)->ArgsProduct({{1, 2}, {1000, 1000000}});

void BM_td_deserialize(benchmark::State &state) {
  td_histogram_ptr h = filled_digest(1000000);
  std::vector<unsigned char> buf;
  std::size_t size = 0;
  td_serialize(h.get(), 2, &buf, &size);
  for (auto _ : state) {
    td_histogram_ptr back(td_deserialize(buf.data(), size, 100));
    benchmark::DoNotOptimize(back.get());
  }
}
BENCHMARK(BM_td_deserialize);

}  // namespace
