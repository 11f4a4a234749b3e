#pragma once
// LM75-family digital thermometer: a temperature register and two hardware
// thresholds, the hysteresis (alert) and the over-temperature shutdown.
// Each is a 16-bit register sent most significant byte first; read as an
// SMBus word, the whole degrees (signed) arrive in the low byte and the
// half-degree flag in bit 15.
#include <cstdint>

#include "Components/HardwareDevice.h"
#include "Components/TempSensor.h"

namespace Drivers {

class LM75 : public Component::HardwareDevice {
 public:
  // The values are the chip's register numbers.
  enum class Threshold : uint8_t { Alert = 2, Overheat = 3 };

  using HardwareDevice::HardwareDevice;

  static Component::HardwareDevice* create(const DriverArgs& args, Ham::Ham* ham);
  Component::LogicalDevice::TempSensor* newTempSensor(const FactoryArgs& args) override;
  Utils::ExpectedValues* expectedValues() override;

  pl_status getTemperature(float* celsius);
  pl_status getThreshold(Threshold threshold, float* celsius);
  pl_status setThreshold(Threshold threshold, float celsius);

  // The half degree is applied away from zero: low byte 0xFF with the flag
  // reads -1.5, not the chip's -0.5. That is the board software's rule, kept
  // so that a threshold reads back as setThreshold encoded it.
  static float registerToTemperature(unsigned short word);

  // The simulated chip: 39 degrees, both thresholds at 110.
  static Utils::ExpectedValues values;

  // The host's sensor. The thresholds it is given are programmed into the
  // chip at once; a chip that refuses them stops the host, since the host
  // relies on the hardware shutdown.
  class TempSensor : public Component::LogicalDevice::TempSensor {
   public:
    explicit TempSensor(LM75* device) : device_(device) {}

    pl_status getTemperature(float* celsius) override { return device_->getTemperature(celsius); }
    void alertThresholdIs(float value) override;
    void criticalThresholdIs(float value) override;

   private:
    LM75* device_;
  };

 private:
  pl_status readCelsius(uint32_t reg, float* celsius);
};

}  // namespace Drivers
