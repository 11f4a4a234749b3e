// Simulated registers in one text file per driver: the file's layout and
// place, per-id answers, writes that spill but stop at the line's end, the
// warnings for unlisted registers, and real processes
// sharing one file on disk (children report through their exit status and
// never return into the test framework).
#include <gtest/gtest.h>
#include <sys/mman.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstdlib>
#include <functional>
#include <memory>

#include "FakeHost.h"
#include "Ham/SimHam.h"
#include "TempDir.h"

namespace {

using Table = Utils::ExpectedValues;
using Val = Utils::ExpectedVal;
using Texts = std::vector<std::string>;

// The LM75's table: temperature, then the two thresholds, one byte each.
Table lm75() { return {{0, Val(0x27, 1)}, {2, Val(0x6E, 1)}, {3, Val(0x6E, 1)}}; }

// KELDOLIB_SIMDIR names a directory that does not exist yet, so every test
// also has the access method make it.
class SimHamTest : public ::testing::Test {
 protected:
  void SetUp() override {
    setenv("KELDOLIB_SIMDIR", dir_.file("sim").c_str(), 1);
    Ham::SimHam::forgetSimulationDirectory();
    FakeHost::reset();
  }
  void TearDown() override { Ham::SimHam::forgetSimulationDirectory(); }

  // A SimHam whose file holds `table`; the table must outlive it.
  std::unique_ptr<Ham::SimHam> simHam(Table& table, const std::string& name = "LM75", const std::string& suffix = "") {
    auto ham = std::make_unique<Ham::SimHam>();
    ham->setDriverName(name, suffix);
    ham->setExpected(&table);
    return ham;
  }
  std::string path(const std::string& name = "LM75") const { return dir_.file("sim/" + name); }
  std::string contents() const { return readFile(path()); }

  TempDir dir_;
};

TEST_F(SimHamTest, RegistersAreLaidOutInAscendingOrderInAFileNamedAfterTheDriver) {
  Table table = {{0x30, Val(0x12345678, 4)}, {0x10, Val(0x1F, 2)}, {0x20, Val(std::string("Ab c"), 4)},
                 {0x05, Val(0x1FF, 1)}};  // wider than its register: the low byte
  simHam(table, "Pmbus", "psu1");
  EXPECT_EQ(readFile(path("Pmbus-psu1")), "ff" "001f" "Ab c" "12345678" "\n");

  Ham::SimHam ham;
  ham.setDriverName("Pmbus", "");  // no suffix, no "-"
  EXPECT_EQ(ham.simFileName(), path("Pmbus"));
  unsetenv("KELDOLIB_SIMDIR");
  Ham::SimHam::forgetSimulationDirectory();
  ham.setDriverName("Pmbus", "");
  EXPECT_EQ(ham.simFileName(), "/tmp/KeldoSimulationDevices/Pmbus");
}

TEST_F(SimHamTest, EachFetchAnswersForItsOwnRegisterFromItsOwnText) {
  Table table = {{0, Val(0xBEEF, 2)}, {2, Val(0x6E, 1)}, {3, Val(std::string("abcd"), 4)}};
  auto ham = simHam(table);
  ham->prepare();
  auto word = ham->addRead16(0);
  auto byte = ham->addRead16(2);  // 16 bits of a 1-byte register: its 2 characters
  auto block = ham->addReadBlock(3);
  auto part = ham->addRead(3, 2, false);
  ASSERT_EQ(ham->execute(), PL_STATUS_OK);
  EXPECT_EQ(ham->get16(word), 0xBEEF);
  EXPECT_EQ(ham->get16(byte), 0x6E);
  EXPECT_EQ(ham->getBlock(block, 0), "abcd");
  EXPECT_EQ(ham->getBlock(part, 2), "ab");
  EXPECT_EQ(ham->getBlock(part, 10), "abcd");
  writeFile(path(), "cafe7fwxyz\n");  // every access reads the file as it is now
  EXPECT_EQ(ham->get16(word), 0xCAFE);
  EXPECT_EQ(ham->get8(byte), 0x7F);
}

TEST_F(SimHamTest, UnlistedRegistersWarnReadZeroAndLeaveTheFileAlone) {
  Table table = lm75();
  auto ham = simHam(table);
  uint8_t v = 0x55;
  EXPECT_EQ(ham->read8(0x99, &v), PL_STATUS_UNAVAILABLE);  // execute() refuses it
  EXPECT_EQ(v, 0x55);
  EXPECT_EQ(ham->write8(1, 0xAA, false), PL_STATUS_UNAVAILABLE);
  EXPECT_EQ(contents(), "276e6e\n");
  ham->prepare();
  auto unlisted = ham->addRead16(0xa25b);
  auto listed = ham->addRead8(0);
  ASSERT_EQ(ham->execute(), PL_STATUS_OK);  // judged by the register queued last
  EXPECT_EQ(ham->get16(unlisted), 0);
  EXPECT_EQ(ham->get8(listed), 0x27);
  const std::string warning = "WARNING: Simulated Driver LM75 doesn't yet have expectedVal set for register 0x";
  const std::string tail = " using SIMULATION_HAM()\n";
  EXPECT_EQ(FakeHost::traceTexts(0), (Texts{warning + "1" + tail, warning + "a25b" + tail}));
}

TEST_F(SimHamTest, WritesSpillIntoFollowingRegistersButNeverPastTheLine) {
  Table table = lm75();
  auto ham = simHam(table);
  const uint8_t raw[] = {'1', '2', '3', '4', '5', '6', '7'};
  ASSERT_EQ(ham->write16(2, 0x004B, false), PL_STATUS_OK);  // the LM75 thresholds: words
  EXPECT_EQ(contents(), "27004b\n");
  ASSERT_EQ(ham->write16(3, 0x0055, false), PL_STATUS_OK);  // into 1-byte registers
  EXPECT_EQ(contents(), "270000\n");
  ASSERT_EQ(ham->write(2, raw, sizeof raw, false), PL_STATUS_OK);
  EXPECT_EQ(contents(), "271234\n");
  ASSERT_EQ(ham->writeBlock(0, raw, 1, false), PL_STATUS_OK);
  EXPECT_EQ(contents(), "171234\n");
}

pid_t spawn(const std::function<int()>& body) {
  pid_t pid = fork();
  if (pid == 0) _exit(body());
  return pid;
}

int exitStatus(pid_t pid) {
  int status = 0;
  return waitpid(pid, &status, 0) == pid && WIFEXITED(status) ? WEXITSTATUS(status) : -1;
}

// Writes 1..count into the register, each read back at once; counts misses.
int writeAndReadBack(Ham::SimHam& ham, uint32_t reg, int count) {
  int lost = 0;
  for (int i = 1; i <= count; ++i) {
    uint16_t back = 0;
    if (ham.write16(reg, i, false) != PL_STATUS_OK || ham.read16(reg, &back) != PL_STATUS_OK || back != i) ++lost;
    if (i % 1000 == 0) FakeHost::reset();  // keep the trace record small
  }
  return lost;
}

TEST_F(SimHamTest, TwoProcessesWritingDifferentRegistersLoseNothing) {
  Table table = {{0, Val(0, 2)}, {1, Val(0, 2)}, {2, Val(std::string("----"), 4)}};
  auto ham = simHam(table);
  pid_t child = spawn([&] { return writeAndReadBack(*ham, 0, 3000); });
  ASSERT_GT(child, 0);
  EXPECT_EQ(writeAndReadBack(*ham, 1, 3000), 0);
  EXPECT_EQ(exitStatus(child), 0);
  EXPECT_EQ(contents(), "0bb8" "0bb8" "----" "\n");
}

// A 256 KiB text register makes a copy slow enough that, without the locks,
// mixed reads show up within the first thousand accesses.
TEST_F(SimHamTest, AReaderNeverSeesATornRegister) {
  const uint32_t size = 262144;
  const std::string as(size, 'a'), bs(size, 'b');
  Table table = {{1, Val(as, size)}};
  auto ham = simHam(table);
  void* shared = mmap(nullptr, sizeof(std::atomic<int>), PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0);
  ASSERT_NE(shared, MAP_FAILED);
  auto* stop = new (shared) std::atomic<int>(0);
  pid_t writer = spawn([&] {
    for (int i = 0; stop->load() == 0 && i < 1000000; ++i) {
      ham->write(1, (i & 1 ? bs : as).data(), size, false);
      if (i % 1000 == 0) FakeHost::reset();
    }
    return 0;
  });
  ASSERT_GT(writer, 0);
  int torn = 0, seenA = 0, seenB = 0;
  const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(3);
  for (int i = 0; std::chrono::steady_clock::now() < deadline && (i < 1000 || std::min(seenA, seenB) < 200); ++i) {
    std::string text;
    EXPECT_EQ(ham->readBlock(1, &text), PL_STATUS_OK);
    ++(text == as ? seenA : text == bs ? seenB : torn);
    if (i % 1000 == 0) FakeHost::reset();
  }
  stop->store(1);
  EXPECT_EQ(exitStatus(writer), 0);
  munmap(shared, sizeof(std::atomic<int>));
  EXPECT_EQ(torn, 0);
  EXPECT_GT(std::min(seenA, seenB), 0) << "the reader never raced the writer";
}

}  // namespace
