#include "Board.h"

#include <algorithm>
#include <cstdio>
#include <stdexcept>
#include <tuple>

#include "Chips.h"
#include "KeldoUtil/Smbus.pb.h"

namespace SmbusProxyd {

namespace {

// SMBus block transfers carry their length in one byte.
constexpr size_t kMaxBlockBytes = 255;

std::string masterName(uint32_t masterType) {
  if (Smbus::MasterType_IsValid(static_cast<int>(masterType))) {
    return Smbus::MasterType_Name(static_cast<Smbus::MasterType>(masterType));
  }
  return "MASTER" + std::to_string(masterType);
}

AccessResult failed(std::string error) { return AccessResult{false, {}, std::move(error)}; }

AccessResult answered(std::string data = {}) { return AccessResult{true, std::move(data), {}}; }

}  // namespace

std::string BusKey::text() const {
  char buffer[96];
  std::snprintf(buffer, sizeof(buffer), "%s pci 0x%08x accel %u bus %u", masterName(masterType).c_str(),
                pciAddress, accelerator, busId);
  return buffer;
}

bool DeviceKey::operator<(const DeviceKey& other) const {
  return std::tie(bus, address) < std::tie(other.bus, other.address);
}

std::string DeviceKey::text() const {
  char buffer[8];
  std::snprintf(buffer, sizeof(buffer), "0x%02x", address);
  return "device " + std::string(buffer) + " on bus " + bus.text();
}

uint16_t Device::registerAt(uint32_t reg) const {
  auto it = registers_.find(reg);
  if (it != registers_.end()) return it->second;
  return width(reg) == 2 ? static_cast<uint16_t>(fill_ * 0x101) : fill_;
}

unsigned Device::width(uint32_t reg) const { return chip_ ? chip_->width(reg) : 1; }

void Device::makeMux(std::vector<MuxChannel> channels) {
  mux_ = true;
  channels_ = std::move(channels);
}

AccessResult Device::apply(const Access& access) {
  if (mux_) return applyToMux(access);
  return chip_ ? applyToChip(access) : applyToRegisters(access);
}

// A PCA9548 has nothing but its control register: a send-byte loads it
// (bit n connects channel n) and a receive-byte reads it back.
AccessResult Device::applyToMux(const Access& access) {
  if (access.type == Smbus::WRITE && access.length == 0) {
    control_ = static_cast<uint8_t>(access.reg & 0xFF);
    return answered();
  }
  if (access.type == Smbus::READ && access.length == 0) {
    return answered(std::string(1, static_cast<char>(control_)));
  }
  return failed("multiplexer takes only send-byte and receive-byte");
}

std::string Device::readRun(uint32_t reg, uint32_t count, uint32_t mask) const {
  std::string bytes;
  bytes.reserve(count);
  for (uint32_t i = 0; i < count; ++i) bytes.push_back(static_cast<char>(registerAt((reg + i) & mask) & 0xFF));
  return bytes;
}

// A PMBus device answers a plain read of a block command as it answers a
// block read: the byte count, then the bytes; past them it answers the fill.
std::string Device::blockRun(const std::string& block, uint32_t count) const {
  std::string bytes = std::string(1, static_cast<char>(block.size())) + block;
  bytes.resize(count, static_cast<char>(fill_));
  return bytes;
}

void Device::writeRun(uint32_t reg, const std::string& bytes, uint32_t mask) {
  for (size_t i = 0; i < bytes.size(); ++i) {
    registers_[(reg + static_cast<uint32_t>(i)) & mask] = static_cast<uint8_t>(bytes[i]);
  }
}

// Register devices auto-increment like EEPROMs and most sensors: a run of n
// bytes covers n consecutive registers, and receive-byte reads the register
// after the last one touched.
AccessResult Device::applyToRegisters(const Access& a) {
  const uint32_t mask = a.regMask;
  switch (a.type) {
    case Smbus::READ:
      if (a.length == 0) {
        uint32_t reg = pointer_;
        pointer_ = (reg + 1) & mask;
        return answered(readRun(reg, 1, mask));
      }
      pointer_ = (a.reg + a.length) & mask;
      if (auto block = blocks_.find(a.reg); block != blocks_.end()) return answered(blockRun(block->second, a.length));
      return answered(readRun(a.reg, a.length, mask));
    case Smbus::WRITE:
      if (a.data.size() != a.length) return failed("data does not match length");
      writeRun(a.reg, a.data, mask);
      pointer_ = (a.reg + a.length) & mask;
      return answered();
    case Smbus::PROCESS_CALL:
      if (a.data.size() != 2) return failed("process call needs 2 data bytes");
      writeRun(a.reg, a.data, mask);
      return answered(readRun(a.reg, 2, mask));
    case Smbus::BLOCK_READ:
    case Smbus::BLOCK_WRITE:
      return applyToBlocks(a);
    default:
      return failed("unknown request type");
  }
}

// A chip answers for each register on its own. A read of n bytes gets the
// register's bytes in the chip's order, and 0xff past its end, where nobody
// drives the bus; receive-byte reads the register last addressed. A write
// brings exactly the register's bytes. A send-byte addresses a register (the
// LM75's pointer) or is a command without data (PMBus CLEAR_FAULTS: the
// emulated faults stand, so nothing is cleared).
AccessResult Device::applyToChip(const Access& a) {
  const uint32_t reg = a.reg & chip_->pointerMask;
  switch (a.type) {
    case Smbus::READ: {
      if (a.length != 0) pointer_ = reg;
      if (auto block = blocks_.find(pointer_); block != blocks_.end() && a.length != 0) {
        return answered(blockRun(block->second, a.length));  // MFR_MODEL and the like
      }
      std::string bytes = chip_->wireBytes(pointer_, registerAt(pointer_));
      bytes.resize(std::max<uint32_t>(a.length, 1), '\xff');
      return answered(std::move(bytes));
    }
    case Smbus::WRITE:
      pointer_ = reg;
      if (a.length == 0) return answered();
      if (a.data.size() != a.length || a.length != chip_->width(reg)) {
        return failed(chip_->width(reg) == 1 ? "the register holds 1 byte" : "the register holds 2 bytes");
      }
      registers_[reg] = static_cast<uint16_t>(chip_->fromWire(reg, a.data));
      return answered();
    case Smbus::BLOCK_READ:
    case Smbus::BLOCK_WRITE:
      return applyToBlocks(a);
    default:
      return failed(std::string("the ") + chip_->name + " takes no such request");
  }
}

AccessResult Device::applyToBlocks(const Access& a) {
  if (a.type == Smbus::BLOCK_READ) {
    auto it = blocks_.find(a.reg);
    if (it == blocks_.end()) return failed("no block at this register");
    return answered(it->second);
  }
  if (a.data.size() != a.length) return failed("data does not match length");
  if (a.data.size() > kMaxBlockBytes) return failed("block longer than 255 bytes");
  blocks_[a.reg] = a.data;
  return answered();
}

Segment& Board::addSegment(const BusKey& key, const BusKey& root) {
  auto [it, added] = segments_.emplace(key, Segment{root, {}});
  if (!added) throw std::invalid_argument("bus " + key.text() + " is declared twice");
  return it->second;
}

Segment* Board::segment(const BusKey& key) {
  auto it = segments_.find(key);
  return it == segments_.end() ? nullptr : &it->second;
}

Device* Board::device(const DeviceKey& key) {
  Segment* seg = segment(key.bus);
  if (!seg) return nullptr;
  auto it = seg->devices.find(key.address);
  return it == seg->devices.end() ? nullptr : &it->second;
}

// A bus is looked up once per request entry: a root bus (most of them) is
// its own root segment.
bool Board::responders(const BusKey& bus, uint8_t address, std::vector<Device*>& found) {
  found.clear();
  Segment* seg = segment(bus);
  if (!seg) return false;
  Segment* root = seg->root == bus ? seg : segment(seg->root);
  if (root) collect(*root, address, found);
  return true;
}

void Board::collect(Segment& seg, uint8_t address, std::vector<Device*>& found) {
  for (auto& [deviceAddress, device] : seg.devices) {
    if (deviceAddress == address) found.push_back(&device);
    if (!device.isMux()) continue;
    for (const MuxChannel& channel : device.channels()) {
      Segment* behind = device.control() & (1u << channel.channel) ? segment(channel.bus) : nullptr;
      if (behind) collect(*behind, address, found);
    }
  }
}

}  // namespace SmbusProxyd
