// The reference IPMI collector against a fake ipmitool (tests/data/ipmi/bin):
// normal answers, failure, a hang past the time limit and garbage; then the
// plug-in's IPMI driver reading what the collector wrote to the fixed paths of
// a private /var/run. Passes: passes.json.
#include <sys/stat.h>
#include <unistd.h>

#include <chrono>
#include <filesystem>

#include <gtest/gtest.h>
#include <rapidjson/document.h>

#include "ChildProcess.h"
#include "FakeHost.h"
#include "Plugin.h"
#include "TempDir.h"
#include "keldo/pl_host.h"

namespace {

const std::string kData = KELDO_SOURCE_DIR "/tests/data/ipmi/";

// One collector pass; its exit status and standard error.
std::pair<int, std::string> collect(const std::string& data, const std::string& mode, std::vector<std::string> args) {
  TempDir out;
  args.insert(args.begin(), {KELDO_IPMI_COLLECTOR, "--once", "--timeout", "0.5"});
  ChildProcess collector(args, {"PATH=" + kData + "bin:" + getenv("PATH"), "FAKE_IPMITOOL_DATA=" + kData + data,
                                "FAKE_IPMITOOL_MODE=" + mode},
                         out.file("stderr"));
  for (int waited = 0; collector.running() && waited < 1000; ++waited) usleep(10000);
  const int status = collector.stop(SIGKILL);
  return {WIFEXITED(status) ? WEXITSTATUS(status) : -1, readFile(out.file("stderr"))};
}

TEST(IpmiCollector, SurvivesIpmitoolFailingHangingOrPrintingGarbageAndKeepsAWholeCache) {
  TempDir dir;
  writeFile(dir.file("config"), "hamType ipmiTool\nsdr True\n");
  rapidjson::Document passes;
  passes.Parse(readFile(KELDO_SOURCE_DIR "/tests/integration/collector/passes.json").c_str());
  for (const auto& pass : passes["passes"].GetArray()) {
    const auto start = std::chrono::steady_clock::now();
    const auto [status, stderrText] = collect(pass["data"].GetString(), pass["mode"].GetString(),
                                              {"--config", dir.file("config"), "--cache", dir.file("cache")});
    const std::string what = std::string(pass["data"].GetString()) + " " + pass["mode"].GetString();
    EXPECT_LT(std::chrono::steady_clock::now() - start, std::chrono::seconds(5)) << what;
    EXPECT_EQ(status, 0) << what;
    EXPECT_EQ(readFile(dir.file("cache")), readFile(kData + pass["cache"].GetString())) << what;
    EXPECT_NE(stderrText.find(pass["stderr"].GetString()), std::string::npos) << what << ": " << stderrText;
  }
  EXPECT_EQ(std::distance(std::filesystem::directory_iterator(dir.path()), {}), 2);  // no temporary file left
}

// The objects of an "Ipmi" device, added as the host adds them.
struct IpmiObjects {
  explicit IpmiObjects(const Plugin& plugin) {
    const std::string device = R"({"did": 1, "uid": 1, "driver": "Ipmi", "provideHam": 0, "address": {"address": 0},
                                   "driverArgs": )";
    auto add = [&](const char* kind, const std::string& args) {
      return FakeHost::keep(plugin.sym<void* (*)(const char*)>(kind)((device + args + "}").c_str()));
    };
    sensor = FakeHost::keep(plugin.sym<pl_temp_sensor* (*)(const char*, float, float)>("pl_temp_sensor_add")(
        (device + R"({"sensor": "psu1_temp_1"}})").c_str(), 60, 65));
    fan = static_cast<pl_fan*>(add("pl_fan_add", R"({"sensor": "FAN_1", "fanTray": 1})"));
    tray = static_cast<pl_slot*>(add("pl_slot_add", R"({"sensor": "FAN2_REAR"})"));
    psu = static_cast<pl_psu*>(add("pl_psu_add", R"({"inputVoltageSensor": "PSU1_VIN", "powerOkSensor": "PSU1_STATUS"})"));
  }
  pl_status celsius(float* value) { return sensor->ops->get_temperature(sensor, value); }
  pl_temp_sensor* sensor;
  pl_fan* fan;
  pl_slot* tray;
  pl_psu* psu;
};

void poll() { FakeHost::fire(FakeHost::timerSets().back().timer); }

TEST(IpmiCollector, ThePluginReadsWhatItWroteThroughTheIpmiDriver) {
  ASSERT_TRUE(enterPrivateVarRun());
  IpmiObjects objects(Plugin(KELDO_PLUGIN));
  float value = 0;
  int number = 0;
  EXPECT_TRUE(FakeHost::hasTrace("setting polling interval to 5000ms", 0));
  EXPECT_EQ(objects.celsius(&value), PL_STATUS_UNAVAILABLE);  // nothing before the first poll
  EXPECT_EQ(readFile("/var/run/ipmiConfig"), "fanTray 1\nhamType ipmiTool\nsdr True\n");

  EXPECT_EQ(collect("normal", "", {}).first, 0);
  poll();
  EXPECT_EQ(objects.celsius(&value), 0);
  EXPECT_EQ(value, 38.0f);
  EXPECT_EQ(objects.fan->ops->get_rpm(objects.fan, &number), 0);
  EXPECT_EQ(number, 8400);
  EXPECT_EQ(objects.fan->ops->set_rpm(objects.fan, 5000), PL_STATUS_NOT_PROVIDED);
  EXPECT_EQ(objects.tray->ops->get_presence(objects.tray, nullptr), 1);
  EXPECT_EQ(objects.psu->ops->get_input_voltage(objects.psu, &value), 0);
  EXPECT_EQ(value, 229.5f);
  EXPECT_EQ(objects.psu->ops->get_power_ok(objects.psu, &number), 0);
  EXPECT_EQ(number, 1);
  EXPECT_EQ(objects.psu->ops->get_output_current(objects.psu, &value), PL_STATUS_NOT_PROVIDED);

  // An unreadable cache (a FIFO must not block the host either) keeps the
  // last readings but answers 4 until a poll reads a file again.
  std::filesystem::remove("/var/run/ipmiCache");
  ASSERT_EQ(mkfifo("/var/run/ipmiCache", 0644), 0);
  poll();
  EXPECT_TRUE(FakeHost::hasTrace("Failed to read from cache", 0));
  EXPECT_EQ(objects.celsius(&value), PL_STATUS_UNAVAILABLE);
  std::filesystem::remove("/var/run/ipmiCache");
  writeFile("/var/run/ipmiCache", "PSU1_TEMP_1 hot\nFAN_1 9000\n");
  poll();
  EXPECT_EQ(objects.celsius(&value), PL_STATUS_UNAVAILABLE);  // no number
  EXPECT_EQ(objects.fan->ops->get_rpm(objects.fan, &number), 0);
  EXPECT_EQ(objects.tray->ops->get_presence(objects.tray, nullptr), 0);
}

TEST(IpmiCollector, AHostThatRefusesThePollTimerGetsAnAccessThatAnswers4) {
  ASSERT_TRUE(enterPrivateVarRun());
  FakeHost::failTimerSet(true);
  IpmiObjects objects(Plugin(KELDO_PLUGIN));
  FakeHost::failTimerSet(false);
  EXPECT_TRUE(FakeHost::hasTrace("failed to set timer interval", 0));
  EXPECT_FALSE(FakeHost::hasTrace("destroying timer"));
  float value = 0;
  EXPECT_EQ(objects.celsius(&value), PL_STATUS_UNAVAILABLE);
}

}  // namespace
