// The one-shot operations of the base access method, run against the
// recording fake: what each queues and fetches, and that a failed execute()
// hands back its status without touching the caller's output.
#include <gtest/gtest.h>

#include <functional>

#include "FakeHam.h"
#include "FakeHost.h"
#include "KeldoUtil/NotImplementedException.h"

namespace {

using C = FakeHam::Call;
using Op = FakeHam::Op;

TEST(HamOneShot, ReadsQueueOneOperationAndFetchTheirOwnWidth) {
  FakeHam ham;
  ham.values = {{0x10, 0x1234ABCD}, {FakeHam::BYTE_REGISTER, 0x5A}};

  uint8_t b = 0;
  uint16_t w = 0;
  uint32_t l = 0;
  uint16_t pc = 0;
  uint8_t rb = 0;
  ASSERT_EQ(ham.read8(0x10, &b), PL_STATUS_OK);
  ASSERT_EQ(ham.read16(0x10, &w), PL_STATUS_OK);
  ASSERT_EQ(ham.read32(0x10, &l), PL_STATUS_OK);
  ASSERT_EQ(ham.processCall(0x10, 0xBEEF, &pc), PL_STATUS_OK);
  ASSERT_EQ(ham.recvByte(&rb), PL_STATUS_OK);

  EXPECT_EQ(b, 0xCD);
  EXPECT_EQ(w, 0xABCD);
  EXPECT_EQ(l, 0x1234ABCDu);
  EXPECT_EQ(pc, 0xABCD);
  EXPECT_EQ(rb, 0x5A);
  EXPECT_EQ(ham.calls, (FakeHam::Calls{C::prepare(), C::read8(0x10), C::execute(),            //
                                       C::prepare(), C::read16(0x10), C::execute(),           //
                                       C::prepare(), C::read32(0x10), C::execute(),           //
                                       C::prepare(), C::processCall(0x10, 0xBEEF), C::execute(),  //
                                       C::prepare(), C::recvByte(), C::execute()}));
  EXPECT_EQ(ham.fetches, (FakeHam::Calls{{Op::Get8, 0x10}, {Op::Get16, 0x10}, {Op::Get32, 0x10},
                                         {Op::Get16, 0x10}, {Op::Get8, FakeHam::BYTE_REGISTER}}));
}

TEST(HamOneShot, ReadBlockLetsTheDeviceDecideTheLengthAndReadAsksForItsOwn) {
  FakeHam ham;
  ham.blocks[0x20] = "abcdef";

  std::string block = "old";
  std::string part = "old";
  ASSERT_EQ(ham.readBlock(0x20, &block), PL_STATUS_OK);
  ASSERT_EQ(ham.read(0x20, 3, &part, true), PL_STATUS_OK);

  EXPECT_EQ(block, "abcdef");
  EXPECT_EQ(part, "abc");
  EXPECT_EQ(ham.callsOf({Op::ReadBlock, Op::Read}), (FakeHam::Calls{C::readBlock(0x20), C::read(0x20, 3, true)}));
  // The fetch length is recorded in `value`: 0 for the block read.
  EXPECT_EQ(ham.fetches, (FakeHam::Calls{{Op::GetBlock, 0x20, 0}, {Op::GetBlock, 0x20, 3}}));
}

// Every read, with a sentinel in its output, against an execute() that fails.
struct FailedRead {
  const char* name;
  std::function<pl_status(Ham::Ham&)> run;  // true when the sentinel survived
  std::function<bool()> untouched;
};

TEST(HamOneShot, FailedExecuteIsReturnedAndLeavesTheOutputUntouched) {
  uint8_t b = 0x11;
  uint16_t w = 0x2222;
  uint32_t l = 0x33333333;
  std::string s = "sentinel";
  const std::vector<FailedRead> reads = {
      {"recvByte", [&](Ham::Ham& h) { return h.recvByte(&b); }, [&] { return b == 0x11; }},
      {"read8", [&](Ham::Ham& h) { return h.read8(1, &b); }, [&] { return b == 0x11; }},
      {"read16", [&](Ham::Ham& h) { return h.read16(1, &w); }, [&] { return w == 0x2222; }},
      {"read32", [&](Ham::Ham& h) { return h.read32(1, &l); }, [&] { return l == 0x33333333; }},
      {"processCall", [&](Ham::Ham& h) { return h.processCall(1, 7, &w); }, [&] { return w == 0x2222; }},
      {"read", [&](Ham::Ham& h) { return h.read(1, 4, &s, false); }, [&] { return s == "sentinel"; }},
      {"readBlock", [&](Ham::Ham& h) { return h.readBlock(1, &s); }, [&] { return s == "sentinel"; }},
  };
  for (const FailedRead& r : reads) {
    SCOPED_TRACE(r.name);
    FakeHam ham;
    ham.values[1] = 0xFFFFFFFF;
    ham.blocks[1] = "device";
    ham.executeDefault = 6;
    EXPECT_EQ(r.run(ham), 6);
    EXPECT_TRUE(r.untouched());
    EXPECT_TRUE(ham.fetches.empty());
  }
}

TEST(HamOneShot, WritesQueueOneOperationAndReturnWhatExecuteReturns) {
  FakeHam ham;
  ham.executeResults = {PL_STATUS_OK, 2, PL_STATUS_OK, 4, PL_STATUS_OK, 6};
  const char data[] = {'x', '\0', 'y'};

  EXPECT_EQ(ham.sendByte(0x7F, true), PL_STATUS_OK);
  EXPECT_EQ(ham.write8(1, 0xAB, false), 2);
  EXPECT_EQ(ham.write16(2, 0xABCD, true), PL_STATUS_OK);
  EXPECT_EQ(ham.write32(3, 0xDEADBEEF, false), 4);
  EXPECT_EQ(ham.write(4, data, 3, false), PL_STATUS_OK);
  EXPECT_EQ(ham.writeBlock(5, data, 2, true), 6);

  EXPECT_EQ(ham.writes(), (FakeHam::Calls{C::sendByte(0x7F, true), C::write8(1, 0xAB), C::write16(2, 0xABCD, true),
                                          C::write32(3, 0xDEADBEEF), C::write(4, std::string("x\0y", 3)),
                                          C::writeBlock(5, std::string("x\0", 2), true)}));
  EXPECT_EQ(ham.callsOf({Op::Prepare}).size(), 6u);
  EXPECT_EQ(ham.callsOf({Op::Execute}).size(), 6u);
  EXPECT_TRUE(ham.fetches.empty());
}

TEST(HamRetryCount, ZeroStillCountsAsARequest) {
  FakeHam ham;
  EXPECT_FALSE(ham.retryCountSet);
  ham.retryCountIs(0);
  EXPECT_TRUE(ham.retryCountSet);
  EXPECT_EQ(ham.retryCount, 0u);
  ham.retryCountIs(5);
  EXPECT_EQ(ham.retryCount, 5u);
  EXPECT_TRUE(ham.retryCountSet);
}

// The base class with only the two pure slots filled: everything a transport
// does not override must name itself when used.
class BareHam : public Ham::Ham {
 public:
  void prepare() override {}
  pl_status execute() override { return PL_STATUS_OK; }
};

TEST(HamBase, UnsupportedOperationsThrowNamingThemselves) {
  BareHam ham;
  const uint8_t byte = 0;
  const std::vector<std::pair<std::string, std::function<void()>>> slots = {
      {"addRecvByte", [&] { ham.addRecvByte(); }},
      {"addRead8", [&] { ham.addRead8(0); }},
      {"addRead16", [&] { ham.addRead16(0); }},
      {"addRead32", [&] { ham.addRead32(0); }},
      {"addRead", [&] { ham.addRead(0, 1, false); }},
      {"addReadBlock", [&] { ham.addReadBlock(0); }},
      {"addSendByte", [&] { ham.addSendByte(0, false); }},
      {"addWrite8", [&] { ham.addWrite8(0, 0, false); }},
      {"addWrite16", [&] { ham.addWrite16(0, 0, false); }},
      {"addWrite32", [&] { ham.addWrite32(0, 0, false); }},
      {"addWrite", [&] { ham.addWrite(0, &byte, 1, false); }},
      {"addWriteBlock", [&] { ham.addWriteBlock(0, &byte, 1, false); }},
      {"addProcessCall", [&] { ham.addProcessCall(0, 0); }},
      {"get8", [&] { ham.get8(0); }},
      {"get16", [&] { ham.get16(0); }},
      {"get32", [&] { ham.get32(0); }},
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
  ham.init();
  ham.setDriverName("LM75", "3");
  ham.setExpected(&table);
  EXPECT_EQ(FakeHost::traceTexts(),
            (std::vector<std::string>{"virtual Ham::setDriverName() invoked!!!", "virtual Ham::setExpected() invoked!!!"}));
  EXPECT_EQ(FakeHost::traceLevel("virtual Ham::setExpected() invoked!!!"), 0);
  EXPECT_EQ(FakeHost::traceLevel("virtual Ham::setDriverName() invoked!!!"), 0);
}

}  // namespace
