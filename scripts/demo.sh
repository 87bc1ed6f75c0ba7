#!/usr/bin/env bash
# Installs what is missing, builds, and runs the demo: the reference collector
# in the background, a C host serving a web shop's requests through the SDK
# against it, then the collector's summary of what it received.
#   demo.sh [seconds [threads]]    how long and on how many threads the host serves
set -euo pipefail
cd "$(dirname "$0")/.."
scripts/install-deps.sh
# Release: no debug info to write, the quickest build of the three targets.
cmake -S . -B build -G Ninja -DCMAKE_BUILD_TYPE=Release >/dev/null
cmake --build build -j "$(nproc)" --target demo_host zx_collector zxagent

work=$(mktemp -d /tmp/zx-demo-XXXXXX)
collector_pid=""
cleanup() {
  if [ -n "$collector_pid" ] && kill -0 "$collector_pid" 2>/dev/null; then
    kill -TERM "$collector_pid" 2>/dev/null || true
    wait "$collector_pid" 2>/dev/null || true
  fi
  rm -rf "$work"
}
trap cleanup EXIT
trap 'exit 130' INT TERM

# The run the collector starts as soon as the agent connects: one-second
# monitor intervals with a t-digest report each, slow above 400 ms and very
# slow above 1200 ms for every BT, and 5xx answers counted as errors.
start="BTTConfig=ALL|400|1200;BTErrorRules=500-599|F;zxMonitorInterval=1"
start+=";tDigestPercentileBT=1%200%202%20100%20100%201%201;testIdx=1;status=running"
build/tools/zx_collector --port 0 --quiet --summary --flowpaths 4 --start "$start" \
  >"$work/collector.out" 2>"$work/collector.err" &
collector_pid=$!

port=""
for _ in $(seq 100); do
  port=$(sed -n 's/^zx_collector listening on port \([0-9]*\)$/\1/p' "$work/collector.out")
  [ -n "$port" ] && break
  kill -0 "$collector_pid" 2>/dev/null || break
  sleep 0.05
done
if [ -z "$port" ]; then
  echo "demo: the collector did not start" >&2
  cat "$work/collector.err" >&2
  exit 1
fi
echo "== Reference collector listening on 127.0.0.1:$port"

home="$work/home"
mkdir -p "$home/config"
cat >"$home/config/zxsettings.conf" <<EOF
# written by scripts/demo.sh
tier=Shop
server=demo-server
instance=shop-1
zxcHost=127.0.0.1
zxcPort=$port
ZXC_COMM_PROTOCOL=TCP:$port
EOF

echo "== Demo host (agent home $home)"
host_status=0
ZXHOME="$home" build/tools/demo_host "$@" || host_status=$?

# The collector prints its summary as it exits.
kill -TERM "$collector_pid"
wait "$collector_pid" || true
collector_pid=""
echo
sed '1d' "$work/collector.out"
if [ -s "$work/collector.err" ]; then
  echo "== Collector errors"
  cat "$work/collector.err"
fi
if [ "$host_status" -ne 0 ]; then
  echo "demo: the host failed (exit status $host_status); its trace log:" >&2
  cat "$home"/logs/* >&2 2>/dev/null || true
fi
exit "$host_status"
