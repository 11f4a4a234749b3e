#pragma once
// The text commands of the control channel, one per line, each answered by
// one line: "ok", "ok <value>" or "error: <why>". docs/smbus-proxyd.md lists
// them; a device is named MASTER/PCI/ACCEL/BUS/ADDRESS, e.g. I2C/0/0/3/0x50.
#include <string>

namespace SmbusProxyd {

class Emulator;

class ControlCommands {
 public:
  explicit ControlCommands(Emulator& emulator) : emulator_(emulator) {}
  std::string execute(const std::string& line);

 private:
  Emulator& emulator_;
};

}  // namespace SmbusProxyd
