#pragma once
// Power-supply bays. A slot tells the host whether a unit sits in its bay,
// identifies the unit by serial number and model name, and hands the host the
// description (fdl) of that model, so that the host knows how to manage it.
// How a unit is identified differs per platform: from a TlvInfo EEPROM, the
// unit's PMBus manufacturer registers, an IPMI FRU record, an ipmitool
// command, or a fixed identity behind a presence register ("wedge").
// See docs/psu-slots.md.
#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "Components/HardwareDevice.h"
#include "Components/Psu.h"
#include "Components/Slot.h"

namespace Ham {
class IpmiHam;
}
namespace Component {
namespace LogicalDevice {
class Gpio;
}
}  // namespace Component

namespace Drivers {

class PsuSlot : public Component::HardwareDevice {
 public:
  enum IdentificationType : uint8_t { PMBUS = 0, IPMI = 1, IPMITOOL = 2, IPMITOOL_RAW = 3, WEDGE = 4, TLV = 5 };

  // A line of the bay (unit present, power good): one bit of a register,
  // read through a GPIO on the slot's own device or on the device that
  // "gpioDevice" labels. Unconfigured when the object gives no register.
  struct Signal {
    std::shared_ptr<Component::LogicalDevice::Gpio> gpio;  // made for the slot: its own
    bool activeLow = false;
    bool configured() const { return gpio != nullptr; }
    pl_status read(int* value) const;  // 1 when the line is asserted
  };

  class Slot;
  class Psu;

  using HardwareDevice::HardwareDevice;

  static Component::HardwareDevice* create(const DriverArgs& args, Ham::Ham* ham);
  // Null for a slot whose type reads the unit on a device without bus access
  // ("provideHam": 0).
  Component::LogicalDevice::Slot* newSlot(const FactoryArgs& args) override;
  // The bay's power-good line as a power supply: the readings a bay cannot
  // give answer 5.
  Component::LogicalDevice::Psu* newPsu(const FactoryArgs& args) override;

  // The line `name` ("presence", "powerOk") from "<name>Reg", "<name>Bit",
  // "<name>ActiveLow" and "gpioDevice".
  Signal signalOf(const FactoryArgs& args, const std::string& name);
};

class PsuSlot::Slot : public Component::LogicalDevice::Slot {
 public:
  Slot(PsuSlot* device, const FactoryArgs& args);

  // 1 when a unit is in the bay, 0 when not, or the status of a failed
  // presence read. For an identified unit `*description` is set to its fdl,
  // which stays the slot's and valid until its next call; otherwise to null.
  pl_status getPresence(char** description) override;

  // 0 when the unit was identified with both texts non-empty, else 1.
  int readSerialAndModel_(std::string& serial, std::string& model);
  int readSerialAndModelTlv(std::string& serial, std::string& model);
  int readSerialAndModelPmbus(std::string& serial, std::string& model);
  int readSerialAndModelWedge(std::string& serial, std::string& model);
  int readSerialAndModelIpmitool(std::string& serial, std::string& model);
  int readSerialAndModelIpmi(std::string& serial, std::string& model);

  IdentificationType identificationType() const { return type_; }
  bool readsTheBus() const { return type_ == PMBUS || type_ == WEDGE || type_ == TLV; }
  const std::string& psuFdl() const { return psuFdl_; }

 private:
  void parseIdentificationType();
  void identify(std::string serial, std::string model);
  Ham::Ham& ham() const;

  uint8_t psuIndex_;  // 0 or 1
  PsuSlot* device_;
  IdentificationType type_ = PMBUS;
  std::string ipmiCmdPrefix_;
  FactoryArgs args_;
  std::vector<std::string> commands_;  // the ipmitool types: run in order
  Signal presence_;
  std::shared_ptr<Ham::IpmiHam> ipmi_;
  // The unit identified last and its description.
  bool identified_ = false;
  std::string serialNum_, modelName_, psuFdl_;
};

class PsuSlot::Psu : public Component::LogicalDevice::Psu {
 public:
  explicit Psu(Signal powerOk) : powerOk_(powerOk) {}
  pl_status get_power_ok(int* ok) override { return powerOk_.read(ok); }
  pl_status get_input_current(float*) override { return PL_STATUS_NOT_PROVIDED; }
  pl_status get_output_current(float*) override { return PL_STATUS_NOT_PROVIDED; }
  pl_status get_input_voltage(float*) override { return PL_STATUS_NOT_PROVIDED; }
  pl_status get_output_voltage(float*) override { return PL_STATUS_NOT_PROVIDED; }
  pl_status get_input_power(float*) override { return PL_STATUS_NOT_PROVIDED; }
  pl_status get_output_power(float*) override { return PL_STATUS_NOT_PROVIDED; }

 private:
  Signal powerOk_;
};

}  // namespace Drivers
