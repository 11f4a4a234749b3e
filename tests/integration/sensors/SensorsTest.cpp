// LM75 and PMBus supply end to end: the built plug-in loaded with dlopen, the
// reference proxy daemon emulating both chips behind a PCA9548 (emulation.json
// beside this file) over a real socket, and the host's view through the add
// entries and the callback tables.
#include <gtest/gtest.h>

#include <string>

#include "../proxyd/ProxydProcess.h"
#include "FakeHost.h"
#include "Plugin.h"
#include "keldo/pl_host.h"

namespace {

const std::string kHere = std::string(KELDO_SOURCE_DIR) + "/tests/integration/sensors/";

class Sensors : public ::testing::Test {
 protected:
  static void SetUpTestSuite() {
    proxyd = new ProxydProcess(kHere + "emulation.json");
    setenv("KELDO_SMBUS_SOCKET", proxyd->socket().c_str(), 1);
    ASSERT_EQ(plugin().sym<pl_status (*)(const char*)>("pl_psu_init")(readFile(kHere + "topology.json").c_str()), 0);
  }
  static void TearDownTestSuite() { delete proxyd; }
  void TearDown() override { EXPECT_EQ(control("clear all"), "ok"); }

  static Plugin& plugin() {
    static Plugin* p = new Plugin(KELDO_PLUGIN);  // never unloaded
    return *p;
  }
  // The LM75 (did 72) or the supply (did 88) as an object JSON.
  static std::string object(int did, const std::string& driverArgs = "") {
    return R"({"did": )" + std::to_string(did) + R"(, "uid": )" + std::to_string(1000 + did) + R"(, "driver": ")" +
           (did == 72 ? "LM75" : "Pmbus") + R"(", "address": {"address": )" + std::to_string(did) +
           R"(}, "driverArgs": {)" + driverArgs + "}}";
  }
  static pl_temp_sensor* sensor(const std::string& json, float alert, float critical) {
    return FakeHost::keep(plugin().sym<pl_temp_sensor* (*)(const char*, float, float)>("pl_temp_sensor_add")(json.c_str(), alert, critical));
  }
  static pl_fan* fan(int id) {
    const std::string json = object(88, R"("fanId": )" + std::to_string(id) + R"(, "maxFanRpm": 20000, "pec": "false")");
    return FakeHost::keep(plugin().sym<pl_fan* (*)(const char*)>("pl_fan_add")(json.c_str()));
  }
  static std::string control(const std::string& line) { return proxyd->control(line); }

  static ProxydProcess* proxyd;
};
ProxydProcess* Sensors::proxyd = nullptr;

TEST_F(Sensors, TemperatureSensorAddProgramsBothThresholdsMostSignificantByteFirst) {
  pl_temp_sensor* lm75 = sensor(object(72), 75.0f, 85.5f);
  ASSERT_NE(lm75, nullptr);
  EXPECT_EQ(control("peek I2C/0/0/1/0x48 2") + ", " + control("peek I2C/0/0/1/0x48 3"), "ok 0x4b00, ok 0x5580");
  float celsius = 0;
  EXPECT_EQ(lm75->ops->get_temperature(lm75, &celsius), PL_STATUS_OK);
  EXPECT_EQ(celsius, 32.5f);
}

TEST_F(Sensors, SupplyReadingsFansAndSensorThroughTheCallbackTables) {
  pl_psu* psu = FakeHost::keep(plugin().sym<pl_psu* (*)(const char*)>("pl_psu_add")(object(88).c_str()));
  ASSERT_NE(psu, nullptr);
  const pl_psu_ops& ops = *psu->ops;
  const std::pair<pl_status (*)(pl_psu*, float*), float> readings[] = {
      {ops.get_input_voltage, 230}, {ops.get_input_current, 1.5}, {ops.get_output_voltage, 12},
      {ops.get_output_current, 25}, {ops.get_input_power, 345},   {ops.get_output_power, 300}};
  for (const auto& [get, expected] : readings) {
    float value = 0;
    const std::string before = control("transactions");
    EXPECT_EQ(get(psu, &value), PL_STATUS_OK);
    EXPECT_EQ(value, expected);
    EXPECT_EQ(std::stoi(control("transactions").substr(3)), std::stoi(before.substr(3)) + 1) << "one round trip";
  }
  int ok = 0, rpm1 = 0, rpm2 = 0;
  float celsius = 0;
  pl_fan *fan1 = fan(1), *fan2 = fan(2);
  pl_temp_sensor* inlet = sensor(object(88, R"("sensorId": 1, "tempSensor": 1)"), 70, 80);
  EXPECT_EQ(ops.get_power_ok(psu, &ok) + fan1->ops->get_rpm(fan1, &rpm1) + fan2->ops->get_rpm(fan2, &rpm2) +
                inlet->ops->get_temperature(inlet, &celsius), 0);
  EXPECT_EQ(std::make_tuple(ok, rpm1, rpm2, celsius), std::make_tuple(1, 9600, 8800, 41.5f));
}

TEST_F(Sensors, FanFaultBitStopsThatFanOnlyAndASilentChipGivesAFailureStatus) {
  pl_fan *fan1 = fan(1), *fan2 = fan(2);
  EXPECT_EQ(control("poke I2C/0/0/1/0x58 0x81 0x40"), "ok");  // STATUS_FANS_1_2: fan 2 fault
  int rpm = -5;
  EXPECT_EQ(fan2->ops->get_rpm(fan2, &rpm), PL_STATUS_HW_FAULT);
  EXPECT_EQ(control("fault I2C/0/0/1/0x58 nak"), "ok");
  EXPECT_EQ(fan1->ops->get_rpm(fan1, &rpm), PL_STATUS_INTERNAL);
  EXPECT_EQ(rpm, -5);
  EXPECT_EQ(control("clear I2C/0/0/1/0x58"), "ok");
  EXPECT_EQ(fan1->ops->get_rpm(fan1, &rpm), PL_STATUS_OK);
  EXPECT_EQ(rpm, 9600);
  EXPECT_EQ(control("poke I2C/0/0/1/0x58 0x81 0"), "ok");
}

}  // namespace
