#!/usr/bin/env bash
# The shared library may need only the C runtime, APR, libwebsockets and the
# OpenSSL that libwebsockets itself uses, and may export only the C ABI of its
# public headers.
set -euo pipefail
lib="$1"
status=0
while read -r needed; do
  case "$needed" in
    libc.so.*|libm.so.*|ld-linux*|libapr-1.so.*|libwebsockets.so.*|libssl.so.3|libcrypto.so.3) ;;
    *) echo "unexpected NEEDED entry: $needed"; status=1 ;;
  esac
done < <(readelf -d "$lib" | sed -n 's/.*(NEEDED).*\[\(.*\)\]/\1/p')
allowed='^(agent_init|startedWithExc|ZXProxy|ZXProxyInstance|tlzxApplication|gPool|gProcessName|getTierCallOut|setTierCallOut|cleanThreadIdToThreadLocal|(bt|ip)_(handle_to_int|int_to_handle)|register_callback_for_agent|register_AD_callback|zx_[a-z_]+)$'
while read -r sym; do
  [[ "$sym" =~ $allowed ]] || { echo "unexpected export: $sym"; status=1; }
done < <(nm -D --defined-only "$lib" | awk '{print $3}')
for sym in agent_init startedWithExc ZXProxy ZXProxyInstance tlzxApplication gPool gProcessName \
  getTierCallOut setTierCallOut cleanThreadIdToThreadLocal zx_init zx_free zx_set_init_pause_ms \
  zx_bt_begin zx_bt_end zx_bt_release zx_bt_store zx_bt_get zx_bt_add_error zx_method_entry \
  zx_method_exit zx_ip_db_callout_begin zx_ip_db_callout_end zx_ip_http_callout_begin \
  zx_ip_http_callout_end zx_data_counters bt_handle_to_int bt_int_to_handle ip_handle_to_int \
  ip_int_to_handle register_callback_for_agent register_AD_callback; do
  nm -D --defined-only "$lib" | awk '{print $3}' | grep -qx "$sym" || { echo "missing export: $sym"; status=1; }
done
[ $status -eq 0 ] && echo "shared library ABI ok"
exit $status
