#pragma once
// The emulated board: SMBus segments keyed the way requests address them,
// register devices, chips with registers of their own widths (Chips.h) and
// PCA9548-style multiplexers whose control byte really connects their
// downstream segments to the wire.
#include <cstdint>
#include <map>
#include <optional>
#include <string>
#include <tuple>
#include <vector>

namespace SmbusProxyd {

// One addressable bus as a request names it (master type, PCI address,
// accelerator id, bus id). A multiplexer channel is a bus of its own that
// shares the controller fields of the bus its multiplexer sits on.
struct BusKey {
  uint32_t masterType = 0;
  uint32_t pciAddress = 0;
  uint32_t accelerator = 0;
  uint32_t busId = 0;

  // Inline: every request entry looks its bus up.
  bool operator<(const BusKey& other) const {
    return std::tie(masterType, pciAddress, accelerator, busId) <
           std::tie(other.masterType, other.pciAddress, other.accelerator, other.busId);
  }
  bool operator==(const BusKey& other) const {
    return masterType == other.masterType && pciAddress == other.pciAddress && accelerator == other.accelerator &&
           busId == other.busId;
  }
  // "I2C pci 0x00000000 accel 0 bus 3"
  std::string text() const;
};

struct DeviceKey {
  BusKey bus;
  uint8_t address = 0;
  bool operator<(const DeviceKey& other) const;
  std::string text() const;
};

enum class FaultKind { Nak, Delay, Drop, Fail };

// Misbehaviour of a device, acting on every access to it while `remaining`
// is non-zero (-1: for ever).
struct Fault {
  FaultKind kind = FaultKind::Nak;
  uint32_t delayMs = 0;    // Delay: added to the proxy's answer time
  std::string reason;      // Fail: the reason text of the failure answer
  int64_t remaining = -1;
};

// What one access asks of a device, after the register has been cut to the
// bytes that travel on the wire.
struct Access {
  int type = 0;            // Smbus::RequestType value
  uint32_t reg = 0;
  uint32_t regMask = 0xFF; // register space: 0xFF, 0xFFFF, or all 32 bits
  uint32_t length = 0;
  std::string data;
};

struct AccessResult {
  bool ok = true;
  std::string data;   // bytes answered
  std::string error;  // why the access failed
};

struct Chip;

struct MuxChannel {
  unsigned channel = 0;  // control bit
  BusKey bus;            // the downstream bus
};

class Device {
 public:
  explicit Device(uint8_t address) : address_(address) {}

  uint8_t address() const { return address_; }
  // A register's value: one byte, or on a chip as wide as the register.
  void setRegister(uint32_t reg, uint16_t value) { registers_[reg] = value; }
  uint16_t registerAt(uint32_t reg) const;
  // Bytes in a register: 1, or the chip's width of it.
  unsigned width(uint32_t reg) const;
  void setFill(uint8_t fill) { fill_ = fill; }
  void setBlock(uint32_t reg, std::string bytes) { blocks_[reg] = std::move(bytes); }
  // Devices decoding the whole register word (register-mapped logic behind a
  // controller that forwards it as is) instead of the addrSize wire bytes.
  void setFullRegister(bool full) { fullRegister_ = full; }
  bool fullRegister() const { return fullRegister_; }

  void makeMux(std::vector<MuxChannel> channels);
  bool isMux() const { return mux_; }
  void makeChip(const Chip* chip) { chip_ = chip; }
  const Chip* chip() const { return chip_; }
  uint8_t control() const { return control_; }
  const std::vector<MuxChannel>& channels() const { return channels_; }

  std::optional<Fault>& fault() { return fault_; }

  AccessResult apply(const Access& access);

 private:
  AccessResult applyToRegisters(const Access& access);
  AccessResult applyToMux(const Access& access);
  AccessResult applyToChip(const Access& access);
  AccessResult applyToBlocks(const Access& access);
  std::string readRun(uint32_t reg, uint32_t count, uint32_t mask) const;
  std::string blockRun(const std::string& block, uint32_t count) const;
  void writeRun(uint32_t reg, const std::string& bytes, uint32_t mask);

  uint8_t address_;
  uint8_t fill_ = 0;
  bool fullRegister_ = false;
  uint32_t pointer_ = 0;  // register of receive-byte, set by the last access
  std::map<uint32_t, uint16_t> registers_;
  std::map<uint32_t, std::string> blocks_;
  bool mux_ = false;
  uint8_t control_ = 0;
  std::vector<MuxChannel> channels_;
  const Chip* chip_ = nullptr;
  std::optional<Fault> fault_;
};

// A segment is the wire of one bus key. Root segments hang off a controller;
// the others hang off a multiplexer channel and carry traffic only while that
// channel is selected.
struct Segment {
  BusKey root;
  std::map<uint8_t, Device> devices;
};

class Board {
 public:
  // Adds an empty segment; `root` is the controller-side bus it hangs off
  // (the key itself for a root segment). Throws on a repeated key.
  Segment& addSegment(const BusKey& key, const BusKey& root);
  Segment* segment(const BusKey& key);
  // The device declared at this place, whether or not it is reachable now.
  Device* device(const DeviceKey& key);
  // Devices that hear `address` on the wire of `bus` (into `found`, emptied
  // first): the root segment's devices plus, recursively, those behind every
  // selected channel. False when no bus has this key.
  bool responders(const BusKey& bus, uint8_t address, std::vector<Device*>& found);

  template <typename Fn>
  void forEachDevice(Fn fn) {
    for (auto& [key, seg] : segments_) {
      for (auto& [address, device] : seg.devices) fn(device);
    }
  }

 private:
  void collect(Segment& seg, uint8_t address, std::vector<Device*>& found);

  std::map<BusKey, Segment> segments_;
};

}  // namespace SmbusProxyd
