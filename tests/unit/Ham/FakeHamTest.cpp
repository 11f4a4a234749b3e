// The test double other components' tests stand on: per-id answers, the
// register bank mode, scripted execute results and the usage checks.
#include <gtest/gtest-spi.h>
#include <gtest/gtest.h>

#include "FakeHam.h"

namespace {

using C = FakeHam::Call;

TEST(FakeHam, EachFetchAnswersForTheOperationItsIdNames) {
  FakeHam ham;
  ham.values = {{1, 0x11}, {2, 0x2222}};
  ham.blocks = {{3, "xyz"}};
  ham.prepare();
  auto a = ham.addRead8(1);
  auto b = ham.addRead16(2);
  auto c = ham.addReadBlock(3);
  EXPECT_EQ(std::vector<uint32_t>({a, b, c}), std::vector<uint32_t>({0, 1, 2}));
  ASSERT_EQ(ham.execute(), PL_STATUS_OK);
  EXPECT_EQ(ham.get16(b), 0x2222);
  EXPECT_EQ(ham.getBlock(c, 2), "xy");
  EXPECT_EQ(ham.get8(a), 0x11);
}

TEST(FakeHam, StatefulBankMakesReadModifyWriteVisible) {
  FakeHam ham;
  ham.stateful = true;
  ham.values[0x40] = 0x0F;
  uint8_t v = 0;
  ASSERT_EQ(ham.read8(0x40, &v), PL_STATUS_OK);
  ASSERT_EQ(ham.write8(0x40, v | 0x80, false), PL_STATUS_OK);
  ASSERT_EQ(ham.write(0x41, "ab", 2, false), PL_STATUS_OK);
  EXPECT_EQ(ham.values[0x40], 0x8Fu);
  EXPECT_EQ(ham.blocks[0x41], "ab");

  FakeHam plain;
  plain.values[0x40] = 0x0F;
  plain.write8(0x40, 0x80, false);
  EXPECT_EQ(plain.values[0x40], 0x0Fu);
}

TEST(FakeHam, ExecuteScriptThenDefaultAndPerRegisterFailures) {
  FakeHam ham;
  ham.executeResults = {4, PL_STATUS_OK};
  ham.executeDefault = 2;
  ham.failOn[0x30] = 6;
  uint8_t v;
  EXPECT_EQ(ham.read8(0x10, &v), 4);
  EXPECT_EQ(ham.read8(0x10, &v), PL_STATUS_OK);
  EXPECT_EQ(ham.read8(0x10, &v), 2);
  ham.executeDefault = PL_STATUS_OK;
  EXPECT_EQ(ham.write8(0x30, 1, false), 6);
  EXPECT_EQ(ham.write8(0x31, 1, false), PL_STATUS_OK);
}

TEST(FakeHam, FlagsFetchesThatARealTransportWouldNotAnswer) {
  FakeHam ham;
  EXPECT_NONFATAL_FAILURE(
      {
        ham.prepare();
        ham.addRead8(1);
        ham.execute();
        ham.get8(1);
      },
      "with id 1 but only 1 operation(s) queued");
  EXPECT_NONFATAL_FAILURE(
      {
        ham.executeDefault = 4;
        ham.prepare();
        auto id = ham.addRead8(1);
        ham.execute();
        ham.get8(id);
      },
      "without a successful execute()");
  ham.lenient = true;
  ham.prepare();
  ham.get8(ham.addRead8(1));  // no execute at all: tolerated when lenient
}

}  // namespace
