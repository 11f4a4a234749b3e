// Simulation files that change under a running host: another process starting
// the same driver rewrites the file while this one polls it, and the file is
// cut short or replaced by a directory or a FIFO. Nothing may stop or block
// the host; accesses warn and read 0 until a regular file is back.
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <csignal>
#include <filesystem>
#include <fstream>
#include <functional>

#include "FakeHost.h"
#include "Ham/SimHam.h"
#include "TempDir.h"

namespace {

class SimHamFaultsTest : public ::testing::Test {
 protected:
  void SetUp() override {
    setenv("KELDOLIB_SIMDIR", dir_.path().c_str(), 1);
    Ham::SimHam::forgetSimulationDirectory();
    FakeHost::reset();
    ham_.setDriverName("LM75", "");
    ham_.setExpected(&table_);
  }
  TempDir dir_;
  const std::string path_ = dir_.file("LM75");
  Utils::ExpectedValues table_ = {{0, {0x27, 1}}, {2, {0x6E, 1}}, {3, {0x6E, 1}}};  // the LM75's
  Ham::SimHam ham_;
};

// A reader that saw the file emptied by the other process (or, mapping it,
// cut short under the copy: SIGBUS) would miss the temperature.
TEST_F(SimHamFaultsTest, PollingSurvivesAnotherProcessRecreatingTheFile) {
  const auto written = std::filesystem::last_write_time(path_);
  const pid_t creator = fork();
  for (int i = 0; creator == 0 && i < 1000000; ++i) {  // restarts the driver until killed
    ham_.setExpected(&table_);
    if (i % 1000 == 0) FakeHost::reset();
  }
  if (creator == 0) _exit(0);
  const auto mappings = [] {  // char by char: a big read would grow the heap's own mappings
    std::ifstream maps("/proc/self/maps");
    return std::count(std::istreambuf_iterator<char>(maps), {}, '\n');
  };
  int wrong = 0;
  long settled = 0;
  for (int i = 1; i <= 100000; ++i) {
    uint8_t temperature = 0;
    wrong += ham_.read8(0, &temperature) != PL_STATUS_OK || temperature != 0x27;
    if (i % 1000 == 0) wrong += static_cast<int>(FakeHost::traceTexts(0).size()), FakeHost::reset();
    if (i == 1000) settled = mappings();  // once the allocator has settled
  }
  EXPECT_GT(std::filesystem::last_write_time(path_), written) << "the file was never recreated";
  kill(creator, SIGKILL);
  waitpid(creator, nullptr, 0);
  EXPECT_EQ(wrong, 0);
  EXPECT_LE(mappings(), settled);
}

TEST_F(SimHamFaultsTest, AShortOrSpecialFileWarnsUntilARegularFileIsBack) {
  alarm(20);  // an open that blocks on the FIFO fails the test instead of hanging it
  const std::string shortFile = ": " + path_ + " holds 0 bytes, expected 6", special = path_ + ": not a regular file";
  const struct {
    std::function<int(const char*)> make;
    std::string read, write, restart;  // the causes in the read and write warnings; a restart's trace
  } cases[] = {
      {[](const char* p) { return truncate(p, 0); }, shortFile, shortFile, ""},
      {[](const char* p) { return remove(p) + mkdir(p, 0755); }, " cannot read " + special,
       " cannot write " + path_ + ": Is a directory", "Could not create simulation file " + path_ + ": Is a directory"},
      {[](const char* p) { return remove(p) + mkfifo(p, 0644); }, " cannot read " + special, " cannot write " + special,
       ""},
  };
  for (const auto& c : cases) {
    ASSERT_EQ(c.make(path_.c_str()), 0) << c.read;
    FakeHost::reset();
    uint8_t byte = 0x55;
    std::string block = "x";
    EXPECT_EQ(ham_.read8(0, &byte) + ham_.readBlock(2, &block) + ham_.write8(3, 0x11, false), PL_STATUS_OK);
    EXPECT_EQ(byte + block.size(), 0u) << c.read;
    const std::string driver = "WARNING: Simulated Driver LM75";
    EXPECT_EQ(FakeHost::traceTexts(0), (std::vector<std::string>{driver + c.read + "; register 0x0 reads as 0",
                                                                 driver + c.read + "; register 0x2 reads as 0",
                                                                 driver + c.write + "; write to register 0x3 dropped"}));
    FakeHost::reset();
    Ham::SimHam restarted;  // a driver start over it
    restarted.setDriverName("LM75", "");
    restarted.setExpected(&table_);
    EXPECT_EQ(FakeHost::traceTexts(0), c.restart.empty() ? std::vector<std::string>{} : std::vector{c.restart});
    std::filesystem::remove_all(path_);
    writeFile(path_, "2a6e6e\n");  // put back by hand
    EXPECT_EQ(ham_.read8(0, &byte), PL_STATUS_OK);
    EXPECT_EQ(byte, 0x2a) << c.read;
  }
  alarm(0);
}

}  // namespace
