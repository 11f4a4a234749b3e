// The LM75 driver on the fake access method: the scenarios of LM75.json, and
// the conversions of sensor-conversions.json, which sensor_conversions.py
// computed from the chip's number format without this code.
#include "Drivers/LM75.h"

#include "DriverScenarios.h"

namespace {

using Drivers::LM75;
using Value = rapidjson::Value;
using namespace DriverScenarios;

LM75::Threshold threshold(const Value& arg) {
  return arg["register"].GetInt() == 2 ? LM75::Threshold::Alert : LM75::Threshold::Overheat;
}

const std::map<std::string, Operation> kOperations = {
    {"newTempSensor", [](Subject& s, const Value&, double*) {
       s.sensor.reset(s.device->newTempSensor({}));
       return PL_STATUS_OK;
     }},
    {"getTemperature",
     [](Subject& s, const Value&, double* out) {
       return output<float>(out, [&](float* c) { return s.sensor->getTemperature(c); });
     }},
    {"getThreshold",
     [](Subject& s, const Value& arg, double* out) {
       return output<float>(out, [&](float* c) { return static_cast<LM75&>(*s.device).getThreshold(threshold(arg), c); });
     }},
    {"setThreshold",
     [](Subject& s, const Value& arg, double*) {
       return static_cast<LM75&>(*s.device).setThreshold(threshold(arg), arg["celsius"].GetFloat());
     }},
    {"alertThresholdIs", [](Subject& s, const Value& arg, double*) {
       s.sensor->alertThresholdIs(arg.GetFloat());
       return PL_STATUS_OK;
     }},
    {"criticalThresholdIs", [](Subject& s, const Value& arg, double*) {
       s.sensor->criticalThresholdIs(arg.GetFloat());
       return PL_STATUS_OK;
     }},
};

TEST(LM75, Scenarios) { run("LM75.json", "scenarios", LM75::create, kOperations); }

TEST(LM75DeathTest, ThresholdsTheChipRefusesStopTheHost) {
  run("LM75.json", "configurationErrors", LM75::create, kOperations);
}

TEST(LM75, ConversionsAgreeWithTheIndependentTable) {
  const rapidjson::Document table = load("sensor-conversions.json");
  for (const auto& row : table["lm75WordToCelsius"].GetArray()) {
    const auto word = static_cast<uint16_t>(std::stoul(row[0].GetString(), nullptr, 16));
    EXPECT_EQ(row[1].GetDouble(), LM75::registerToTemperature(word)) << row[0].GetString();
  }
  for (const auto& row : table["lm75ThresholdWord"].GetArray()) {
    FakeHam ham;
    EXPECT_EQ(PL_STATUS_OK, LM75(&ham).setThreshold(LM75::Threshold::Overheat, row[0].GetFloat()));
    const auto word = static_cast<uint16_t>(std::stoul(row[1].GetString(), nullptr, 16));
    EXPECT_EQ(FakeHam::Calls{FakeHam::Call::write16(3, word)}, ham.writes()) << row[0].GetDouble();
  }
}

}  // namespace
