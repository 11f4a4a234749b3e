// Choosing and building a device's access method from the loaded topology.
// The chosen name is observed through the "creating %s HAM" trace: names other
// than the registry's rows are not found, which shows what was looked up.
#include <gtest/gtest.h>

#include <memory>

#include "Drivers/Drivers.h"
#include "FakeHost.h"
#include "Ham/Ham.h"
#include "Ham/SimHam.h"
#include "Keldo.h"
#include "Topology.h"

namespace {

constexpr uint32_t NONE = Drivers::DriverArgs::NO_COMPONENT;

// One medium of each access-capable type; bus 1 has a mux whose channel
// bus 2 holds device 40. Component uids are unique across the board.
const char* const BOARD = R"([
  {"type":"I2C","ham":"SimHam","id":1,"devices":[{"did":16,"components":[{"uid":5}]},{"did":17}],
   "muxes":[{"did":30,"busses":[{"id":2,"devices":[{"did":40,"components":[{"uid":6}]}]}]}]},
  {"type":"SCD","ham":"ScdHam","pci":4660,
   "accelerators":[{"id":3,"busses":[{"id":7,"devices":[{"did":50,"components":[{"uid":8}]}]}]}]},
  {"type":"LinuxFs","ham":"FsHam","devices":[{"did":60}]},
  {"type":"Celestica","ham":"CelHam","accelerators":[{"id":1,"busses":[{"id":1,"devices":[{"did":70}]}]}]},
  {"type":"IOPort","ham":"IoHam","id":9,"devices":[{"did":80}]},
  {"type":"PLM","ham":"PlmHam","id":10,"devices":[{"did":90}]},
  {"type":"SccSpi","ham":"SpiHam","id":11,"devices":[{"did":100}]}
])";

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
    ASSERT_EQ(Topology::loadTopology(BOARD), PL_STATUS_OK);
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
