// Driver helpers: the placeholder template, bounded external commands, byte
// helpers and devices and GPIOs found by topology label.
#include <gtest/gtest.h>

#include <sys/stat.h>

#include <chrono>
#include <cstdlib>
#include <memory>
#include <string>

#include "Components/Gpio.h"
#include "Components/HardwareDevice.h"
#include "Drivers/Helpers.h"
#include "FakeHost.h"
#include "TempDir.h"
#include "Topology.h"

using Component::HardwareDevice;
using Component::LogicalDevice::RegGpio;
using Drivers::FormatFdl;

namespace {

// Death tests run in a fresh process that echoes its traces to stderr, so a
// pattern can demand the trace before the assertion report.
class DeathWithTraces : public ::testing::Test {
 protected:
  void SetUp() override {
    style_ = GTEST_FLAG_GET(death_test_style);
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    setenv("KELDO_TEST_TRACE", "1", 1);
  }
  void TearDown() override {
    unsetenv("KELDO_TEST_TRACE");
    GTEST_FLAG_SET(death_test_style, style_);
  }

 private:
  std::string style_;
};

TEST(FormatFdl, ReplacesEveryOccurrenceOfEachKey) {
  FakeHost::reset();
  FormatFdl format("dev-{bus}-{addr}/{bus}");
  format.start();
  EXPECT_TRUE(format.set("bus", "3"));
  EXPECT_TRUE(FakeHost::hasTrace("FormatFdl::set( 'bus', '3' )", 5));
  EXPECT_TRUE(format.set("addr", "0x50"));
  EXPECT_EQ(format.str(), "dev-3-0x50/3");
  format.start();
  format.set("bus", "{addr}");
  format.set("addr", "7");
  EXPECT_STREQ(format.charPtr(), "dev-7-7/7");
}

using FormatFdlDeath = DeathWithTraces;

TEST_F(FormatFdlDeath, UnknownKeyIsTracedThenStops) {
  FormatFdl format("dev-{bus}");
  format.start();
  EXPECT_DEATH(format.set("addr", "1"),
               "Error: FormatFdl::set -- invalid key '\\{addr\\}'.*"
               "Assertion `0 && \"Invalid key in FormatFdl::set\"' failed");
}

TEST_F(FormatFdlDeath, EveryPassMustStartFirst) {
  FormatFdl format("dev-{bus}");
  EXPECT_DEATH(format.set("bus", "1"), "Assertion `active_ && \"FormatFdl: Must call start\\(\\) before set\\(\\.\\.\\.\\)\"'");
  format.start();
  format.str();
  EXPECT_DEATH(format.str(), "Assertion `active_ && \"FormatFdl: Must call start\\(\\) before str\\(\\)\"'");
  EXPECT_DEATH(format.charPtr(), "Assertion `active_ && \"FormatFdl: Must call start\\(\\) before charPtr\\(\\)\"'");
}

TEST(RunCmd, StatusAndOutput) {
  const std::string longLine = std::string(299, '0') + "7\n";
  struct Case {
    const char* command;
    pl_status status;
    std::string output;
  } cases[] = {
      {"printf 'a\\nb'", PL_STATUS_OK, "a\nb"},
      {"sh -c 'echo partial; exit 1'", PL_STATUS_INTERNAL, "partial\n"},
      {"printf '%0300d\\n' 7", PL_STATUS_OK, longLine},
      {"/nonexistent/command", PL_STATUS_INTERNAL, ""},
  };
  for (const Case& c : cases) {
    std::string output = "stale";
    EXPECT_EQ(Drivers::runCmd(c.command, output, 5), c.status) << c.command;
    EXPECT_EQ(output, c.output) << c.command;
  }
}

TEST(RunCmd, CommandOutlivingItsLimitIsStopped) {
  std::string output;
  const auto start = std::chrono::steady_clock::now();
  EXPECT_EQ(Drivers::runCmd("sh -c 'echo started; sleep 10'", output, 1), PL_STATUS_UNAVAILABLE);
  EXPECT_LT(std::chrono::steady_clock::now() - start, std::chrono::seconds(5));
  EXPECT_EQ(output, "started\n");
}

// A stand-in for the timeout utility, first on PATH, shows the command line.
TEST(RunCmd, RunsTheCommandUnderTheTimeoutUtility) {
  TempDir dir;
  writeFile(dir.file("timeout"), "#!/bin/sh\nprintf '%s|' \"$@\"\n");
  ASSERT_EQ(chmod(dir.file("timeout").c_str(), 0755), 0);
  const std::string path = std::getenv("PATH");
  setenv("PATH", (dir.path() + ":" + path).c_str(), 1);
  std::string output;
  EXPECT_EQ(Drivers::runCmd("echo hi", output, 5), PL_STATUS_OK);
  setenv("PATH", path.c_str(), 1);
  EXPECT_EQ(output, "5s|echo|hi|");
}

TEST(Trim, RemovesOnlySpacesAndTabs) {
  const std::pair<std::string, std::string> cases[] = {
      {"  a b\t", "a b"}, {"\t \t", ""}, {"", ""}, {"x\n", "x\n"}, {" \n ", "\n"}, {"ab", "ab"},
  };
  for (const auto& c : cases) EXPECT_EQ(Drivers::trim(c.first), c.second) << '"' << c.first << '"';
}

TEST(ZeroChecksum, SumModulo256) {
  const std::pair<std::string, bool> cases[] = {
      {"", true}, {"\x01\xff", true}, {"\x01", false}, {"\x80\x80", true}, {std::string(1, '\0'), true}, {"\xff\xff\x02", true},
  };
  for (const auto& c : cases) EXPECT_EQ(Drivers::zeroChecksum(c.first), c.second) << c.first.size() << " bytes";
}

class ByLabel : public ::testing::Test {
 protected:
  void SetUp() override {
    ASSERT_EQ(Topology::loadTopology(R"([{"type": "I2C", "ham": "SimHam", "id": 1, "devices": [
        {"did": 16, "label": "cpld", "uid": 70, "driver": "", "provideHam": 0, "address": {"address": 96}},
        {"did": 17, "label": "bare"}]}])"),
              PL_STATUS_OK);
  }
  void TearDown() override {
    auto it = Component::DeviceBase::devices.find(70);
    if (it != Component::DeviceBase::devices.end()) {
      delete it->second;
      Component::DeviceBase::devices.erase(it);
    }
  }
};

TEST_F(ByLabel, DeviceIsCreatedOnceWithTheDefaultDriver) {
  HardwareDevice* device = Drivers::getHardwareDeviceByLabel("cpld", "Dummy");
  ASSERT_NE(device, nullptr);
  EXPECT_EQ(Topology::getDeviceByLabel("cpld")->args->driver, "Dummy");
  EXPECT_EQ(Drivers::getHardwareDeviceByLabel("cpld", "Other"), device);

  std::unique_ptr<Component::LogicalDevice::Gpio> gpio(Drivers::getRegGpioForDevice("cpld", 0x21, 6));
  auto* line = dynamic_cast<RegGpio*>(gpio.get());
  ASSERT_NE(line, nullptr);
  EXPECT_EQ(line->reg(), 0x21);
  EXPECT_EQ(line->bit(), 6);
}

using ByLabelDeath = DeathWithTraces;

TEST_F(ByLabelDeath, MissingLabelIsTracedThenStops) {
  ASSERT_EQ(Topology::loadTopology(R"([{"type": "I2C", "ham": "SimHam", "id": 1, "devices": [
      {"did": 17, "label": "bare"}]}])"),
            PL_STATUS_OK);
  EXPECT_DEATH(Drivers::getHardwareDeviceByLabel("nowhere", "Dummy"),
               "Unable to locate device nowhere.*Assertion `device' failed");
  EXPECT_DEATH(Drivers::getHardwareDeviceByLabel("bare", "Dummy"), "Assertion `topoDev->args' failed");
}

}  // namespace
