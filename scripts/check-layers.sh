#!/usr/bin/env bash
# The layers of docs/architecture.md, checked on the include graph of src/:
# a file includes headers of its own layer and of the layers below only.
set -euo pipefail
cd "$(dirname "$0")/../src"

# The layer of a path below src/; the lower the number, the lower the layer.
layer() {
  case "$1" in
    keldo/* | KeldoUtil/* | PlatformLibrary/* | Keldo.h | Zanty.h) echo 0 ;;  # host interface, utilities, declarations
    Components/PollingDevice.h) echo 0 ;;  # needs only the host's timers: devices and access methods poll with it
    AhamAddress.*) echo 1 ;;
    Drivers/Drivers.*) echo 2 ;;  # DriverArgs
    Topology.*) echo 3 ;;
    Ham/*) echo 4 ;;
    Components/*) echo 5 ;;
    Drivers/*) echo 6 ;;
    *) echo 7 ;;  # Keldo.cpp, Zanty.cpp, ZantySystem: frame, registries, system object
  esac
}

# The one edge that points up: a multiplexer on a device's path is a device
# of its own, built by its driver, whose select and reset bytes the transport
# splices into the device's transactions.
allowed=" Ham/KeldoSmbusHam.cpp>Components/HardwareDevice.h Ham/KeldoSmbusHam.cpp>Components/Mux.h "

status=0
while IFS= read -r file; do
  from=$(layer "$file")
  while IFS= read -r header; do
    to=$(layer "$header")
    if [ "$to" -gt "$from" ] && [[ "$allowed" != *" $file>$header "* ]]; then
      echo "check-layers: $file (layer $from) includes $header (layer $to)"
      status=1
    fi
  done < <(sed -n 's/^#include "\(.*\)"$/\1/p' "$file")
done < <(find . \( -name '*.h' -o -name '*.cpp' \) | sed 's|^\./||' | sort)
exit "$status"
