// Host objects through the test build of the plug-in, in simulation: each call
// made through a C object's table must show in the device's simulation file.
// The "TestPanel" driver (tests/integration/drivers) keeps every signal in a
// register; its file holds registers 0x10 0x11 0x20 0x21 0x50 in that order,
// two hex digits each.
#include <cstdlib>
#include <string>

#include <gtest/gtest.h>

#include "FakeHost.h"
#include "Plugin.h"
#include "ProxyStub.h"
#include "TempDir.h"
#include "keldo/pl_host.h"

namespace {

// Simulation and its directory are decided once per process, so both are set
// before the plug-in is loaded. The directory outlives every test.
TempDir& simDir() {
  static TempDir dir;
  return dir;
}

Plugin& plugin() {
  static Plugin* p = [] {
    setenv("SIMULATION_VMID", "1", 1);
    setenv("KELDOLIB_SIMDIR", simDir().path().c_str(), 1);
    return new Plugin(KELDO_TEST_PLUGIN);
  }();
  return *p;
}

// One panel component per test, so that each gets a device and a file of its
// own; device 17 carries a GPIO line, 18 is an LM75 and 19 a PMBus supply.
const char* kTopology = R"([{"type": "I2C", "ham": "SimHam", "id": 1, "label": "bus1", "devices": [
    {"did": 16, "label": "panel", "components": [{"uid": 101}, {"uid": 102}, {"uid": 103}]},
    {"did": 17, "label": "lines", "components": [{"uid": 201}]},
    {"did": 18, "label": "lm75", "components": [{"uid": 301}]},
    {"did": 19, "label": "psu", "components": [{"uid": 401}]}]}])";

std::string object(const char* driver, unsigned int did, unsigned int uid, const char* name,
                   const std::string& driverArgs = "") {
  return std::string(R"({"did": )") + std::to_string(did) + R"(, "uid": )" + std::to_string(uid) +
         R"(, "driver": ")" + driver + R"(", "name": ")" + name +
         R"(", "address": {"address": 32}, "driverArgs": {)" + driverArgs + "}}";
}

std::string simFile(const std::string& name) { return readFile(simDir().file(name)); }

class HostObjects : public ::testing::Test {
 protected:
  static void SetUpTestSuite() {
    ProxyStub proxy;  // the init entries need a proxy to connect to, even in simulation
    for (const char* init : {"pl_led_init", "pl_xcvr_init", "pl_gpio_init"}) {
      EXPECT_EQ(PL_STATUS_OK, plugin().sym<pl_status (*)(const char*)>(init)(kTopology)) << init;
    }
  }
  void SetUp() override { FakeHost::reset(); }

  template <typename Handle>
  Handle* add(const char* entry, const std::string& json) {
    return FakeHost::keep(plugin().sym<Handle* (*)(const char*)>(entry)(json.c_str()));
  }
  pl_temp_sensor* addSensor(const std::string& json, float alert, float critical) {
    return FakeHost::keep(plugin().sym<pl_temp_sensor* (*)(const char*, float, float)>("pl_temp_sensor_add")(
        json.c_str(), alert, critical));
  }
};

TEST_F(HostObjects, LedSettingsAndBlinkPhasesReachTheRegisters) {
  pl_led* led = add<pl_led>("pl_led_add", object("TestPanel", 16, 101, "led"));
  ASSERT_NE(nullptr, led);
  EXPECT_EQ(PL_STATUS_OK, led->ops->set_light_setting(led, PL_LED_WARNING));
  EXPECT_EQ("0200010581\n", simFile("TestPanel-led"));

  // Beacon arms the shared timer; every tick shows the next phase and re-arms.
  EXPECT_EQ(PL_STATUS_OK, led->ops->set_light_setting(led, PL_LED_BEACON));
  ASSERT_EQ(1u, FakeHost::timerSets().size());
  const pl_timer_handle timer = FakeHost::timerSets()[0].timer;
  FakeHost::fire(timer);
  EXPECT_EQ("0600010581\n", simFile("TestPanel-led"));
  FakeHost::fire(timer);
  EXPECT_EQ("0601010581\n", simFile("TestPanel-led"));
  EXPECT_TRUE(FakeHost::timer(timer).armed);

  // A steady status leaves the list at the next tick, which does not re-arm.
  EXPECT_EQ(PL_STATUS_OK, led->ops->set_light_setting(led, PL_LED_GOOD));
  FakeHost::fire(timer);
  EXPECT_FALSE(FakeHost::timer(timer).armed);
  EXPECT_EQ("0101010581\n", simFile("TestPanel-led"));
}

TEST_F(HostObjects, TransceiverSignalsReachTheRegisters) {
  pl_xcvr* sfp = add<pl_xcvr>("pl_xcvr_add", object("TestPanel", 16, 102, "xcvr", R"("id": "2", "type": "sfp+")"));
  ASSERT_NE(nullptr, sfp);
  const pl_sfp_ops& ops = sfp->ops->u.sfp;
  int value = -1;
  EXPECT_EQ(1, ops.get_presence(sfp));
  EXPECT_EQ(PL_STATUS_OK, ops.get_rx_los(sfp, &value));
  EXPECT_EQ(1, value);
  EXPECT_EQ(PL_STATUS_OK, ops.set_tx_disable(sfp, 1));
  EXPECT_EQ(PL_STATUS_OK, ops.get_tx_disable(sfp, &value));
  EXPECT_EQ(1, value);
  EXPECT_EQ("0000010d81\n", simFile("TestPanel-xcvr"));  // tx disable (bit 3) on port 2
}

TEST_F(HostObjects, GpioLinesFlipRegisterBits) {
  const std::string bit7 = R"("register": "80", "bitpos": "7")";  // register 0x50
  pl_gpio* gpio = add<pl_gpio>("pl_gpio_add", object("TestPanel", 16, 103, "gpio", bit7));
  ASSERT_NE(nullptr, gpio);
  unsigned int bit = 2;
  EXPECT_EQ(PL_STATUS_OK, gpio->ops->bit_read(gpio, &bit));
  EXPECT_EQ(1u, bit);
  EXPECT_EQ(PL_STATUS_OK, gpio->ops->bit_clear(gpio));
  EXPECT_EQ("0000010501\n", simFile("TestPanel-gpio"));
  EXPECT_EQ(PL_STATUS_OK, gpio->ops->bit_read(gpio, &bit));
  EXPECT_EQ(0u, bit);
  EXPECT_EQ(PL_STATUS_OK, gpio->ops->bit_set(gpio));
  EXPECT_EQ("0000010581\n", simFile("TestPanel-gpio"));

  // "GpioDriver" devices have no register table, so simulation gives them no
  // file: a read warns and gives 0.
  pl_gpio* line = add<pl_gpio>("pl_gpio_add", object("GpioDriver", 17, 201, "lines", bit7));
  ASSERT_NE(nullptr, line);
  bit = 2;
  EXPECT_EQ(PL_STATUS_OK, line->ops->bit_read(line, &bit));
  EXPECT_EQ(0u, bit);
  EXPECT_TRUE(FakeHost::hasTrace("WARNING: Simulated Driver GpioDriver doesn't yet have expectedVal set for "
                                 "register 0x50 using SIMULATION_HAM()\n",
                                 0));
}

// The simulated chips: an LM75 at 39 degrees, also once the add has written
// both thresholds (each word's high byte spills into the next register's
// text); a supply that is off, so power not good, with every electrical
// reading 0 and 38 degrees on sensor 1; its fans answer 4, since
// STATUS_FANS_1_2 has no simulated value.
TEST_F(HostObjects, SimulatedSensorAndSupplyGiveTheirStatedReadings) {
  pl_temp_sensor* lm75 = addSensor(object("LM75", 18, 301, "lm75"), 75.0f, 85.5f);
  pl_psu* psu = add<pl_psu>("pl_psu_add", object("Pmbus", 19, 401, "psu"));
  pl_temp_sensor* sensor1 = addSensor(object("Pmbus", 19, 401, "psu", R"("sensorId": "1", "tempSensor": "1")"), 0, 0);
  pl_fan* fan = add<pl_fan>("pl_fan_add", object("Pmbus", 19, 401, "psu", R"("fanId": "2", "maxFanRpm": "9", "pec": "")"));
  ASSERT_TRUE(lm75 && psu && sensor1 && fan);
  float celsius[2] = {}, value = -1;
  EXPECT_EQ(0, lm75->ops->get_temperature(lm75, &celsius[0]) + sensor1->ops->get_temperature(sensor1, &celsius[1]));
  EXPECT_EQ(std::make_pair(39.0f, 38.0f), std::make_pair(celsius[0], celsius[1]));
  EXPECT_EQ("270080\n", simFile("LM75-lm75"));
  const pl_psu_ops& ops = *psu->ops;
  for (auto get : {ops.get_input_voltage, ops.get_input_current, ops.get_output_voltage, ops.get_output_current,
                   ops.get_input_power, ops.get_output_power}) {
    EXPECT_EQ(PL_STATUS_OK, get(psu, &value));
    EXPECT_EQ(0.0f, value);
    value = -1;
  }
  int ok = -1, rpm = -1;
  EXPECT_EQ(PL_STATUS_OK, ops.get_power_ok(psu, &ok));
  EXPECT_EQ(PL_STATUS_UNAVAILABLE, fan->ops->get_rpm(fan, &rpm));
  EXPECT_EQ(std::make_pair(0, -1), std::make_pair(ok, rpm));
}

}  // namespace
