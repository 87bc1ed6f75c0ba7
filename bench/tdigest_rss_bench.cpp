// Resident memory of 256 live digests (one per BT slot) holding a report
// period's data: the blocks are sized for 60,010 nodes (~960 KB each, ~245 MB
// for 256), but only pages that nodes were written to should count.
// Run one argument per process (--benchmark_filter=/240/) so that memory kept
// by an earlier run stays out.

#include <unistd.h>

#include <cstdio>
#include <random>
#include <vector>

#include <benchmark/benchmark.h>

#include "tdigest/tdigest.h"

namespace {

long rss_kb() {
  long size = 0, resident = 0;
  std::FILE *f = std::fopen("/proc/self/statm", "r");
  if (f == nullptr) return -1;
  if (std::fscanf(f, "%ld %ld", &size, &resident) != 2) resident = -1;
  std::fclose(f);
  return resident * (sysconf(_SC_PAGESIZE) / 1024);
}

// Points per digest: a quiet BT (one point per thread per interval), a busy
// one, and one that filled its buffer between merges.
void BM_td_rss_256_digests(benchmark::State &state) {
  const auto points = static_cast<int>(state.range(0));
  std::mt19937_64 rng(3);
  std::lognormal_distribution<double> response_ms(5, 1);
  for (auto _ : state) {
    // A report destroys every digest and the next period makes new ones, so
    // blocks are reused: the second generation is the steady state.
    auto one_period = [&] {
      std::vector<td_histogram_ptr> digests;
      for (int d = 0; d < 256; ++d) {
        digests.emplace_back(td_new(0.01, 100));
        for (int i = 0; i < points; ++i) td_add(digests.back().get(), response_ms(rng), 1);
        td_centroid_count(digests.back().get());  // merged, as when a report reads it
      }
      return digests;
    };
    const long before = rss_kb();
    one_period();
    const std::vector<td_histogram_ptr> live = one_period();
    const long grown = rss_kb() - before;
    state.counters["rss_kb"] = static_cast<double>(grown);
    state.counters["kb_per_digest"] = static_cast<double>(grown) / 256;
    state.counters["centroids"] = live.front()->merged_nodes;
  }
}
BENCHMARK(BM_td_rss_256_digests)
    ->Arg(240)
    ->Arg(10000)
    ->Arg(100000)
    ->Iterations(1)
    ->Unit(benchmark::kMillisecond);

}  // namespace
