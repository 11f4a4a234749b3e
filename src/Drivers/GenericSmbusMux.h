#pragma once
// SMBus channel multiplexer of the PCA9548 kind: one control register, and a
// single byte sent to the chip selects its downstream channels (0 none).
#include <cstdint>

#include "Components/HardwareDevice.h"
#include "Components/Mux.h"

namespace Drivers {

class GenericSmbusMux : public Component::HardwareDevice {
 public:
  using HardwareDevice::HardwareDevice;

  static Component::HardwareDevice* create(const DriverArgs& args, Ham::Ham* ham);
  Component::LogicalDevice::Mux* newMux(const FactoryArgs& args, unsigned int value) override;

  // One channel setting of the chip. `value` is the id of the bus behind the
  // channel in the topology; its low byte is the control byte.
  class Mux : public Component::LogicalDevice::Mux {
   public:
    Mux(GenericSmbusMux* device, uint32_t value) : device_(device), value_(value) {}

    Component::HardwareDevice* device() const override { return device_; }
    unsigned int selectRequest(Ham::Ham* ham) override;
    unsigned int resetRequest(Ham::Ham* ham) override;
    pl_status executeMuxRequest() override;

   private:
    GenericSmbusMux* device_;
    uint32_t value_;
  };
};

}  // namespace Drivers
