// One simulation file shared by real processes, on disk. Children report
// through their exit status and never return into the test framework.
#include <sys/mman.h>
#include <sys/wait.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <fstream>

#include "SimHamFixture.h"

namespace {

pid_t spawn(const std::function<int()>& body) {
  pid_t pid = fork();
  if (pid == 0) _exit(body());
  return pid;
}

int exitStatus(pid_t pid) {
  int status = 0;
  if (waitpid(pid, &status, 0) != pid) return -1;
  return WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
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
  Utils::ExpectedValues table = {{0, Utils::ExpectedVal(0, 2)}, {1, Utils::ExpectedVal(0, 2)},
                                 {2, Utils::ExpectedVal(std::string("--------"), 8)}};
  auto ham = simHam(table);
  pid_t child = spawn([&] { return writeAndReadBack(*ham, 0, 3000); });
  ASSERT_GT(child, 0);
  EXPECT_EQ(writeAndReadBack(*ham, 1, 3000), 0);
  EXPECT_EQ(exitStatus(child), 0);
  EXPECT_EQ(contents(), "0bb8" "0bb8" "--------" "\n");
}

// A long text register makes a copy slow enough that, without the locks,
// mixed reads show up within a few hundred accesses.
TEST_F(SimHamTest, AReaderNeverSeesATornRegister) {
  const uint32_t size = 32768;
  const std::string as(size, 'a'), bs(size, 'b');
  Utils::ExpectedValues table = {{0, Utils::ExpectedVal(0, 2)}, {1, Utils::ExpectedVal(as, size)}};
  auto ham = simHam(table);
  void* shared = mmap(nullptr, sizeof(std::atomic<int>), PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0);
  ASSERT_NE(shared, MAP_FAILED);
  auto* stop = new (shared) std::atomic<int>(0);

  pid_t writer = spawn([&] {
    for (int i = 0; stop->load() == 0 && i < 1000000; ++i) {
      ham->write16(0, i & 1 ? 0xFFFF : 0x0000, false);
      ham->write(1, (i & 1 ? bs : as).data(), size, false);
      if (i % 1000 == 0) FakeHost::reset();
    }
    return 0;
  });
  ASSERT_GT(writer, 0);

  int torn = 0;
  int seen[4] = {0, 0, 0, 0};  // 0x0000, 0xffff, "a...", "b..."
  const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(3);
  for (int i = 0; std::chrono::steady_clock::now() < deadline; ++i) {
    uint16_t word = 0x1234;
    std::string text;
    EXPECT_EQ(ham->read16(0, &word), PL_STATUS_OK);
    EXPECT_EQ(ham->readBlock(1, &text), PL_STATUS_OK);
    ++(word == 0x0000 ? seen[0] : word == 0xFFFF ? seen[1] : torn);
    ++(text == as ? seen[2] : text == bs ? seen[3] : torn);
    if (i % 1000 == 0) FakeHost::reset();
    if (i >= 2000 && *std::min_element(seen, seen + 4) >= 200) break;
  }
  stop->store(1);
  EXPECT_EQ(exitStatus(writer), 0);
  munmap(shared, sizeof(std::atomic<int>));
  EXPECT_EQ(torn, 0);
  EXPECT_GT(*std::min_element(seen, seen + 4), 0) << "the reader never raced the writer";
}

size_t mappingCount() {
  std::ifstream maps("/proc/self/maps");
  size_t lines = 0;
  for (std::string line; std::getline(maps, line);) ++lines;
  return lines;
}

TEST_F(SimHamTest, ReadsDoNotAccumulateMappings) {
  Utils::ExpectedValues table = lm75Table();
  auto ham = simHam(table);
  uint8_t v = 0;
  for (int i = 0; i < 1000; ++i) ham->read8(0, &v);  // let the allocator settle
  FakeHost::reset();
  const size_t before = mappingCount();
  for (int i = 1; i <= 100000; ++i) {
    ASSERT_EQ(ham->read8(i % 2 == 0 ? 0 : 2, &v), PL_STATUS_OK);
    if (i % 1000 == 0) FakeHost::reset();
  }
  EXPECT_LE(mappingCount(), before);
}

}  // namespace
