#!/usr/bin/env bash
# Installs every Debian package the build, the tests, the fuzzers and the benchmarks need.
# Quick when nothing is missing; needs root only when something is.
set -euo pipefail

packages=(
  build-essential cmake ninja-build pkg-config
  clang libclang-rt-14-dev llvm
  libgtest-dev libgmock-dev googletest libbenchmark-dev
  libicu-dev libssl-dev openssl libplist-dev libdbus-1-dev
  dbus python3 python3-dbusmock
  hyperfine lintian groff-base man-db
  libglib2.0-dev libinih-dev gettext liblockfile-dev
)

missing=()
for p in "${packages[@]}"; do
  if ! dpkg-query -W -f='${Status}' "$p" 2>/dev/null | grep -q 'install ok installed'; then
    missing+=("$p")
  fi
done

if [ ${#missing[@]} -eq 0 ]; then
  exit 0
fi

if [ "$(id -u)" -ne 0 ]; then
  echo "deps.sh: missing packages: ${missing[*]}" >&2
  echo "deps.sh: run as root (or: sudo apt-get install -y ${missing[*]})" >&2
  exit 1
fi

echo "deps.sh: installing ${missing[*]}"
export DEBIAN_FRONTEND=noninteractive
apt-get update -qq
apt-get install -y -qq --no-install-recommends "${missing[@]}"
