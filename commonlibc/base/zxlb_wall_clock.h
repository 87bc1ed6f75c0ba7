// The wall clock in milliseconds, as the hot paths read it: twice per method
// event, so its cost is a large share of what tracing costs the host.
//
// Where the CPU's time-stamp counter is invariant and the kernel itself keeps
// time by it, the clock is the counter scaled from an anchor: each thread
// takes a fresh anchor (the kernel's wall clock and the counter side by side)
// every ZX_WALL_CLOCK_ANCHOR_MS, and the scale is measured once per process
// over the first ZX_WALL_CLOCK_ANCHOR_MS. A reading is therefore the kernel's
// wall clock to well within a millisecond (the scale's error over one anchor
// interval), a clock step shows within one interval, and an interval never
// runs backwards. Elsewhere, and until the scale is known, it is the kernel's
// clock itself.
#pragma once

inline constexpr long long ZX_WALL_CLOCK_ANCHOR_MS = 10;

namespace zx {

// Milliseconds since the epoch. Any thread; never blocks.
long long wallClockMs() noexcept;
// Whether readings come from the counter (tests, benchmarks).
bool wallClockFromCounter() noexcept;

}  // namespace zx
