#include "Drivers/Ipmi.h"

#include <clocale>
#include <cstdlib>
#include <iterator>

#include "Components/Fan.h"
#include "Components/Psu.h"
#include "Components/Slot.h"
#include "Components/TempSensor.h"
#include "Drivers/Helpers.h"
#include "Ham/IpmiHam.h"
#include "KeldoUtil/Assert.h"

namespace Drivers {

namespace LD = Component::LogicalDevice;

namespace {

constexpr char kDefaultAccess[] = "IpmiTool";

// The power-supply readings and the driver arguments that name their sensors.
enum Reading { INPUT_CURRENT, OUTPUT_CURRENT, INPUT_VOLTAGE, OUTPUT_VOLTAGE, INPUT_POWER, OUTPUT_POWER, READINGS };
constexpr const char* kPsuSensorArgs[READINGS] = {
    "inputCurrentSensor", "outputCurrentSensor", "inputVoltageSensor",
    "outputVoltageSensor", "inputPowerSensor", "outputPowerSensor",
};

// The "sensor" argument that every fan, fan slot and temperature sensor needs.
std::string sensorArg(const FactoryArgs& args) {
  const std::string* sensor = findArg(args, "sensor");
  KELDO_ASSERT(sensor && "Ipmi object needs a sensor name");
  return *sensor;
}

std::string optionalArg(const FactoryArgs& args, const char* key) {
  const std::string* text = findArg(args, key);
  return text != nullptr ? *text : std::string();
}

class TempSensor : public LD::TempSensor {
 public:
  TempSensor(const Ipmi* owner, std::string sensor) : owner_(owner), sensor_(std::move(sensor)) {}
  pl_status getTemperature(float* celsius) override { return owner_->reading(sensor_, celsius); }

 private:
  const Ipmi* owner_;
  std::string sensor_;
};

// The controller runs the fans: their speed can be read, not set.
class Fan : public LD::Fan {
 public:
  Fan(const Ipmi* owner, std::string sensor) : owner_(owner), sensor_(std::move(sensor)) {}
  pl_status getRpm(int* rpm) override {
    float value = 0;
    const pl_status status = owner_->reading(sensor_, &value);
    if (status == PL_STATUS_OK) *rpm = static_cast<int>(value);
    return status;
  }
  pl_status setRpm(int) override { return PL_STATUS_NOT_PROVIDED; }

 private:
  const Ipmi* owner_;
  std::string sensor_;
};

// A fan tray is in its slot while the controller reports its sensor.
class FanSlot : public LD::Slot {
 public:
  FanSlot(const Ipmi* owner, std::string sensor) : owner_(owner), sensor_(std::move(sensor)) {}
  pl_status getPresence(char** description) override {
    if (description != nullptr) *description = nullptr;
    bool present = false;
    owner_->ipmi().fanPresence(sensor_, &present);
    return present ? 1 : 0;
  }

 private:
  const Ipmi* owner_;
  std::string sensor_;
};

// A reading whose sensor the object does not name answers 5. Power is good
// while the power-good sensor reads non-zero (zero with "powerOkActiveLow").
class Psu : public LD::Psu {
 public:
  Psu(const Ipmi* owner, const FactoryArgs& args)
      : owner_(owner), powerOk_(optionalArg(args, "powerOkSensor")), activeLow_(isTrueArg(args, "powerOkActiveLow")) {
    for (int r = 0; r < READINGS; ++r) sensors_[r] = optionalArg(args, kPsuSensorArgs[r]);
  }
  pl_status get_power_ok(int* ok) override {
    float value = 0;
    const pl_status status = read(powerOk_, &value);
    if (status == PL_STATUS_OK) *ok = (value != 0) != activeLow_ ? 1 : 0;
    return status;
  }
  pl_status get_input_current(float* v) override { return read(sensors_[INPUT_CURRENT], v); }
  pl_status get_output_current(float* v) override { return read(sensors_[OUTPUT_CURRENT], v); }
  pl_status get_input_voltage(float* v) override { return read(sensors_[INPUT_VOLTAGE], v); }
  pl_status get_output_voltage(float* v) override { return read(sensors_[OUTPUT_VOLTAGE], v); }
  pl_status get_input_power(float* v) override { return read(sensors_[INPUT_POWER], v); }
  pl_status get_output_power(float* v) override { return read(sensors_[OUTPUT_POWER], v); }

 private:
  pl_status read(const std::string& sensor, float* value) const {
    return sensor.empty() ? PL_STATUS_NOT_PROVIDED : owner_->reading(sensor, value);
  }

  const Ipmi* owner_;
  std::string sensors_[READINGS];
  std::string powerOk_;
  bool activeLow_;
};

}  // namespace

Ipmi::Ipmi(std::shared_ptr<Ham::IpmiHam> ipmi) : ipmi_(std::move(ipmi)) {}

Component::HardwareDevice* Ipmi::create(const DriverArgs& args, Ham::Ham*) {
  const std::string* name = findArg(args, "ipmiHam");
  std::shared_ptr<Ham::IpmiHam> ipmi = Ham::sharedIpmiHam(name != nullptr ? *name : kDefaultAccess);
  if (!ipmi) return nullptr;
  if (const std::string* airflow = findArg(args, "airflowId")) ipmi->airflowId(*airflow);
  return new Ipmi(std::move(ipmi));
}

LD::TempSensor* Ipmi::newTempSensor(const FactoryArgs& args) { return new TempSensor(this, sensorArg(args)); }

LD::Fan* Ipmi::newFan(const FactoryArgs& args) {
  if (const std::string* tray = findArg(args, "fanTray")) ipmi_->fanId(*tray);
  return new Fan(this, sensorArg(args));
}

LD::Slot* Ipmi::newSlot(const FactoryArgs& args) { return new FanSlot(this, sensorArg(args)); }

LD::Psu* Ipmi::newPsu(const FactoryArgs& args) { return new Psu(this, args); }

// Readings are written with a decimal point (or as 0x.. for discrete
// sensors), whatever locale the host runs in.
pl_status Ipmi::reading(const std::string& sensor, float* value) const {
  static const locale_t cLocale = newlocale(LC_ALL_MASK, "C", static_cast<locale_t>(0));
  std::string text;
  const pl_status status = ipmi_->getSensorVal(sensor, text);
  if (status != PL_STATUS_OK) return status;
  char* end = nullptr;
  const float number = strtof_l(text.c_str(), &end, cLocale);
  if (end == text.c_str()) return PL_STATUS_UNAVAILABLE;
  *value = number;
  return PL_STATUS_OK;
}

}  // namespace Drivers
