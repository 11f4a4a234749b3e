// The four Zant CPLDs, reached through their static create and wired as the
// device model wires a device, on the fake access method (or simulated files)
// and the recording fake host. The tables are compared with an independent
// transcription (cpld-tables.json); the behaviour cases are steps in
// cpld-cases.json, whose comment explains them.
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <rapidjson/document.h>

#include <functional>
#include <memory>

#include "Drivers/Zant/ZantCPLDs.h"
#include "FakeHam.h"
#include "FakeHost.h"
#include "Ham/SimHam.h"
#include "TempDir.h"

namespace {

using namespace Drivers;
namespace LD = Component::LogicalDevice;
using Json = rapidjson::Value;
using Numbers = std::vector<uint32_t>;

rapidjson::Document load(const std::string& name) {
  rapidjson::Document doc;
  doc.Parse(readFile(KELDO_SOURCE_DIR "/tests/unit/Drivers/Zant/" + name).c_str());
  return doc;
}
const rapidjson::Document kTables = load("cpld-tables.json"), kCases = load("cpld-cases.json");

int num(const Json& v) { return v.IsString() ? std::stoi(v.GetString(), nullptr, 0) : v.GetInt(); }
// A member, or an empty array (object) when it is absent or null.
const Json& member(const Json& row, const char* key, rapidjson::Type type = rapidjson::kArrayType) {
  static const Json emptyArray(rapidjson::kArrayType), emptyObject(rapidjson::kObjectType);
  if (row.HasMember(key) && !row[key].IsNull()) return row[key];
  return type == rapidjson::kArrayType ? emptyArray : emptyObject;
}
// The numbers of a member, nested arrays flattened.
Numbers flat(const Json& v, Numbers out = {}) {
  for (const Json& e : v.GetArray()) {
    if (e.IsArray()) {
      out = flat(e, std::move(out));
    } else {
      out.push_back(num(e));
    }
  }
  return out;
}
Numbers flat(const Json& row, const char* key) { return flat(member(row, key)); }
template <typename T>
Numbers flat(const std::vector<T>* table) { return table ? Numbers(table->begin(), table->end()) : Numbers(); }
std::map<uint32_t, uint32_t> registers(const Json& row, const char* key) {
  std::map<uint32_t, uint32_t> out;
  for (const auto& m : member(row, key, rapidjson::kObjectType).GetObject()) out[num(m.name)] = num(m.value);
  return out;
}
// "prepare", "execute", ["read8", register] or ["write8", register, byte].
FakeHam::Call call(const Json& c) {
  using C = FakeHam::Call;
  if (!c.IsArray()) return std::string(c.GetString()) == "prepare" ? C::prepare() : C::execute();
  return c.Size() == 2 ? C::read8(num(c[1])) : C::write8(num(c[1]), num(c[2]));
}

struct Variant {
  Component::HardwareDevice* (*create)(const DriverArgs&, Ham::Ham*);
  const CelXcvrCPLD::Limits *qsfpRegisterLimits, *sfpRegisterLimits;
};
const std::map<std::string, Variant> kVariants = {
    {"ZantCCPLD", {ZantCCPLD::create, &ZantCCPLD::qsfpRegisterLimits, nullptr}},
    {"ZantQCPLD", {ZantQCPLD::create, &ZantQCPLD::qsfpRegisterLimits, nullptr}},
    {"ZantSCPLD", {ZantSCPLD::create, nullptr, &ZantSCPLD::sfpRegisterLimits}},
    {"ZantYCPLD", {ZantYCPLD::create, nullptr, &ZantYCPLD::sfpRegisterLimits}},
};

// The variant's device as the device model creates it: factory, simulation
// wiring, init().
CelXcvrCPLD* create(const std::string& variant, Ham::Ham* ham, bool poll) {
  DriverArgs args;
  if (poll) args.driverArgs["xcvrPoll"] = "";
  auto* cpld = static_cast<CelXcvrCPLD*>(kVariants.at(variant).create(args, ham));
  ham->setDriverName(variant, "");
  ham->setExpected(cpld->expectedValues());
  cpld->init();
  return cpld;
}

// The maps and the port-LED list as a polling device installs them.
TEST(ZantCPLDTables, EveryTableMatchesTheTranscription) {
  for (const auto& [name, v] : kVariants) {
    SCOPED_TRACE(name);
    FakeHam ham;
    std::unique_ptr<CelXcvrCPLD> cpld(create(name, &ham, true));
    const Json& t = kTables[name.c_str()];
    EXPECT_EQ(flat(t, "qsfpRegisterMap"), flat(cpld->registerMaps.at(CelXcvrCPLD::QSFP_MAP)));
    EXPECT_EQ(flat(t, "sfpRegisterMap"), flat(cpld->registerMaps.at(CelXcvrCPLD::SFP_MAP)));
    EXPECT_EQ(flat(t, "qsfpPortLedsRegMap"), flat(cpld->portLedsRegMap));
    EXPECT_EQ(flat(t, "qsfpRegisterLimits"), flat(v.qsfpRegisterLimits));
    EXPECT_EQ(flat(t, "sfpRegisterLimits"), flat(v.sfpRegisterLimits));
    std::map<uint32_t, uint32_t> transcribed, values;
    for (const Json& p : member(t, "values").GetArray()) transcribed.emplace(num(p[0]), num(p[1]));
    for (const auto& [reg, value] : *cpld->expectedValues()) {
      EXPECT_TRUE(value.isNumeric() && value.size() == 1) << reg;
      values[reg] = value.value();
    }
    EXPECT_EQ(transcribed, values);
    DriverArgs gpio;  // the CPLD as the register device of GPIO lines: no driver of its own
    gpio.driverArgs = {{"type", "gpio"}, {"xcvrPoll", ""}};
    std::unique_ptr<Component::HardwareDevice> device(v.create(gpio, &ham));
    EXPECT_EQ(nullptr, dynamic_cast<CelXcvrCPLD*>(device.get()));
  }
  EXPECT_EQ(num(kTables["ZantYCPLD"]["systemLedRegister"]), ZantYCPLD::SYSTEM_LED_REGISTER);
}

TEST(CelXcvrCPLD, PortsBeyondTheLastLimitLeaveTheBitAlone) {
  unsigned char block = 0, bit = 9;
  CelXcvrCPLD::computeOffsetAndBitpos({8, 16}, 16, block, bit);
  EXPECT_EQ(2 * 256 + 9, block * 256 + bit);
}

// A transport whose response ids do not start at 0 (entries of its own in front).
struct ShiftedIdsHam : FakeHam {
  ResponseId addRead8(uint32_t reg) override { return FakeHam::addRead8(reg) + 100; }
  uint8_t get8(ResponseId id) override { return FakeHam::get8(id - 100); }
};

// The host callbacks of a port's table, by the name of the table member.
#define GETTER(family, name) {#name, [](pl_xcvr* x, int, int* v) { return x->ops->u.family.name(x, v); }}
#define SETTER(family, name) {#name, [](pl_xcvr* x, int a, int*) { return x->ops->u.family.name(x, a); }}
const std::map<std::string, std::function<pl_status(pl_xcvr*, int arg, int* out)>> kCallbacks = {
    {"get_presence", [](pl_xcvr* x, int, int*) { return x->ops->u.sfp.get_presence(x); }},  // first in both
    GETTER(qsfp, get_reset), SETTER(qsfp, set_reset), GETTER(qsfp, get_lp_mode), SETTER(qsfp, set_lp_mode),
    GETTER(qsfp, get_interrupt), GETTER(qsfp, get_mod_sel), SETTER(qsfp, set_mod_sel), GETTER(sfp, get_rx_los),
    GETTER(sfp, get_tx_disable), SETTER(sfp, set_tx_disable), GETTER(sfp, get_tx_fault)};

// One case of cpld-cases.json: a device of the variant and the last object made on it.
struct Case {
  explicit Case(const Json& c) : json(c) { fake.stateful = c.HasMember("stateful"); }

  void make(const Json& object) {
    DriverArgs args;
    for (const auto& m : member(object, "led", rapidjson::kObjectType).GetObject()) {
      args.driverArgs[m.name.GetString()] = m.value.GetString();
    }
    sfp.reset(object.HasMember("sfp") ? cpld->newSfpXcvr(num(object["sfp"]), args) : nullptr);
    qsfp.reset(object.HasMember("qsfp") ? cpld->newQsfpXcvr(num(object["qsfp"]), args) : nullptr);
    led.reset(object.HasMember("led") ? cpld->newLed(args) : nullptr);
    if (led && led->canBlink()) LD::Led::createBlinkTimer();  // as pl_led_add does
  }
  pl_status callback(const std::string& name, int arg) {
    if (led) return led->handle()->ops->set_light_setting(led->handle(), pl_led_status(arg));
    return kCallbacks.at(name)(sfp ? sfp->handle() : qsfp->handle(), arg, &value);
  }

  void act(const Json& step) {
    for (const auto& [reg, byte] : registers(step, "values")) fake.values[reg] = byte;
    for (const auto& [reg, status] : registers(step, "failOn")) fake.failOn[reg] = static_cast<pl_status>(status);
    for (uint32_t status : flat(step, "execute")) fake.executeResults.push_back(status);
    FakeHost::reset();
    FakeHost::failTimerSet(step.HasMember("timerSetFails"));
    fake.calls.clear();
    if (step.HasMember("init")) {
      const std::string ham = json.HasMember("ham") ? json["ham"].GetString() : "fake";
      Ham::Ham* access = ham == "fake" ? static_cast<Ham::Ham*>(&fake) : ham == "sim" ? &sim : nullptr;
      cpld.reset(create(json["cpld"].GetString(), access, !json.HasMember("xcvrPoll")));
      pollTimer = FakeHost::timerSets().empty() ? 0 : FakeHost::timerSets().back().timer;
    }
    if (step.HasMember("object")) make(step["object"]);
    if (step.HasMember("call")) result = callback(step["call"].GetString(), step.HasMember("arg") ? num(step["arg"]) : 0);
    if (step.HasMember("tick")) LD::Led::blinkStatus_ = step.HasMember("phase") && step["phase"].GetBool();
    if (step.HasMember("tick")) FakeHost::fire(std::string(step["tick"].GetString()) == "poll" ? pollTimer : LD::Led::blinkTimer_);
  }

  void check(const Json& step) {
    if (step.HasMember("result")) { EXPECT_EQ(num(step["result"]), result); }
    if (step.HasMember("value")) { EXPECT_EQ(num(step["value"]), value); }
    if (step.HasMember("null")) { EXPECT_TRUE(!sfp && !qsfp && !led); }
    if (step.HasMember("blinking")) { EXPECT_EQ(num(step["blinking"]), static_cast<int>(LD::Led::notifyList_.size())); }
    if (step.HasMember("file")) { EXPECT_EQ(step["file"].GetString(), readFile(dir.file(json["cpld"].GetString()))); }
    for (const auto& [reg, byte] : registers(step, "cache")) EXPECT_EQ(byte, cpld->registerCache.at(reg)) << reg;
    for (const auto& m : member(step, "traces", rapidjson::kObjectType).GetObject()) {
      std::vector<std::string> texts;
      for (const Json& t : m.value.GetArray()) texts.push_back(t.GetString());
      EXPECT_EQ(texts, FakeHost::traceTexts(num(m.name))) << "level " << m.name.GetString();
    }
    Numbers timerSets;
    for (const FakeHost::TimerSet& set : FakeHost::timerSets()) timerSets.push_back(set.interval);
    if (step.HasMember("timerSets")) { EXPECT_EQ(flat(step, "timerSets"), timerSets); }
    FakeHam::Calls calls;
    for (const Json& c : member(step, "calls").GetArray()) calls.push_back(call(c));
    if (step.HasMember("calls")) { EXPECT_EQ(calls, fake.calls); }
  }

  void run() {
    int index = 0;
    for (const Json& step : json["steps"].GetArray()) {
      SCOPED_TRACE("step " + std::to_string(index++));
      act(step);
      check(step);
    }
    LD::Led::notifyList_.clear();  // the LED goes away with the case
  }

  const Json& json;
  TempDir dir;  // KELDOLIB_SIMDIR of a simulated case
  ShiftedIdsHam fake;
  Ham::SimHam sim;
  std::unique_ptr<CelXcvrCPLD> cpld;
  std::unique_ptr<LD::SfpXcvr> sfp;
  std::unique_ptr<LD::QsfpXcvr> qsfp;
  std::unique_ptr<LD::Led> led;
  pl_timer_handle pollTimer = 0;
  pl_status result = -1;
  int value = -1;  // a getter's output; -1 when untouched
};

void runCases(const char* group, const std::string& component = "") {
  GTEST_FLAG_SET(death_test_style, "threadsafe");
  for (const Json& c : kCases[group].GetArray()) {
    SCOPED_TRACE(c["name"].GetString());
    Case run(c);
    setenv("KELDOLIB_SIMDIR", run.dir.path().c_str(), 1);
    Ham::SimHam::forgetSimulationDirectory();
    if (!c.HasMember("assertion")) {
      run.run();
    } else if (component == c["component"].GetString()) {
      EXPECT_DEATH(run.run(), testing::HasSubstr(std::string("Assertion `") + c["assertion"].GetString() + "' failed"));
    }
  }
}

TEST(ZantCPLD, PortsMapToTheirBlockAndBitAndInvertActiveLowSignals) { runCases("ports"); }
TEST(ZantCPLD, OnePollPerTickReadsEveryMappedRegisterInOneTransaction) { runCases("polls"); }
TEST(ZantCPLD, LedEncodingsAndBlinking) { runCases("leds"); }
TEST(ZantCPLD, SimulatedBoardsShowTheirPowerOnImage) { runCases("simulation"); }
// Configuration errors stop the host.
TEST(CelXcvrCPLDDeathTest, LedArgumentsPortsWithoutPollingTimersAndAccess) { runCases("deaths", "CelXcvrCPLD"); }
TEST(ZantCPLDsDeathTest, PortIdsOutOfRange) { runCases("deaths", "ZantCPLDs"); }

}  // namespace
