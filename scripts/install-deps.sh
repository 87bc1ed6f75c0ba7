#!/usr/bin/env bash
# Installs what the build and the tests need on Debian 12, only if missing.
set -euo pipefail
pkgs=(build-essential cmake ninja-build pkg-config libapr1-dev libwebsockets-dev libssl-dev
      libgtest-dev libgmock-dev libbenchmark-dev clang libclang-rt-14-dev binutils
      dpkg-dev python3 python3-pytest python3-pip python3-setuptools python3-venv openssl)
missing=()
for p in "${pkgs[@]}"; do
  dpkg-query -W -f='${Status}' "$p" 2>/dev/null | grep -q "install ok installed" || missing+=("$p")
done
if [ ${#missing[@]} -gt 0 ]; then
  echo "Installing: ${missing[*]}"
  SUDO=""; [ "$(id -u)" -ne 0 ] && SUDO=sudo
  $SUDO apt-get update -qq
  DEBIAN_FRONTEND=noninteractive $SUDO apt-get install -y -qq "${missing[@]}"
fi
