#!/usr/bin/env bash
# Installs a build tree into a temporary prefix and builds the minimal host
# against it as a user would (pkg-config, find_package).
#   install_test.sh BUILD_DIR HOST_SOURCE CMAKE C_COMPILER
set -euo pipefail
build=$1 host_source=$2 cmake=$3 cc=$4
work=$(mktemp -d /tmp/zx-install-XXXXXX)
trap 'rm -rf "$work"' EXIT
fail() { echo "install_test: $*" >&2; exit 1; }
# shellcheck source=hosts.sh
. "$(dirname "$0")/hosts.sh"

prefix=$work/prefix
"$cmake" --install "$build" --prefix "$prefix" >"$work/install.log" ||
  { cat "$work/install.log"; fail "install failed"; }
libdir=$(dirname "$(find "$prefix" -name 'libzxagent.so.*.*' -print -quit)")
soname=$(readelf -d "$libdir"/libzxagent.so | sed -n 's/.*(SONAME).*\[\(.*\)\]/\1/p')
[ -n "$soname" ] && [ -L "$libdir/$soname" ] && [ -L "$libdir/libzxagent.so" ] ||
  fail "SONAME links missing ($soname)"
for f in include/zx_agent.h include/zx_sdk.h include/zx_tier_callout.h bin/zx_collector \
  bin/zx_proxy_server lib/systemd/system/zx-proxy-server.service; do
  [ -e "$prefix/$f" ] || fail "not installed: $f"
done
if grep -qE 'RPATH|RUNPATH' <<<"$(readelf -d "$libdir/$soname")"; then
  fail "installed library keeps a run path"
fi
check_hosts "$prefix" "$libdir" "$host_source" "$cmake" "$cc"
