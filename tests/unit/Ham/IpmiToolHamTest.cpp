// The IPMI access through the collector's files, against the real fixed paths
// in a private /var/run, and its registry.
#include <sys/stat.h>

#include <filesystem>

#include <gtest/gtest.h>

#include "FakeHost.h"
#include "Ham/IpmiToolHam.h"
#include "KeldoUtil/NotImplementedException.h"
#include "TempDir.h"

namespace {

const std::string kData = KELDO_SOURCE_DIR "/tests/data/";
const std::string kCache = Ham::IpmiToolHam::kCachePath, kConfig = Ham::IpmiToolHam::kConfigPath;

class IpmiToolHamFiles : public ::testing::Test {
 protected:
  void SetUp() override {
    if (!enterPrivateVarRun()) GTEST_SKIP() << "no private mount namespace here";
    std::filesystem::remove_all(kCache);
    std::filesystem::remove_all(kConfig);
    FakeHost::reset();
  }
  // The access and the poll timer it armed.
  std::shared_ptr<Ham::IpmiHam> make() {
    ham = Ham::createIpmiHam("IpmiTool");
    timer = FakeHost::timerSets().empty() ? 0 : FakeHost::timerSets().back().timer;
    return ham;
  }
  void poll(const std::string& cacheText) {
    writeFile(kCache, cacheText);
    FakeHost::fire(timer);
  }
  std::shared_ptr<Ham::IpmiHam> ham;
  pl_timer_handle timer = 0;
};

TEST_F(IpmiToolHamFiles, AsksTheCollectorAndAnswersFromWhatEachPollRead) {
  make();
  EXPECT_EQ(FakeHost::traceTexts(), (std::vector<std::string>{"looking for ham IpmiTool",
                                                              "creating  IpmiTool factory function", "creating timer",
                                                              "setting polling interval to 5000ms"}));
  EXPECT_EQ(readFile(kConfig), "hamType ipmiTool\nsdr True\n");
  std::string text = "untouched";
  EXPECT_EQ(ham->getSensorVal("psu1_vin", text), 4);
  EXPECT_EQ(text, "untouched");

  poll(readFile(kData + "ipmi/shared-map.txt"));
  float vin = 0;
  int rpm = 0;
  EXPECT_EQ(ham->getSensorVal("psu1_vin", &vin), 0);
  EXPECT_FLOAT_EQ(vin, 229.5f);
  EXPECT_EQ(ham->getSensorVal("Fan_1", &rpm), 0);
  EXPECT_EQ(rpm, 8400);
  bool present = true;
  EXPECT_EQ(ham->fanPresence("fan_2", &present), 4);
  EXPECT_FALSE(present);
  EXPECT_EQ(FakeHost::traceTexts(6).back(), "IpmiHam::fanPresence  'fan_2' 4 0");
  std::string image, name;
  EXPECT_EQ(ham->psuPresence("3", image, name), 0);
  EXPECT_EQ(image, readFile(kData + "psu/fru-dps550.bin"));
  EXPECT_EQ(name, "PSU1 FRU");

  ham->fanId("2");
  ham->airflowId("1");
  EXPECT_EQ(readFile(kConfig), "airflow 1\nfanTray 2\nhamType ipmiTool\nsdr True\n");
  EXPECT_THROW(ham->psuId("1"), NotImplementedException);
  EXPECT_EQ(FakeHost::timer(timer).interval, 5000u);
  EXPECT_TRUE(FakeHost::timer(timer).armed);
}

TEST_F(IpmiToolHamFiles, AnUnreadableCacheKeepsTheLastReadingsButAnswers4UntilItIsReadableAgain) {
  make();
  poll(readFile(kData + "ipmi/shared-map-broken.txt"));
  Ham::IpmiHam::FruData fru;
  EXPECT_EQ(ham->getFruVal("3", fru), 0);
  EXPECT_EQ(fru.image, std::string("\x01\x00\x00\x00\x01", 5));
  EXPECT_EQ(ham->getFruVal("4", fru), 4);
  EXPECT_TRUE(FakeHost::hasTrace("ignoring FRU 4: no image in the cache", 3));

  std::filesystem::remove(kCache);
  ASSERT_EQ(mkdir(kCache.c_str(), 0755), 0);
  FakeHost::fire(timer);
  EXPECT_TRUE(FakeHost::hasTrace("Failed to read from cache", 0));
  std::string text;
  EXPECT_EQ(ham->getSensorVal("fan_1", text), 4);
  EXPECT_EQ(text, "8400.000\r");

  std::filesystem::remove(kCache);
  poll("FAN_1 10\n");
  EXPECT_EQ(ham->getSensorVal("fan_1", text), 0);
  EXPECT_EQ(text, "10");
}

TEST_F(IpmiToolHamFiles, ARefusedTimerLeavesAnAccessThatAnswers4) {
  FakeHost::failTimerSet(true);
  make();
  FakeHost::failTimerSet(false);
  EXPECT_TRUE(FakeHost::hasTrace("failed to set timer interval", 0));
  EXPECT_FALSE(FakeHost::hasTrace("destroying timer"));
  std::string text;
  EXPECT_EQ(ham->getSensorVal("fan_1", text), 4);
}

TEST(IpmiHamRegistry, AnUnknownNameBuildsNothing) {
  FakeHost::reset();
  EXPECT_EQ(Ham::createIpmiHam("ipmitool"), nullptr);
  EXPECT_TRUE(FakeHost::hasTrace("ham not found ipmitool", 0));
}

}  // namespace
