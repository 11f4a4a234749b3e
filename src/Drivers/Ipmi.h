#pragma once
// Fans, fan slots, power supplies and temperature sensors that only the board
// management controller can read. Every reading is a sensor of the IPMI
// access (Ham::IpmiHam), named by the object's driver arguments; the device
// itself needs no bus. See docs/ipmi.md.
#include <memory>
#include <string>

#include "Components/HardwareDevice.h"

namespace Ham {
class IpmiHam;
}

namespace Drivers {

class Ipmi : public Component::HardwareDevice {
 public:
  explicit Ipmi(std::shared_ptr<Ham::IpmiHam> ipmi);

  // Null when the IPMI access that "ipmiHam" names cannot be built.
  static Component::HardwareDevice* create(const DriverArgs& args, Ham::Ham* ham);
  Component::LogicalDevice::TempSensor* newTempSensor(const FactoryArgs& args) override;
  Component::LogicalDevice::Fan* newFan(const FactoryArgs& args) override;
  Component::LogicalDevice::Slot* newSlot(const FactoryArgs& args) override;
  Component::LogicalDevice::Psu* newPsu(const FactoryArgs& args) override;

  // The sensor's reading as a number: the access's status (4 for a sensor
  // the cache does not hold), or 4 for a text that is no number. The output
  // is written only on success.
  pl_status reading(const std::string& sensor, float* value) const;
  Ham::IpmiHam& ipmi() const { return *ipmi_; }

 private:
  std::shared_ptr<Ham::IpmiHam> ipmi_;
};

}  // namespace Drivers
