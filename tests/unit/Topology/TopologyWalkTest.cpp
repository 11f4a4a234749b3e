// The visitor walk: post-order, children in their documented order, and the
// stopping rule that still visits every ancestor of the node that stopped.
#include <gtest/gtest.h>

#include "FakeHost.h"
#include "Topology.h"
#include "TopologyTestSupport.h"

using namespace Topology;

namespace {

// Accelerators and mux channels are listed out of id order on purpose: the
// walk takes them in ascending id.
const char* const kWalkJson = R"([
  {"type":"SCD","ham":"h","pci":1,"accelerators":[
    {"id":2,"busses":[{"id":5,"devices":[{"did":20}]}]},
    {"id":1,"busses":[{"id":4,
      "devices":[{"did":10,"components":[{"uid":100},{"uid":101}]},{"did":11}],
      "muxes":[{"did":12,"busses":[{"id":7},{"id":6,"devices":[{"did":13}]}]}]}]}]},
  {"type":"I2C","ham":"h","id":9,"devices":[{"did":30}]},
  {"type":"IOPort","ham":"h","id":8},
  {"type":"PLM","ham":"h","id":7},
  {"type":"SccSpi","ham":"h","id":6},
  {"type":"Celestica","ham":"h"},
  {"type":"LinuxFs","ham":"h","devices":[{"did":40}]}
])";

// Records every visit as a short token and answers false at one token.
class Recorder : public TopologyVisitor {
 public:
  explicit Recorder(std::string stopAt) : stopAt_(std::move(stopAt)) {}
  bool visit(const Component* n) override { return note("C" + std::to_string(n->uid)); }
  bool visit(const Device* n) override { return note("D" + std::to_string(n->did)); }
  bool visit(const Mux* n) override { return note("M" + std::to_string(n->did)); }
  bool visit(const Bus* n) override { return note("B" + std::to_string(n->id)); }
  bool visit(const Accelerator* n) override { return note("A" + std::to_string(n->id)); }
  bool visit(const SCD*) override { return note("SCD"); }
  bool visit(const I2C*) override { return note("I2C"); }
  bool visit(const IOPort*) override { return note("IOPort"); }
  bool visit(const Celestica*) override { return note("Celestica"); }
  bool visit(const PLM*) override { return note("PLM"); }
  bool visit(const LinuxFs*) override { return note("LinuxFs"); }
  bool visit(const SccSpi*) override { return note("SccSpi"); }
  bool visit(const Topology::Topology*) override { return note("T"); }

  std::string seen_;

 private:
  bool note(const std::string& token) {
    seen_ += seen_.empty() ? token : " " + token;
    return token != stopAt_;
  }
  std::string stopAt_;
};

TEST(TopologyWalk, StopVisitsAncestorsButNoLaterSiblings) {
  ASSERT_EQ(PL_STATUS_OK, loadTopology(kWalkJson));
  const std::string scdPart = "C100 C101 D10 D11 D13 B6 B7 M12 B4 A1 D20 B5 A2 SCD";
  const std::string rest = "D30 B9 I2C B8 IOPort B7 PLM B6 SccSpi Celestica D40 LinuxFs T";
  struct Case {
    const char* stopAt;
    std::string walk;
  } cases[] = {
      {"", scdPart + " " + rest},
      {"D10", "C100 C101 D10 B4 A1 SCD T"},
      {"C100", "C100 D10 B4 A1 SCD T"},
      {"D11", "C100 C101 D10 D11 B4 A1 SCD T"},  // the mux after the devices is skipped
      {"B6", "C100 C101 D10 D11 D13 B6 M12 B4 A1 SCD T"},
      {"A1", "C100 C101 D10 D11 D13 B6 B7 M12 B4 A1 SCD T"},
      {"D30", scdPart + " D30 B9 I2C T"},
      {"B9", scdPart + " D30 B9 I2C T"},  // the medium half is still visited
      {"I2C", scdPart + " D30 B9 I2C T"},
      {"T", scdPart + " " + rest},
  };
  for (const Case& c : cases) {
    Recorder recorder(c.stopAt);
    const bool wentOn = _topology->accept(&recorder);
    EXPECT_EQ(c.walk, recorder.seen_) << "stop at " << c.stopAt;
    EXPECT_EQ(c.stopAt[0] == '\0', wentOn) << "stop at " << c.stopAt;
  }
}

TEST(TopologyWalk, FindDeviceReturnsFirstInWalkOrder) {
  ASSERT_EQ(PL_STATUS_OK, loadTopology(TopologyTest::boardJson().c_str()));
  FakeHost::reset();
  // did 25 sits on accelerator 3 (listed first) and on accelerator 1 (walked first).
  EXPECT_EQ(getDeviceByLabel("tempEarly"), findDevice(25));
  EXPECT_EQ(1, FakeHost::countTrace("Device 25 found in topology", 2));
  EXPECT_EQ(getDeviceByLabel("xcvr3"), findDevice(50));  // two muxes deep
  EXPECT_EQ(getDeviceByLabel("fsGpio"), findDevice(70));
  EXPECT_EQ(nullptr, findDevice(99));
  EXPECT_EQ(3u, FakeHost::traces().size());
}

}  // namespace
