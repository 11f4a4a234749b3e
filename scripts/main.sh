#!/usr/bin/env bash
# The main job: installs what is missing, builds, starts the reference SMBus
# proxy daemon on the emulated Zant-Y example board and runs the reference
# host on that board. Extra arguments go to the host (e.g. --trace-level 4).
set -euo pipefail
cd "$(dirname "$0")/.."

./scripts/install-deps.sh
cmake -S . -B build -DCMAKE_BUILD_TYPE=RelWithDebInfo >/dev/null
cmake --build build -j"$(nproc)" --target KeldoDriversZanty keldo-host keldo-smbus-proxyd

run=$(mktemp -d)
daemon_pid=""
cleanup() {
  if [ -n "$daemon_pid" ]; then kill "$daemon_pid" 2>/dev/null || true; wait "$daemon_pid" 2>/dev/null || true; fi
  rm -rf "$run"
}
trap cleanup EXIT

export KELDO_SMBUS_SOCKET="$run/smbus-proxy.sock"
build/tools/smbus-proxyd/keldo-smbus-proxyd --emulation boards/zant-y/emulation.json \
  --socket "$KELDO_SMBUS_SOCKET" --log "$run/transactions.log" &
daemon_pid=$!
for _ in $(seq 100); do
  [ -S "$KELDO_SMBUS_SOCKET" ] && break
  sleep 0.1
done

status=0
build/tools/keldo-host/keldo-host --board boards/zant-y/board.json "$@" || status=$?
echo "proxy daemon served $(wc -l < "$run/transactions.log") request entries"
exit "$status"
