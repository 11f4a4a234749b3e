// The PMBus driver on the fake access method: the scenarios of Pmbus.json,
// and the conversions of sensor-conversions.json, which sensor_conversions.py
// computed from the PMBus number formats without this code.
#include "Drivers/Pmbus.h"

#include "DriverScenarios.h"
#include "Drivers/Helpers.h"

namespace {

using Drivers::Pmbus;
using Value = rapidjson::Value;
using namespace DriverScenarios;

Pmbus& pmbus(Subject& s) { return static_cast<Pmbus&>(*s.device); }

// The supply, with the power-good line of "psu-status" (uid 70, a device of
// its own) answered by the same fake.
Component::HardwareDevice* supply(const Drivers::DriverArgs& args, Ham::Ham* ham) {
  static Component::HardwareDevice* status = [] {
    EXPECT_EQ(PL_STATUS_OK, Topology::loadTopology(R"([{"type": "I2C", "ham": "SimHam", "id": 1, "devices": [
        {"did": 16, "label": "psu-status", "uid": 70, "driver": "Dummy", "provideHam": 0, "address": {"address": 96}}]}])"));
    return Drivers::getHardwareDeviceByLabel("psu-status", "Dummy");
  }();
  status->hamIs(ham);
  return Pmbus::create(args, ham);
}

// A PSU reading by the name of the host's callback.
Operation reading(pl_status (Pmbus::*get)(float*)) {
  return [get](Subject& s, const Value&, double* out) {
    return output<float>(out, [&](float* v) { return (pmbus(s).*get)(v); });
  };
}

const std::map<std::string, Operation> kOperations = {
    {"get_input_voltage", reading(&Pmbus::get_input_voltage)},
    {"get_input_current", reading(&Pmbus::get_input_current)},
    {"get_output_current", reading(&Pmbus::get_output_current)},
    {"get_input_power", reading(&Pmbus::get_input_power)},
    {"get_output_power", reading(&Pmbus::get_output_power)},
    {"get_output_voltage", reading(&Pmbus::get_output_voltage)},
    {"get_power_ok",
     [](Subject& s, const Value&, double* out) {
       return output<int>(out, [&](int* ok) { return pmbus(s).get_power_ok(ok); });
     }},
    {"getRpm",
     [](Subject& s, const Value&, double* out) { return output<int>(out, [&](int* rpm) { return s.fan->getRpm(rpm); }); }},
    {"setRpm", [](Subject& s, const Value& arg, double*) { return s.fan->setRpm(arg.GetInt()); }},
    {"getTemperature",
     [](Subject& s, const Value&, double* out) {
       return output<float>(out, [&](float* c) { return s.sensor->getTemperature(c); });
     }},
    {"newTempSensor", [](Subject& s, const Value& arg, double* out) {
       Drivers::DriverArgs args;
       args.driverArgs = texts(arg);
       s.sensor.reset(s.device->newTempSensor(args));
       *out = static_cast<Pmbus::TempSensor&>(*s.sensor).reg() * 1000 + static_cast<Pmbus::TempSensor&>(*s.sensor).id();
       return PL_STATUS_OK;
     }},
};

TEST(Pmbus, Scenarios) { run("Pmbus.json", "scenarios", supply, kOperations); }

TEST(PmbusDeathTest, ConfigurationErrors) { run("Pmbus.json", "configurationErrors", supply, kOperations); }

// LINEAR11 through a reading; READ_VOUT with VOUT_MODE and the configured exponent.
TEST(Pmbus, ConversionsAgreeWithTheIndependentTable) {
  const rapidjson::Document table = load("sensor-conversions.json");
  auto word = [](const Value& hex) { return static_cast<uint32_t>(std::stoul(hex.GetString(), nullptr, 16)); };
  for (const auto& row : table["linear11"].GetArray()) {
    FakeHam ham;
    ham.values[0x97] = word(row[0]);
    float watts = 0;
    EXPECT_EQ(PL_STATUS_OK, Pmbus(&ham, 255, nullptr, false).get_input_power(&watts));
    EXPECT_EQ(row[1].GetDouble(), watts) << row[0].GetString();
  }
  for (const auto& row : table["voutLinear16"].GetArray()) {
    FakeHam ham;
    ham.values = {{0x20, word(row[0])}, {0x8B, word(row[1])}};
    float volts = 0;
    EXPECT_EQ(PL_STATUS_OK, Pmbus(&ham, static_cast<uint8_t>(row[2].GetUint()), nullptr, false).get_output_voltage(&volts));
    EXPECT_EQ(row[3].GetDouble(), volts) << row[0].GetString() << " " << row[1].GetString() << " " << row[2].GetUint();
  }
}

}  // namespace
