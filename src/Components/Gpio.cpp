#include "Components/Gpio.h"

#include <string>

#include "Components/HardwareDevice.h"
#include "Components/LogicalDevice.h"
#include "Ham/Ham.h"
#include "KeldoUtil/Assert.h"

namespace Component {
namespace LogicalDevice {

const pl_gpio_ops Gpio::ops_ = {
    sizeof(pl_gpio_ops),
    &Gpio::bitSetCallback,
    &Gpio::bitClearCallback,
    &Gpio::bitReadCallback,
};

// The host word belongs to the host; it starts out zeroed and is never touched again.
Gpio::Gpio() : gpio_{nullptr, &ops_, this} {}

pl_status Gpio::bitSetCallback(pl_gpio* gpio) {
  pl_trace(4, "%s", "bitSetCallback");
  return ownerOf<Gpio>(gpio)->bitSet();
}

pl_status Gpio::bitClearCallback(pl_gpio* gpio) {
  pl_trace(4, "%s", "bitClearCallback");
  return ownerOf<Gpio>(gpio)->bitClear();
}

pl_status Gpio::bitReadCallback(pl_gpio* gpio, unsigned int* value) {
  pl_trace(4, "%s", "bitReadCallback");
  return ownerOf<Gpio>(gpio)->bitRead(value);
}

namespace {
// A missing key stops the host: the board file is wrong. A value that is not
// a number escapes as std::invalid_argument.
int decimalArg(const Drivers::DriverArgs& args, const char* key) {
  auto it = args.driverArgs.find(key);
  KELDO_ASSERT(it != args.driverArgs.end());
  return std::stoi(it->second, nullptr, 10);
}
}  // namespace

RegGpio::RegGpio(HardwareDevice* device, const Drivers::DriverArgs& args)
    : device_(device), register_(decimalArg(args, "register")), bit_(decimalArg(args, "bitpos")) {}

// Bits outside the 32-bit word select nothing rather than shifting out of range.
uint32_t RegGpio::mask() const { return bit_ >= 0 && bit_ < 32 ? 1u << bit_ : 0u; }

// A device built without an access method has nothing to talk to; that is an
// internal failure rather than a crash in the host.
pl_status RegGpio::readRegister(uint8_t* value) {
  Ham::Ham* ham = device_->ham();
  return ham ? ham->read8(static_cast<uint32_t>(register_), value) : PL_STATUS_INTERNAL;
}

pl_status RegGpio::writeRegister(uint8_t value) {
  Ham::Ham* ham = device_->ham();
  return ham ? ham->write8(static_cast<uint32_t>(register_), value, false) : PL_STATUS_INTERNAL;
}

pl_status RegGpio::bitRead(unsigned int* value) {
  uint8_t current = 0;
  pl_status status = readRegister(&current);
  if (status != PL_STATUS_OK) {
    return status;
  }
  *value = (current & mask()) ? 1 : 0;
  return PL_STATUS_OK;
}

pl_status RegGpio::bitSet() { return writeBit(true); }
pl_status RegGpio::bitClear() { return writeBit(false); }

// Normally the register is read and written back with only this bit
// changed. A write-only register is not read: setting writes only the bit,
// clearing writes all ones but the bit.
pl_status RegGpio::writeBit(bool on) {
  uint8_t current = on ? 0x00 : 0xFF;
  if (!writeOnly_) {
    pl_status status = readRegister(&current);
    if (status != PL_STATUS_OK) {
      return status;
    }
  }
  return writeRegister(static_cast<uint8_t>(on ? (current | mask()) : (current & ~mask())));
}

}  // namespace LogicalDevice
}  // namespace Component

// Only hardware devices have register GPIOs; the host gets a null handle for
// any other device (a multi-device) and, unlike the other kinds, no trace.
pl_gpio* pl_gpio_add(const char* objectJson) {
  using namespace Component::LogicalDevice;
  static const AddTraces traces = {nullptr, 0, true};
  auto newGpio = [](Component::DeviceBase& device, const Component::FactoryArgs& args) -> Gpio* {
    auto* hardware = dynamic_cast<Component::HardwareDevice*>(&device);
    return hardware != nullptr ? hardware->newGpio(args) : nullptr;
  };
  return handleOf(addLogicalDevice(fromObject(objectJson), traces, newGpio));
}
