// The LM75 driver on the fake access method: the scenarios of LM75.json, and
// the conversions of sensor-conversions.json, which sensor_conversions.py
// computed from the chip's number format without this code.
#include "Drivers/LM75.h"

#include "DriverScenarios.h"

namespace {

using Drivers::LM75;
using namespace DriverScenarios;

LM75& lm75(Subject& s) { return static_cast<LM75&>(*s.device); }
LM75::Threshold threshold(const Value& arg) { return static_cast<LM75::Threshold>(arg["register"].GetInt()); }

const std::map<std::string, Operation> kOperations = {
    {"newTempSensor", [](Subject& s, const Value&, double*) { return s.sensor.reset(s.device->newTempSensor({})), 0; }},
    {"getTemperature", [](Subject& s, const Value&, double* out) {
       return output<float>(out, [&](float* c) { return s.sensor->getTemperature(c); }); }},
    {"getThreshold", [](Subject& s, const Value& arg, double* out) {
       return output<float>(out, [&](float* c) { return lm75(s).getThreshold(threshold(arg), c); }); }},
    {"setThreshold", [](Subject& s, const Value& arg, double*) { return lm75(s).setThreshold(threshold(arg), arg["celsius"].GetFloat()); }},
    {"alertThresholdIs", [](Subject& s, const Value& arg, double*) { return s.sensor->alertThresholdIs(arg.GetFloat()), 0; }},
    {"criticalThresholdIs", [](Subject& s, const Value& arg, double*) { return s.sensor->criticalThresholdIs(arg.GetFloat()), 0; }},
};

TEST(LM75, Scenarios) { run("LM75.json", "scenarios", LM75::create, kOperations); }
TEST(LM75DeathTest, ThresholdsTheChipRefusesStopTheHost) { run("LM75.json", "configurationErrors", LM75::create, kOperations); }

TEST(LM75, ConversionsAgreeWithTheIndependentTable) {
  const rapidjson::Document table = load("sensor-conversions.json");
  auto word = [](const Value& hex) { return static_cast<uint16_t>(std::stoul(hex.GetString(), nullptr, 16)); };
  for (const auto& row : table["lm75WordToCelsius"].GetArray()) {
    EXPECT_EQ(row[1].GetDouble(), LM75::registerToTemperature(word(row[0]))) << row[0].GetString();
  }
  for (const auto& row : table["lm75ThresholdWord"].GetArray()) {
    FakeHam ham;
    EXPECT_EQ(PL_STATUS_OK, LM75(&ham).setThreshold(LM75::Threshold::Overheat, row[0].GetFloat()));
    EXPECT_EQ(FakeHam::Calls{FakeHam::Call::write16(3, word(row[1]))}, ham.writes()) << row[0].GetDouble();
  }
}

}  // namespace
