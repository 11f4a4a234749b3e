// What other components' tests rely on beyond the one-shot paths: the register
// bank mode, per-register failures, and the checks on the caller's usage.
#include <gtest/gtest-spi.h>
#include <gtest/gtest.h>

#include "FakeHam.h"

namespace {

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
}

TEST(FakeHam, PerRegisterFailureWinsOverTheScript) {
  FakeHam ham;
  ham.failOn[0x30] = 6;
  EXPECT_EQ(ham.write8(0x30, 1, false), 6);
  EXPECT_EQ(ham.write8(0x31, 1, false), PL_STATUS_OK);
}

TEST(FakeHam, FlagsFetchesThatARealTransportWouldNotAnswer) {
  FakeHam ham;
  ham.prepare();
  auto id = ham.addRead8(1);
  EXPECT_NONFATAL_FAILURE(ham.get8(id), "without a successful execute()");
  ham.execute();
  EXPECT_NONFATAL_FAILURE(ham.get8(id + 1), "with id 1 but only 1 operation(s) queued");
}

}  // namespace
