// The access-method base: one-shot operations (run against the recording
// fake), the slots a transport leaves to the base, and the choice of a
// device's access method from the loaded topology. The chosen name is
// observed through the "creating %s HAM" trace: names other than the
// registry's rows are not found, which shows what was looked up.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <functional>
#include <memory>
#include <tuple>

#include "Drivers/Drivers.h"
#include "FakeHam.h"
#include "FakeHost.h"
#include "Ham/Ham.h"
#include "Ham/SimHam.h"
#include "Keldo.h"
#include "KeldoUtil/NotImplementedException.h"
#include "TempDir.h"
#include "Topology.h"

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

// Every slot a transport does not override throws its own name; three show
// the rule.
TEST(HamBase, UnsupportedOperationsThrowNamingThemselves) {
  BareHam ham;
  const uint8_t byte = 0;
  const std::pair<std::string, std::function<void()>> slots[] = {
      {"addRecvByte", [&] { ham.addRecvByte(); }},
      {"addWriteBlock", [&] { ham.addWriteBlock(0, &byte, 1, false); }},
      {"getBlock", [&] { ham.getBlock(0, 0); }},
  };
  for (const auto& [name, call] : slots) {
    EXPECT_THAT(call, testing::ThrowsMessage<NotImplementedException>(testing::StrEq("Not implemented " + name)));
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

constexpr uint32_t NONE = Drivers::DriverArgs::NO_COMPONENT;

// One medium of each access-capable type; bus 1 has a mux whose channel
// bus 2 holds device 40. Component uids are unique across the board.
const std::string BOARD = readFile(KELDO_SOURCE_DIR "/tests/unit/Ham/board.json");

Drivers::DriverArgs argsFor(uint32_t uid, uint32_t did) {
  Drivers::DriverArgs args;
  args.uid = uid;
  args.did = did;
  return args;
}

using Texts = std::vector<std::string>;

class CreateHam : public ::testing::Test {
 protected:
  void SetUp() override {
    ASSERT_EQ(Topology::loadTopology(BOARD.c_str()), PL_STATUS_OK);
    Utils::simulationMode = 0;
    FakeHost::reset();
  }
  void TearDown() override { Utils::simulationMode = -1; }
};

TEST_F(CreateHam, OutermostAccessCapableAncestorNamesTheAccessMethod) {
  const struct {
    uint32_t uid, did;
    const char* ham;  // name looked up in the registry
  } cases[] = {
      {5, 999, "SimHam"},   // a component ignores the device uid
      {NONE, 16, "SimHam"},  // no component: the device itself
      {6, 0, "SimHam"},     // behind a multiplexer
      {8, 0, "ScdHam"},     {NONE, 60, ""},  // LinuxFs names no access method
      {NONE, 70, "CelHam"}, {NONE, 80, "IoHam"}, {NONE, 90, "PlmHam"}, {NONE, 100, "SpiHam"},
  };
  for (const auto& c : cases) {
    FakeHost::reset();
    std::unique_ptr<Ham::Ham> ham(Ham::createHam(argsFor(c.uid, c.did)));
    EXPECT_TRUE(FakeHost::hasTrace(std::string("creating ") + c.ham + " HAM using topology information", 0)) << c.did;
    EXPECT_EQ(dynamic_cast<Ham::SimHam*>(ham.get()) != nullptr, std::string(c.ham) == "SimHam") << c.did;
  }
  EXPECT_EQ(FakeHost::traceTexts(0).back(), "failed to create HAM");
}

TEST_F(CreateHam, TracesTheWalkBackUpFromTheHit) {
  std::unique_ptr<Ham::Ham> ham(Ham::createHam(argsFor(6, 0)));
  ASSERT_NE(ham, nullptr);
  EXPECT_EQ(FakeHost::traceTexts(2), (Texts{"Component 6 found in tree", "Device 40 contain the component", "BusId 2",
                                            "Mux using device 30", "BusId 1", "I2C bus 1"}));
  EXPECT_EQ(FakeHost::traceTexts(0), (Texts{"looking for component 6 of device 0 in topology",
                                            "creating SimHam HAM using topology information"}));
}

TEST_F(CreateHam, SimulationForcesSimHamButStillNeedsTheComponent) {
  for (Utils::simulationMode = 0; Utils::simulationMode <= 1; ++Utils::simulationMode) {
    FakeHost::reset();
    EXPECT_EQ(Ham::createHam(argsFor(99, 16)), nullptr);
    EXPECT_EQ(Ham::createHam(argsFor(NONE, 12345)), nullptr);
    EXPECT_EQ(FakeHost::traceTexts(0), (Texts{"looking for component 99 of device 16 in topology",
                                              "could not find component uid 99 in topology",
                                              "looking for component 4294967295 of device 12345 in topology",
                                              "could not find component uid -1 in topology"}));
  }
  Utils::simulationMode = 1;
  std::unique_ptr<Ham::Ham> ham(Ham::createHam(argsFor(NONE, 50)));  // the topology names ScdHam
  EXPECT_NE(dynamic_cast<Ham::SimHam*>(ham.get()), nullptr);
}

TEST_F(CreateHam, UnknownNameIsTracedAndGivesNull) {
  EXPECT_EQ(Ham::Ham::create("simham", *Topology::_topology, argsFor(NONE, 16)), nullptr);  // names compare exactly
  EXPECT_EQ(FakeHost::traceTexts(0), (Texts{"Couldn't find HAM simham"}));
}

TEST(CreateHamDeathTest, NoTopologyIsFatal) {
  Topology::_topology.reset();
  Topology::_topology_json.clear();
  EXPECT_DEATH(Ham::createHam(argsFor(NONE, 16)), "Assertion `topology' failed");
}

// The loader puts access-capable nodes only at the top, so nest one by hand:
// the walk unwinds innermost first and the outermost one writes the name last.
TEST(SearchVisitor, OutermostAncestorWinsOverAnInnerOne) {
  auto inner = std::make_shared<Topology::I2C>();
  inner->ham = "Inner";
  inner->devices.push_back(std::make_shared<Topology::Device>());
  inner->devices[0]->did = 7;
  auto outer = std::make_shared<Topology::SCD>();
  outer->ham = "Outer";
  outer->accelerators[1] = std::make_shared<Topology::Accelerator>();
  outer->accelerators[1]->busses[2] = inner;
  Topology::Topology root;
  root.media.push_back(outer);
  Ham::SearchVisitor visitor(NONE, 7);
  root.accept(&visitor);
  EXPECT_TRUE(visitor.found);
  EXPECT_EQ(visitor.hamName, "Outer");
}

}  // namespace
