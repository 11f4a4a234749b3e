// The reference IPMI collector against a fake ipmitool (tests/data/ipmi/bin):
// normal answers, failure, a hang past the time limit and garbage; then the
// plug-in's IPMI driver reading what it wrote to the fixed paths of a private
// /var/run. Passes: passes.json.
#include <sys/stat.h>

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

const std::string kData = KELDO_SOURCE_DIR "/tests/data/ipmi/", kCache = "/var/run/ipmiCache";

// One collector pass: its exit status and standard error.
std::pair<int, std::string> collect(const std::string& data, const std::string& mode, std::vector<std::string> args) {
  TempDir out;
  args.insert(args.begin(), {KELDO_IPMI_COLLECTOR, "--once", "--timeout", "0.5"});
  ChildProcess collector(args, {"PATH=" + kData + "bin:" + getenv("PATH"), "FAKE_IPMITOOL_DATA=" + kData + data,
                                "FAKE_IPMITOOL_MODE=" + mode}, out.file("stderr"));
  const int status = collector.stop(0, 10000);  // waits for its end; -1 when it had to be killed
  return {WIFEXITED(status) ? WEXITSTATUS(status) : -1, readFile(out.file("stderr"))};
}

TEST(IpmiCollector, SurvivesIpmitoolFailingHangingOrPrintingGarbageAndKeepsAWholeCache) {
  TempDir dir;
  writeFile(dir.file("config"), "hamType ipmiTool\nsdr True\n");
  rapidjson::Document passes;
  passes.Parse(readFile(KELDO_SOURCE_DIR "/tests/integration/collector/passes.json").c_str());
  for (const auto& pass : passes["passes"].GetArray()) {
    const std::string what = std::string(pass["data"].GetString()) + " " + pass["mode"].GetString();
    const auto start = std::chrono::steady_clock::now();
    const auto [status, errors] = collect(pass["data"].GetString(), pass["mode"].GetString(),
                                          {"--config", dir.file("config"), "--cache", dir.file("cache")});
    EXPECT_LT(std::chrono::steady_clock::now() - start, std::chrono::seconds(5)) << what;
    EXPECT_EQ(status, 0) << what;
    EXPECT_EQ(readFile(dir.file("cache")), readFile(kData + pass["cache"].GetString())) << what;
    EXPECT_NE(errors.find(pass["stderr"].GetString()), std::string::npos) << what << ": " << errors;
  }
  EXPECT_EQ(std::distance(std::filesystem::directory_iterator(dir.path()), {}), 2);  // no temporary file left
}

TEST(IpmiCollector, ThePluginReadsWhatItWroteThroughTheIpmiDriver) {
  ASSERT_TRUE(enterPrivateVarRun());
  Plugin plugin(KELDO_PLUGIN);
  auto object = [](const std::string& args) {
    return R"({"did": 1, "uid": 1, "driver": "Ipmi", "provideHam": 0, "address": {"address": 0}, "driverArgs": )" + args + "}";
  };
  auto add = [&](const char* kind, const std::string& args) {
    return FakeHost::keep(plugin.sym<void* (*)(const char*)>(kind)(object(args).c_str()));
  };
  auto* sensor = FakeHost::keep(plugin.sym<pl_temp_sensor* (*)(const char*, float, float)>("pl_temp_sensor_add")(
      object(R"({"sensor": "psu1_temp_1"})").c_str(), 60, 65));
  auto* fan = static_cast<pl_fan*>(add("pl_fan_add", R"({"sensor": "FAN_1", "fanTray": 1})"));
  auto* tray = static_cast<pl_slot*>(add("pl_slot_add", R"({"sensor": "FAN2_REAR"})"));
  auto* psu = static_cast<pl_psu*>(add("pl_psu_add", R"({"powerOkSensor": "PSU1_STATUS"})"));
  auto poll = [] { FakeHost::fire(FakeHost::timerSets().back().timer); };
  float value = 0;
  int number = 0;
  EXPECT_EQ(sensor->ops->get_temperature(sensor, &value), PL_STATUS_UNAVAILABLE);  // nothing before the first poll
  EXPECT_EQ(readFile("/var/run/ipmiConfig"), "fanTray 1\nhamType ipmiTool\nsdr True\n");
  EXPECT_EQ(collect("normal", "", {}).first, 0);
  poll();
  EXPECT_EQ(sensor->ops->get_temperature(sensor, &value), 0);
  EXPECT_EQ(value, 38.0f);
  EXPECT_EQ(fan->ops->get_rpm(fan, &number), 0);
  EXPECT_EQ(number, 8400);
  EXPECT_EQ(tray->ops->get_presence(tray, nullptr), 1);
  EXPECT_EQ(psu->ops->get_power_ok(psu, &number), 0);
  EXPECT_EQ(number, 1);
  EXPECT_EQ(psu->ops->get_input_voltage(psu, &value), PL_STATUS_NOT_PROVIDED);

  // An unreadable cache (a FIFO must not block the host either) keeps the
  // last readings but answers 4 until a poll reads a file again.
  std::filesystem::remove(kCache);
  ASSERT_EQ(mkfifo(kCache.c_str(), 0644), 0);
  poll();
  EXPECT_TRUE(FakeHost::hasTrace("Failed to read from cache", 0));
  EXPECT_EQ(sensor->ops->get_temperature(sensor, &value), PL_STATUS_UNAVAILABLE);
  std::filesystem::remove(kCache);
  writeFile(kCache, "PSU1_TEMP_1 hot\nFAN_1 9000\n");
  poll();
  EXPECT_EQ(fan->ops->get_rpm(fan, &number), 0);
  EXPECT_EQ(sensor->ops->get_temperature(sensor, &value), PL_STATUS_UNAVAILABLE);  // no number
  EXPECT_EQ(tray->ops->get_presence(tray, nullptr), 0);
}

}  // namespace
