// The simulation file: where it lands, what it holds, and what happens when
// it cannot be made.
#include "SimHamFixture.h"

namespace {

TEST_F(SimHamTest, RegistersAreLaidOutInAscendingOrderAsHexOrText) {
  Utils::ExpectedValues table = {
      {0x30, Utils::ExpectedVal(0x12345678, 4)}, {0x10, Utils::ExpectedVal(0x1F, 2)},
      {0x20, Utils::ExpectedVal(std::string("Ab c"), 4)}, {0x05, Utils::ExpectedVal(0xAB, 1)},
      {0x06, Utils::ExpectedVal(0x1FF, 1)},  // wider than its register: the low byte
  };
  auto ham = simHam(table, "Pmbus", "psu1");
  EXPECT_EQ(contents("Pmbus-psu1"), "ab" "ff" "001f" "Ab c" "12345678" "\n");
  EXPECT_EQ(ham->registerOffsets(),
            (std::map<uint32_t, uint32_t>{{0x05, 0}, {0x06, 2}, {0x10, 4}, {0x20, 8}, {0x30, 12}}));
  EXPECT_EQ(ham->fileSize(), 20u);
  EXPECT_EQ(FakeHost::traceLevel("Created " + path("Pmbus-psu1")), 5);

  auto unnamed = simHam(table, "Pmbus", "");  // no suffix, no "-"
  EXPECT_EQ(unnamed->simFileName(), path("Pmbus"));
}

TEST_F(SimHamTest, DirectoryIsMadeWithMode0755AndTheVariableIsReadOnce) {
  const std::string simDir = dir_.file("sim");
  setenv("KELDOLIB_SIMDIR", simDir.c_str(), 1);
  Ham::SimHam::forgetSimulationDirectory();
  const mode_t old = umask(022);
  Utils::ExpectedValues table = lm75Table();
  auto ham = simHam(table);
  umask(old);
  struct stat st;
  ASSERT_EQ(stat(simDir.c_str(), &st), 0);
  EXPECT_EQ(st.st_mode & 07777, 0755u);
  EXPECT_EQ(readFile(simDir + "/LM75"), "276e6e\n");

  setenv("KELDOLIB_SIMDIR", dir_.path().c_str(), 1);
  EXPECT_EQ(simHam(table, "Pmbus")->simFileName(), simDir + "/Pmbus");

  unsetenv("KELDOLIB_SIMDIR");
  Ham::SimHam::forgetSimulationDirectory();
  const std::string name = "SimHamTest-" + std::to_string(getpid());
  EXPECT_EQ(readFile(simHam(table, name)->simFileName()), "276e6e\n");
  EXPECT_EQ(unlink(("/tmp/KeldoSimulationDevices/" + name).c_str()), 0);
}

TEST_F(SimHamTest, WithoutAFileReadsWarnAndGiveZeroAndExecuteSucceeds) {
  Utils::ExpectedValues empty;
  auto noTable = simHam(empty, "Dummy");
  setenv("KELDOLIB_SIMDIR", dir_.file("no/parent").c_str(), 1);  // one mkdir, no parents
  Ham::SimHam::forgetSimulationDirectory();
  Utils::ExpectedValues table = lm75Table();
  auto noDir = simHam(table);
  EXPECT_EQ(FakeHost::traceTexts(0), (std::vector<std::string>{"Could not create simulation file " +
                                                               noDir->simFileName() + ": No such file or directory"}));
  for (Ham::SimHam* ham : {noTable.get(), noDir.get()}) {
    EXPECT_FALSE(ham->simFileExists());
    uint8_t v = 0x55;
    EXPECT_EQ(ham->read8(0, &v), PL_STATUS_OK);
    EXPECT_EQ(v, 0);
    EXPECT_EQ(ham->write8(0, 1, false), PL_STATUS_OK);
  }
  EXPECT_EQ(FakeHost::countTrace(warning("Dummy", "0x0"), 0), 2);
  EXPECT_EQ(FakeHost::countTrace(warning("LM75", "0x0"), 0), 2);
  EXPECT_NE(access(path("Dummy").c_str(), F_OK), 0);
}

TEST_F(SimHamTest, TableAndNamingMistakesAreFatal) {
  Utils::ExpectedValues wrongLength = {{1, Utils::ExpectedVal(std::string("abc"), 4)}};
  EXPECT_DEATH(simHam(wrongLength), "Assertion `size == val.valStr\\(\\).length\\(\\)' failed");
  Utils::ExpectedValues table = lm75Table();
  Ham::SimHam unnamed;
  EXPECT_DEATH(unnamed.setExpected(&table), "Assertion `!simFileName_.empty\\(\\)' failed");
}

}  // namespace
