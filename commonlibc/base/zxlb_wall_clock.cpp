#include "zxlb_wall_clock.h"

#include <atomic>
#include <cstdio>
#include <cstring>
#include <ctime>

#if defined(__x86_64__)
#include <cpuid.h>
#include <x86intrin.h>
#define ZX_HAVE_TSC 1
#else
#define ZX_HAVE_TSC 0
#endif

namespace {

constexpr long long kAnchorNs = ZX_WALL_CLOCK_ANCHOR_MS * 1'000'000;

unsigned long long ticks() noexcept {
#if ZX_HAVE_TSC
  return __rdtsc();
#else
  return 0;
#endif
}

long long kernelNs() noexcept {
  timespec ts;
  clock_gettime(CLOCK_REALTIME, &ts);
  return static_cast<long long>(ts.tv_sec) * 1'000'000'000 + ts.tv_nsec;
}

// The kernel's clock and the counter read together. A thread preempted
// between the two would tie them minutes apart: such a pair is taken again,
// and after a few tries not at all (tsc 0).
struct Pair {
  unsigned long long tsc = 0;
  long long ns = 0;
};
constexpr unsigned long long kTightTicks = 20'000;  // a few microseconds at any clock rate

Pair readPair() noexcept {
  Pair p;
  for (int attempt = 0; attempt < 3; ++attempt) {
    const unsigned long long before = ticks();
    p.ns = kernelNs();
    const unsigned long long after = ticks();
    if (after - before < kTightTicks) {
      p.tsc = before + (after - before) / 2;
      return p;
    }
  }
  p.tsc = 0;
  return p;
}

// An invariant counter alone is not enough: a hypervisor may still scale or
// step it. The kernel keeping time by it says it has been found good.
bool counterUsable() noexcept {
#if !ZX_HAVE_TSC
  return false;
#else
  unsigned a, b, c, d;
  if (!__get_cpuid(0x80000007, &a, &b, &c, &d) || !(d & (1u << 8))) return false;
  FILE *f = std::fopen("/sys/devices/system/clocksource/clocksource0/current_clocksource", "re");
  if (!f) return false;
  char source[32] = {};
  const bool tsc = std::fgets(source, sizeof source, f) && std::strncmp(source, "tsc\n", 4) == 0;
  std::fclose(f);
  return tsc;
#endif
}

bool useCounter() noexcept {
  static const bool usable = counterUsable();
  return usable;
}

// Nanoseconds per tick, once measured; 0 before.
std::atomic<double> nsPerTick{0};
// The measurement's start, taken by the first reader (0: not yet).
std::atomic<unsigned long long> calibrationTsc{0};
std::atomic<long long> calibrationNs{0};

// Reads the kernel's clock, and measures the scale once enough time has passed.
long long calibrate() noexcept {
  const Pair now = readPair();
  if (!now.tsc) return now.ns;
  unsigned long long start = calibrationTsc.load(std::memory_order_acquire);
  if (start == 0) {
    if (calibrationTsc.compare_exchange_strong(start, now.tsc, std::memory_order_acq_rel))
      calibrationNs.store(now.ns, std::memory_order_release);
    return now.ns;
  }
  const long long startNs = calibrationNs.load(std::memory_order_acquire);
  if (startNs == 0) return now.ns;  // the start's reader has yet to publish its time
  const long long elapsed = now.ns - startNs;
  if (elapsed >= kAnchorNs && now.tsc > start) {
    const double scale = static_cast<double>(elapsed) / static_cast<double>(now.tsc - start);
    // A clock step during the measurement gives a scale no CPU has: start over.
    if (scale > 0.01 && scale < 100) {
      nsPerTick.store(scale, std::memory_order_relaxed);
    } else {
      calibrationNs.store(0, std::memory_order_relaxed);
      calibrationTsc.store(0, std::memory_order_release);
    }
  }
  return now.ns;
}

// The scale in fixed point, nanoseconds per tick << kScaleShift: integer
// arithmetic on the read path. Ticks within one anchor interval times it
// stay below kAnchorNs << kScaleShift, well within 64 bits.
constexpr int kScaleShift = 32;

struct Anchor {
  unsigned long long tsc = 0;
  unsigned long long span = 0;  // ticks the anchor is good for; 0: none
  long long ns = 0;
  long long last = 0;  // the latest reading given out
  unsigned long long mult = 0;
};
thread_local Anchor anchor;

// Within a small error of the kernel's clock a new anchor may fall just
// behind the last reading; durations must not come out negative for it. A
// real step back is followed.
constexpr long long kHoldBackNs = 1'000'000;

long long reanchor(Anchor &a, double scale) noexcept {
  const Pair now = readPair();
  long long ns = now.ns;
  if (ns < a.last && a.last - ns < kHoldBackNs) ns = a.last;
  // Without a tight pair the next reading tries again.
  a.tsc = now.tsc;
  a.span = now.tsc ? static_cast<unsigned long long>(static_cast<double>(kAnchorNs) / scale) : 0;
  a.ns = ns;
  a.mult = static_cast<unsigned long long>(scale * static_cast<double>(1ULL << kScaleShift));
  return ns;
}

[[gnu::noinline]] long long wallClockMsSlow(Anchor &a) noexcept {
  if (!useCounter()) return kernelNs() / 1'000'000;
  const double scale = nsPerTick.load(std::memory_order_relaxed);
  const long long ns = scale > 0 ? reanchor(a, scale) : calibrate();
  a.last = ns;
  return ns / 1'000'000;
}

}  // namespace

namespace zx {

long long wallClockMs() noexcept {
  Anchor &a = anchor;
  // A span is only ever set where the counter is in use.
  const unsigned long long since = ticks() - a.tsc;
  if (since >= a.span) return wallClockMsSlow(a);
  const long long ns = a.ns + static_cast<long long>((since * a.mult) >> kScaleShift);
  a.last = ns;
  return ns / 1'000'000;
}

bool wallClockFromCounter() noexcept {
  return useCounter() && nsPerTick.load(std::memory_order_relaxed) > 0;
}

}  // namespace zx
