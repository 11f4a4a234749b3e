#pragma once
// Reads the emulation file (JSON) that describes the board the daemon plays:
// its buses, the devices on them with their registers, blocks and EEPROM
// images, multiplexers with the buses behind their channels, and faults.
// docs/smbus-proxyd.md has the format. Unknown keys are errors, so a typo
// cannot silently leave a device out.
#include <stdexcept>
#include <string>

#include "Board.h"

namespace SmbusProxyd {

// The message names the place in the file, e.g.
// "buses[0].devices[2].address: expected a number from 0 to 0x7f".
class EmulationError : public std::runtime_error {
 public:
  using std::runtime_error::runtime_error;
};

// EEPROM image paths are taken relative to `baseDir`.
Board parseEmulation(const std::string& json, const std::string& baseDir);
Board loadEmulationFile(const std::string& path);

// "nak", "delay", "drop", "fail"; throws EmulationError for anything else.
FaultKind faultKindFromName(const std::string& name);

}  // namespace SmbusProxyd
