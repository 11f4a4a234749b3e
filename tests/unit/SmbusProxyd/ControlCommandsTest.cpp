// The control channel's commands, run as a script against one emulator.
#include "ControlCommands.h"

#include <gtest/gtest.h>

#include "EmulationFile.h"
#include "Emulator.h"
#include "ProxydTestSupport.h"

namespace {

TEST(ControlCommands, ScriptOfCommandsAndReplies) {
  SmbusProxyd::Emulator emulator(SmbusProxyd::loadEmulationFile(ProxydTest::kBoardFile));
  SmbusProxyd::ControlCommands control(emulator);
  const struct {
    const char* line;
    const char* reply;
  } script[] = {
      {"ping", "ok"},
      {"fault I2C/0/0/10/0x48 nak count 2", "ok"},
      {"fault 1/0/0/10/0x49 nak", "error: no device 0x49 on bus I2C pci 0x00000000 accel 0 bus 10"},
      {"fault I2C/0/0/10 nak", "error: bad device \"I2C/0/0/10\" (MASTER/PCI/ACCEL/BUS/ADDRESS)"},
      {"fault I2C/0/0/10/0x48 delay", "error: delay needs milliseconds"},
      {"fault I2C/0/0/10/0x48 nak count 0", "error: a fault acts at least once"},
      {"fault I2C/0/0/10/0x48 drop now", "error: unexpected \"now\""},
      {"fault I2C/0/0/10/0x48 melt", "error: unknown fault \"melt\" (nak, delay, drop, fail)"},
      {"fault SCD/0xff00/1/2/0x23 fail count 1 PSU2  holds the bus", "ok"},
      {"fault SCD/0xff00/1/2/0x23 fail", "error: fail needs a reason"},
      {"fault any delay 250", "ok"},
      {"poke SCD/0xff00/1/2/0x23 0x259 0x11", "ok"},
      {"peek SCD/0xff00/1/2/0x23 0x259", "ok 0x11"},
      {"peek SCD/0xff00/1/2/0x23 0x258", "ok 0xff"},
      {"poke I2C/0/0/3/0x70 0 1", "error: a multiplexer has no registers"},
      {"poke SCD/0xff00/1/2/0x23 0x259 0x100", "error: bad value \"0x100\""},
      {"transactions", "ok 0"},
      {"", "error: empty command"},
      {"reboot", "error: unknown command \"reboot\""},
  };
  for (const auto& step : script) EXPECT_EQ(control.execute(step.line), step.reply) << step.line;

  auto& nak = emulator.board().device({{Smbus::I2C, 0, 0, 10}, 0x48})->fault();
  ASSERT_TRUE(nak.has_value());
  EXPECT_EQ(nak->kind, SmbusProxyd::FaultKind::Nak);
  EXPECT_EQ(nak->remaining, 2);
  auto& fail = emulator.board().device({{Smbus::SCD, 0xff00, 1, 2}, 0x23})->fault();
  ASSERT_TRUE(fail.has_value());
  EXPECT_EQ(fail->reason, "PSU2  holds the bus");
  ASSERT_TRUE(emulator.anyDeviceFault().has_value());
  EXPECT_EQ(emulator.anyDeviceFault()->delayMs, 250u);

  EXPECT_EQ(control.execute("clear I2C/0/0/10/0x48"), "ok");
  EXPECT_FALSE(nak.has_value());
  EXPECT_EQ(control.execute("clear all"), "ok");
  EXPECT_FALSE(fail.has_value());
  EXPECT_FALSE(emulator.anyDeviceFault().has_value());
  EXPECT_FALSE(emulator.board().device({{Smbus::I2C, 0, 0, 3}, 0x3c})->fault().has_value());
}

}  // namespace
