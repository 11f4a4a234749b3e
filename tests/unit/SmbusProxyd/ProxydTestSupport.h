#pragma once
// Places on the test board (tests/data/proxyd/board.json) and request
// builders that pack the address words the way the plug-in does.
#include <string>

#include "KeldoUtil/Smbus.pb.h"

namespace ProxydTest {

inline const std::string kBoardFile = KELDO_SOURCE_DIR "/tests/data/proxyd/board.json";
inline const std::string kEepromFile = KELDO_SOURCE_DIR "/tests/data/proxyd/psu-eeprom.bin";

struct Place {
  Smbus::MasterType master;
  uint32_t pci;
  uint32_t accel;
  uint32_t bus;
  uint32_t address;
};

constexpr Place kMux70{Smbus::I2C, 0, 0, 3, 0x70};
constexpr Place kMux71{Smbus::I2C, 0, 0, 3, 0x71};
constexpr Place kLm75{Smbus::I2C, 0, 0, 10, 0x48};     // mux 0x70 channel 0
constexpr Place kEeprom{Smbus::I2C, 0, 0, 12, 0x50};   // mux 0x70 channel 2
constexpr Place kPmbus{Smbus::I2C, 0, 0, 12, 0x58};    // mux 0x70 channel 2
constexpr Place kOther48{Smbus::I2C, 0, 0, 21, 0x48};  // mux 0x71 channel 1
constexpr Place kDead{Smbus::I2C, 0, 0, 3, 0x3c};      // NAKs by the file's fault
constexpr Place kCpld{Smbus::SCD, 0xff00, 1, 2, 0x23};
constexpr Place kWide{Smbus::SCD, 0xff00, 1, 2, 0x60};  // decodes the whole register word

inline Smbus::Request entry(const Place& p, Smbus::RequestType type, uint32_t reg, uint32_t length = 0,
                            const std::string& data = "", uint32_t addrSize = 1) {
  const uint32_t word1 = (addrSize << 25) | (p.accel << 14) | (p.bus << 7) | p.address;
  Smbus::Request r;
  r.set_address((uint64_t{word1} << 32) | reg);
  r.set_type(type);
  r.set_length(length);
  r.set_pciaddress(p.pci);
  r.set_mastertype(p.master);
  if (!data.empty()) r.set_data(data);
  return r;
}

// Send-byte of the control byte: bit n connects channel n.
inline Smbus::Request select(const Place& mux, uint8_t channels) { return entry(mux, Smbus::WRITE, channels); }

}  // namespace ProxydTest
