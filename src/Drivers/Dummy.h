#pragma once
// The driver of a topology device that must exist as a device (to carry
// register GPIOs, for instance) but has no behaviour of its own: every
// factory keeps the device model's default.
#include "Components/HardwareDevice.h"

namespace Drivers {

class Dummy : public Component::HardwareDevice {
 public:
  using HardwareDevice::HardwareDevice;

  static Component::HardwareDevice* create(const DriverArgs& args, Ham::Ham* ham);
};

}  // namespace Drivers
