// The four Zant CPLDs on the fake access method and the recording fake host,
// reached through their static create and wired as the device model wires a
// device. Tables are checked against an independent transcription
// (cpld-tables.json); the cases are in cpld-cases.json.
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <rapidjson/document.h>
#include <rapidjson/stringbuffer.h>
#include <rapidjson/writer.h>

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
using C = FakeHam::Call;
using Json = rapidjson::Value;
using Numbers = std::vector<uint32_t>;

rapidjson::Document load(const std::string& name) {
  rapidjson::Document doc;
  doc.Parse(readFile(KELDO_SOURCE_DIR "/tests/unit/Drivers/Zant/" + name).c_str());
  return doc;
}
const rapidjson::Document kTables = load("cpld-tables.json"), kCases = load("cpld-cases.json");

int num(const Json& v) { return v.IsString() ? std::stoi(v.GetString(), nullptr, 0) : v.GetInt(); }
std::string text(const Json& v) {
  rapidjson::StringBuffer out;
  rapidjson::Writer<rapidjson::StringBuffer> writer(out);
  v.Accept(writer);
  return out.GetString();
}
// The numbers of a member, nested arrays flattened; none when absent or null.
void flatten(const Json& v, Numbers& out) {
  if (v.IsArray()) {
    for (const Json& e : v.GetArray()) flatten(e, out);
  } else if (!v.IsNull()) {
    out.push_back(num(v));
  }
}
Numbers flat(const Json& row, const char* key) {
  Numbers out;
  if (row.HasMember(key)) flatten(row[key], out);
  return out;
}
template <typename T>
Numbers flat(const std::vector<T>* table) { return table ? Numbers(table->begin(), table->end()) : Numbers(); }
std::map<uint32_t, uint32_t> pairs(const Numbers& n) {
  std::map<uint32_t, uint32_t> out;
  for (size_t i = 0; i + 1 < n.size(); i += 2) out.emplace(n[i], n[i + 1]);
  return out;
}
std::map<uint32_t, uint32_t> registers(const Json& row, const char* key) {
  std::map<uint32_t, uint32_t> out;
  if (row.HasMember(key)) for (const auto& m : row[key].GetObject()) out[num(m.name)] = num(m.value);
  return out;
}
FakeHam::Calls writes(const Json& row) {
  FakeHam::Calls out;
  for (const auto& [reg, value] : pairs(flat(row, "writes"))) out.push_back(C::write8(reg, value));
  return out;
}

struct Variant {
  Component::HardwareDevice* (*create)(const DriverArgs&, Ham::Ham*);
  const CelXcvrCPLD::RegisterMap *qsfpRegisterMap, *sfpRegisterMap, *qsfpPortLedsRegMap;
  const CelXcvrCPLD::Limits *qsfpRegisterLimits, *sfpRegisterLimits;
  const Utils::ExpectedValues* values;
};
using Y = ZantYCPLD;
using S = ZantSCPLD;
using Q = ZantQCPLD;
const std::map<std::string, Variant> kVariants = {
    {"ZantCCPLD", {ZantCCPLD::create, &ZantCCPLD::qsfpRegisterMap, nullptr, nullptr, &ZantCCPLD::qsfpRegisterLimits,
                   nullptr, nullptr}},
    {"ZantQCPLD", {Q::create, &Q::qsfpRegisterMap, nullptr, &Q::qsfpPortLedsRegMap, &Q::qsfpRegisterLimits, nullptr,
                   &Q::values}},
    {"ZantSCPLD", {S::create, &S::qsfpRegisterMap, &S::sfpRegisterMap, &S::qsfpPortLedsRegMap, nullptr,
                   &S::sfpRegisterLimits, &S::values}},
    {"ZantYCPLD", {Y::create, &Y::qsfpRegisterMap, &Y::sfpRegisterMap, &Y::qsfpPortLedsRegMap, nullptr,
                   &Y::sfpRegisterLimits, &Y::values}},
};

TEST(ZantCPLDTables, EveryTableMatchesTheTranscription) {
  for (const auto& [name, v] : kVariants) {
    SCOPED_TRACE(name);
    const Json& t = kTables[name.c_str()];
    EXPECT_EQ(flat(t, "qsfpRegisterMap"), flat(v.qsfpRegisterMap));
    EXPECT_EQ(flat(t, "sfpRegisterMap"), flat(v.sfpRegisterMap));
    EXPECT_EQ(flat(t, "qsfpRegisterLimits"), flat(v.qsfpRegisterLimits));
    EXPECT_EQ(flat(t, "sfpRegisterLimits"), flat(v.sfpRegisterLimits));
    EXPECT_EQ(flat(t, "qsfpPortLedsRegMap"), flat(v.qsfpPortLedsRegMap));
    std::map<uint32_t, uint32_t> values;
    for (const auto& [reg, value] : v.values ? *v.values : Utils::ExpectedValues()) {
      EXPECT_TRUE(value.isNumeric() && value.size() == 1) << reg;
      values[reg] = value.value();
    }
    EXPECT_EQ(pairs(flat(t, "values")), values);
  }
  EXPECT_EQ(num(kTables["ZantYCPLD"]["systemLedRegister"]), Y::SYSTEM_LED_REGISTER);
}

DriverArgs objectArgs(const Json& driverArgs, bool poll) {
  DriverArgs args;
  for (const auto& m : driverArgs.GetObject()) args.driverArgs[m.name.GetString()] = m.value.GetString();
  if (poll) args.driverArgs["xcvrPoll"] = "";
  return args;
}

// The variant's device, created and wired as HardwareDevice::create does.
CelXcvrCPLD* make(const std::string& variant, Ham::Ham* ham, bool poll = true) {
  auto* cpld = static_cast<CelXcvrCPLD*>(kVariants.at(variant).create(objectArgs(Json(rapidjson::kObjectType), poll), ham));
  if (ham != nullptr) {
    ham->setDriverName(variant, "");
    ham->setExpected(cpld->expectedValues());
  }
  cpld->init();
  return cpld;
}

class ZantCPLD : public ::testing::Test {
 protected:
  void SetUp() override { FakeHost::reset(); }
  void TearDown() override { LD::Led::notifyList_.clear(); }
};

// A transport whose response ids do not start at 0 (entries of its own in front).
struct OffsetHam : FakeHam {
  ResponseId addRead8(uint32_t reg) override { return FakeHam::addRead8(reg) + 100; }
  uint8_t get8(ResponseId id) override { return FakeHam::get8(id - 100); }
};

TEST_F(ZantCPLD, OnePollReadsEveryMappedRegisterInOneTransaction) {
  const std::map<std::string, std::string> ledFailure = {{"ZantSCPLD", "131"}, {"ZantYCPLD", "96"}};
  for (const auto& [name, v] : kVariants) {
    SCOPED_TRACE(name);
    FakeHost::reset();
    OffsetHam ham;
    ham.failOn = {{0x383, 6}, {0xA260, 6}};
    Numbers regs = flat(v.qsfpRegisterMap), sfp = flat(v.sfpRegisterMap), leds = flat(v.qsfpPortLedsRegMap);
    regs.insert(regs.end(), sfp.begin(), sfp.end());
    FakeHam::Calls poll{C::prepare()}, ledWrites;
    for (uint32_t reg : regs) poll.push_back(C::read8(reg));
    poll.push_back(C::execute());
    for (uint32_t reg : leds) ledWrites.push_back(C::write8(reg, name == "ZantYCPLD" ? 0x00 : 0xFF));
    for (uint32_t reg : regs) ham.values[reg] = (reg * 7) & 0xFF;
    std::unique_ptr<CelXcvrCPLD> cpld(make(name, &ham));
    EXPECT_EQ(poll, FakeHam::Calls(ham.calls.begin(), ham.calls.begin() + poll.size()));
    EXPECT_EQ(ledWrites, ham.writes());
    EXPECT_EQ(ledFailure.count(name), FakeHost::countTrace("Failed to write QSFP Port Error LED Register: " +
                                                           (ledFailure.count(name) ? ledFailure.at(name) : ""), 0));
    for (uint32_t reg : regs) EXPECT_EQ(ham.values[reg], cpld->registerCache[reg]) << reg;
    const pl_timer_handle timer = FakeHost::timerSets().back().timer;
    EXPECT_EQ(1000u, FakeHost::timer(timer).interval);

    // A failed poll keeps the image; the next tick refreshes it.
    for (uint32_t reg : regs) ham.values[reg] ^= 0xFF;
    const auto image = cpld->registerCache;
    ham.executeResults = {6};
    FakeHost::fire(timer);
    EXPECT_EQ(image, cpld->registerCache);
    EXPECT_TRUE(FakeHost::hasTrace("Failed to poll information for CelXcvrCPLD", 0));
    FakeHost::fire(timer);
    for (uint32_t reg : regs) EXPECT_EQ(ham.values[reg], cpld->registerCache[reg]) << reg;
    EXPECT_TRUE(FakeHost::timer(timer).armed);
  }
  FakeHam ham;  // without "xcvrPoll": no poll, no timer, the port LEDs still set
  FakeHost::reset();
  std::unique_ptr<CelXcvrCPLD> cpld(make("ZantSCPLD", &ham, false));
  EXPECT_EQ((FakeHam::Calls{C::write8(0x383, 0xFF), C::write8(0x384, 0xFF), C::write8(0x385, 0xFF)}), ham.writes());
  EXPECT_EQ(FakeHam::Calls{}, ham.callsOf({FakeHam::Op::Read8}));
  EXPECT_TRUE(FakeHost::timerSets().empty());
}

// Each host callback of a port's table, by the name of its table member.
using Callback = std::function<pl_status(pl_xcvr*, int arg, int* out)>;
const std::map<std::string, Callback> kCallbacks = {
    {"get_presence", [](pl_xcvr* x, int, int*) { return x->ops->u.sfp.get_presence(x); }},  // first in both
    {"get_reset", [](pl_xcvr* x, int, int* v) { return x->ops->u.qsfp.get_reset(x, v); }},
    {"set_reset", [](pl_xcvr* x, int a, int*) { return x->ops->u.qsfp.set_reset(x, a); }},
    {"get_lp_mode", [](pl_xcvr* x, int, int* v) { return x->ops->u.qsfp.get_lp_mode(x, v); }},
    {"set_lp_mode", [](pl_xcvr* x, int a, int*) { return x->ops->u.qsfp.set_lp_mode(x, a); }},
    {"get_interrupt", [](pl_xcvr* x, int, int* v) { return x->ops->u.qsfp.get_interrupt(x, v); }},
    {"get_mod_sel", [](pl_xcvr* x, int, int* v) { return x->ops->u.qsfp.get_mod_sel(x, v); }},
    {"set_mod_sel", [](pl_xcvr* x, int a, int*) { return x->ops->u.qsfp.set_mod_sel(x, a); }},
    {"get_rx_los", [](pl_xcvr* x, int, int* v) { return x->ops->u.sfp.get_rx_los(x, v); }},
    {"get_tx_disable", [](pl_xcvr* x, int, int* v) { return x->ops->u.sfp.get_tx_disable(x, v); }},
    {"set_tx_disable", [](pl_xcvr* x, int a, int*) { return x->ops->u.sfp.set_tx_disable(x, a); }},
    {"get_tx_fault", [](pl_xcvr* x, int, int* v) { return x->ops->u.sfp.get_tx_fault(x, v); }},
};

// Getters answer from the cache without touching the bus; setters write one
// byte, the cached one with one bit changed.
TEST_F(ZantCPLD, PortSignalsThroughTheCallbackTable) {
  for (const Json& row : kCases["ports"].GetArray()) {
    SCOPED_TRACE(text(row));
    FakeHam ham;
    ham.values = registers(row, "polled");
    for (uint32_t s : flat(row, "initExecute")) ham.executeResults.push_back(s);
    std::unique_ptr<CelXcvrCPLD> cpld(make(row["cpld"].GetString(), &ham));
    std::unique_ptr<LD::SfpXcvr> sfp(row.HasMember("sfp") ? cpld->newSfpXcvr(num(row["sfp"]), {}) : nullptr);
    std::unique_ptr<LD::QsfpXcvr> qsfp(row.HasMember("qsfp") ? cpld->newQsfpXcvr(num(row["qsfp"]), {}) : nullptr);
    for (const auto& [reg, value] : registers(row, "hardware")) ham.values[reg] = value;
    for (uint32_t s : flat(row, "execute")) ham.executeResults.push_back(s);
    ham.calls.clear();
    FakeHost::reset();
    int value = -1;
    EXPECT_EQ(num(row["result"]), kCallbacks.at(row["op"].GetString())(sfp ? sfp->handle() : qsfp->handle(),
                                                                         row.HasMember("arg") ? num(row["arg"]) : 0, &value));
    EXPECT_EQ(row.HasMember("value") ? num(row["value"]) : -1, value);
    FakeHam::Calls calls;
    for (const C& write : writes(row)) calls.insert(calls.end(), {C::prepare(), write, C::execute()});
    EXPECT_EQ(calls, ham.calls);
    for (const auto& [reg, byte] : registers(row, "cache")) EXPECT_EQ(byte, cpld->registerCache[reg]);
    EXPECT_EQ(row.HasMember("trace") ? std::vector<std::string>{row["trace"].GetString()} : std::vector<std::string>{},
              FakeHost::traceTexts(5));
  }
}

TEST_F(ZantCPLD, LedSettingsThroughTheCallbackTable) {
  for (const Json& row : kCases["leds"].GetArray()) {
    SCOPED_TRACE(text(row));
    FakeHam ham;
    ham.values = registers(row, "read");
    std::unique_ptr<CelXcvrCPLD> cpld(make(row["cpld"].GetString(), &ham, false));
    for (uint32_t s : flat(row, "execute")) ham.executeResults.push_back(s);
    ham.calls.clear();
    std::unique_ptr<LD::Led> led(cpld->newLed(objectArgs(row["led"], false)));
    if (row.HasMember("status")) {
      ASSERT_NE(nullptr, led);
      EXPECT_EQ(num(row["result"]), led->handle()->ops->set_light_setting(led->handle(), pl_led_status(num(row["status"]))));
      EXPECT_EQ(writes(row), ham.writes());
    } else {
      EXPECT_EQ(nullptr, led);
    }
    for (const Json& t : row["traces"].GetArray()) EXPECT_EQ(num(t[1]), FakeHost::traceLevel(t[0].GetString()));
  }
}

// PSU LED 1 blinks on bit 2 of 0x303 through the process's one blink timer.
TEST_F(ZantCPLD, PsuLedBeaconBlinksUntilAnotherStatus) {
  FakeHam ham;
  ham.stateful = true;
  std::unique_ptr<CelXcvrCPLD> cpld(make("ZantSCPLD", &ham, false));
  DriverArgs psu1;
  psu1.driverArgs = {{"id", "1"}, {"type", "psu"}};
  std::unique_ptr<LD::Led> led(cpld->newLed(psu1));
  ASSERT_TRUE(led->canBlink());
  LD::Led::createBlinkTimer();
  auto set = [&](pl_led_status s) { ham.calls.clear(); return led->handle()->ops->set_light_setting(led->handle(), s); };
  auto tick = [&](bool on) { LD::Led::blinkStatus_ = on; FakeHost::fire(LD::Led::blinkTimer_); return ham.values[0x303]; };
  const std::list<LD::Led*> blinking{led.get()}, none;

  EXPECT_EQ(0, set(PL_LED_BEACON));
  EXPECT_EQ(0x04u, ham.values[0x303]);
  EXPECT_EQ(0, set(PL_LED_BEACON));
  EXPECT_EQ(FakeHam::Calls{}, ham.writes());
  EXPECT_EQ(blinking, LD::Led::notifyList_);
  EXPECT_EQ(0x00u, tick(true));
  EXPECT_EQ(0x04u, tick(false));
  EXPECT_EQ(0, set(PL_LED_GOOD));
  EXPECT_EQ(none, LD::Led::notifyList_);
  EXPECT_EQ(0x00u, ham.values[0x303]);

  // A failed blink write takes the LED off the list, yet it still counts as
  // blinking: "Beacon" writes nothing until another status came between.
  EXPECT_EQ(0, set(PL_LED_BEACON));
  ham.executeResults = {PL_STATUS_OK, 6};
  tick(true);
  EXPECT_EQ(none, LD::Led::notifyList_);
  EXPECT_EQ(0, set(PL_LED_BEACON));
  EXPECT_EQ(FakeHam::Calls{}, ham.writes());
}

// In simulation each variant's file holds its power-on image, and the ports
// report the presence that image implies.
TEST_F(ZantCPLD, SimulatedBoardsShowTheirPowerOnImage) {
  TempDir dir;
  setenv("KELDOLIB_SIMDIR", dir.path().c_str(), 1);
  Ham::SimHam::forgetSimulationDirectory();
  for (const Json& row : kCases["simulation"].GetArray()) {
    const std::string name = row["cpld"].GetString();
    SCOPED_TRACE(name);
    Ham::SimHam ham;
    std::unique_ptr<CelXcvrCPLD> cpld(make(name, &ham));
    EXPECT_EQ(row["file"].IsNull() ? "" : row["file"].GetString(), readFile(dir.file(name)));
    const pl_timer_handle timer = FakeHost::timerSets().back().timer;
    FakeHost::reset();
    FakeHost::fire(timer);
    EXPECT_EQ(num(row["warningsPerPoll"]), static_cast<int>(FakeHost::traceTexts(0).size()));
    for (const char* family : {"qsfp", "sfp"}) {
      Numbers present;
      for (int id = 1; row.HasMember(family) && id <= num(row[family]["ports"]); ++id) {
        std::unique_ptr<LD::SfpXcvr> sfp(family[0] == 's' ? cpld->newSfpXcvr(id, {}) : nullptr);
        std::unique_ptr<LD::QsfpXcvr> qsfp(family[0] == 'q' ? cpld->newQsfpXcvr(id, {}) : nullptr);
        if ((sfp ? sfp->getPresence() : qsfp->getPresence()) == 1) present.push_back(id);
      }
      EXPECT_EQ(row.HasMember(family) ? flat(row[family], "present") : Numbers(), present) << family;
    }
    DriverArgs status;
    status.driverArgs = {{"id", "1"}, {"type", "status"}};
    std::unique_ptr<LD::Led> led(cpld->newLed(status));
    EXPECT_EQ(num(row["systemLedGood"]), led->setLightSetting(PL_LED_GOOD));
  }
  Ham::SimHam::forgetSimulationDirectory();
}

// Configuration errors stop the host, one death test per component.
void expectConfigurationErrors(const std::string& component) {
  GTEST_FLAG_SET(death_test_style, "threadsafe");
  for (const Json& row : kCases["deaths"].GetArray()) {
    if (component != row["component"].GetString()) continue;
    SCOPED_TRACE(text(row));
    auto run = [&row] {
      FakeHam ham;
      FakeHost::failTimerSet(row.HasMember("timerSetFails"));
      CelXcvrCPLD* cpld = make(row["cpld"].GetString(), row.HasMember("noHam") ? nullptr : &ham, !row.HasMember("noPoll"));
      const std::string what = row["make"].GetString();
      if (what == "led") cpld->newLed(objectArgs(row["driverArgs"], false));
      if (what == "qsfp") cpld->newQsfpXcvr(num(row["id"]), {});
      if (what == "sfp") cpld->newSfpXcvr(num(row["id"]), {});
    };
    EXPECT_DEATH(run(), testing::HasSubstr(std::string("Assertion `") + row["assertion"].GetString() + "' failed"));
  }
}
TEST(CelXcvrCPLDDeathTest, LedArgumentsPortsWithoutPollingAndTimersStopTheHost) { expectConfigurationErrors("CelXcvrCPLD"); }
TEST(ZantCPLDsDeathTest, PortIdsOutOfRangeStopTheHost) { expectConfigurationErrors("variants"); }

}  // namespace
