// Reading and writing simulated registers: per-id answers, fetches confined
// to the register's own text, writes that spill but stop at the line's end,
// the warnings for unlisted registers, and files damaged under a running
// driver.
#include <unistd.h>

#include "KeldoUtil/NotImplementedException.h"
#include "SimHamFixture.h"

namespace {

TEST_F(SimHamTest, EachFetchAnswersForItsOwnRegisterAndReadsOnlyItsText) {
  Utils::ExpectedValues table = lm75Table();
  auto ham = simHam(table);

  ham->prepare();
  auto temp = ham->addRead16(0);
  auto alert = ham->addRead16(2);
  auto crit = ham->addRead8(3);
  ASSERT_EQ(ham->execute(), PL_STATUS_OK);
  // A 16-bit fetch of a 1-byte register stops at its two characters.
  EXPECT_EQ(ham->get16(temp), 0x27);
  EXPECT_EQ(ham->get16(alert), 0x6E);
  EXPECT_EQ(ham->get8(crit), 0x6E);
  EXPECT_EQ(ham->get8(Ham::Ham::INVALID_RESPONSE_ID), 0x6E);  // the register queued last
  EXPECT_TRUE(FakeHost::hasTrace(path() + " - Read 27 from register 0x0", 5));

  // recvByte has no register of its own: it answers for the current one.
  ham->prepare();
  ham->addRead8(0);
  ham->prepare();
  auto byte = ham->addRecvByte();
  ASSERT_EQ(ham->execute(), PL_STATUS_OK);
  EXPECT_EQ(ham->get8(byte), 0x27);
}

TEST_F(SimHamTest, NumbersParseAsLeadingHexDigitsOfTheSlot) {
  Utils::ExpectedValues table = {{0, Utils::ExpectedVal(0, 2)}, {1, Utils::ExpectedVal(0, 1)}};
  auto ham = simHam(table);
  const struct {
    const char* file;  // edited by hand while the driver runs
    uint16_t reg0;
    uint8_t reg1;
  } cases[] = {{"beef00\n", 0xBEEF, 0x00}, {"BEEF7f\n", 0xBEEF, 0x7F}, {"7z..zz\n", 0x7, 0x0}, {"001fff\n", 0x1F, 0xFF}};
  for (const auto& c : cases) {
    writeFile(path(), c.file);
    uint16_t w = 0;
    uint8_t b = 0;
    ASSERT_EQ(ham->read16(0, &w), PL_STATUS_OK);
    ASSERT_EQ(ham->read8(1, &b), PL_STATUS_OK);
    EXPECT_EQ(w, c.reg0) << c.file;
    EXPECT_EQ(b, c.reg1) << c.file;
  }
}

TEST_F(SimHamTest, BlocksComeBackAsStoredUpToTheirOwnText) {
  Utils::ExpectedValues table = {{4, Utils::ExpectedVal(std::string("abcd"), 4)}, {5, Utils::ExpectedVal(0x1F, 2)}};
  auto ham = simHam(table);
  std::string out;
  ASSERT_EQ(ham->readBlock(4, &out), PL_STATUS_OK);
  EXPECT_EQ(out, "abcd");
  ASSERT_EQ(ham->read(4, 2, &out, false), PL_STATUS_OK);
  EXPECT_EQ(out, "ab");
  ASSERT_EQ(ham->read(4, 10, &out, false), PL_STATUS_OK);
  EXPECT_EQ(out, "abcd");
  ASSERT_EQ(ham->readBlock(5, &out), PL_STATUS_OK);
  EXPECT_EQ(out, "001f");
}

TEST_F(SimHamTest, WritesSpillIntoFollowingRegistersButNeverPastTheLine) {
  Utils::ExpectedValues table = lm75Table();
  auto ham = simHam(table);
  const uint8_t raw[] = {'1', '2', '3', '4', '5', '6', '7'};

  // The LM75 thresholds: 16-bit words written into 1-byte registers.
  ASSERT_EQ(ham->write16(2, 0x004B, false), PL_STATUS_OK);
  EXPECT_EQ(contents(), "27004b\n");
  ASSERT_EQ(ham->write16(3, 0x0055, false), PL_STATUS_OK);
  EXPECT_EQ(contents(), "270000\n");
  EXPECT_TRUE(FakeHost::hasTrace(path() + " - Wrote 0055 to register 0x3", 5));

  ASSERT_EQ(ham->write8(0, 0x9, false), PL_STATUS_OK);
  EXPECT_EQ(contents(), "090000\n");
  ASSERT_EQ(ham->write(2, raw, sizeof raw, false), PL_STATUS_OK);
  EXPECT_EQ(contents(), "091234\n");
  ASSERT_EQ(ham->writeBlock(0, raw, 1, false), PL_STATUS_OK);
  EXPECT_EQ(contents(), "191234\n");
}

TEST_F(SimHamTest, UnlistedRegistersWarnReadZeroAndLeaveTheFileAlone) {
  Utils::ExpectedValues table = lm75Table();
  auto ham = simHam(table);

  uint8_t v = 0x55;
  EXPECT_EQ(ham->read8(0x99, &v), PL_STATUS_UNAVAILABLE);  // execute() refuses it
  EXPECT_EQ(v, 0x55);
  EXPECT_EQ(ham->write8(1, 0xAA, false), PL_STATUS_UNAVAILABLE);
  EXPECT_EQ(contents(), "276e6e\n");
  EXPECT_EQ(FakeHost::traceTexts(0), (std::vector<std::string>{warning("LM75", "0x1")}));

  // Queued beside a listed register, the unlisted one still answers 0.
  FakeHost::reset();
  ham->prepare();
  auto unlisted = ham->addRead16(0xa25b);
  auto listed = ham->addRead8(0);
  ASSERT_EQ(ham->execute(), PL_STATUS_OK);  // judged by the register queued last
  EXPECT_EQ(ham->get16(unlisted), 0);
  EXPECT_EQ(ham->get8(listed), 0x27);
  EXPECT_EQ(FakeHost::traceTexts(0), (std::vector<std::string>{warning("LM75", "0xa25b")}));
}

TEST_F(SimHamTest, ExecuteOnlyJudgesWhatWasQueued) {
  Utils::ExpectedValues table = lm75Table();
  auto ham = simHam(table);
  ham->prepare();
  ham->addRead8(0x99);
  EXPECT_EQ(ham->execute(), PL_STATUS_UNAVAILABLE);
  ham->prepare();
  EXPECT_EQ(ham->execute(), PL_STATUS_OK);  // nothing queued, whatever came before

  Ham::SimHam fileless;
  fileless.setDriverName("Nothing", "");
  fileless.prepare();
  fileless.addRead8(0x99);
  EXPECT_EQ(fileless.execute(), PL_STATUS_OK);
}

TEST_F(SimHamTest, BlockReadsWithoutAFileOrOfAnUnlistedRegisterAreFatal) {
  Utils::ExpectedValues table = lm75Table();
  auto ham = simHam(table);
  Ham::SimHam fileless;
  fileless.setDriverName("Nothing", "");
  fileless.addReadBlock(0);
  EXPECT_DEATH(fileless.getBlock(0, 0), "Assertion `simFileExists_' failed");
  ham->prepare();
  auto id = ham->addReadBlock(0x99);
  EXPECT_DEATH(ham->getBlock(id, 0), "Assertion `isAddrSimulated\\(\\)' failed");
}

TEST_F(SimHamTest, ATruncatedFileIsSkippedWithAWarningInsteadOfFaulting) {
  Utils::ExpectedValues table = lm75Table();
  auto ham = simHam(table);
  ASSERT_EQ(truncate(path().c_str(), 3), 0);  // "276": shorter than the mapping
  FakeHost::reset();

  uint8_t v = 0x55;
  std::string block = "old";
  EXPECT_EQ(ham->read8(0, &v), PL_STATUS_OK);
  EXPECT_EQ(v, 0);
  EXPECT_EQ(ham->readBlock(3, &block), PL_STATUS_OK);
  EXPECT_EQ(block, "");
  EXPECT_EQ(ham->write8(3, 0x11, false), PL_STATUS_OK);
  EXPECT_EQ(contents(), "276");
  const std::string shortFile = "WARNING: Simulated Driver LM75: " + path() + " holds 3 bytes, expected 6; ";
  EXPECT_EQ(FakeHost::traceTexts(0),
            (std::vector<std::string>{shortFile + "register 0x0 reads as 0", shortFile + "register 0x3 reads as 0",
                                      shortFile + "write to register 0x3 dropped"}));
}

TEST_F(SimHamTest, ADeletedFileReadsZeroAndIsNotRecreatedByWrites) {
  Utils::ExpectedValues table = lm75Table();
  auto ham = simHam(table);
  ASSERT_EQ(unlink(path().c_str()), 0);
  FakeHost::reset();

  uint16_t v = 0x5555;
  EXPECT_EQ(ham->read16(2, &v), PL_STATUS_OK);
  EXPECT_EQ(v, 0);
  EXPECT_EQ(ham->write16(2, 0x1234, false), PL_STATUS_OK);
  EXPECT_NE(access(path().c_str(), F_OK), 0);
  EXPECT_EQ(FakeHost::traceTexts(0),
            (std::vector<std::string>{
                "WARNING: Simulated Driver LM75 cannot read " + path() + ": No such file or directory; register 0x2 reads as 0",
                "WARNING: Simulated Driver LM75 cannot write " + path() +
                    ": No such file or directory; write to register 0x2 dropped"}));
}

TEST_F(SimHamTest, ThirtyTwoBitAccessIsNotSimulated) {
  Utils::ExpectedValues table = lm75Table();
  auto ham = simHam(table);
  uint32_t v;
  EXPECT_THROW(ham->read32(0, &v), NotImplementedException);
  EXPECT_THROW(ham->write32(0, 1, false), NotImplementedException);
}

}  // namespace
