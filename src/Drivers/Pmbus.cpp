#include "Drivers/Pmbus.h"

#include <algorithm>
#include <array>
#include <cmath>
#include <string>

#include "Drivers/Helpers.h"
#include "Ham/Ham.h"
#include "KeldoUtil/Assert.h"

namespace Drivers {

namespace {

// The PMBus commands this driver sends, by the standard's names.
enum Command : uint8_t {
  CLEAR_FAULTS = 0x03,
  WRITE_PROTECT = 0x10,
  VOUT_MODE = 0x20,
  FAN_COMMAND_1 = 0x3B,
  FAN_COMMAND_2 = 0x3C,
  STATUS_WORD = 0x79,
  STATUS_FANS_1_2 = 0x81,
  READ_VIN = 0x88,
  READ_IIN = 0x89,
  READ_VOUT = 0x8B,
  READ_IOUT = 0x8C,
  READ_TEMPERATURE_1 = 0x8D,
  READ_TEMPERATURE_2 = 0x8E,
  READ_TEMPERATURE_3 = 0x8F,
  READ_FAN_SPEED_1 = 0x90,
  READ_FAN_SPEED_2 = 0x91,
  READ_POUT = 0x96,
  READ_PIN = 0x97,
};

// By fan index (the object's "fanId" minus 1).
constexpr Pmbus::FanRegisters kFans[] = {
    {READ_FAN_SPEED_1, FAN_COMMAND_1, 0x80},
    {READ_FAN_SPEED_2, FAN_COMMAND_2, 0x40},
};

// By the object's "tempSensor" minus 1; the lookup is bounds-checked.
constexpr std::array<uint8_t, 3> kTemperatureRegisters = {READ_TEMPERATURE_1, READ_TEMPERATURE_2, READ_TEMPERATURE_3};

// STATUS_WORD bits.
constexpr uint16_t kPowerGoodNegated = 0x0800;  // POWER_GOOD#: the output is not good
constexpr uint16_t kOff = 0x0040;               // the unit is not providing power

// VOUT_MODE: the top three bits select the format; in linear mode the low
// five bits are the exponent.
constexpr uint8_t kVoutModeFormat = 0xE0;
constexpr uint8_t kVoutModeLinear11 = 0xFF;  // READ_VOUT is a LINEAR11 word like the other readings
constexpr uint8_t kExponentFromVoutMode = 255;

constexpr unsigned char kLinear11Mantissa = 11, kLinearExponent = 5, kLinear16Mantissa = 16;

// Sign-extends the low `bits` bits (1 to 16) of `value`.
int32_t signExtend(uint32_t value, unsigned bits) {
  const uint32_t sign = 1u << (bits - 1);
  value &= (sign << 1) - 1;
  return static_cast<int32_t>(value ^ sign) - static_cast<int32_t>(sign);
}

float linear11(uint16_t word) {
  return Pmbus::linearToReal(word, static_cast<unsigned char>(word >> kLinear11Mantissa), kLinear11Mantissa,
                             kLinearExponent);
}

// The decimal number of a setting that is present.
int number(const DriverArgs& args, const char* key) { return std::stoi(args.driverArgs.at(key)); }

}  // namespace

// Register: value (width in bytes) in simulation.
Utils::ExpectedValues Pmbus::values = {
    {VOUT_MODE, {23u, 1}},         // linear, exponent -9
    {READ_VOUT, {0u, 1}},
    {STATUS_WORD, {0x2C4Bu, 2}},   // OFF and POWER_GOOD# among others
    {READ_VIN, {0xC800u, 2}},
    {READ_IIN, {0xA800u, 2}},
    {READ_IOUT, {0xE000u, 2}},
    {READ_TEMPERATURE_1, {0xF84Cu, 2}},  // 76 x 2^-1 = 38 degrees
    {READ_TEMPERATURE_2, {0xF800u, 2}},
    {READ_FAN_SPEED_1, {0x1B69u, 2}},    // 873 x 2^3 = 6984 RPM
    {READ_POUT, {0xD800u, 2}},
    {READ_PIN, {0xD800u, 2}},
};

Component::HardwareDevice* Pmbus::create(const DriverArgs& args, Ham::Ham* ham) {
  pl_trace(0, "Creating Pmbus Device");
  if (ham == nullptr) {
    return nullptr;  // "provideHam": 0: a supply that cannot be read is no device
  }
  const auto exponent = args.driverArgs.find("voutExponent");
  const auto voutExponent = static_cast<uint8_t>(exponent == args.driverArgs.end() ? kExponentFromVoutMode
                                                                                   : std::stoi(exponent->second));
  Component::LogicalDevice::Gpio* powerOk = nullptr;
  bool activeLow = false;
  const auto gpioDevice = args.driverArgs.find("gpioDevice");
  if (gpioDevice != args.driverArgs.end()) {
    const int reg = number(args, "powerOkReg");
    const int bit = number(args, "powerOkBit");
    activeLow = args.driverArgs.at("powerOkActiveLow") == "true";
    powerOk = getRegGpioForDevice(gpioDevice->second.c_str(), static_cast<uint32_t>(reg), static_cast<uint32_t>(bit));
  }
  return new Pmbus(ham, voutExponent, powerOk, activeLow);
}

Component::LogicalDevice::Psu* Pmbus::newPsu(const FactoryArgs&) { return new Psu(this); }

Component::LogicalDevice::Fan* Pmbus::newFan(const FactoryArgs& args) {
  pl_trace(0, "Creating Pmbus Fan Device");
  KELDO_ASSERT(args.driverArgs.find( "fanId" ) != args.driverArgs.end());
  const int fanId = number(args, "fanId");
  KELDO_ASSERT(fanId == 1 || fanId == 2);
  KELDO_ASSERT(args.driverArgs.find( "maxFanRpm" ) != args.driverArgs.end());
  const int32_t maxFanRpm = number(args, "maxFanRpm");
  KELDO_ASSERT(maxFanRpm != 0);  // the duty cycle divides by it
  const bool pec = args.driverArgs.at("pec") == "true";
  const auto index = static_cast<uint8_t>(fanId - 1);
  return new Fan(this, index, maxFanRpm, pec, kFans[index]);
}

Component::LogicalDevice::TempSensor* Pmbus::newTempSensor(const FactoryArgs& args) {
  KELDO_ASSERT(args.driverArgs.find( "sensorId" ) != args.driverArgs.end());
  const int sensorId = number(args, "sensorId");
  const int tempSensor = number(args, "tempSensor");
  pl_trace(0, "Creating Pmbus TempSensor device %d using sensor %d", sensorId, tempSensor);
  const uint8_t reg = kTemperatureRegisters.at(static_cast<size_t>(tempSensor) - 1);
  return new TempSensor(this, static_cast<uint8_t>(sensorId), reg);
}

Utils::ExpectedValues* Pmbus::expectedValues() { return &values; }

float Pmbus::linearToReal(unsigned short raw, unsigned char exponent, unsigned char mantissaBits,
                          unsigned char exponentBits) {
  return static_cast<float>(signExtend(raw, mantissaBits)) *
         powf(2, static_cast<float>(signExtend(exponent, exponentBits)));
}

pl_status Pmbus::pmbus_read_linear(unsigned char reg, float* out) {
  uint16_t word = 0;
  const pl_status status = ham_->read16(reg, &word);
  if (status == PL_STATUS_OK) {
    *out = linear11(word);
  }
  return status;
}

pl_status Pmbus::get_input_voltage(float* volts) { return pmbus_read_linear(READ_VIN, volts); }
pl_status Pmbus::get_input_current(float* amperes) { return pmbus_read_linear(READ_IIN, amperes); }
pl_status Pmbus::get_output_current(float* amperes) { return pmbus_read_linear(READ_IOUT, amperes); }
pl_status Pmbus::get_input_power(float* watts) { return pmbus_read_linear(READ_PIN, watts); }
pl_status Pmbus::get_output_power(float* watts) { return pmbus_read_linear(READ_POUT, watts); }

// VOUT_MODE and READ_VOUT in one transaction, so the mode read belongs to
// the voltage read.
pl_status Pmbus::get_output_voltage(float* volts) {
  ham_->prepare();
  const Ham::Ham::ResponseId modeId = ham_->addRead8(VOUT_MODE);
  const Ham::Ham::ResponseId voutId = ham_->addRead16(READ_VOUT);
  const pl_status status = ham_->execute();
  if (status != PL_STATUS_OK) {
    return status;
  }
  const uint8_t mode = ham_->get8(modeId);
  const uint16_t raw = ham_->get16(voutId);
  if ((mode & kVoutModeFormat) == 0) {
    // LINEAR16; the mantissa is taken as signed, so 0x8000 and above read negative.
    const uint8_t exponent = voutExponent_ != kExponentFromVoutMode ? voutExponent_ : mode;
    *volts = linearToReal(raw, exponent, kLinear16Mantissa, kLinearExponent);
  } else if (mode == kVoutModeLinear11) {
    *volts = linear11(raw);
  }
  // VID and direct modes need coefficients that the board does not give: the
  // output is left as it was.
  return PL_STATUS_OK;
}

pl_status Pmbus::getTemperature(unsigned char reg, float* celsius) {
  float value = 0;
  const pl_status status = pmbus_read_linear(reg, &value);
  if (status == PL_STATUS_OK) {
    *celsius = value < 0 ? 0.0f : value;  // below freezing is not a plausible supply temperature
  }
  return status;
}

// A fan whose fault bit is set is not read: its speed register may hold the
// last speed before the fault.
pl_status Pmbus::getFanRpm(Fan* fan, int* rpm) {
  uint8_t faults = 0;
  pl_status status = ham_->read8(STATUS_FANS_1_2, &faults);
  if (status != PL_STATUS_OK) {
    return status;
  }
  if ((faults & fan->registers().faultMask) != 0) {
    return PL_STATUS_HW_FAULT;
  }
  float speed = 0;
  status = pmbus_read_linear(fan->registers().speed, &speed);
  if (status != PL_STATUS_OK) {
    return status;
  }
  *rpm = static_cast<int>(speed);  // a LINEAR11 value always fits an int
  if (*rpm < 0) {
    pl_trace(0, "Pmbus::Fan%d Invalid RPM reading: %d", fan->index(), *rpm);
    return PL_STATUS_UNAVAILABLE;
  }
  return PL_STATUS_OK;
}

// The duty cycle is a percentage of the fan's top speed, taken as an unsigned
// 16-bit number and clamped to 100: a negative speed asks for full speed,
// unless it is too small to make a whole percent.
pl_status Pmbus::setFanRpm(Fan* fan, int rpm) {
  const auto duty = static_cast<uint16_t>(int64_t{rpm} * 100 / fan->maxFanRpm());
  pl_trace(6, "Setting fan %d duty cycle to %d", fan->index(), duty);
  const uint16_t clamped = std::min<uint16_t>(duty, 100);
  const pl_status status = ham_->write16(fan->registers().command, clamped, fan->pec());
  if (status != PL_STATUS_OK) {
    pl_trace(0, "Failed to set fan%d duty cycle to %d", fan->index(), clamped);
  }
  return status;
}

pl_status Pmbus::clearFaults() {
  pl_trace(4, "Ensure WRITE_PROTECT is disabled and issue CLEAR_FAULTS command");
  ham_->prepare();
  ham_->addWrite8(WRITE_PROTECT, 0, false);
  ham_->addSendByte(CLEAR_FAULTS, false);
  return ham_->execute();
}

// Latched faults are cleared first, so that STATUS_WORD (or the line) shows
// the supply as it is now.
pl_status Pmbus::get_power_ok(int* ok) {
  pl_trace(4, "pl_status Drivers::Pmbus::get_power_ok(int*)");
  const pl_status cleared = clearFaults();
  if (cleared != PL_STATUS_OK) {
    pl_trace(3, "CLEAR_FAULTS PMBus command failed: %d", cleared);
  }
  if (powerOkGpio_ == nullptr) {
    return powerOkFromStatusWord(ok);
  }
  pl_trace(4, "Checking power OK using powerOkGpio_");
  unsigned int value = 0;
  const pl_status status = powerOkGpio_->bitRead(&value);
  if (status != PL_STATUS_OK) {
    return status;
  }
  *ok = powerOkActiveLow_ ? 1 - static_cast<int>(value) : static_cast<int>(value);
  return PL_STATUS_OK;
}

// Power that is bad while the unit is on is a fault; a unit that is off
// simply has no good power.
pl_status Pmbus::powerOkFromStatusWord(int* ok) {
  pl_trace(4, "Checking power OK using STATUS_WORD_REG");
  uint16_t word = 0;
  const pl_status status = ham_->read16(STATUS_WORD, &word);
  if (status != PL_STATUS_OK) {
    return status;
  }
  const int powerBad = (word & kPowerGoodNegated) != 0 ? 1 : 0;
  const int off = (word & kOff) != 0 ? 1 : 0;
  pl_trace(4, "statusWord: 0x%x, powerBad: 0b%d, off: 0b%d", word, powerBad, off);
  if (off == 0 && powerBad != 0) {
    return PL_STATUS_HW_FAULT;
  }
  *ok = 1 - powerBad;
  return PL_STATUS_OK;
}

}  // namespace Drivers
