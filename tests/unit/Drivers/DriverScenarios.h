#pragma once
// A driver's behaviour as data. Each scenario of a JSON file beside the test
// builds one device on the fake access method ("device": its settings), maybe
// one host object of it ("object": "fan" or "tempSensor", "objectArgs"),
// scripts the fake ("values", "executeResults", "failOn"), runs one operation
// ("call", with "arg") and states the outcome: "status"; "out", the value
// written to the output (absent: left untouched); "calls", every call on the
// fake in order; "traces", every trace line as "<level> <text>". A scenario
// may instead stop the host ("dies": the assertion text) or throw ("throws").
#include <gtest/gtest.h>
#include <rapidjson/document.h>

#include <functional>
#include <map>
#include <memory>
#include <regex>
#include <string>
#include <vector>

#include "Components/Fan.h"
#include "Components/HardwareDevice.h"
#include "Components/TempSensor.h"
#include "FakeHam.h"
#include "FakeHost.h"
#include "TempDir.h"

namespace DriverScenarios {

constexpr double kUntouched = -777;

struct Subject {
  std::unique_ptr<Component::HardwareDevice> device;
  std::unique_ptr<Component::LogicalDevice::Fan> fan;
  std::unique_ptr<Component::LogicalDevice::TempSensor> sensor;
};
using Operation = std::function<pl_status(Subject&, const rapidjson::Value& arg, double* out)>;
using Factory = Component::HardwareDevice* (*)(const Drivers::DriverArgs&, Ham::Ham*);

inline rapidjson::Document load(const std::string& name) {
  rapidjson::Document doc;
  doc.Parse<rapidjson::kParseNanAndInfFlag>(readFile(KELDO_SOURCE_DIR "/tests/unit/Drivers/" + name).c_str());
  EXPECT_FALSE(doc.HasParseError()) << name;
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

inline const rapidjson::Value& member(const rapidjson::Value& v, const char* key) {
  static const rapidjson::Value none(rapidjson::kObjectType);
  return v.HasMember(key) ? v[key] : none;
}

inline std::map<std::string, std::string> texts(const rapidjson::Value& object) {
  std::map<std::string, std::string> out;
  for (const auto& m : object.GetObject()) out[m.name.GetString()] = m.value.GetString();
  return out;
}

inline void script(FakeHam& ham, const rapidjson::Value& s) {
  for (const auto& [reg, value] : texts(member(s, "values"))) ham.values[std::stoul(reg, nullptr, 0)] = std::stoul(value, nullptr, 0);
  for (const auto& [reg, status] : texts(member(s, "failOn"))) ham.failOn[std::stoul(reg, nullptr, 0)] = std::stoi(status);
  if (s.HasMember("executeResults")) {
    for (const auto& status : s["executeResults"].GetArray()) ham.executeResults.push_back(status.GetInt());
  }
}

// Builds the subject and runs the call; `out` gets the call's output.
inline pl_status act(Factory create, const std::map<std::string, Operation>& ops, const rapidjson::Value& s,
                     FakeHam& ham, Subject& subject, double* out) {
  Drivers::DriverArgs device, object;
  device.driverArgs = texts(member(s, "device"));
  object.driverArgs = texts(member(s, "objectArgs"));
  subject.device.reset(create(device, &ham));
  const std::string kind = s.HasMember("object") ? s["object"].GetString() : "";
  if (kind == "fan") subject.fan.reset(subject.device->newFan(object));
  if (kind == "tempSensor") subject.sensor.reset(subject.device->newTempSensor(object));
  FakeHost::reset();
  if (!s.HasMember("call")) return PL_STATUS_OK;
  return ops.at(s["call"].GetString())(subject, member(s, "arg"), out);
}

inline std::vector<std::string> strings(const rapidjson::Value& array) {
  std::vector<std::string> out;
  for (const auto& v : array.GetArray()) out.push_back(v.GetString());
  return out;
}

// Runs every scenario of the file's array `section`.
inline void run(const std::string& file, const char* section, Factory create,
                const std::map<std::string, Operation>& ops) {
  const rapidjson::Document doc = load(file);
  for (const auto& s : doc[section].GetArray()) {
    SCOPED_TRACE(s["name"].GetString());
    FakeHam ham;
    script(ham, s);
    Subject subject;
    double out = kUntouched;
    if (s.HasMember("dies")) {
      const std::string text = std::regex_replace(s["dies"].GetString(), std::regex(R"([.^$|()\[\]{}*+?\\])"), R"(\$&)");
      EXPECT_DEATH(act(create, ops, s, ham, subject, &out), "Assertion `" + text + "' failed");
    } else if (s.HasMember("throws")) {
      try {
        act(create, ops, s, ham, subject, &out);
        ADD_FAILURE() << "no exception";
      } catch (const std::exception& e) {
        EXPECT_STREQ(s["throws"].GetString(), e.what());
      }
    } else {
      EXPECT_EQ(s["status"].GetInt(), act(create, ops, s, ham, subject, &out));
      EXPECT_EQ(member(s, "out").IsNumber() ? s["out"].GetDouble() : kUntouched, out);
      std::vector<std::string> calls;
      for (const auto& call : ham.calls) calls.push_back(::testing::PrintToString(call));
      EXPECT_EQ(strings(s["calls"]), calls);
      std::vector<std::string> traces;
      for (const auto& t : FakeHost::traces()) traces.push_back(std::to_string(t.level) + " " + t.text);
      EXPECT_EQ(strings(s["traces"]), traces);
    }
  }
}

}  // namespace DriverScenarios
