#pragma once
// GPIO lines handed to the host: one bit of a device register that the host
// can read, set and clear through the pl_gpio callback table.
#include "Drivers/Drivers.h"
#include "keldo/pl_host.h"

namespace Component {
class HardwareDevice;

namespace LogicalDevice {

// The host's handle is the pl_gpio embedded right after the virtual-table
// pointer; its owner member leads the callbacks back to this object.
class Gpio {
 public:
  Gpio();
  Gpio(const Gpio&) = delete;
  Gpio& operator=(const Gpio&) = delete;

  // The virtual-table layout that the host and drivers built apart from this
  // library are compiled against: keep the order, add only at the end.
  virtual ~Gpio() = default;
  virtual pl_status bitClear() = 0;
  virtual pl_status bitSet() = 0;
  virtual pl_status bitRead(unsigned int* value) = 0;

  pl_gpio* handle() { return &gpio_; }

  static const pl_gpio_ops ops_;
  static pl_status bitSetCallback(pl_gpio* gpio);
  static pl_status bitClearCallback(pl_gpio* gpio);
  static pl_status bitReadCallback(pl_gpio* gpio, unsigned int* value);

 protected:
  pl_gpio gpio_;
};

// A bit of an 8-bit register read and written through the device's Ham. The
// read-modify-write is not atomic against other writers of the register.
class RegGpio : public Gpio {
 public:
  // Reads "register" and "bitpos" (decimal) from the driver arguments.
  RegGpio(HardwareDevice* device, const Drivers::DriverArgs& args);

  pl_status bitClear() override;
  pl_status bitSet() override;
  pl_status bitRead(unsigned int* value) override;

  // For registers whose read-back is not what was written (latched or
  // self-clearing lines): the register is not read first, setting writes only
  // the bit and clearing writes all ones except the bit.
  void writeOnlyIs(bool writeOnly) { writeOnly_ = writeOnly; }
  int reg() const { return register_; }
  int bit() const { return bit_; }

 private:
  uint32_t mask() const;
  pl_status readRegister(uint8_t* value);
  pl_status writeRegister(uint8_t value);
  pl_status writeBit(bool on);

  HardwareDevice* device_;  // not owned
  bool writeOnly_ = false;
  int register_;
  int bit_;
};

}  // namespace LogicalDevice
}  // namespace Component
