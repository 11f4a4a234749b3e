#pragma once
// The CPLD of each Zant board: the same mechanism (CelXcvrCPLD) with the
// board's register maps, port limits, port-LED registers and simulated
// power-on image. The tables are in ZantCPLDs.cpp, in the order the board
// documentation lists them.
#include "Drivers/Zant/CelesticaCPLD.h"

namespace Drivers {

// 32 QSFP ports in six blocks of uneven size.
class ZantCCPLD : public CelXcvrCPLD {
 public:
  using CelXcvrCPLD::CelXcvrCPLD;
  static Component::HardwareDevice* create(const DriverArgs& args, Ham::Ham* ham);
  void init() override;
  Component::LogicalDevice::QsfpXcvr* newQsfpXcvr(unsigned int id, const FactoryArgs& args) override;

  static const Limits qsfpRegisterLimits;
  static const RegisterMap qsfpRegisterMap;
};

// 32 QSFP ports in four blocks of eight, and 21 port-LED registers.
class ZantQCPLD : public CelXcvrCPLD {
 public:
  using CelXcvrCPLD::CelXcvrCPLD;
  static Component::HardwareDevice* create(const DriverArgs& args, Ham::Ham* ham);
  void init() override;
  Component::LogicalDevice::QsfpXcvr* newQsfpXcvr(unsigned int id, const FactoryArgs& args) override;
  Utils::ExpectedValues* expectedValues() override { return &values; }

  static const Limits qsfpRegisterLimits;
  static const RegisterMap qsfpRegisterMap;
  static const RegisterMap qsfpPortLedsRegMap;
  static Utils::ExpectedValues values;
};

// 48 SFP ports in eight blocks and 6 QSFP ports in one.
class ZantSCPLD : public CelXcvrCPLD {
 public:
  using CelXcvrCPLD::CelXcvrCPLD;
  static Component::HardwareDevice* create(const DriverArgs& args, Ham::Ham* ham);
  void init() override;
  Component::LogicalDevice::QsfpXcvr* newQsfpXcvr(unsigned int id, const FactoryArgs& args) override;
  Component::LogicalDevice::SfpXcvr* newSfpXcvr(unsigned int id, const FactoryArgs& args) override;
  Utils::ExpectedValues* expectedValues() override { return &values; }

  static const Limits sfpRegisterLimits;
  static const RegisterMap sfpRegisterMap;
  static const RegisterMap qsfpRegisterMap;
  static const RegisterMap qsfpPortLedsRegMap;
  static Utils::ExpectedValues values;
};

// The Zant-S layout with every register number 0xA000 higher, and a system
// LED of its own in 0xA106.
class ZantYCPLD : public CelXcvrCPLD {
 public:
  static constexpr uint16_t SYSTEM_LED_REGISTER = 0xA106;

  class Led;
  class SystemLed;

  using CelXcvrCPLD::CelXcvrCPLD;
  static Component::HardwareDevice* create(const DriverArgs& args, Ham::Ham* ham);
  void init() override;
  Component::LogicalDevice::QsfpXcvr* newQsfpXcvr(unsigned int id, const FactoryArgs& args) override;
  Component::LogicalDevice::SfpXcvr* newSfpXcvr(unsigned int id, const FactoryArgs& args) override;
  Component::LogicalDevice::Led* newLed(const FactoryArgs& args) override;
  Utils::ExpectedValues* expectedValues() override { return &values; }

  static const Limits sfpRegisterLimits;
  static const RegisterMap sfpRegisterMap;
  static const RegisterMap qsfpRegisterMap;
  static const RegisterMap qsfpPortLedsRegMap;
  static Utils::ExpectedValues values;
};

// The Y board's LEDs never blink.
class ZantYCPLD::Led : public CelXcvrCPLD::Led {
 public:
  using CelXcvrCPLD::Led::Led;
  bool handleBlinkTimer(bool) override { return false; }
};

class ZantYCPLD::SystemLed : public ZantYCPLD::Led {
 public:
  using ZantYCPLD::Led::Led;
  pl_status setLightSetting(pl_led_status status) override;
};

}  // namespace Drivers
