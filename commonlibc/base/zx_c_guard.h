// The one guard around the body of every exported C function: nothing thrown
// inside the core (std::bad_alloc from a map insert or a string copy, most
// likely) may unwind into a host that cannot catch it. The guard turns it
// into the function's neutral result, counts it and writes a rate-limited
// line to the SDK log. The path that does not throw costs nothing.
//
//   ZX_EXPORT int zx_bt_end(zxBTHandle h, int status) {
//     if (!h) return ...;                   // neutral paths: loads and a count
//     return zx_c_guard(-1, [h, status] { ...; return 0; });
//   }
//
// The guard is kept out of line and takes its body by value: a body that
// captures a few arguments by value travels in registers, so the checks in
// front of it need no stack frame and the guard is reached by a tail call.
// The caller's name comes from the builtin that std::source_location wraps,
// which the fuzzers' clang has while its std::source_location does not.
//
// A body must leave no lock held and no state half-built when it throws:
// RAII for locks, and updates that publish only once complete.
#pragma once

#include <type_traits>

// Called from the guard's handler: counts the exception in flight and logs
// it (rate-limited); never throws, never allocates.
void zx_c_guard_caught(const char *function) noexcept;

template <typename Body>
[[gnu::noinline]] std::invoke_result_t<Body &> zx_c_guard(
    std::invoke_result_t<Body &> neutral, Body body,
    const char *function = __builtin_FUNCTION()) noexcept {
  try {
    return body();
  } catch (...) {
    zx_c_guard_caught(function);
  }
  return neutral;
}

// For a function without a result.
template <typename Body>
[[gnu::noinline]] void zx_c_guard(Body body, const char *function = __builtin_FUNCTION()) noexcept {
  try {
    body();
  } catch (...) {
    zx_c_guard_caught(function);
  }
}
