#pragma once
// A driver's behaviour as data. Each scenario of a JSON file beside the test
// builds one device on the fake access method ("device": its settings), maybe
// one host object of it ("object": "fan" or "tempSensor", "objectArgs"),
// scripts the fake ("values", "executeResults", "failOn"), runs one operation
// ("call", with "arg") and states the outcome: "status"; "out", the value
// written to the output (absent: left untouched); "calls", every call on the
// fake in order; "traces", every trace line as "<level> <text>". A scenario
// may instead stop the host ("dies": the assertion text) or throw ("throws").
#include <gmock/gmock.h>
#include <rapidjson/document.h>

#include <functional>
#include <map>
#include <memory>
#include <regex>

#include "Components/Fan.h"
#include "Components/TempSensor.h"
#include "FakeHam.h"
#include "FakeHost.h"
#include "TempDir.h"

namespace DriverScenarios {

using Value = rapidjson::Value;
constexpr double kUntouched = -777;

struct Subject {
  std::unique_ptr<Component::HardwareDevice> device;
  std::unique_ptr<Component::LogicalDevice::Fan> fan;
  std::unique_ptr<Component::LogicalDevice::TempSensor> sensor;
};
using Operation = std::function<pl_status(Subject&, const Value& arg, double* out)>;
using Factory = Component::HardwareDevice* (*)(const Drivers::DriverArgs&, Ham::Ham*);

inline rapidjson::Document load(const std::string& name) {
  rapidjson::Document doc;
  doc.Parse<rapidjson::kParseNanAndInfFlag>(readFile(KELDO_SOURCE_DIR "/tests/unit/Drivers/" + name).c_str());
  return doc;
}

// Runs a getter on an output that starts as kUntouched and hands the output on.
template <typename T, typename Getter>
pl_status output(double* out, Getter get) {
  T value = static_cast<T>(kUntouched);
  const pl_status status = get(&value);
  *out = value;
  return status;
}

inline Drivers::DriverArgs args(const Value& s, const char* key) {
  Drivers::DriverArgs args;
  if (s.HasMember(key)) for (const auto& m : s[key].GetObject()) args.driverArgs[m.name.GetString()] = m.value.GetString();
  return args;
}

inline std::vector<std::string> strings(const Value& array) {
  std::vector<std::string> out;
  for (const auto& v : array.GetArray()) out.push_back(v.GetString());
  return out;
}

inline pl_status act(Factory create, const std::map<std::string, Operation>& ops, const Value& s, FakeHam& ham,
                     Subject& subject, double* out) {
  for (const auto& [reg, value] : args(s, "values").driverArgs) ham.values[std::stoul(reg, nullptr, 0)] = std::stoul(value, nullptr, 0);
  for (const auto& [reg, status] : args(s, "failOn").driverArgs) ham.failOn[std::stoul(reg, nullptr, 0)] = std::stoi(status);
  if (s.HasMember("executeResults")) for (const auto& status : s["executeResults"].GetArray()) ham.executeResults.push_back(status.GetInt());
  subject.device.reset(create(args(s, "device"), &ham));
  const std::string kind = s.HasMember("object") ? s["object"].GetString() : "";
  if (kind == "fan") subject.fan.reset(subject.device->newFan(args(s, "objectArgs")));
  if (kind == "tempSensor") subject.sensor.reset(subject.device->newTempSensor(args(s, "objectArgs")));
  FakeHost::reset();
  static const Value none(rapidjson::kObjectType);
  return s.HasMember("call") ? ops.at(s["call"].GetString())(subject, s.HasMember("arg") ? s["arg"] : none, out) : 0;
}

// Runs every scenario of the file's array `section`.
inline void run(const std::string& file, const char* section, Factory create, const std::map<std::string, Operation>& ops) {
  const rapidjson::Document doc = load(file);
  for (const auto& s : doc[section].GetArray()) {
    SCOPED_TRACE(s["name"].GetString());
    FakeHam ham;
    Subject subject;
    double out = kUntouched;
    const auto call = [&] { return act(create, ops, s, ham, subject, &out); };
    if (s.HasMember("dies")) {
      const std::string text = std::regex_replace(s["dies"].GetString(), std::regex(R"([.^$|()\[\]{}*+?\\])"), R"(\$&)");
      EXPECT_DEATH(call(), "Assertion `" + text + "' failed");
    } else if (s.HasMember("throws")) {
      EXPECT_THAT(call, ::testing::ThrowsMessage<std::exception>(::testing::StrEq(s["throws"].GetString())));
    } else {
      EXPECT_EQ(s["status"].GetInt(), call());
      EXPECT_EQ(s.HasMember("out") ? s["out"].GetDouble() : kUntouched, out);
      std::vector<std::string> calls, traces;
      for (const auto& c : ham.calls) calls.push_back(::testing::PrintToString(c));
      for (const auto& t : FakeHost::traces()) traces.push_back(std::to_string(t.level) + " " + t.text);
      EXPECT_EQ(strings(s["calls"]), calls);
      EXPECT_EQ(strings(s["traces"]), traces);
    }
  }
}

}  // namespace DriverScenarios
