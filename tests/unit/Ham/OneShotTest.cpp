// The base access method: one-shot operations (run against the recording
// fake), the retry request, and the slots a transport leaves to the base.
#include <gtest/gtest-spi.h>
#include <gtest/gtest.h>

#include <functional>
#include <tuple>

#include "FakeHam.h"
#include "FakeHost.h"
#include "KeldoUtil/NotImplementedException.h"

namespace {

using C = FakeHam::Call;
using Op = FakeHam::Op;

FakeHam::Calls oneTransactionEach(std::initializer_list<C> queued) {
  FakeHam::Calls calls;
  for (const C& q : queued) calls.insert(calls.end(), {C::prepare(), q, C::execute()});
  return calls;
}

TEST(HamOneShot, ReadsFetchTheirOwnWidthAndBlockReadsLetTheDeviceDecide) {
  FakeHam ham;
  ham.values = {{0x10, 0x1234ABCD}, {FakeHam::BYTE_REGISTER, 0x5A}};
  ham.blocks[0x20] = "abcdef";
  uint8_t b = 0, rb = 0;
  uint16_t w = 0, pc = 0;
  uint32_t l = 0;
  std::string block, part;
  // One statement each: the order of the calls is part of what is checked.
  ASSERT_EQ(ham.read8(0x10, &b), PL_STATUS_OK);
  ASSERT_EQ(ham.read16(0x10, &w), PL_STATUS_OK);
  ASSERT_EQ(ham.read32(0x10, &l), PL_STATUS_OK);
  ASSERT_EQ(ham.processCall(0x10, 0xBEEF, &pc), PL_STATUS_OK);
  ASSERT_EQ(ham.recvByte(&rb), PL_STATUS_OK);
  ASSERT_EQ(ham.readBlock(0x20, &block), PL_STATUS_OK);
  ASSERT_EQ(ham.read(0x20, 3, &part, true), PL_STATUS_OK);
  EXPECT_EQ(std::make_tuple(b, w, l, pc, rb, block, part),
            std::make_tuple(0xCD, 0xABCD, 0x1234ABCDu, 0xABCD, 0x5A, "abcdef", "abc"));
  EXPECT_EQ(ham.calls, oneTransactionEach({C::read8(0x10), C::read16(0x10), C::read32(0x10),
                                           C::processCall(0x10, 0xBEEF), C::recvByte(), C::readBlock(0x20),
                                           C::read(0x20, 3, true)}));
  // Fetch lengths (in `value`): 0 for the block read, the queued length for read.
  EXPECT_EQ(ham.fetches, (FakeHam::Calls{{Op::Get8, 0x10}, {Op::Get16, 0x10}, {Op::Get32, 0x10}, {Op::Get16, 0x10},
                                         {Op::Get8, FakeHam::BYTE_REGISTER}, {Op::GetBlock, 0x20, 0},
                                         {Op::GetBlock, 0x20, 3}}));
}

TEST(HamOneShot, FailedExecuteIsReturnedAndLeavesTheOutputUntouched) {
  uint8_t b = 0x11;
  uint16_t w = 0x2222;
  uint32_t l = 0x33333333;
  std::string s = "sentinel";
  const std::function<pl_status(Ham::Ham&)> reads[] = {
      [&](Ham::Ham& h) { return h.recvByte(&b); },          [&](Ham::Ham& h) { return h.read8(1, &b); },
      [&](Ham::Ham& h) { return h.read16(1, &w); },         [&](Ham::Ham& h) { return h.read32(1, &l); },
      [&](Ham::Ham& h) { return h.processCall(1, 7, &w); }, [&](Ham::Ham& h) { return h.read(1, 4, &s, false); },
      [&](Ham::Ham& h) { return h.readBlock(1, &s); },
  };
  for (const auto& read : reads) {
    FakeHam ham;
    ham.values = {{1, 0xFFFFFFFF}, {FakeHam::BYTE_REGISTER, 0xFF}};
    ham.blocks[1] = "device";
    ham.executeResults = {6};
    EXPECT_EQ(read(ham), 6);
    EXPECT_TRUE(ham.fetches.empty());
  }
  EXPECT_EQ(std::make_tuple(b, w, l, s), std::make_tuple(0x11, 0x2222, 0x33333333u, "sentinel"));
}

TEST(HamOneShot, WritesAreOneTransactionEachAndReturnWhatExecuteReturns) {
  FakeHam ham;
  ham.executeResults = {PL_STATUS_OK, 2, PL_STATUS_OK, 4, PL_STATUS_OK, 6};
  const char data[] = {'x', '\0', 'y'};
  EXPECT_EQ(ham.sendByte(0x7F, true), PL_STATUS_OK);
  EXPECT_EQ(ham.write8(1, 0xAB, false), 2);
  EXPECT_EQ(ham.write16(2, 0xABCD, true), PL_STATUS_OK);
  EXPECT_EQ(ham.write32(3, 0xDEADBEEF, false), 4);
  EXPECT_EQ(ham.write(4, data, 3, false), PL_STATUS_OK);
  EXPECT_EQ(ham.writeBlock(5, data, 2, true), 6);
  EXPECT_EQ(ham.calls, oneTransactionEach({C::sendByte(0x7F, true), C::write8(1, 0xAB), C::write16(2, 0xABCD, true),
                                           C::write32(3, 0xDEADBEEF), C::write(4, std::string("x\0y", 3)),
                                           C::writeBlock(5, std::string("x\0", 2), true)}));
}

// Only the two pure slots filled, as a transport that supports nothing else.
class BareHam : public Ham::Ham {
 public:
  void prepare() override {}
  pl_status execute() override { return PL_STATUS_OK; }
};

TEST(HamBase, RetryCountOfZeroStillCountsAsARequest) {
  BareHam ham;
  ham.retryCount = 3;
  ham.retryCountIs(0);
  EXPECT_TRUE(ham.retryCountSet);
  EXPECT_EQ(ham.retryCount, 0u);
}

TEST(HamBase, UnsupportedOperationsThrowNamingThemselves) {
  BareHam ham;
  const uint8_t byte = 0;
  const std::pair<std::string, std::function<void()>> slots[] = {
      {"addRecvByte", [&] { ham.addRecvByte(); }},           {"addRead8", [&] { ham.addRead8(0); }},
      {"addRead16", [&] { ham.addRead16(0); }},              {"addRead32", [&] { ham.addRead32(0); }},
      {"addRead", [&] { ham.addRead(0, 1, false); }},        {"addReadBlock", [&] { ham.addReadBlock(0); }},
      {"addSendByte", [&] { ham.addSendByte(0, false); }},   {"addWrite8", [&] { ham.addWrite8(0, 0, false); }},
      {"addWrite16", [&] { ham.addWrite16(0, 0, false); }},  {"addWrite32", [&] { ham.addWrite32(0, 0, false); }},
      {"addWrite", [&] { ham.addWrite(0, &byte, 1, false); }},
      {"addWriteBlock", [&] { ham.addWriteBlock(0, &byte, 1, false); }},
      {"addProcessCall", [&] { ham.addProcessCall(0, 0); }}, {"get8", [&] { ham.get8(0); }},
      {"get16", [&] { ham.get16(0); }},                      {"get32", [&] { ham.get32(0); }},
      {"getBlock", [&] { ham.getBlock(0, 0); }},
  };
  for (const auto& [name, call] : slots) {
    try {
      call();
      ADD_FAILURE() << name << " did not throw";
    } catch (const NotImplementedException& e) {
      EXPECT_EQ(std::string(e.what()), "Not implemented " + name);
    }
  }
}

TEST(HamBase, SimulationHooksOnlyLeaveANotice) {
  FakeHost::reset();
  BareHam ham;
  Utils::ExpectedValues table = {{0, Utils::ExpectedVal(1, 1)}};
  ham.setDriverName("LM75", "3");
  ham.setExpected(&table);
  EXPECT_EQ(FakeHost::traceTexts(), (std::vector<std::string>{"virtual Ham::setDriverName() invoked!!!",
                                                              "virtual Ham::setExpected() invoked!!!"}));
}

// The fake's own safety net: fetches a real transport would not answer.
TEST(FakeHam, FlagsFetchesThatARealTransportWouldNotAnswer) {
  FakeHam ham;
  ham.prepare();
  auto id = ham.addRead8(1);
  EXPECT_NONFATAL_FAILURE(ham.get8(id), "without a successful execute()");
  ham.execute();
  EXPECT_NONFATAL_FAILURE(ham.get8(id + 1), "with id 1 but only 1 operation(s) queued");
}

}  // namespace
