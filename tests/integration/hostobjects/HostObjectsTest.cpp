// Host objects through the test build of the plug-in, in simulation: each
// call made through a C object's table must show in the device's simulation
// file on disk. The "TestPanel" driver keeps every signal in a register
// (tests/integration/drivers).
#include <cstdlib>
#include <string>

#include <gtest/gtest.h>

#include "../drivers/TestPanel.h"
#include "FakeHost.h"
#include "Plugin.h"
#include "ProxyStub.h"
#include "TempDir.h"
#include "keldo/pl_host.h"

namespace {

// Simulation and its directory are decided once per process, so both are
// set before the plug-in is loaded. The directory outlives every test.
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

// The panel (device 16) has one component per test, so that each test gets
// a device and a simulation file of its own; device 17 carries a GPIO line.
const char* kTopology = R"([{"type": "I2C", "ham": "SimHam", "id": 1, "label": "bus1", "devices": [
    {"did": 16, "label": "panel", "components": [{"uid": 101}, {"uid": 102}, {"uid": 103}]},
    {"did": 17, "label": "lines", "components": [{"uid": 201}]}]}])";

// The panel's registers at start-up, two hex digits each, ascending.
const std::string kInitial = "0000" "01050001" "11010001" "81";

std::string object(const char* driver, unsigned int did, unsigned int uid, const char* name,
                   const std::string& driverArgs = "") {
  return std::string(R"({"did": )") + std::to_string(did) + R"(, "uid": )" + std::to_string(uid) +
         R"(, "driver": ")" + driver + R"(", "name": ")" + name +
         R"(", "address": {"address": 32}, "driverArgs": {)" + driverArgs + "}}";
}

std::string simFile(const std::string& name) { return readFile(simDir().file(name)); }

// The register's two digits in the panel's file.
std::string panelRegister(const std::string& fileText, uint32_t reg) {
  size_t offset = 0;
  for (const TestPanel::Register& r : TestPanel::registers) {
    if (r.reg == reg) {
      return fileText.substr(offset, 2);
    }
    offset += 2;
  }
  return "unlisted";
}

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
};

TEST_F(HostObjects, LedSettingsAndBlinkingReachTheRegisters) {
  pl_led* led = add<pl_led>("pl_led_add", object("TestPanel", 16, 101, "led"));
  ASSERT_NE(nullptr, led);
  EXPECT_EQ(kInitial + "\n", simFile("TestPanel-led"));
  EXPECT_EQ(1, FakeHost::countTrace("creating unique led blink timer", 0));

  EXPECT_EQ(PL_STATUS_OK, led->ops->set_light_setting(led, PL_LED_WARNING));
  EXPECT_EQ("02", panelRegister(simFile("TestPanel-led"), TestPanel::LED_STATUS));
  EXPECT_EQ(PL_STATUS_BAD_INPUT, led->ops->set_light_setting(led, static_cast<pl_led_status>(9)));
  EXPECT_EQ("02", panelRegister(simFile("TestPanel-led"), TestPanel::LED_STATUS));

  // Beacon arms the shared timer; every tick shows the next phase and re-arms.
  FakeHost::reset();
  EXPECT_EQ(PL_STATUS_OK, led->ops->set_light_setting(led, PL_LED_BEACON));
  EXPECT_EQ("06", panelRegister(simFile("TestPanel-led"), TestPanel::LED_STATUS));
  ASSERT_EQ(1u, FakeHost::timerSets().size());
  const pl_timer_handle timer = FakeHost::timerSets()[0].timer;
  EXPECT_EQ(1000u, FakeHost::timerSets()[0].interval);
  std::string phases;
  for (int tick = 0; tick < 3; ++tick) {
    FakeHost::fire(timer);
    phases += panelRegister(simFile("TestPanel-led"), TestPanel::LED_PHASE) + " ";
  }
  EXPECT_EQ("00 01 00 ", phases);
  EXPECT_EQ(4u, FakeHost::timerSets().size());

  // A steady status leaves the list at the next tick, which does not re-arm.
  EXPECT_EQ(PL_STATUS_OK, led->ops->set_light_setting(led, PL_LED_GOOD));
  FakeHost::fire(timer);
  EXPECT_EQ(4u, FakeHost::timerSets().size());
  EXPECT_FALSE(FakeHost::timer(timer).armed);
  EXPECT_EQ("0100" "01050001" "11010001" "81\n", simFile("TestPanel-led"));
}

TEST_F(HostObjects, TransceiverSignalsReachTheRegisters) {
  pl_xcvr* sfp = add<pl_xcvr>("pl_xcvr_add", object("TestPanel", 16, 102, "xcvr", R"("id": "2", "type": "sfp+")"));
  pl_xcvr* qsfp = add<pl_xcvr>("pl_xcvr_add", object("TestPanel", 16, 102, "xcvr", R"("id": "1", "type": "qsfp")"));
  ASSERT_NE(nullptr, sfp);
  ASSERT_NE(nullptr, qsfp);
  EXPECT_EQ(PL_XCVR_FAMILY_SFP, sfp->ops->family);
  EXPECT_EQ(PL_XCVR_FAMILY_QSFP, qsfp->ops->family);

  // SFP port 2 starts present with loss of signal.
  int value = -1;
  EXPECT_EQ(1, sfp->ops->u.sfp.get_presence(sfp));
  EXPECT_EQ(PL_STATUS_OK, sfp->ops->u.sfp.get_rx_los(sfp, &value));
  EXPECT_EQ(1, value);
  EXPECT_EQ(PL_STATUS_OK, sfp->ops->u.sfp.get_tx_fault(sfp, &value));
  EXPECT_EQ(0, value);
  EXPECT_EQ(PL_STATUS_OK, sfp->ops->u.sfp.set_tx_disable(sfp, 1));
  EXPECT_EQ(PL_STATUS_OK, sfp->ops->u.sfp.get_tx_disable(sfp, &value));
  EXPECT_EQ(1, value);
  EXPECT_EQ(4, FakeHost::traceLevel("setTxDisableCallback(1, 1)"));

  // QSFP port 1 starts present with an interrupt pending.
  EXPECT_EQ(1, qsfp->ops->u.qsfp.get_presence(qsfp));
  EXPECT_EQ(PL_STATUS_OK, qsfp->ops->u.qsfp.get_interrupt(qsfp, &value));
  EXPECT_EQ(1, value);
  EXPECT_EQ(PL_STATUS_OK, qsfp->ops->u.qsfp.set_lp_mode(qsfp, 1));
  EXPECT_EQ(PL_STATUS_OK, qsfp->ops->u.qsfp.set_reset(qsfp, 1));
  EXPECT_EQ(PL_STATUS_OK, qsfp->ops->u.qsfp.set_mod_sel(qsfp, 1));
  EXPECT_EQ(PL_STATUS_OK, qsfp->ops->u.qsfp.set_mod_sel(qsfp, 0));
  EXPECT_EQ(PL_STATUS_OK, qsfp->ops->u.qsfp.get_reset(qsfp, &value));
  EXPECT_EQ(1, value);
  EXPECT_EQ(4, FakeHost::traceLevel("getResetCallback(0)"));

  // Only the two ports' registers changed: tx disable (bit 3) on SFP 2,
  // low power (bit 2) and reset (bit 3) on QSFP 1.
  EXPECT_EQ("0000" "010d0001" "1d010001" "81\n", simFile("TestPanel-xcvr"));

  // The driver has four ports per family.
  EXPECT_EQ(nullptr, add<pl_xcvr>("pl_xcvr_add", object("TestPanel", 16, 102, "xcvr", R"("id": "5", "type": "sfp")")));
  EXPECT_EQ(0, FakeHost::traceLevel("newSfpXcvr() failed"));
}

TEST_F(HostObjects, GpioLinesFlipRegisterBits) {
  const std::string bit7 = R"("register": "80", "bitpos": "7")";  // register 0x50

  // On the panel, which has a register table, the bit lands in the file.
  pl_gpio* gpio = add<pl_gpio>("pl_gpio_add", object("TestPanel", 16, 103, "gpio", bit7));
  ASSERT_NE(nullptr, gpio);
  unsigned int bit = 2;
  EXPECT_EQ(PL_STATUS_OK, gpio->ops->bit_read(gpio, &bit));
  EXPECT_EQ(1u, bit);
  EXPECT_EQ(PL_STATUS_OK, gpio->ops->bit_clear(gpio));
  EXPECT_EQ("01", panelRegister(simFile("TestPanel-gpio"), TestPanel::GPIO_LINES));
  EXPECT_EQ(PL_STATUS_OK, gpio->ops->bit_read(gpio, &bit));
  EXPECT_EQ(0u, bit);
  EXPECT_EQ(PL_STATUS_OK, gpio->ops->bit_set(gpio));
  EXPECT_EQ(kInitial + "\n", simFile("TestPanel-gpio"));

  // "GpioDriver" devices have no register table, so simulation gives them no
  // file: the line reads 0 and a write is dropped with a warning.
  pl_gpio* line = add<pl_gpio>("pl_gpio_add", object("GpioDriver", 17, 201, "lines", bit7));
  ASSERT_NE(nullptr, line);
  FakeHost::reset();
  EXPECT_EQ(PL_STATUS_OK, line->ops->bit_set(line));
  EXPECT_EQ(PL_STATUS_OK, line->ops->bit_read(line, &bit));
  EXPECT_EQ(0u, bit);
  EXPECT_EQ("", simFile("GpioDriver-lines"));
  EXPECT_TRUE(FakeHost::hasTrace("WARNING: Simulated Driver GpioDriver doesn't yet have expectedVal set for "
                                 "register 0x50 using SIMULATION_HAM()\n",
                                 0));
}

}  // namespace
