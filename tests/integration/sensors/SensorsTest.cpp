// LM75 and PMBus supply end to end: the built plug-in loaded with dlopen, the
// reference proxy daemon emulating both chips behind a PCA9548 (emulation.json
// beside this file) over a real socket, and the host's view through the add
// entries and the callback tables.
#include <gtest/gtest.h>

#include <fstream>
#include <string>

#include "../proxyd/ProxydProcess.h"
#include "FakeHost.h"
#include "Plugin.h"
#include "keldo/pl_host.h"

namespace {

const std::string kHere = std::string(KELDO_SOURCE_DIR) + "/tests/integration/sensors/";
const char* const kLm75Device = "I2C/0/0/1/0x48";
const char* const kPsuDevice = "I2C/0/0/1/0x58";

std::string object(int did, const char* driver, const std::string& driverArgs = "") {
  return R"({"did": )" + std::to_string(did) + R"(, "uid": )" + std::to_string(1000 + did) + R"(, "driver": ")" + driver +
         R"(", "address": {"address": )" + std::to_string(did) + R"(}, "driverArgs": {)" + driverArgs + "}}";
}

class Sensors : public ::testing::Test {
 protected:
  static void SetUpTestSuite() {
    proxyd = new ProxydProcess(kHere + "emulation.json");
    setenv("KELDO_SMBUS_SOCKET", proxyd->socket().c_str(), 1);
    std::ifstream in(kHere + "topology.json");
    const std::string topology((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
    for (const char* init : {"pl_temp_sensor_init", "pl_fan_init", "pl_psu_init"}) {
      ASSERT_EQ(plugin().sym<pl_status (*)(const char*)>(init)(topology.c_str()), PL_STATUS_OK) << init;
    }
  }
  static void TearDownTestSuite() { delete proxyd; }
  void TearDown() override { EXPECT_EQ(proxyd->control("clear all"), "ok"); }

  static Plugin& plugin() {
    static Plugin* p = new Plugin(KELDO_PLUGIN);  // never unloaded
    return *p;
  }
  template <typename Handle>
  static Handle* add(const char* entry, const std::string& json) {
    return FakeHost::keep(plugin().sym<Handle* (*)(const char*)>(entry)(json.c_str()));
  }
  static pl_fan* fan(int id) {
    return add<pl_fan>("pl_fan_add", object(88, "Pmbus", R"("fanId": )" + std::to_string(id) + R"(, "maxFanRpm": 20000, "pec": "false")"));
  }

  static ProxydProcess* proxyd;
};
ProxydProcess* Sensors::proxyd = nullptr;

TEST_F(Sensors, TemperatureSensorAddProgramsBothThresholdsMostSignificantByteFirst) {
  auto add = plugin().sym<pl_temp_sensor* (*)(const char*, float, float)>("pl_temp_sensor_add");
  pl_temp_sensor* sensor = FakeHost::keep(add(object(72, "LM75").c_str(), 75.0f, 85.5f));
  ASSERT_NE(sensor, nullptr);
  EXPECT_EQ(proxyd->control(std::string("peek ") + kLm75Device + " 2"), "ok 0x4b00");
  EXPECT_EQ(proxyd->control(std::string("peek ") + kLm75Device + " 3"), "ok 0x5580");
  float celsius = 0;
  EXPECT_EQ(sensor->ops->get_temperature(sensor, &celsius), PL_STATUS_OK);
  EXPECT_EQ(celsius, 32.5f);
}

TEST_F(Sensors, SupplyReadingsFansAndSensorThroughTheCallbackTables) {
  pl_psu* psu = add<pl_psu>("pl_psu_add", object(88, "Pmbus"));
  ASSERT_NE(psu, nullptr);
  const pl_psu_ops& ops = *psu->ops;
  const struct {
    pl_status (*get)(pl_psu*, float*);
    float expected;
  } readings[] = {{ops.get_input_voltage, 230}, {ops.get_input_current, 1.5}, {ops.get_output_voltage, 12},
                  {ops.get_output_current, 25}, {ops.get_input_power, 345},   {ops.get_output_power, 300}};
  for (const auto& r : readings) {
    float value = 0;
    EXPECT_EQ(r.get(psu, &value), PL_STATUS_OK);
    EXPECT_EQ(value, r.expected);
  }
  const auto transactions = [] { return std::stoi(proxyd->control("transactions").substr(3)); };
  const int before = transactions();
  float volts = 0;
  EXPECT_EQ(ops.get_output_voltage(psu, &volts), PL_STATUS_OK);
  EXPECT_EQ(transactions(), before + 1) << "VOUT_MODE and READ_VOUT in one round trip";
  int ok = 0, rpm1 = 0, rpm2 = 0;
  EXPECT_EQ(ops.get_power_ok(psu, &ok), PL_STATUS_OK);
  EXPECT_EQ(ok, 1);
  pl_fan *fan1 = fan(1), *fan2 = fan(2);
  EXPECT_EQ(fan1->ops->get_rpm(fan1, &rpm1), PL_STATUS_OK);
  EXPECT_EQ(fan2->ops->get_rpm(fan2, &rpm2), PL_STATUS_OK);
  EXPECT_EQ(std::make_pair(rpm1, rpm2), std::make_pair(9600, 8800));
  auto add = plugin().sym<pl_temp_sensor* (*)(const char*, float, float)>("pl_temp_sensor_add");
  pl_temp_sensor* sensor = FakeHost::keep(add(object(88, "Pmbus", R"("sensorId": 1, "tempSensor": 1)").c_str(), 70, 80));
  float celsius = 0;
  EXPECT_EQ(sensor->ops->get_temperature(sensor, &celsius), PL_STATUS_OK);
  EXPECT_EQ(celsius, 41.5f);
}

TEST_F(Sensors, FanFaultBitStopsThatFanOnlyAndSilentChipsGiveAFailureStatus) {
  pl_fan *fan1 = fan(1), *fan2 = fan(2);
  EXPECT_EQ(proxyd->control(std::string("poke ") + kPsuDevice + " 0x81 0x40"), "ok");
  int rpm = 0;
  EXPECT_EQ(fan2->ops->get_rpm(fan2, &rpm), PL_STATUS_HW_FAULT);
  EXPECT_EQ(fan1->ops->get_rpm(fan1, &rpm), PL_STATUS_OK);
  EXPECT_EQ(rpm, 9600);
  EXPECT_EQ(proxyd->control(std::string("poke ") + kPsuDevice + " 0x81 0"), "ok");

  EXPECT_EQ(proxyd->control(std::string("fault ") + kPsuDevice + " nak"), "ok");
  rpm = -5;
  EXPECT_EQ(fan1->ops->get_rpm(fan1, &rpm), PL_STATUS_INTERNAL);
  EXPECT_EQ(rpm, -5);
  EXPECT_EQ(proxyd->control(std::string("clear ") + kPsuDevice), "ok");
  EXPECT_EQ(fan1->ops->get_rpm(fan1, &rpm), PL_STATUS_OK);
  EXPECT_EQ(rpm, 9600);
}

}  // namespace
