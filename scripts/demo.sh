#!/usr/bin/env bash
# Installs what is missing, builds, and runs the demo host against the bundled
# reference collector.
set -euo pipefail
cd "$(dirname "$0")/.."
scripts/install-deps.sh
cmake -S . -B build -G Ninja -DCMAKE_BUILD_TYPE=RelWithDebInfo >/dev/null
cmake --build build --target demo_host zx_collector zxagent
exec build/tools/demo_host "$@"
