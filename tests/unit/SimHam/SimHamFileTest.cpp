// The simulation file: where it lands, what it holds, and what happens when
// it cannot be made.
#include <sys/stat.h>

#include "SimHamFixture.h"

namespace {

TEST_F(SimHamTest, RegistersAreLaidOutInAscendingOrderAsHexOrText) {
  Utils::ExpectedValues table = {
      {0x30, Utils::ExpectedVal(0x12345678, 4)},
      {0x10, Utils::ExpectedVal(0x1F, 2)},
      {0x20, Utils::ExpectedVal(std::string("Ab c"), 4)},
      {0x05, Utils::ExpectedVal(0xAB, 1)},
      {0x06, Utils::ExpectedVal(0x1FF, 1)},  // wider than its register: the low byte
  };
  auto ham = simHam(table);

  EXPECT_EQ(contents(), "ab" "ff" "001f" "Ab c" "12345678" "\n");
  EXPECT_EQ(ham->registerOffsets(),
            (std::map<uint32_t, uint32_t>{{0x05, 0}, {0x06, 2}, {0x10, 4}, {0x20, 8}, {0x30, 12}}));
  EXPECT_EQ(ham->fileSize(), 20u);
  EXPECT_TRUE(ham->simFileExists());
  EXPECT_EQ(FakeHost::traceLevel("Created " + path()), 5);
}

TEST_F(SimHamTest, FileIsNamedAfterTheDriverAndItsSuffix) {
  const struct {
    const char* driver;
    const char* suffix;
    const char* file;
  } cases[] = {{"LM75", "3", "LM75-3"}, {"LM75", "", "LM75"}, {"Pmbus", "psu1", "Pmbus-psu1"}};
  for (const auto& c : cases) {
    Utils::ExpectedValues table = lm75Table();
    auto ham = simHam(table, c.driver, c.suffix);
    EXPECT_EQ(ham->simFileName(), path(c.file));
    EXPECT_EQ(readFile(path(c.file)), "276e6e\n") << c.file;
  }
}

TEST_F(SimHamTest, RestartingADriverResetsItsRegisters) {
  Utils::ExpectedValues table = lm75Table();
  auto first = simHam(table);
  ASSERT_EQ(first->write8(0, 0x99, false), PL_STATUS_OK);
  ASSERT_EQ(contents(), "996e6e\n");
  auto second = simHam(table);
  EXPECT_EQ(contents(), "276e6e\n");
}

TEST_F(SimHamTest, DirectoryIsMadeOnceWithMode0755AndReadFromTheEnvironmentOnce) {
  const std::string simDir = dir_.file("sim");
  setenv("KELDOLIB_SIMDIR", simDir.c_str(), 1);
  Ham::SimHam::forgetSimulationDirectory();
  mode_t old = umask(022);
  Utils::ExpectedValues table = lm75Table();
  auto ham = simHam(table);
  umask(old);

  struct stat st;
  ASSERT_EQ(stat(simDir.c_str(), &st), 0);
  EXPECT_EQ(st.st_mode & 07777, 0755u);
  EXPECT_EQ(readFile(simDir + "/LM75"), "276e6e\n");

  // Changing the environment later has no effect on this process.
  setenv("KELDOLIB_SIMDIR", dir_.path().c_str(), 1);
  auto later = simHam(table, "Pmbus");
  EXPECT_EQ(later->simFileName(), simDir + "/Pmbus");
}

TEST_F(SimHamTest, WithoutTheVariableFilesGoToTheDefaultDirectory) {
  unsetenv("KELDOLIB_SIMDIR");
  Ham::SimHam::forgetSimulationDirectory();
  EXPECT_EQ(Ham::SimHam::simulationDirectory(), "/tmp/KeldoSimulationDevices");
  const std::string name = "SimHamTest-" + std::to_string(getpid());
  Utils::ExpectedValues table = lm75Table();
  auto ham = simHam(table, name);
  const std::string file = "/tmp/KeldoSimulationDevices/" + name;
  EXPECT_EQ(ham->simFileName(), file);
  EXPECT_EQ(readFile(file), "276e6e\n");
  unlink(file.c_str());
}

TEST_F(SimHamTest, AFileThatCannotBeCreatedLeavesTheDriverWithoutOne) {
  setenv("KELDOLIB_SIMDIR", dir_.file("no/such/parent").c_str(), 1);  // one mkdir, no parents
  Ham::SimHam::forgetSimulationDirectory();
  Utils::ExpectedValues table = lm75Table();
  auto ham = simHam(table);

  EXPECT_FALSE(ham->simFileExists());
  EXPECT_EQ(FakeHost::traceTexts(0),
            (std::vector<std::string>{"Could not create simulation file " + ham->simFileName() +
                                      ": No such file or directory"}));
  uint8_t v = 0x55;
  EXPECT_EQ(ham->read8(0, &v), PL_STATUS_OK);
  EXPECT_EQ(v, 0);
  EXPECT_TRUE(FakeHost::hasTrace(warning("LM75", "0x0"), 0));
}

TEST_F(SimHamTest, AnEmptyTableMakesNoFile) {
  Utils::ExpectedValues table;
  auto ham = simHam(table);
  EXPECT_FALSE(ham->simFileExists());
  EXPECT_NE(access(path().c_str(), F_OK), 0);
  uint8_t v = 0x55;
  EXPECT_EQ(ham->read8(0, &v), PL_STATUS_OK);
  EXPECT_EQ(v, 0);
  EXPECT_EQ(ham->write8(0, 1, false), PL_STATUS_OK);
  EXPECT_EQ(FakeHost::countTrace(warning("LM75", "0x0"), 0), 2);
}

TEST_F(SimHamTest, TableAndNamingMistakesAreFatal) {
  Utils::ExpectedValues wrongLength = {{1, Utils::ExpectedVal(std::string("abc"), 4)}};
  EXPECT_DEATH(simHam(wrongLength), "Assertion `size == val.valStr\\(\\).length\\(\\)' failed");

  Utils::ExpectedValues table = lm75Table();
  Ham::SimHam unnamed;
  EXPECT_DEATH(unnamed.setExpected(&table), "Assertion `!simFileName_.empty\\(\\)' failed");
}

}  // namespace
