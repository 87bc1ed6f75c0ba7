#!/usr/bin/env bash
# Builds the Debian packages from a build tree configured for /usr, checks
# their contents and dependencies, installs them on this machine, builds and
# runs the minimal host against the installed library, and removes them
# again, also when a step fails. Needs root.
#   package_test.sh BUILD_DIR HOST_SOURCE
# The Python package, installed with pip beside it, must find the installed
# library by its SONAME.
set -euo pipefail
fail() { echo "package_test: $*" >&2; exit 1; }
[ -d "$1" ] && [ -f "$2" ] || fail "usage: package_test.sh BUILD_DIR HOST_SOURCE"
build=$(cd "$1" && pwd) host_source=$(realpath "$2")
packages=(zxagent zxagent-dev)
[ "$(id -u)" -eq 0 ] || fail "needs root (installs packages)"
for p in "${packages[@]}"; do
  if dpkg-query -W -f='${Status}' "$p" 2>/dev/null | grep -q installed; then
    fail "$p is installed already; remove it first, this test leaves the machine as it found it"
  fi
done
work=$(mktemp -d /tmp/zx-package-XXXXXX)
installed=0
cleanup() {
  if [ "$installed" -eq 1 ]; then
    dpkg --purge "${packages[@]}" >"$work/purge.log" 2>&1 || { cat "$work/purge.log"; status=1; }
  fi
  rm -rf "$work"
}
status=0
trap 'rc=$?; cleanup; exit $((status ? status : rc))' EXIT
# shellcheck source=hosts.sh
. "$(dirname "$0")/hosts.sh"

(cd "$build" && cpack -G DEB -B "$work/deb" >"$work/cpack.log" 2>&1) ||
  { cat "$work/cpack.log"; fail "cpack failed"; }
runtime=$(ls "$work"/deb/zxagent_*.deb) dev=$(ls "$work"/deb/zxagent-dev_*.deb)

# Contents: the library with its SONAME link in the runtime package, the
# unversioned link with the headers, and the unit left for the admin to enable.
contents() { dpkg-deb -c "$1" | awk '{print $6}' | sed 's|^\./|/|'; }
expect_in() {  # deb pattern...
  local deb=$1 listing
  shift
  listing=$(contents "$deb")
  for pattern in "$@"; do
    grep -qE "^$pattern\$" <<<"$listing" || fail "$(basename "$deb") lacks $pattern"
  done
}
expect_in "$runtime" '/usr/lib/x86_64-linux-gnu/libzxagent\.so\.[0-9]+' \
  '/usr/lib/x86_64-linux-gnu/libzxagent\.so\.[0-9.]+' /usr/bin/zx_proxy_server /usr/bin/zx_collector \
  /usr/lib/systemd/system/zx-proxy-server.service
expect_in "$dev" /usr/include/zx_sdk.h /usr/include/zx_agent.h /usr/include/zx_tier_callout.h \
  /usr/lib/x86_64-linux-gnu/libzxagent.so /usr/lib/x86_64-linux-gnu/pkgconfig/zxagent.pc \
  /usr/lib/x86_64-linux-gnu/cmake/zxagent/zxagentConfig.cmake
if grep -q '/include/' <<<"$(contents "$runtime")"; then fail "headers in the runtime package"; fi
dpkg-deb -e "$runtime" "$work/control"
if grep -qs -e systemctl -e deb-systemd "$work/control/postinst"; then
  fail "the runtime package enables or starts the proxy unit"
fi
grep -q 'ExecStart=/usr/bin/zx_proxy_server' "$build/packaging/zx-proxy-server.service" ||
  fail "unit does not start /usr/bin/zx_proxy_server"

# Every library the shipped library needs must come from a declared dependency.
depends=$(dpkg-deb -f "$runtime" Depends)
dpkg-deb -x "$runtime" "$work/root"
lib=$(ls "$work"/root/usr/lib/x86_64-linux-gnu/libzxagent.so.*.*)
while read -r needed; do
  # Readers take all their input: an early exit would end the writer with
  # SIGPIPE, which pipefail turns into a failure.
  path=$(ldconfig -p | awk -v n="$needed" '$1 == n && !seen {print $NF; seen = 1}')
  [ -n "$path" ] || fail "$needed not found on this machine"
  owner=$(dpkg -S "$(readlink -f "$path")" 2>/dev/null | awk -F: 'NR == 1 {print $1}') ||
    owner=$(dpkg -S "$path" | awk -F: 'NR == 1 {print $1}')
  grep -qE "(^|, )$owner( |,|$)" <<<"$depends" || fail "$needed ($owner) missing from Depends: $depends"
done < <(readelf -d "$lib" | sed -n 's/.*(NEEDED).*\[\(.*\)\]/\1/p')
grep -q 'zxagent (= ' <<<"$(dpkg-deb -f "$dev" Depends)" || fail "zxagent-dev does not depend on zxagent"
echo "packages: contents and dependencies ok ($depends)"

# dpkg never fetches anything: a dependency this machine lacks fails here.
installed=1
dpkg -i "$runtime" "$dev" >"$work/install.log" 2>&1 || { cat "$work/install.log"; fail "dpkg -i failed"; }
if compgen -G '/etc/systemd/system/*.wants/zx-proxy-server.service' >/dev/null; then
  fail "the proxy unit was enabled by the installation"
fi
check_hosts /usr /usr/lib/x86_64-linux-gnu "$host_source" cmake cc

cp -r "$(dirname "$0")/../../python" "$work/python-src"
python3=/usr/bin/python3
"$python3" -m pip install -q --no-build-isolation --no-deps --target "$work/python" \
  "$work/python-src" >"$work/pip.log" 2>&1 || { cat "$work/pip.log"; fail "pip install failed"; }
soname=$(readelf -d /usr/lib/x86_64-linux-gnu/libzxagent.so | sed -n 's/.*(SONAME).*\[\(.*\)\]/\1/p')
SONAME=$soname PYTHONPATH="$work/python" ZXHOME="$work/home-python" "$python3" -c '
import os, zxagent
assert zxagent.library_path() == os.environ["SONAME"], zxagent.library_path()
with zxagent.transaction("/no/run/going") as bt:
    assert not bt.traced
assert zxagent.failures() == {}, zxagent.failures()
' || fail "the pip-installed binding does not load the installed library"
echo "python binding: loads the installed library"
