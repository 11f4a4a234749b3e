#pragma once
// The bus address of a device as the access methods use it, and its reader
// from the "address" object of a device's JSON. It sits below both the
// topology and the driver arguments, which each carry one.
#include <cstdint>

#include "KeldoUtil/Json.h"

namespace Topology {

// Hardware address of a device, two 32-bit words. Word 0 carries the register
// of the operation being queued (filled by the access layer). Word 1 packs:
//   bits 0-6 address, 7-13 bus, 14-20 accel, 21 read flag, 22-24 busTimeout,
//   25-26 addrSize, 27 extraDelay, 28-29 writeDelay, 30-31 readDelay.
struct AhamAddress {
  uint32_t word0 = 0;
  uint32_t word1 = 0;

  uint32_t address() const { return get(0, 7); }
  uint32_t bus() const { return get(7, 7); }
  uint32_t accel() const { return get(14, 7); }
  uint32_t readFlag() const { return get(21, 1); }
  uint32_t busTimeout() const { return get(22, 3); }
  uint32_t addrSize() const { return get(25, 2); }
  uint32_t extraDelay() const { return get(27, 1); }
  uint32_t writeDelay() const { return get(28, 2); }
  uint32_t readDelay() const { return get(30, 2); }

  // Each setter keeps only the low bits that fit the field.
  void setAddress(uint32_t v) { set(0, 7, v); }
  void setBus(uint32_t v) { set(7, 7, v); }
  void setAccel(uint32_t v) { set(14, 7, v); }
  void setReadFlag(uint32_t v) { set(21, 1, v); }
  void setBusTimeout(uint32_t v) { set(22, 3, v); }
  void setAddrSize(uint32_t v) { set(25, 2, v); }
  void setExtraDelay(uint32_t v) { set(27, 1, v); }
  void setWriteDelay(uint32_t v) { set(28, 2, v); }
  void setReadDelay(uint32_t v) { set(30, 2, v); }

  // The 8 bytes as one 64-bit value: word 0 low, word 1 high.
  uint64_t packed() const { return (uint64_t(word1) << 32) | word0; }

 private:
  static constexpr uint32_t mask(unsigned width) { return width >= 32 ? ~0u : ((1u << width) - 1); }
  uint32_t get(unsigned shift, unsigned width) const { return (word1 >> shift) & mask(width); }
  void set(unsigned shift, unsigned width, uint32_t v) {
    word1 = (word1 & ~(mask(width) << shift)) | ((v & mask(width)) << shift);
  }
};

// PCI address of the device that carries an SCD's accelerators.
struct PCIAddress {
  uint32_t value = 0;
};

// Fills `addr` from an "address" object: "address" is required; the delays,
// "addrSize" (default 1) and "accel" are optional. Each value is cut to its
// field's width.
void fillAddressFromJSON(const rapidjson::Value& json, AhamAddress& addr);

}  // namespace Topology
