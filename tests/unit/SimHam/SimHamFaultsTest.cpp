// Simulation files that change under a running host: another process that
// starts the same driver and rewrites the file while this one polls it, and
// a file replaced by a directory or a FIFO. None may stop or block the host;
// each access warns and reads 0, and a regular file put back is used again.
#include <gtest/gtest.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <filesystem>
#include <fstream>

#include "FakeHost.h"
#include "Ham/SimHam.h"
#include "TempDir.h"

namespace {

using Table = Utils::ExpectedValues;
using Val = Utils::ExpectedVal;
using Texts = std::vector<std::string>;

class SimHamFaultsTest : public ::testing::Test {
 protected:
  void SetUp() override {
    setenv("KELDOLIB_SIMDIR", dir_.path().c_str(), 1);
    Ham::SimHam::forgetSimulationDirectory();
    FakeHost::reset();
    ham_.setDriverName("LM75", "");
    ham_.setExpected(&table_);
  }
  void TearDown() override { Ham::SimHam::forgetSimulationDirectory(); }
  std::string path() const { return dir_.file("LM75"); }

  TempDir dir_;
  Table table_ = {{0, Val(0x27, 1)}, {2, Val(0x6E, 1)}, {3, Val(0x6E, 1)}};  // the LM75's
  Ham::SimHam ham_;
};

size_t mappings() {  // line by line: one big read would grow the heap's own mappings
  std::ifstream maps("/proc/self/maps");
  size_t lines = 0;
  for (std::string line; std::getline(maps, line);) ++lines;
  return lines;
}

// The second process restarts the driver over and over, each start writing the
// file anew, while this one polls. A reader that could see the file empty or
// cut short (and, mapping it, die of SIGBUS) would miss the temperature here.
TEST_F(SimHamFaultsTest, PollingSurvivesAnotherProcessRecreatingTheFile) {
  struct Shared {
    std::atomic<int> stop{0}, restarts{0};
  };
  void* shared = mmap(nullptr, sizeof(Shared), PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0);
  ASSERT_NE(shared, MAP_FAILED);
  auto* both = new (shared) Shared;
  const pid_t creator = fork();
  if (creator == 0) {
    Ham::SimHam restarted;
    restarted.setDriverName("LM75", "");
    for (int i = 0; both->stop.load() == 0 && i < 1000000; ++i) {
      restarted.setExpected(&table_);
      both->restarts++;
      if (i % 1000 == 0) FakeHost::reset();
    }
    _exit(0);
  }
  ASSERT_GT(creator, 0);
  int wrong = 0;
  size_t settled = 0;
  for (int i = 1; i <= 100000; ++i) {
    uint8_t temperature = 0;
    wrong += ham_.read8(0, &temperature) != PL_STATUS_OK || temperature != 0x27;
    if (i % 1000 == 0) wrong += static_cast<int>(FakeHost::traceTexts(0).size()), FakeHost::reset();
    if (i == 1000) settled = mappings();  // after the allocator has settled
  }
  const int restarts = both->restarts.load();
  both->stop.store(1);
  int status = 0;
  EXPECT_EQ(waitpid(creator, &status, 0), creator);
  EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0);
  munmap(shared, sizeof(Shared));
  EXPECT_GT(restarts, 100) << "the file was never rewritten under the poller";
  EXPECT_EQ(wrong, 0);
  EXPECT_LE(mappings(), settled);
  // No temporary file is left behind.
  EXPECT_EQ(std::distance(std::filesystem::directory_iterator(dir_.path()), {}), 1);
}

TEST_F(SimHamFaultsTest, ADirectoryOrFifoUnderTheNameWarnsUntilARegularFileIsBack) {
  alarm(20);  // an open that blocks on the FIFO fails the test instead of hanging it
  const struct {
    const char* kind;
    std::function<int(const char*)> make;
    std::string writeReason;  // why a write cannot open it
    Texts restart;            // what a driver start over it traces
  } cases[] = {
      {"directory", [](const char* p) { return mkdir(p, 0755); }, "Is a directory",
       {"Could not create simulation file " + path() + ": Is a directory"}},
      {"FIFO", [](const char* p) { return mkfifo(p, 0644); }, "not a regular file", {}},
  };
  const std::string driver = "WARNING: Simulated Driver LM75 ";
  for (const auto& c : cases) {
    std::filesystem::remove_all(path());
    ASSERT_EQ(c.make(path().c_str()), 0) << c.kind;
    FakeHost::reset();
    uint8_t byte = 0x55;
    std::string block = "x";
    EXPECT_EQ(ham_.read8(0, &byte), PL_STATUS_OK) << c.kind;
    EXPECT_EQ(ham_.readBlock(2, &block), PL_STATUS_OK) << c.kind;
    EXPECT_EQ(ham_.write8(3, 0x11, false), PL_STATUS_OK) << c.kind;
    EXPECT_EQ(byte, 0) << c.kind;
    EXPECT_EQ(block, "") << c.kind;
    const std::string cannotRead = driver + "cannot read " + path() + ": not a regular file; register 0x";
    EXPECT_EQ(FakeHost::traceTexts(0),
              (Texts{cannotRead + "0 reads as 0", cannotRead + "2 reads as 0",
                     driver + "cannot write " + path() + ": " + c.writeReason + "; write to register 0x3 dropped"}))
        << c.kind;

    FakeHost::reset();
    Ham::SimHam restarted;
    restarted.setDriverName("LM75", "");
    restarted.setExpected(&table_);
    EXPECT_EQ(FakeHost::traceTexts(0), c.restart) << c.kind;
    std::filesystem::remove_all(path());
    writeFile(path(), "2a6e6e\n");  // put back by hand
    EXPECT_EQ(ham_.read8(0, &byte), PL_STATUS_OK) << c.kind;
    EXPECT_EQ(byte, 0x2a) << c.kind;
  }
  alarm(0);
}

}  // namespace
