#pragma once
// A power supply that speaks PMBus. One device gives the host the supply
// itself (readings and power-good), its one or two fans and up to three
// temperature sensors. Readings are LINEAR11 words (five-bit exponent,
// eleven-bit mantissa); the output voltage follows VOUT_MODE.
#include <cstdint>
#include <memory>

#include "Components/Fan.h"
#include "Components/Gpio.h"
#include "Components/HardwareDevice.h"
#include "Components/Psu.h"
#include "Components/TempSensor.h"

namespace Drivers {

class Pmbus : public Component::HardwareDevice {
 public:
  class Fan;
  class TempSensor;
  class Psu;

  // The registers of one fan and its fault bit in STATUS_FANS_1_2.
  struct FanRegisters {
    uint8_t speed;    // READ_FAN_SPEED_n
    uint8_t command;  // FAN_COMMAND_n, duty cycle in percent
    uint8_t faultMask;
  };

  // Owns the power-good line, when there is one.
  Pmbus(Ham::Ham* ham, uint8_t voutExponent, Component::LogicalDevice::Gpio* powerOkGpio, bool powerOkActiveLow)
      : HardwareDevice(ham), voutExponent_(voutExponent), powerOkGpio_(powerOkGpio), powerOkActiveLow_(powerOkActiveLow) {}

  static Component::HardwareDevice* create(const DriverArgs& args, Ham::Ham* ham);
  Component::LogicalDevice::Psu* newPsu(const FactoryArgs& args) override;
  Component::LogicalDevice::Fan* newFan(const FactoryArgs& args) override;
  Component::LogicalDevice::TempSensor* newTempSensor(const FactoryArgs& args) override;
  Utils::ExpectedValues* expectedValues() override;

  // `raw` sign-extended from `mantissaBits` times two to the power of
  // `exponent` sign-extended from `exponentBits` (each 1 to 16 bits). Every
  // PMBus number this driver reads goes through here.
  static float linearToReal(unsigned short raw, unsigned char exponent, unsigned char mantissaBits,
                            unsigned char exponentBits);
  // A LINEAR11 register; a failed read leaves `out` untouched.
  pl_status pmbus_read_linear(unsigned char reg, float* out);

  pl_status get_input_voltage(float* volts);
  pl_status get_input_current(float* amperes);
  pl_status get_output_current(float* amperes);
  pl_status get_input_power(float* watts);
  pl_status get_output_power(float* watts);
  pl_status get_output_voltage(float* volts);
  pl_status get_power_ok(int* ok);
  pl_status clearFaults();
  pl_status getTemperature(unsigned char reg, float* celsius);
  pl_status getFanRpm(Fan* fan, int* rpm);
  pl_status setFanRpm(Fan* fan, int rpm);

  // The simulated supply: off, power not good, every electrical value 0,
  // 38 degrees on sensor 1.
  static Utils::ExpectedValues values;

  class Fan : public Component::LogicalDevice::Fan {
   public:
    Fan(Pmbus* owner, uint8_t index, int32_t maxFanRpm, bool pec, const FanRegisters& registers)
        : owner_(owner), index_(index), maxFanRpm_(maxFanRpm), registers_(registers), pec_(pec) {}

    pl_status getRpm(int* rpm) override { return owner_->getFanRpm(this, rpm); }
    pl_status setRpm(int rpm) override { return owner_->setFanRpm(this, rpm); }

    uint8_t index() const { return index_; }  // fanId - 1
    int32_t maxFanRpm() const { return maxFanRpm_; }
    const FanRegisters& registers() const { return registers_; }
    bool pec() const { return pec_; }  // packet error checking on the duty write

   private:
    Pmbus* owner_;
    uint8_t index_;
    int32_t maxFanRpm_;
    FanRegisters registers_;
    bool pec_;
  };

  class TempSensor : public Component::LogicalDevice::TempSensor {
   public:
    TempSensor(Pmbus* owner, uint8_t id, uint8_t reg) : owner_(owner), id_(id), reg_(reg) {}

    pl_status getTemperature(float* celsius) override { return owner_->getTemperature(reg(), celsius); }
    uint8_t id() const { return id_; }
    virtual uint8_t reg() const { return reg_; }  // READ_TEMPERATURE_n

   private:
    Pmbus* owner_;
    uint8_t id_;
    uint8_t reg_;
  };

  class Psu : public Component::LogicalDevice::Psu {
   public:
    explicit Psu(Pmbus* owner) : owner_(owner) {}

    pl_status get_power_ok(int* ok) override { return owner_->get_power_ok(ok); }
    pl_status get_input_current(float* value) override { return owner_->get_input_current(value); }
    pl_status get_output_current(float* value) override { return owner_->get_output_current(value); }
    pl_status get_input_voltage(float* value) override { return owner_->get_input_voltage(value); }
    pl_status get_output_voltage(float* value) override { return owner_->get_output_voltage(value); }
    pl_status get_input_power(float* value) override { return owner_->get_input_power(value); }
    pl_status get_output_power(float* value) override { return owner_->get_output_power(value); }

   private:
    Pmbus* owner_;
  };

 private:
  pl_status powerOkFromStatusWord(int* ok);

  uint8_t voutExponent_;  // READ_VOUT exponent; 255: VOUT_MODE's
  std::unique_ptr<Component::LogicalDevice::Gpio> powerOkGpio_;  // null: STATUS_WORD decides
  bool powerOkActiveLow_;
};

}  // namespace Drivers
