#pragma once
// Chips that the emulation plays register by register, as they behave on the
// wire, instead of as runs of auto-incremented bytes: every register is a byte
// or a word of its own, and a word goes out in the chip's byte order. A word
// read of an LM75 register answers its most significant byte first; one of a
// PMBus command answers its low byte first.
#include <cstdint>
#include <string>
#include <vector>

namespace SmbusProxyd {

class Device;

struct Chip {
  const char* name;                     // the emulation file's "chip"
  bool msbFirst;                        // word byte order on the wire
  uint32_t pointerMask;                 // the register bits the chip decodes
  std::vector<uint32_t> byteRegisters;  // registers one byte wide; all others are words
  std::vector<const char*> units;       // engineering units a register value may be given in

  unsigned width(uint32_t reg) const;
  // The bytes of a register's value in wire order.
  std::string wireBytes(uint32_t reg, uint32_t value) const;
  uint32_t fromWire(uint32_t reg, const std::string& bytes) const;
};

// The chip of that name; null when there is none.
const Chip* chipNamed(const std::string& name);
// "LM75, PMBus"
std::string chipNames();

// The register value that states `value` in `unit` on `device` (a chip):
// "celsius" (LM75: half degrees, the register as the datasheet draws it),
// "linear11" (PMBus readings) or "linear16" (READ_VOUT, in the exponent of the
// device's VOUT_MODE). Throws std::invalid_argument, saying why, when the chip
// has no such unit or the value has no encoding in it.
uint16_t encodeUnit(const Device& device, const std::string& unit, double value);

}  // namespace SmbusProxyd
