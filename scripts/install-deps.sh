#!/usr/bin/env bash
# Installs everything the build, the tests and the benchmarks need on a fresh
# Debian machine. Safe to run again: apt-get skips what is already there.
set -euo pipefail

PACKAGES=(
  build-essential cmake pkg-config
  g++-multilib            # the 32-bit x86 compile check
  rapidjson-dev           # topology and object JSON
  libprotobuf-dev protobuf-compiler   # Smbus proxy messages
  libgtest-dev libgmock-dev           # unit and integration tests
  libbenchmark-dev                    # bench/
  libcli11-dev            # command lines of the proxy daemon and the host
  binutils                # nm, for the exported-symbol check
  coreutils               # timeout(1), used by runCmd
  valgrind                # callgrind: instruction counts in docs/performance.md
)

SUDO=""
if [ "$(id -u)" -ne 0 ]; then SUDO="sudo"; fi

missing=()
for p in "${PACKAGES[@]}"; do
  dpkg-query -W -f='${Status}' "$p" 2>/dev/null | grep -q "install ok installed" || missing+=("$p")
done

if [ "${#missing[@]}" -eq 0 ]; then
  echo "install-deps: all packages present"
  exit 0
fi

echo "install-deps: installing ${missing[*]}"
$SUDO apt-get update -qq
DEBIAN_FRONTEND=noninteractive $SUDO apt-get install -y -qq --no-install-recommends "${missing[@]}"
