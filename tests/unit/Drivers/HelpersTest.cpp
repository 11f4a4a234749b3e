// Driver helpers: the placeholder template, bounded external commands, byte
// helpers, and devices and GPIOs found by topology label.
#include <sys/stat.h>

#include <cstdlib>
#include <memory>
#include <string>

#include <gtest/gtest.h>

#include "Components/Gpio.h"
#include "Components/HardwareDevice.h"
#include "Drivers/Helpers.h"
#include "FakeHost.h"
#include "TempDir.h"
#include "Topology.h"

namespace {


TEST(FormatFdlDeathTest, ReplacesEveryPlaceholderAndStopsOnMisuse) {
  Drivers::FormatFdl format("dev-{bus}-{addr}/{bus}");
  format.start();
  format.set("bus", "3");
  format.set("addr", "0x50");
  EXPECT_EQ("dev-3-0x50/3", format.str());
  format.start();  // each search starts over, so a value may hold a later key
  format.set("bus", "{addr}");
  format.set("addr", "7");
  EXPECT_STREQ("dev-7-7/7", format.charPtr());

  EXPECT_DEATH(format.set("bus", "1"),
               "Assertion `active_ && \"FormatFdl: Must call start\\(\\) before set\\(\\.\\.\\.\\)\"'");
  EXPECT_DEATH(format.str(), "Assertion `active_ && \"FormatFdl: Must call start\\(\\) before str\\(\\)\"'");
  EXPECT_DEATH(format.charPtr(), "Assertion `active_ && \"FormatFdl: Must call start\\(\\) before charPtr\\(\\)\"'");
  Drivers::FormatFdl busOnly("dev-{bus}");
  busOnly.start();
  EXPECT_DEATH(busOnly.set("addr", "1"), "Assertion `0 && \"Invalid key in FormatFdl::set\"' failed.*"
                                         "\\[trace 0\\] Error: FormatFdl::set -- invalid key '\\{addr\\}'");
}

TEST(RunCmd, StatusAndOutput) {
  const struct {
    const char* command;
    unsigned int limit;
    pl_status status;
    std::string output;
  } cases[] = {
      {"printf 'a\\nb'", 5, PL_STATUS_OK, "a\nb"},
      {"sh -c 'echo partial; exit 1'", 5, PL_STATUS_INTERNAL, "partial\n"},
      {"keldo-no-such-command 2>/dev/null", 5, PL_STATUS_INTERNAL, ""},  // missing, as ipmitool may be
      {"printf '%0300d\\n' 7", 5, PL_STATUS_OK, std::string(299, '0') + "7\n"},  // longer than one read
      {"sh -c 'echo started; sleep 10'", 1, PL_STATUS_UNAVAILABLE, "started\n"},  // stopped at its limit
  };
  for (const auto& c : cases) {
    std::string output = "stale";
    EXPECT_EQ(c.status, Drivers::runCmd(c.command, output, c.limit)) << c.command;
    EXPECT_EQ(c.output, output) << c.command;
  }
}

// A stand-in for the timeout utility, first on PATH, shows the command line.
TEST(RunCmd, RunsTheCommandUnderTheTimeoutUtility) {
  TempDir dir;
  writeFile(dir.file("timeout"), "#!/bin/sh\nprintf '%s|' \"$@\"\n");
  ASSERT_EQ(0, chmod(dir.file("timeout").c_str(), 0755));
  const std::string path = std::getenv("PATH");
  setenv("PATH", (dir.path() + ":" + path).c_str(), 1);
  std::string output;
  EXPECT_EQ(PL_STATUS_OK, Drivers::runCmd("echo hi", output, 5));
  setenv("PATH", path.c_str(), 1);
  EXPECT_EQ("5s|echo|hi|", output);
}

TEST(ByteHelpers, TrimAndZeroChecksum) {
  const std::pair<std::string, std::string> trims[] = {
      {"  a b\t", "a b"}, {"\t \t", ""}, {"", ""}, {" \n ", "\n"}, {"ab", "ab"},
  };
  for (const auto& c : trims) EXPECT_EQ(c.second, Drivers::trim(c.first)) << '"' << c.first << '"';
  const std::pair<std::string, bool> sums[] = {
      {"", true}, {std::string("\x01\0\xff", 3), true}, {"\x01", false}, {"\x80\x80", true}, {"\xff\xff\x02", true},
  };
  for (const auto& c : sums) EXPECT_EQ(c.second, Drivers::zeroChecksum(c.first)) << c.first.size() << " bytes";
}

TEST(ByLabelDeathTest, DeviceCreatedOnceWithTheDefaultDriverAndMissingLabelsStop) {
  ASSERT_EQ(PL_STATUS_OK, Topology::loadTopology(R"([{"type": "I2C", "ham": "SimHam", "id": 1, "devices": [
      {"did": 16, "label": "cpld", "uid": 70, "driver": "", "provideHam": 0, "address": {"address": 96}},
      {"did": 17, "label": "bare"}]}])"));
  Component::HardwareDevice* device = Drivers::getHardwareDeviceByLabel("cpld", "Dummy");
  ASSERT_NE(nullptr, device);
  EXPECT_EQ("Dummy", Topology::getDeviceByLabel("cpld")->args->driver);
  EXPECT_EQ(device, Drivers::getHardwareDeviceByLabel("cpld", "Other"));
  std::unique_ptr<Component::LogicalDevice::Gpio> gpio(Drivers::getRegGpioForDevice("cpld", 0x21, 6));
  auto* line = dynamic_cast<Component::LogicalDevice::RegGpio*>(gpio.get());
  ASSERT_NE(nullptr, line);
  EXPECT_EQ(std::make_pair(0x21, 6), std::make_pair(line->reg(), line->bit()));

  EXPECT_DEATH(Drivers::getHardwareDeviceByLabel("nowhere", "Dummy"),
               "Assertion `device' failed.*\\[trace 0\\] Unable to locate device nowhere");
  EXPECT_DEATH(Drivers::getHardwareDeviceByLabel("bare", "Dummy"), "Assertion `topoDev->args' failed");
}

}  // namespace
