// Reading and writing simulated registers: per-id answers confined to the
// register's own text, writes that spill but stop at the line's end, the
// warnings for unlisted registers, and files damaged under a running driver.
#include "SimHamFixture.h"

namespace {

TEST_F(SimHamTest, EachFetchAnswersForItsOwnRegisterAndReadsOnlyItsText) {
  Utils::ExpectedValues table = lm75Table();
  auto ham = simHam(table);
  ham->prepare();
  auto temp = ham->addRead16(0);  // 16 bits of a 1-byte register: its 2 characters
  auto alert = ham->addRead16(2);
  auto crit = ham->addRead8(3);
  ASSERT_EQ(ham->execute(), PL_STATUS_OK);
  EXPECT_EQ(ham->get16(temp), 0x27);
  EXPECT_EQ(ham->get16(alert), 0x6E);
  EXPECT_EQ(ham->get8(crit), 0x6E);
  EXPECT_EQ(ham->get8(Ham::Ham::INVALID_RESPONSE_ID), 0x6E);  // the register queued last
  EXPECT_TRUE(FakeHost::hasTrace(path() + " - Read 27 from register 0x0", 5));
}

TEST_F(SimHamTest, NumbersAreTheLeadingHexDigitsOfTheSlotAsEditedByHand) {
  Utils::ExpectedValues table = {{0, Utils::ExpectedVal(0, 2)}, {1, Utils::ExpectedVal(0, 1)}};
  auto ham = simHam(table);
  const struct {
    const char* file;
    uint16_t reg0;
    uint8_t reg1;
  } cases[] = {{"beef00\n", 0xBEEF, 0x00}, {"BEEF7f\n", 0xBEEF, 0x7F}, {"7z..zz\n", 0x7, 0x0}};
  for (const auto& c : cases) {
    writeFile(path(), c.file);
    uint16_t w = 0;
    uint8_t b = 0;
    ASSERT_EQ(ham->read16(0, &w) | ham->read8(1, &b), PL_STATUS_OK);
    EXPECT_EQ(w, c.reg0) << c.file;
    EXPECT_EQ(b, c.reg1) << c.file;
  }
}

TEST_F(SimHamTest, BlocksComeBackAsStoredUpToTheirOwnText) {
  Utils::ExpectedValues table = {{4, Utils::ExpectedVal(std::string("abcd"), 4)}, {5, Utils::ExpectedVal(0x1F, 2)}};
  auto ham = simHam(table);
  std::string whole, two, ten, hex;
  ASSERT_EQ(ham->readBlock(4, &whole) | ham->read(4, 2, &two, false) | ham->read(4, 10, &ten, false) |
                ham->readBlock(5, &hex),
            PL_STATUS_OK);
  EXPECT_EQ(std::make_tuple(whole, two, ten, hex), std::make_tuple("abcd", "ab", "abcd", "001f"));
}

TEST_F(SimHamTest, WritesSpillIntoFollowingRegistersButNeverPastTheLine) {
  Utils::ExpectedValues table = lm75Table();
  auto ham = simHam(table);
  const uint8_t raw[] = {'1', '2', '3', '4', '5', '6', '7'};
  const struct {
    std::function<pl_status()> write;
    const char* file;
  } steps[] = {
      {[&] { return ham->write16(2, 0x004B, false); }, "27004b\n"},  // the LM75 thresholds: words
      {[&] { return ham->write16(3, 0x0055, false); }, "270000\n"},  // into 1-byte registers
      {[&] { return ham->write8(0, 0x9, false); }, "090000\n"},
      {[&] { return ham->write(2, raw, sizeof raw, false); }, "091234\n"},
      {[&] { return ham->writeBlock(0, raw, 1, false); }, "191234\n"},
  };
  for (const auto& step : steps) {
    EXPECT_EQ(step.write(), PL_STATUS_OK);
    EXPECT_EQ(contents(), step.file);
  }
  EXPECT_TRUE(FakeHost::hasTrace(path() + " - Wrote 0055 to register 0x3", 5));
}

TEST_F(SimHamTest, UnlistedRegistersWarnReadZeroAndLeaveTheFileAlone) {
  Utils::ExpectedValues table = lm75Table();
  auto ham = simHam(table);
  uint8_t v = 0x55;
  EXPECT_EQ(ham->read8(0x99, &v), PL_STATUS_UNAVAILABLE);  // execute() refuses it
  EXPECT_EQ(ham->write8(1, 0xAA, false), PL_STATUS_UNAVAILABLE);
  EXPECT_EQ(contents(), "276e6e\n");
  ham->prepare();
  EXPECT_EQ(ham->execute(), PL_STATUS_OK);  // nothing queued: whatever came before

  ham->prepare();
  auto unlisted = ham->addRead16(0xa25b);
  auto listed = ham->addRead8(0);
  ASSERT_EQ(ham->execute(), PL_STATUS_OK);  // judged by the register queued last
  EXPECT_EQ(ham->get16(unlisted), 0);
  EXPECT_EQ(ham->get8(listed), 0x27);
  EXPECT_EQ(FakeHost::traceTexts(0), (std::vector<std::string>{warning("LM75", "0x1"), warning("LM75", "0xa25b")}));
}

TEST_F(SimHamTest, BlockReadsWithoutAFileOrOfAnUnlistedRegisterAreFatal) {
  Utils::ExpectedValues table = lm75Table();
  auto ham = simHam(table);
  Ham::SimHam fileless;
  fileless.setDriverName("Nothing", "");
  std::string out;
  EXPECT_DEATH(fileless.readBlock(0, &out), "Assertion `simFileExists_' failed");
  ham->prepare();
  EXPECT_DEATH(ham->getBlock(ham->addReadBlock(0x99), 0), "Assertion `isAddrSimulated\\(\\)' failed");
}

TEST_F(SimHamTest, ADamagedFileIsSkippedWithAWarningInsteadOfFaulting) {
  const std::string cut = "WARNING: Simulated Driver LM75: " + path() + " holds 3 bytes, expected 6; ";
  const std::string gone = "WARNING: Simulated Driver LM75 cannot ";
  const std::string why = path() + ": No such file or directory; ";
  const struct {
    std::function<void()> damage;
    std::vector<std::string> warnings;
  } cases[] = {
      {[&] { ASSERT_EQ(truncate(path().c_str(), 3), 0); },
       {cut + "register 0x2 reads as 0", cut + "register 0x3 reads as 0", cut + "write to register 0x3 dropped"}},
      {[&] { ASSERT_EQ(unlink(path().c_str()), 0); },
       {gone + "read " + why + "register 0x2 reads as 0", gone + "read " + why + "register 0x3 reads as 0",
        gone + "write " + why + "write to register 0x3 dropped"}},
  };
  for (const auto& c : cases) {
    Utils::ExpectedValues table = lm75Table();
    auto ham = simHam(table);
    c.damage();
    const std::string damaged = readFile(path());
    FakeHost::reset();
    uint16_t v = 0x5555;
    std::string block = "old";
    EXPECT_EQ(ham->read16(2, &v), PL_STATUS_OK);
    EXPECT_EQ(ham->readBlock(3, &block), PL_STATUS_OK);
    EXPECT_EQ(ham->write8(3, 0x11, false), PL_STATUS_OK);
    EXPECT_EQ(std::make_tuple(v, block, readFile(path())), std::make_tuple(0, "", damaged));
    EXPECT_EQ(FakeHost::traceTexts(0), c.warnings);
  }
}

}  // namespace
