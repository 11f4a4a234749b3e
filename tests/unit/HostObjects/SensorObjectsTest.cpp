// Slots, fans, power supplies and temperature sensors: the add entry points
// (what they hand back and how they fail) and every callback through the
// host's table.
#include <functional>
#include <vector>

#include <gtest/gtest.h>

#include "HostObjectsSupport.h"
#include "KeldoUtil/NotImplementedException.h"

namespace {

using namespace HostObjectsTest;

constexpr unsigned int kUid = 9301;

struct AddCase {
  const char* kind;
  std::function<void(TestDevice&, bool)> offer;  // the device hands out the object, or null
  std::function<void*(const char*)> add;
  const char* factoryFailed;
  int level;
};

class AddEntries : public ::testing::Test {
 protected:
  AddEntries() : registered_(kUid, &device_) {}

  TestDevice device_;
  Registered registered_;
  TestSlot slot_;
  TestFan fan_;
  TestPsu psu_;
};

TEST_F(AddEntries, HandBackTheEmbeddedObjectOrFailWithTraces) {
  const std::vector<AddCase> cases = {
      {"slot", [this](TestDevice& d, bool on) { d.slot = on ? &slot_ : nullptr; },
       [](const char* j) -> void* { return FakeHost::keep(pl_slot_add(j)); }, "newSlot() failed", 0},
      {"fan", [this](TestDevice& d, bool on) { d.fan = on ? &fan_ : nullptr; },
       [](const char* j) -> void* { return FakeHost::keep(pl_fan_add(j)); }, "newFan() failed", 0},
      {"psu", [this](TestDevice& d, bool on) { d.psu = on ? &psu_ : nullptr; },
       [](const char* j) -> void* { return FakeHost::keep(pl_psu_add(j)); }, "newPsu() failed", 2},
  };
  const void* handles[] = {slot_.handle(), fan_.handle(), psu_.handle()};
  const std::string json = objectJson(kUid, R"("speed": "3")");
  for (const AddCase& c : cases) {
    SCOPED_TRACE(c.kind);
    FakeHost::reset();
    c.offer(device_, true);
    EXPECT_EQ(handles[&c - cases.data()], c.add(json.c_str()));
    EXPECT_EQ("3", device_.lastArgs.driverArgs.at("speed"));
    EXPECT_FALSE(FakeHost::hasTrace(c.factoryFailed));

    FakeHost::reset();
    c.offer(device_, false);
    EXPECT_EQ(nullptr, c.add(json.c_str()));
    EXPECT_EQ(c.level, FakeHost::traceLevel(c.factoryFailed));

    FakeHost::reset();
    EXPECT_EQ(nullptr, c.add("{"));
    EXPECT_EQ(c.level, FakeHost::traceLevel("DeviceBase::create() failed"));
  }
}

TEST_F(AddEntries, DeviceWithoutTheKindThrows) {
  Component::HardwareDevice plain;
  Registered registered(kUid + 1, &plain);
  EXPECT_THROW(pl_fan_add(objectJson(kUid + 1).c_str()), NotImplementedException);
}

TEST_F(AddEntries, ThresholdsAreSetOnEveryAdd) {
  TestSensor sensor;
  device_.sensor = &sensor;
  const std::string json = objectJson(kUid);
  FakeHost::reset();
  EXPECT_EQ(sensor.handle(), FakeHost::keep(pl_temp_sensor_add(json.c_str(), 75.0f, 85.0f)));
  EXPECT_EQ(sensor.handle(), FakeHost::keep(pl_temp_sensor_add(json.c_str(), 70.0f, 90.0f)));
  EXPECT_EQ("alert 75;critical 85;alert 70;critical 90;", sensor.order);
  EXPECT_EQ(70.0f, sensor.alertThreshold());
  EXPECT_EQ(90.0f, sensor.criticalThreshold());

  std::vector<std::string> thresholdTraces;
  for (const auto& line : FakeHost::traces()) {
    if (line.text.find("threshold") != std::string::npos) {
      EXPECT_EQ(0, line.level);
      thresholdTraces.push_back(line.text);
    }
  }
  EXPECT_EQ((std::vector<std::string>{"setting alert threshold", "setting critical threshold",
                                      "setting alert threshold", "setting critical threshold"}),
            thresholdTraces);
}

// A failed sensor add says nothing of its own: only the device layer traces.
TEST_F(AddEntries, FailedSensorAddIsSilent) {
  FakeHost::reset();
  device_.sensor = nullptr;
  EXPECT_EQ(nullptr, pl_temp_sensor_add(objectJson(kUid).c_str(), 1.0f, 2.0f));
  EXPECT_EQ(1, device_.factoryCalls);
  const char* unknownDriver =
      R"({"did": 1, "driver": "NoSuchDriver", "uid": 9303, "provideHam": 0, "address": {"address": 16}})";
  EXPECT_EQ(nullptr, pl_temp_sensor_add(unknownDriver, 1.0f, 2.0f));
  EXPECT_TRUE(FakeHost::hasTrace("driver NoSuchDriver not found"));
  for (const char* text : {"DeviceBase::create() failed", "newTempSensor() failed", "setting alert threshold",
                           "setting critical threshold"}) {
    EXPECT_FALSE(FakeHost::hasTrace(text)) << text;
  }
}

// One callback through the host's table: the operation that must answer and
// the trace (level 4) that the call leaves.
struct CallbackCase {
  std::function<pl_status()> call;
  const char* expectedCall;
  std::string trace;
};

void checkCallbacks(Recorder& recorder, const std::vector<CallbackCase>& cases) {
  for (const CallbackCase& c : cases) {
    SCOPED_TRACE(c.trace);
    FakeHost::reset();
    recorder.call.clear();
    recorder.result = 50 + static_cast<int>(&c - cases.data());
    EXPECT_EQ(recorder.result, c.call());
    EXPECT_EQ(c.expectedCall, recorder.call);
    EXPECT_EQ(4, FakeHost::traceLevel(c.trace));
    EXPECT_EQ(1u, FakeHost::traces().size());
  }
}

TEST(SensorCallbacks, FanSlots) {
  TestFan fan;
  pl_fan* h = fan.handle();
  const std::string p = pointerText(h);
  int rpm = 0;
  checkCallbacks(fan, {
                          {[&] { return h->ops->get_rpm(h, &rpm); }, "getRpm", "getRpmCallback(" + p + ")"},
                          {[&] { return h->ops->set_rpm(h, -1200); }, "setRpm -1200",
                           "setRpmCallback(" + p + ", -1200)"},
                      });
  EXPECT_EQ(77, rpm);

  // Without a driver's own debugInfo the argument stays as the host passed it.
  char marker[] = "host";
  char* info = marker;
  EXPECT_EQ(PL_STATUS_OK, h->ops->debug_info(h, &info));
  EXPECT_EQ(marker, info);
  EXPECT_EQ(4, FakeHost::traceLevel("debugInfoCallback(" + p + ")"));
}

TEST(SensorCallbacks, SlotAndSensorSlots) {
  TestSlot slot;
  TestSensor sensor;
  pl_slot* s = slot.handle();
  pl_temp_sensor* t = sensor.handle();
  char* description = nullptr;
  float celsius = 0.0f;
  checkCallbacks(slot, {{[&] { return s->ops->get_presence(s, &description); }, "getPresence",
                         "getPresenceCallback(" + pointerText(s) + ")"}});
  checkCallbacks(sensor, {{[&] { return t->ops->get_temperature(t, &celsius); }, "getTemperature",
                           "getTemperatureCallback(" + pointerText(t) + ")"}});
  EXPECT_STREQ("present", description);
  EXPECT_EQ(77.0f, celsius);
}

TEST(SensorCallbacks, PsuSlotsTraceTheirNamesOnly) {
  TestPsu psu;
  pl_psu* h = psu.handle();
  int ok = 0;
  float v = 0.0f;
  checkCallbacks(psu, {
                          {[&] { return h->ops->get_power_ok(h, &ok); }, "get_power_ok", "get_power_ok_callback"},
                          {[&] { return h->ops->get_input_current(h, &v); }, "get_input_current",
                           "get_input_current_callback"},
                          {[&] { return h->ops->get_output_current(h, &v); }, "get_output_current",
                           "get_output_current_callback"},
                          {[&] { return h->ops->get_input_voltage(h, &v); }, "get_input_voltage",
                           "get_input_voltage_callback"},
                          {[&] { return h->ops->get_output_voltage(h, &v); }, "get_output_voltage",
                           "get_output_voltage_callback"},
                          {[&] { return h->ops->get_input_power(h, &v); }, "get_input_power",
                           "get_input_power_callback"},
                          {[&] { return h->ops->get_output_power(h, &v); }, "get_output_power",
                           "get_output_power_callback"},
                      });
  EXPECT_EQ(77, ok);
  EXPECT_EQ(77.0f, v);
}

}  // namespace
