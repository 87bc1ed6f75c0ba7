#!/usr/bin/env bash
# The shared library may need only the C runtime, APR and libwebsockets, and
# may export only the C ABI of its public headers.
set -euo pipefail
lib="$1"
status=0
while read -r needed; do
  case "$needed" in
    libc.so.*|libm.so.*|ld-linux*|libapr-1.so.*|libwebsockets.so.*) ;;
    *) echo "unexpected NEEDED entry: $needed"; status=1 ;;
  esac
done < <(readelf -d "$lib" | sed -n 's/.*(NEEDED).*\[\(.*\)\]/\1/p')
allowed='^(agent_init|startedWithExc|ZXProxy|ZXProxyInstance|tlzxApplication|gPool|gProcessName|getTierCallOut|setTierCallOut|cleanThreadIdToThreadLocal|zx_[a-z_]+)$'
while read -r sym; do
  [[ "$sym" =~ $allowed ]] || { echo "unexpected export: $sym"; status=1; }
done < <(nm -D --defined-only "$lib" | awk '{print $3}')
for sym in agent_init startedWithExc ZXProxy ZXProxyInstance tlzxApplication gPool gProcessName \
  getTierCallOut setTierCallOut cleanThreadIdToThreadLocal; do
  nm -D --defined-only "$lib" | awk '{print $3}' | grep -qx "$sym" || { echo "missing export: $sym"; status=1; }
done
[ $status -eq 0 ] && echo "shared library ABI ok"
exit $status
