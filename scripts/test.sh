#!/usr/bin/env bash
# Builds and runs every test: the normal build (warnings as errors), the suite
# under AddressSanitizer + UndefinedBehaviorSanitizer, the suite under
# ThreadSanitizer, and each fuzzer for a bounded time.
#   FUZZ_SECONDS (default 20) bounds each fuzzer run.
set -euo pipefail
cd "$(dirname "$0")/.."
scripts/install-deps.sh
jobs=$(nproc)
fuzz_seconds=${FUZZ_SECONDS:-20}

step() { echo; echo "=== $*"; }

# Reuses objects across the four builds and runs when ccache is there.
launcher=()
if command -v ccache >/dev/null; then
  launcher=(-DCMAKE_C_COMPILER_LAUNCHER=ccache -DCMAKE_CXX_COMPILER_LAUNCHER=ccache)
fi

step "normal build"
# Configured for /usr: the Debian packages are made from this tree.
cmake -S . -B build/ci-normal -G Ninja -DZX_WERROR=ON -DCMAKE_BUILD_TYPE=RelWithDebInfo \
  -DCMAKE_INSTALL_PREFIX=/usr "${launcher[@]}" >/dev/null
cmake --build build/ci-normal -j "$jobs"
(cd build/ci-normal && ctest -j "$jobs" --output-on-failure)

step "Debian packages: build, inspect, install, use, remove"
tests/install/package_test.sh build/ci-normal tools/examples/minimal_host.c

step "AddressSanitizer + UndefinedBehaviorSanitizer"
cmake -S . -B build/ci-asan -G Ninja -DZX_WERROR=ON -DCMAKE_BUILD_TYPE=Debug \
  -DZX_SANITIZE="address;undefined" -DZX_BUILD_BENCH=OFF "${launcher[@]}" >/dev/null
cmake --build build/ci-asan -j "$jobs"
(cd build/ci-asan && ASAN_OPTIONS=detect_leaks=1 UBSAN_OPTIONS=print_stacktrace=1 \
  ctest -j "$jobs" --output-on-failure)

step "ThreadSanitizer"
cmake -S . -B build/ci-tsan -G Ninja -DZX_WERROR=ON -DCMAKE_BUILD_TYPE=RelWithDebInfo \
  -DZX_SANITIZE=thread -DZX_BUILD_BENCH=OFF "${launcher[@]}" >/dev/null
cmake --build build/ci-tsan -j "$jobs"
(cd build/ci-tsan && TSAN_OPTIONS="halt_on_error=1 second_deadlock_stack=1" \
  ctest -j "$jobs" --output-on-failure)

step "fuzzers (${fuzz_seconds}s each)"
CC=clang CXX=clang++ cmake -S . -B build/ci-fuzz -G Ninja -DZX_WERROR=ON \
  -DCMAKE_BUILD_TYPE=RelWithDebInfo -DZX_BUILD_FUZZ=ON -DZX_BUILD_TESTS=OFF \
  -DZX_BUILD_BENCH=OFF "${launcher[@]}" >/dev/null
cmake --build build/ci-fuzz -j "$jobs"
passed=0
for fuzzer in build/ci-fuzz/fuzz/*_fuzz; do
  [ -x "$fuzzer" ] || continue
  corpus="build/ci-fuzz/corpus/$(basename "$fuzzer")"
  mkdir -p "$corpus"
  echo "-- $(basename "$fuzzer")"
  "$fuzzer" -max_total_time="$fuzz_seconds" -print_final_stats=0 "$corpus" 2>&1 | tail -n 2
  passed=$((passed + 1))
done
echo "fuzz: ${passed} passed, 0 failed"
