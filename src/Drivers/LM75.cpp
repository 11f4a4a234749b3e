#include "Drivers/LM75.h"

#include <cmath>

#include "Ham/Ham.h"
#include "KeldoUtil/Assert.h"

namespace Drivers {

// Register: value, one byte each in simulation (whole degrees only).
Utils::ExpectedValues LM75::values = {
    {0, {39u, 1}},    // temperature
    {2, {110u, 1}},   // hysteresis (alert)
    {3, {110u, 1}},   // over-temperature shutdown
};

namespace {

constexpr uint32_t kTemperatureRegister = 0;
constexpr uint16_t kHalfDegreeFlag = 0x8000;

// The word for a threshold: the whole degrees truncated toward zero, of which
// the low byte is taken as signed and sign-extended into the high byte; bit 15
// is set when the doubled remainder rounds to an odd number of halves. So any
// negative value writes 0xFF into the high byte, and a remainder of 0.75 or
// more drops the half flag without carrying into the whole degrees (80.9
// writes 80). Values with no whole part in range (NaN, infinities,
// |value| >= 2^31) write 0x0000, the word of 0 degrees.
uint16_t thresholdWord(float celsius) {
  if (!(std::fabs(celsius) < 2147483648.0f)) {
    return 0;
  }
  const int whole = static_cast<int>(celsius);
  const auto low = static_cast<int8_t>(static_cast<uint8_t>(whole));
  const auto halves = static_cast<int64_t>(std::roundf(2 * (celsius - low)));
  const uint16_t high = halves % 2 != 0 ? 0x80 : 0;
  return static_cast<uint16_t>(high << 8 | static_cast<uint16_t>(static_cast<int16_t>(low)));
}

}  // namespace

// A sensor without bus access ("provideHam": 0) cannot be read: no device.
Component::HardwareDevice* LM75::create(const DriverArgs&, Ham::Ham* ham) {
  return ham != nullptr ? new LM75(ham) : nullptr;
}

Component::LogicalDevice::TempSensor* LM75::newTempSensor(const FactoryArgs&) {
  pl_trace(5, "Creating LM75");
  return new TempSensor(this);
}

Utils::ExpectedValues* LM75::expectedValues() { return &values; }

float LM75::registerToTemperature(unsigned short word) {
  const float whole = static_cast<int8_t>(word & 0xFF);
  if ((word & kHalfDegreeFlag) == 0) {
    return whole;
  }
  return whole >= 0 ? whole + 0.5f : whole - 0.5f;
}

pl_status LM75::readCelsius(uint32_t reg, float* celsius) {
  uint16_t word = 0;
  const pl_status status = ham_->read16(reg, &word);
  if (status == PL_STATUS_OK) {
    *celsius = registerToTemperature(word);
  }
  return status;
}

pl_status LM75::getTemperature(float* celsius) {
  pl_trace(6, "%s", "pl_status Drivers::LM75::getTemperature(float*)");
  return readCelsius(kTemperatureRegister, celsius);
}

pl_status LM75::getThreshold(Threshold threshold, float* celsius) {
  return readCelsius(static_cast<uint32_t>(threshold), celsius);
}

pl_status LM75::setThreshold(Threshold threshold, float celsius) {
  return ham_->write16(static_cast<uint32_t>(threshold), thresholdWord(celsius), false);
}

void LM75::TempSensor::alertThresholdIs(float value) {
  Component::LogicalDevice::TempSensor::alertThresholdIs(value);
  KELDO_ASSERT(device_->setThreshold( Threshold::Alert, value ) == PL_STATUS_OK);
}

void LM75::TempSensor::criticalThresholdIs(float value) {
  Component::LogicalDevice::TempSensor::criticalThresholdIs(value);
  KELDO_ASSERT(device_->setThreshold( Threshold::Overheat, value ) == PL_STATUS_OK);
}

}  // namespace Drivers
