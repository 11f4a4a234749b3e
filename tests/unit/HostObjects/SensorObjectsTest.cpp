// Slots, fans, power supplies and temperature sensors: what the add entry
// points hand back, how they fail, and every callback through the table.
#include <functional>

#include <gtest/gtest.h>

#include "HostObjectsSupport.h"

namespace {

using namespace HostObjectsTest;
using ::testing::_;
using ::testing::Field;
using ::testing::Return;

constexpr unsigned int kUid = 9301;

class AddEntries : public ::testing::Test {
 protected:
  AddEntries() : registered_(kUid, &device_) { FakeHost::reset(); }

  ::testing::StrictMock<MockDevice> device_;
  Registered registered_;
};

TEST_F(AddEntries, HandBackTheEmbeddedObjectOrTraceAtTheKindsLevel) {
  MockSlot slot;
  MockFan fan;
  MockPsu psu;
  const auto speed = Field(&Drivers::DriverArgs::driverArgs, testing::Contains(testing::Pair("speed", "3")));
  EXPECT_CALL(device_, newSlot(speed)).WillOnce(Return(&slot)).WillOnce(Return(nullptr));
  EXPECT_CALL(device_, newFan(speed)).WillOnce(Return(&fan)).WillOnce(Return(nullptr));
  EXPECT_CALL(device_, newPsu(speed)).WillOnce(Return(&psu)).WillOnce(Return(nullptr));
  struct Case {
    std::function<void*(const char*)> add;
    const void* handle;
    const char* factoryFailed;
    int level;
  } cases[] = {
      {[](const char* j) -> void* { return FakeHost::keep(pl_slot_add(j)); }, slot.handle(), "newSlot() failed", 0},
      {[](const char* j) -> void* { return FakeHost::keep(pl_fan_add(j)); }, fan.handle(), "newFan() failed", 0},
      {[](const char* j) -> void* { return FakeHost::keep(pl_psu_add(j)); }, psu.handle(), "newPsu() failed", 2},
  };
  const std::string json = objectJson(kUid, R"("speed": "3")");
  for (const Case& c : cases) {
    SCOPED_TRACE(c.factoryFailed);
    FakeHost::reset();
    EXPECT_EQ(c.handle, c.add(json.c_str()));
    EXPECT_EQ(nullptr, c.add(json.c_str()));
    EXPECT_EQ(nullptr, c.add("{"));
    EXPECT_EQ(c.level, FakeHost::traceLevel(c.factoryFailed));
    EXPECT_EQ(c.level, FakeHost::traceLevel("DeviceBase::create() failed"));
  }
}

TEST_F(AddEntries, SensorThresholdsOnEveryAddAndSilentFailures) {
  MockSensor sensor;
  {
    ::testing::InSequence order;
    EXPECT_CALL(device_, newTempSensor(_)).WillOnce(Return(&sensor));
    EXPECT_CALL(sensor, alertThresholdIs(75.0f));
    EXPECT_CALL(sensor, criticalThresholdIs(85.0f));
    EXPECT_CALL(device_, newTempSensor(_)).WillOnce(Return(&sensor));
    EXPECT_CALL(sensor, alertThresholdIs(70.0f));
    EXPECT_CALL(sensor, criticalThresholdIs(90.0f));
    EXPECT_CALL(device_, newTempSensor(_)).WillOnce(Return(nullptr));
  }
  const std::string json = objectJson(kUid);
  EXPECT_EQ(sensor.handle(), FakeHost::keep(pl_temp_sensor_add(json.c_str(), 75.0f, 85.0f)));
  EXPECT_EQ(sensor.handle(), FakeHost::keep(pl_temp_sensor_add(json.c_str(), 70.0f, 90.0f)));
  std::vector<std::string> thresholdTraces;
  for (const std::string& text : FakeHost::traceTexts(0)) {
    if (text.find("threshold") != std::string::npos) thresholdTraces.push_back(text);
  }
  EXPECT_EQ((std::vector<std::string>{"setting alert threshold", "setting critical threshold",
                                      "setting alert threshold", "setting critical threshold"}),
            thresholdTraces);

  // A failed sensor add says nothing of its own, whichever step failed.
  FakeHost::reset();
  EXPECT_EQ(nullptr, pl_temp_sensor_add(json.c_str(), 1.0f, 2.0f));
  EXPECT_EQ(nullptr, pl_temp_sensor_add(
                         R"({"did": 1, "driver": "NoSuchDriver", "uid": 9302, "provideHam": 0, "address": {"address": 1}})",
                         1.0f, 2.0f));
  EXPECT_TRUE(FakeHost::hasTrace("driver NoSuchDriver not found"));
  for (const char* text : {"DeviceBase::create() failed", "newTempSensor() failed", "setting alert threshold"}) {
    EXPECT_FALSE(FakeHost::hasTrace(text)) << text;
  }
}

TEST(SensorCallbacks, ForwardAndTrace) {
  MockSlot slot;
  MockSensor sensor;
  MockFan fan;
  MockPsu psu;
  pl_slot* sl = slot.handle();
  pl_temp_sensor* t = sensor.handle();
  pl_fan* f = fan.handle();
  pl_psu* p = psu.handle();
  char* text = nullptr;
  float value = 0.0f;
  int number = 0;
  ::testing::InSequence order;
  EXPECT_CALL(slot, getPresence(&text)).WillOnce(Return(40));
  EXPECT_CALL(sensor, getTemperature(&value)).WillOnce(Return(41));
  EXPECT_CALL(fan, getRpm(&number)).WillOnce(Return(42));
  EXPECT_CALL(fan, setRpm(-1200)).WillOnce(Return(43));
  EXPECT_CALL(psu, get_power_ok(&number)).WillOnce(Return(50));
  EXPECT_CALL(psu, get_input_current(&value)).WillOnce(Return(51));
  EXPECT_CALL(psu, get_output_current(&value)).WillOnce(Return(52));
  EXPECT_CALL(psu, get_input_voltage(&value)).WillOnce(Return(53));
  EXPECT_CALL(psu, get_output_voltage(&value)).WillOnce(Return(54));
  EXPECT_CALL(psu, get_input_power(&value)).WillOnce(Return(55));
  EXPECT_CALL(psu, get_output_power(&value)).WillOnce(Return(56));
  FakeHost::reset();
  char host[] = "host";
  char* info = host;
  const std::vector<pl_status> results = {
      sl->ops->get_presence(sl, &text), t->ops->get_temperature(t, &value), f->ops->get_rpm(f, &number),
      f->ops->set_rpm(f, -1200), f->ops->debug_info(f, &info), p->ops->get_power_ok(p, &number),
      p->ops->get_input_current(p, &value), p->ops->get_output_current(p, &value),
      p->ops->get_input_voltage(p, &value), p->ops->get_output_voltage(p, &value),
      p->ops->get_input_power(p, &value), p->ops->get_output_power(p, &value)};
  EXPECT_EQ((std::vector<pl_status>{40, 41, 42, 43, 0, 50, 51, 52, 53, 54, 55, 56}), results);
  EXPECT_EQ(host, info);  // the default debugInfo leaves the host's pointer alone
  EXPECT_EQ((std::vector<std::string>{
                "getPresenceCallback(" + pointerText(sl) + ")", "getTemperatureCallback(" + pointerText(t) + ")",
                "getRpmCallback(" + pointerText(f) + ")", "setRpmCallback(" + pointerText(f) + ", -1200)",
                "debugInfoCallback(" + pointerText(f) + ")", "get_power_ok_callback", "get_input_current_callback",
                "get_output_current_callback", "get_input_voltage_callback", "get_output_voltage_callback",
                "get_input_power_callback", "get_output_power_callback"}),
            FakeHost::traceTexts(4));
  EXPECT_EQ(12u, FakeHost::traces().size());
}

}  // namespace
