// One simulation file shared by real processes, on disk: concurrent writers
// of different registers, a reader racing a writer, and the mapping count of
// a long-running process. Children report through their exit status and
// never return into the test framework.
#include <sys/mman.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <fstream>
#include <functional>

#include "SimHamFixture.h"

namespace {

// Anonymous shared memory survives fork: the parent tells a child to stop.
class StopFlag {
 public:
  StopFlag() {
    void* mem = mmap(nullptr, sizeof(std::atomic<int>), PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0);
    EXPECT_NE(mem, MAP_FAILED);
    flag_ = new (mem) std::atomic<int>(0);
  }
  ~StopFlag() { munmap(flag_, sizeof *flag_); }
  void raise() { flag_->store(1); }
  bool raised() const { return flag_->load() != 0; }

 private:
  std::atomic<int>* flag_;
};

pid_t spawn(const std::function<int()>& body) {
  pid_t pid = fork();
  if (pid == 0) {
    _exit(body());
  }
  EXPECT_GT(pid, 0);
  return pid;
}

int exitStatus(pid_t pid) {
  int status = 0;
  if (waitpid(pid, &status, 0) != pid) return -1;
  return WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
}

// Writes 1..count into the register, reading each value back at once.
// Returns the number of read-backs that did not show the value just written.
int writeAndReadBack(Ham::SimHam& ham, uint32_t reg, int count) {
  int lost = 0;
  for (int i = 1; i <= count; ++i) {
    uint16_t back = 0;
    if (ham.write16(reg, static_cast<uint16_t>(i), false) != PL_STATUS_OK ||
        ham.read16(reg, &back) != PL_STATUS_OK || back != i) {
      ++lost;
    }
    if (i % 1000 == 0) FakeHost::reset();  // keep the trace record small
  }
  return lost;
}

TEST_F(SimHamTest, TwoProcessesWritingDifferentRegistersLoseNothing) {
  Utils::ExpectedValues table = {{0, Utils::ExpectedVal(0, 2)},
                                 {1, Utils::ExpectedVal(0, 2)},
                                 {2, Utils::ExpectedVal(std::string("--------"), 8)}};
  auto ham = simHam(table);
  const int count = 3000;

  pid_t child = spawn([&] { return writeAndReadBack(*ham, 0, count) == 0 ? 0 : 1; });
  EXPECT_EQ(writeAndReadBack(*ham, 1, count), 0);
  EXPECT_EQ(exitStatus(child), 0);
  EXPECT_EQ(contents(), "0bb8" "0bb8" "--------" "\n");
}

TEST_F(SimHamTest, AReaderNeverSeesATornRegister) {
  const std::string as(32768, 'a');
  const std::string bs(32768, 'b');
  Utils::ExpectedValues table = {{0, Utils::ExpectedVal(0, 2)}, {1, Utils::ExpectedVal(as, 32768)}};
  auto ham = simHam(table);
  StopFlag stop;

  pid_t writer = spawn([&] {
    for (int i = 0; !stop.raised() && i < 1000000; ++i) {
      const bool odd = i & 1;
      ham->write16(0, odd ? 0xFFFF : 0x0000, false);
      ham->write(1, (odd ? bs : as).data(), 32768, false);
      if (i % 1000 == 0) FakeHost::reset();
    }
    return 0;
  });

  // Read until both values of both registers have been seen many times, or
  // the time is up; either way, no read may mix two writes.
  int torn = 0;
  int seen[4] = {0, 0, 0, 0};  // 0x0000, 0xffff, "a...", "b..."
  const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(3);
  for (int i = 0; std::chrono::steady_clock::now() < deadline; ++i) {
    uint16_t word = 0x1234;
    std::string text;
    ASSERT_EQ(ham->read16(0, &word), PL_STATUS_OK);
    ASSERT_EQ(ham->readBlock(1, &text), PL_STATUS_OK);
    if (word == 0x0000) ++seen[0];
    else if (word == 0xFFFF) ++seen[1];
    else ++torn;
    if (text == as) ++seen[2];
    else if (text == bs) ++seen[3];
    else ++torn;
    if (i % 1000 == 0) FakeHost::reset();
    if (i >= 2000 && *std::min_element(seen, seen + 4) >= 200) break;
  }
  stop.raise();
  EXPECT_EQ(exitStatus(writer), 0);
  EXPECT_EQ(torn, 0);
  for (int s : seen) EXPECT_GT(s, 0) << "the reader never raced the writer";
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
  for (int i = 0; i < 1000; ++i) ham->read8(0, &v);  // settle the allocator
  FakeHost::reset();

  const size_t before = mappingCount();
  for (int i = 1; i <= 100000; ++i) {
    ASSERT_EQ(ham->read8(i % 2 == 0 ? 0 : 2, &v), PL_STATUS_OK);
    if (i % 1000 == 0) FakeHost::reset();
  }
  EXPECT_LE(mappingCount(), before);
}

}  // namespace
