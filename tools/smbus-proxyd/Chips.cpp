#include "Chips.h"

#include <algorithm>
#include <cmath>
#include <stdexcept>

#include "Board.h"

namespace SmbusProxyd {

namespace {

constexpr uint32_t kVoutMode = 0x20;

const Chip kChips[] = {
    // Temperature (0), configuration (1, a byte), hysteresis (2) and
    // over-temperature shutdown (3); the pointer register keeps two bits.
    {"LM75", true, 0x03, {0x01}, {"celsius"}},
    // Every command a word, except these bytes.
    {"PMBus", false, 0xFF,
     {
         0x00,  // PAGE
         0x01,  // OPERATION
         0x02,  // ON_OFF_CONFIG
         0x10,  // WRITE_PROTECT
         0x19,  // CAPABILITY
         0x20,  // VOUT_MODE
         0x3A,  // FAN_CONFIG_1_2
         0x3D,  // FAN_CONFIG_3_4
         0x78,  // STATUS_BYTE
         0x7A,  // STATUS_VOUT
         0x7B,  // STATUS_IOUT
         0x7C,  // STATUS_INPUT
         0x7D,  // STATUS_TEMPERATURE
         0x7E,  // STATUS_CML
         0x7F,  // STATUS_OTHER
         0x80,  // STATUS_MFR_SPECIFIC
         0x81,  // STATUS_FANS_1_2
         0x82,  // STATUS_FANS_3_4
         0x98,  // PMBUS_REVISION
     },
     {"linear11", "linear16"}},
};

// Nine-bit two's complement in half degrees, left-aligned in the 16 bits.
uint16_t celsiusWord(double celsius) {
  const double halves = celsius * 2;
  if (!(halves >= -256 && halves <= 255) || halves != std::floor(halves)) {
    throw std::invalid_argument("an LM75 register holds half degrees from -128 to 127.5");
  }
  return static_cast<uint16_t>(static_cast<int>(halves) * 128);
}

// Five-bit exponent over an eleven-bit mantissa, both two's complement: the
// finest exponent that holds the value, rounded to the nearest step.
uint16_t linear11Word(double value) {
  for (int exponent = -16; exponent <= 15; ++exponent) {
    const double mantissa = std::nearbyint(std::ldexp(value, -exponent));
    if (mantissa >= -1024 && mantissa <= 1023) {
      const auto bits = static_cast<uint32_t>(exponent) << 11 | (static_cast<uint32_t>(static_cast<int>(mantissa)) & 0x7FF);
      return static_cast<uint16_t>(bits);
    }
  }
  throw std::invalid_argument("out of the LINEAR11 range");
}

// An unsigned 16-bit mantissa in the exponent of VOUT_MODE's low five bits.
uint16_t linear16Word(double value, uint32_t voutMode) {
  if ((voutMode & 0xE0) != 0) {
    throw std::invalid_argument("VOUT_MODE (0x20) is not in linear mode");
  }
  const int exponent = static_cast<int>(voutMode & 0x0F) - static_cast<int>(voutMode & 0x10);
  const double mantissa = std::nearbyint(std::ldexp(value, -exponent));
  if (!(mantissa >= 0 && mantissa <= 0xFFFF)) {
    throw std::invalid_argument("out of the LINEAR16 range of VOUT_MODE 2^" + std::to_string(exponent));
  }
  return static_cast<uint16_t>(mantissa);
}

}  // namespace

unsigned Chip::width(uint32_t reg) const {
  return std::find(byteRegisters.begin(), byteRegisters.end(), reg) != byteRegisters.end() ? 1 : 2;
}

std::string Chip::wireBytes(uint32_t reg, uint32_t value) const {
  const char low = static_cast<char>(value & 0xFF), high = static_cast<char>(value >> 8 & 0xFF);
  if (width(reg) == 1) return std::string(1, low);
  return msbFirst ? std::string{high, low} : std::string{low, high};
}

uint32_t Chip::fromWire(uint32_t reg, const std::string& bytes) const {
  const auto byte = [&](size_t i) { return static_cast<uint32_t>(static_cast<uint8_t>(bytes[i])); };
  if (width(reg) == 1) return byte(0);
  return msbFirst ? byte(0) << 8 | byte(1) : byte(1) << 8 | byte(0);
}

const Chip* chipNamed(const std::string& name) {
  for (const Chip& chip : kChips) {
    if (name == chip.name) return &chip;
  }
  return nullptr;
}

std::string chipNames() {
  std::string names;
  for (const Chip& chip : kChips) names += (names.empty() ? "" : ", ") + std::string(chip.name);
  return names;
}

uint16_t encodeUnit(const Device& device, const std::string& unit, double value) {
  const Chip& chip = *device.chip();
  if (std::find(chip.units.begin(), chip.units.end(), unit) == chip.units.end()) {
    throw std::invalid_argument(std::string("the ") + chip.name + " has no unit \"" + unit + "\"");
  }
  if (unit == "celsius") return celsiusWord(value);
  if (unit == "linear11") return linear11Word(value);
  return linear16Word(value, device.registerAt(kVoutMode));
}

}  // namespace SmbusProxyd
