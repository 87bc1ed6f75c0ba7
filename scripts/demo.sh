#!/usr/bin/env bash
# Installs what is missing, builds, and runs the demo: the reference collector
# in the background, a C host serving a web shop's requests through the SDK
# against it, then the collector's summary of what it received.
#   demo.sh [seconds [threads]]    how long and on how many threads the host serves
#   demo.sh --proxy [processes [at-once]]
#                                  the same shop as many short-lived host
#                                  processes (default 24, 4 at a time) sending
#                                  their events through zx_proxy_server
set -euo pipefail
cd "$(dirname "$0")/.."
proxy=0
if [ "${1:-}" = "--proxy" ]; then
  proxy=1
  shift
fi
scripts/install-deps.sh
# Release: no debug info to write, the quickest build of the targets.
cmake -S . -B build -G Ninja -DCMAKE_BUILD_TYPE=Release >/dev/null
targets=(demo_host zx_collector zxagent)
[ "$proxy" -eq 1 ] && targets+=(zx_proxy_server)
cmake --build build -j "$(nproc)" --target "${targets[@]}"

work=$(mktemp -d /tmp/zx-demo-XXXXXX)
collector_pid=""
proxy_pid=""
stop_child() {  # pid signal
  if [ -n "$1" ] && kill -0 "$1" 2>/dev/null; then
    kill "-$2" "$1" 2>/dev/null || true
    wait "$1" 2>/dev/null || true
  fi
}
cleanup() {
  # Host processes still running after an interrupt are this shell's jobs.
  for pid in $(jobs -p); do
    [ "$pid" = "$proxy_pid" ] || [ "$pid" = "$collector_pid" ] || kill -TERM "$pid" 2>/dev/null || true
  done
  stop_child "$proxy_pid" INT
  stop_child "$collector_pid" TERM
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
cat >"$home/config/zxsettings.conf" <<CONF
# written by scripts/demo.sh
tier=Shop
server=demo-server
instance=shop-1
CONF

host_status=0
if [ "$proxy" -eq 0 ]; then
  cat >>"$home/config/zxsettings.conf" <<CONF
zxcHost=127.0.0.1
zxcPort=$port
ZXC_COMM_PROTOCOL=TCP:$port
CONF
  echo "== Demo host (agent home $home)"
  ZXHOME="$home" build/tools/demo_host "$@" || host_status=$?
else
  processes=${1:-24}
  at_once=${2:-4}
  # The proxy has a home of its own: its settings name the collector, the
  # hosts' name only the proxy.
  sock="$work/proxy.sock"
  proxy_home="$work/proxy"
  mkdir -p "$proxy_home/config"
  cat >"$proxy_home/config/zxsettings.conf" <<CONF
# written by scripts/demo.sh
zxcHost=127.0.0.1
zxcPort=$port
ZXC_COMM_PROTOCOL=TCP:$port
proxySocketPath=$sock
CONF
  cat >>"$home/config/zxsettings.conf" <<CONF
proxyMode=1
proxySocketPath=$sock
CONF
  ZXHOME="$proxy_home" build/commonlibc/zx_proxy_server >"$work/proxy.out" 2>&1 &
  proxy_pid=$!
  for _ in $(seq 100); do
    [ -S "$sock" ] && break
    kill -0 "$proxy_pid" 2>/dev/null || break
    sleep 0.05
  done
  if [ ! -S "$sock" ]; then
    echo "demo: the proxy did not start" >&2
    cat "$work/proxy.out" "$proxy_home"/logs/* >&2 2>/dev/null || true
    exit 1
  fi
  echo "== Proxy listening on $sock (home $proxy_home)"
  echo "== $processes host processes, $at_once at a time (agent home $home)"
  # Every fourth one serves for two seconds with think times; the others are
  # bursts of 20 to 60 requests that exit at once.
  for i in $(seq "$processes"); do
    while [ "$(jobs -rp | wc -l)" -ge $((at_once + 2)) ]; do wait -n || true; done
    if [ $((i % 4)) -eq 0 ]; then
      args=(2 2)
    else
      args=(--requests $((20 + (i * 7) % 41)) 2)
    fi
    ZXHOME="$home" build/tools/demo_host "${args[@]}" >"$work/host-$i.out" 2>&1 &
  done
  # The proxy and the collector are jobs too and never end here.
  while [ "$(jobs -rp | wc -l)" -gt 2 ]; do wait -n || true; done
  traced=0 records=0 dropped=0 failed=0
  for i in $(seq "$processes"); do
    out="$work/host-$i.out"
    line=$(sed -n 's/^demo_host: [0-9]* requests, \([0-9]*\) traced.*/\1/p' "$out")
    counts=$(sed -n 's/^demo_host: records handed to the data connection \([0-9]*\), dropped \([0-9]*\)$/\1 \2/p' "$out")
    if [ -z "$line" ] || [ -z "$counts" ]; then
      echo "demo: host process $i failed:" >&2
      cat "$out" >&2
      failed=$((failed + 1))
      continue
    fi
    traced=$((traced + line))
    records=$((records + ${counts% *}))
    dropped=$((dropped + ${counts#* }))
  done
  echo "demo: $processes processes traced $traced requests;" \
    "frames handed to the proxy connection $records, dropped $dropped"
  [ "$failed" -eq 0 ] || host_status=1
  # The application's last monitor interval goes out within a second; the
  # clean stop then sends what is queued and closes the link.
  sleep 1.5
  kill -INT "$proxy_pid"
  proxy_status=0
  wait "$proxy_pid" || proxy_status=$?
  proxy_pid=""
  echo "== Proxy stopped (exit status $proxy_status)"
  # Its stop summary: each application's records and the proxy's own losses.
  grep -h 'stopped: ' "$proxy_home"/logs/* 2>/dev/null | sed 's/.*|Info|/proxy: /' || true
  [ "$proxy_status" -eq 0 ] || host_status=1
fi

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
