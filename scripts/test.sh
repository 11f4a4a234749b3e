#!/usr/bin/env bash
# Installs what is missing, builds, and runs every test:
#   1. the 32-bit x86 check (all sources compiled with -m32, layouts and the
#      protobuf-free parts linked and run as a 32-bit process);
#   2. the whole suite under AddressSanitizer + UndefinedBehaviorSanitizer;
#   3. the whole suite on the normal build (unit and integration tests).
# Build trees: build-m32/, build-asan/, build/.
set -euo pipefail
cd "$(dirname "$0")/.."
start=$(date +%s)

./scripts/install-deps.sh
jobs=$(nproc)

echo "== 32-bit x86 check"
cmake -S . -B build-m32 -DKELDO_M32_CHECK=ON -DCMAKE_BUILD_TYPE=Debug >/dev/null
cmake --build build-m32 -j"$jobs"
build-m32/tests/abi32/abi32_check

echo "== AddressSanitizer + UndefinedBehaviorSanitizer"
cmake -S . -B build-asan -DKELDO_SANITIZE=ON -DKELDO_BUILD_BENCH=OFF -DCMAKE_BUILD_TYPE=Debug >/dev/null
cmake --build build-asan -j"$jobs"
(cd build-asan && ASAN_OPTIONS=detect_leaks=1:abort_on_error=1 UBSAN_OPTIONS=print_stacktrace=1 \
   ctest --output-on-failure -j"$jobs" --timeout 300)

echo "== Normal build"
cmake -S . -B build -DCMAKE_BUILD_TYPE=RelWithDebInfo >/dev/null
cmake --build build -j"$jobs"
echo "(builds and earlier checks took $(( $(date +%s) - start )) s)"
(cd build && ctest --output-on-failure -j"$jobs" --timeout 300)
