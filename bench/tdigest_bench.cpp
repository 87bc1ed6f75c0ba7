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

td_histogram_ptr filled_digest(std::size_t n) {
  td_histogram_ptr h(td_new(0.01, 100));
  for (double x : response_times(n)) td_add(h.get(), x, 1);
  td_centroid_count(h.get());
  return h;
}

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

void BM_td_value_at(benchmark::State &state) {
  td_histogram_ptr h = filled_digest(static_cast<std::size_t>(state.range(0)));
  double q = 0;
  for (auto _ : state) {
    benchmark::DoNotOptimize(td_value_at(h.get(), q));
    q = q >= 0.99 ? 0 : q + 0.01;
  }
}
BENCHMARK(BM_td_value_at)->Arg(1000)->Arg(1000000);

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
