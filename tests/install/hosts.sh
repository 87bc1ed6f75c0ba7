# shellcheck shell=bash disable=SC2154  # $work and fail() come from the caller
# Sourced by install_test.sh and package_test.sh: builds the minimal host
# against an installed tree through pkg-config and through find_package, runs
# both and shows that the dynamic linker took the library from that tree.
# Needs: $work (scratch directory), fail().

# Runs a built host with the given environment.
run_host() {  # name binary libdir [env...]
  local name=$1 bin=$2 libdir=$3
  shift 3
  local soname resolved
  soname=$(readelf -d "$libdir/libzxagent.so" | sed -n 's/.*(SONAME).*\[\(.*\)\]/\1/p')
  resolved=$(env "$@" ldd "$bin" | awk -v so="$soname" '$1 == so {print $3}')
  [ "$(readlink -f "$resolved")" = "$(readlink -f "$libdir/$soname")" ] ||
    fail "$name: $soname resolved to '$resolved', not $libdir"
  mkdir -p "$work/home-$name"
  env "$@" ZXHOME="$work/home-$name" "$bin" >"$work/$name.out" 2>&1 ||
    { cat "$work/$name.out"; fail "$name failed"; }
  grep -q "agent core configured" "$work/$name.out" || fail "$name: unexpected output"
  echo "$name host: ok ($resolved)"
}

# LD_LIBRARY_PATH / CMAKE_PREFIX_PATH are set only for a tree outside the
# system's paths.
check_hosts() {  # prefix libdir host_source cmake cc
  local prefix=$1 libdir=$2 host_source=$3 cmake=$4 cc=$5 flags
  local here
  here=$(cd "$(dirname "${BASH_SOURCE[0]}")" && pwd)
  local -a run_env=() cmake_args=()
  if [ "$prefix" != /usr ]; then
    run_env=(LD_LIBRARY_PATH="$libdir")
    cmake_args=(-DCMAKE_PREFIX_PATH="$prefix")
  fi
  flags=$(PKG_CONFIG_PATH="$libdir/pkgconfig" pkg-config --cflags --libs zxagent) ||
    fail "pkg-config does not know zxagent"
  # Word splitting of the flags is what a makefile does too.
  # shellcheck disable=SC2086
  "$cc" -std=c11 -Wall -Werror "$host_source" $flags -o "$work/host-pkgconfig"
  run_host pkgconfig "$work/host-pkgconfig" "$libdir" "${run_env[@]}"

  if ! { "$cmake" -S "$here" -B "$work/consumer" "${cmake_args[@]}" -DCMAKE_C_COMPILER="$cc" \
    -DZX_HOST_SOURCE="$host_source" && "$cmake" --build "$work/consumer"; } >"$work/consumer.log" 2>&1
  then
    cat "$work/consumer.log"
    fail "find_package build failed"
  fi
  # The imported target puts a non-system library directory in the run path.
  run_host cmake "$work/consumer/minimal_host" "$libdir"
}
