// The hot paths' wall clock against the kernel's: the same milliseconds,
// never running backwards, on several threads at once (from before the
// counter's scale is known to well after).
#include <gtest/gtest.h>

#include <ctime>
#include <thread>
#include <vector>

#include "zxlb_wall_clock.h"

namespace {

long long kernelMs() {
  timespec ts;
  clock_gettime(CLOCK_REALTIME, &ts);
  return static_cast<long long>(ts.tv_sec) * 1000 + ts.tv_nsec / 1'000'000;
}

// Samples for `ms` of the kernel's clock; the number of readings outside
// [kernel before, kernel after] by more than a millisecond, and of steps back.
struct Sampled {
  long long outside = 0, backwards = 0, readings = 0;
};

Sampled sample(long long ms) {
  Sampled s;
  const long long until = kernelMs() + ms;
  long long last = 0;
  for (long long before = kernelMs(); before < until; before = kernelMs()) {
    const long long clock = zx::wallClockMs();
    const long long after = kernelMs();
    ++s.readings;
    if (clock < before - 1 || clock > after + 1) ++s.outside;
    if (clock < last) ++s.backwards;
    last = clock;
  }
  return s;
}

TEST(WallClock, AgreesWithTheKernelAndNeverStepsBackOnAnyThread) {
  constexpr int kThreads = 3;
  // Six anchor intervals: the scale is measured, then used and renewed.
  const long long span = 6 * ZX_WALL_CLOCK_ANCHOR_MS;
  std::vector<Sampled> results(kThreads);
  std::vector<std::thread> threads;
  for (int t = 0; t < kThreads; ++t) threads.emplace_back([&, t] { results[t] = sample(span); });
  for (auto &th : threads) th.join();
  for (const Sampled &s : results) {
    EXPECT_GT(s.readings, 0);
    EXPECT_EQ(s.outside, 0);
    EXPECT_EQ(s.backwards, 0);
  }
  // Where the counter is in use, a thread that starts now reads it at once.
  const Sampled late = sample(2 * ZX_WALL_CLOCK_ANCHOR_MS);
  EXPECT_EQ(late.outside, 0);
  EXPECT_EQ(late.backwards, 0);
  std::printf("readings from the counter: %s\n", zx::wallClockFromCounter() ? "yes" : "no");
}

}  // namespace
