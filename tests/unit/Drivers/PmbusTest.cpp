// The PMBus driver on the fake access method: the scenarios of Pmbus.json,
// and the conversions of sensor-conversions.json, which sensor_conversions.py
// computed from the PMBus number formats without this code.
#include "Drivers/Pmbus.h"

#include "DriverScenarios.h"
#include "Drivers/Helpers.h"

namespace {

using Drivers::Pmbus;
using namespace DriverScenarios;

// The supply, with the power-good line of "psu-status" (a device of its own)
// answered by the same fake.
Component::HardwareDevice* supply(const Drivers::DriverArgs& args, Ham::Ham* ham) {
  static Component::HardwareDevice* status = [] {
    Topology::loadTopology(R"([{"type": "I2C", "ham": "SimHam", "id": 1, "devices": [{"did": 16, "label": "psu-status",
        "uid": 70, "driver": "Dummy", "provideHam": 0, "address": {"address": 96}}]}])");
    return Drivers::getHardwareDeviceByLabel("psu-status", "Dummy");
  }();
  status->hamIs(ham);
  return Pmbus::create(args, ham);
}

template <typename T, typename Get>
Operation get(Get get) {
  return [get](Subject& s, const Value&, double* out) { return output<T>(out, [&](T* v) { return get(s, v); }); };
}
Pmbus& pmbus(Subject& s) { return static_cast<Pmbus&>(*s.device); }

const std::map<std::string, Operation> kOperations = {
    {"get_input_voltage", get<float>([](Subject& s, float* v) { return pmbus(s).get_input_voltage(v); })},
    {"get_input_current", get<float>([](Subject& s, float* v) { return pmbus(s).get_input_current(v); })},
    {"get_output_current", get<float>([](Subject& s, float* v) { return pmbus(s).get_output_current(v); })},
    {"get_input_power", get<float>([](Subject& s, float* v) { return pmbus(s).get_input_power(v); })},
    {"get_output_power", get<float>([](Subject& s, float* v) { return pmbus(s).get_output_power(v); })},
    {"get_output_voltage", get<float>([](Subject& s, float* v) { return pmbus(s).get_output_voltage(v); })},
    {"get_power_ok", get<int>([](Subject& s, int* v) { return pmbus(s).get_power_ok(v); })},
    {"getRpm", get<int>([](Subject& s, int* v) { return s.fan->getRpm(v); })},
    {"getTemperature", get<float>([](Subject& s, float* v) { return s.sensor->getTemperature(v); })},
    {"setRpm", [](Subject& s, const Value& arg, double*) { return s.fan->setRpm(arg.GetInt()); }},
    {"newTempSensor", [](Subject& s, const Value& arg, double* out) {  // out: register x 1000 + id
       s.sensor.reset(s.device->newTempSensor(args(arg, "args")));
       const auto& sensor = static_cast<Pmbus::TempSensor&>(*s.sensor);
       return *out = sensor.reg() * 1000 + sensor.id(), 0;
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
