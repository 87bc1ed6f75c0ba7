// tdigest_accuracy: how far the digest's percentiles are from the exact ones.
// Feeds the same samples (weight 1 each) to a digest with the default settings
// and to a sorted array, and for each percentile prints the rank error: where
// the digest's value really ranks among the samples, minus the percentile
// asked for. Also the value itself against the exact order statistic.
//
//   tdigest_accuracy [samples (default 1000000)] [seed (default 1)]

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <functional>
#include <random>
#include <string>
#include <vector>

#include "tdigest/tdigest.h"

namespace {

struct Distribution {
  const char *name;
  std::function<double(std::mt19937_64 &)> draw;
};

std::vector<Distribution> distributions() {
  return {
      {"uniform(0,1000)",
       [](std::mt19937_64 &rng) { return std::uniform_real_distribution<double>(0, 1000)(rng); }},
      {"exponential(mean 100)",
       [](std::mt19937_64 &rng) { return std::exponential_distribution<double>(0.01)(rng); }},
      {"log-normal(5,1)",
       [](std::mt19937_64 &rng) { return std::lognormal_distribution<double>(5, 1)(rng); }},
      // Fast cache hits and slow misses: 80% around 20 ms, 20% around 800 ms.
      {"bimodal(20|800)",
       [](std::mt19937_64 &rng) {
         const bool slow = std::bernoulli_distribution(0.2)(rng);
         return slow ? std::normal_distribution<double>(800, 120)(rng)
                     : std::normal_distribution<double>(20, 4)(rng);
       }},
  };
}

constexpr double kQuantiles[] = {0.5, 0.9, 0.99, 0.999};

}  // namespace

int main(int argc, char **argv) {
  const long samples = argc > 1 ? std::strtol(argv[1], nullptr, 10) : 1000000;
  const unsigned long seed = argc > 2 ? std::strtoul(argv[2], nullptr, 10) : 1;
  if (samples < 2) {
    std::fprintf(stderr, "usage: tdigest_accuracy [samples >= 2] [seed]\n");
    return 2;
  }

  std::printf("%ld samples per distribution, delta 0.01, K 100, seed %lu\n", samples, seed);
  std::printf("rank error = rank of the digest's value among the samples - q\n\n");
  std::printf("%-22s %6s %9s %14s %14s %13s %10s\n", "distribution", "q", "centroids", "digest",
              "exact", "rank error", "value err");
  for (const Distribution &d : distributions()) {
    std::mt19937_64 rng(seed);
    td_histogram_ptr h(td_new(0.01, 100));
    if (!h) {
      std::fprintf(stderr, "tdigest_accuracy: cannot create a digest\n");
      return 1;
    }
    std::vector<double> values(static_cast<std::size_t>(samples));
    for (double &v : values) {
      v = d.draw(rng);
      td_add(h.get(), v, 1);
    }
    std::sort(values.begin(), values.end());
    const int centroids = td_centroid_count(h.get());
    const auto n = static_cast<double>(values.size());
    for (double q : kQuantiles) {
      const double estimate = td_value_at(h.get(), q);
      // Samples at or below the estimate, and below it: a tie counts half.
      const auto upper = std::upper_bound(values.begin(), values.end(), estimate);
      const auto lower = std::lower_bound(values.begin(), values.end(), estimate);
      const double rank =
          (static_cast<double>(lower - values.begin()) + static_cast<double>(upper - lower) / 2) /
          n;
      const double exact = values[static_cast<std::size_t>(q * (n - 1))];
      std::printf("%-22s %6.3f %9d %14.4f %14.4f %+12.6f%% %+9.4f%%\n", d.name, q, centroids,
                  estimate, exact, 100 * (rank - q), 100 * (estimate - exact) / exact);
    }
  }
  return 0;
}
