// The board description: the visitor walk and its stopping rule, loading and
// reuse of the text, the label index, device addresses, and the board-file
// faults that stop the host.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "Drivers/Drivers.h"
#include "FakeHost.h"
#include "SmallStack.h"
#include "TempDir.h"
#include "Topology.h"

using namespace Topology;

namespace {

// Accelerators and mux channels are listed out of id order on purpose: the
// walk takes them in ascending id.
const std::string kWalkJson = readFile(KELDO_SOURCE_DIR "/tests/unit/Topology/walk.json");

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
    seen_ += (seen_.empty() ? "" : " ") + token;
    return token != stopAt_;
  }
  std::string stopAt_;
};

TEST(TopologyWalk, StopVisitsEveryAncestorButNoLaterSibling) {
  ASSERT_EQ(PL_STATUS_OK, loadTopology(kWalkJson.c_str()));
  const std::string scd = "C100 C101 D10 D11 D13 B6 B7 M12 B4 A1 D20 B5 A2 SCD";
  const struct {
    const char* stopAt;
    std::string walk;
  } cases[] = {
      // A medium that is also a bus is visited twice: as Bus, then as itself.
      {"", scd + " D30 B9 I2C B8 IOPort B7 PLM B6 SccSpi Celestica D40 LinuxFs T"},
      {"C100", "C100 D10 B4 A1 SCD T"},
      {"D11", "C100 C101 D10 D11 B4 A1 SCD T"},  // the mux after the devices is skipped
      {"B6", "C100 C101 D10 D11 D13 B6 M12 B4 A1 SCD T"},
      {"B9", scd + " D30 B9 I2C T"},  // the medium half is still visited
  };
  for (const auto& c : cases) {
    Recorder recorder(c.stopAt);
    EXPECT_EQ(c.stopAt[0] == '\0', _topology->accept(&recorder)) << c.stopAt;
    EXPECT_EQ(c.walk, recorder.seen_) << c.stopAt;
  }
}

TEST(TopologyLoad, SameTextIsReusedBadTextRefusedAnyOtherTextRebuilt) {
  const std::string text = kWalkJson;
  ASSERT_EQ(PL_STATUS_OK, loadTopology(text.c_str()));
  FakeHost::reset();
  EXPECT_EQ(PL_STATUS_BAD_INPUT, loadTopology("[1 2]"));
  EXPECT_EQ(PL_STATUS_BAD_INPUT, loadTopology("[] x"));
  EXPECT_EQ(PL_STATUS_OK, loadTopology(text.c_str()));  // the old tree and its text were kept
  EXPECT_EQ(PL_STATUS_OK, loadTopology((text + " ").c_str()));
  const std::string failed = "failed to load topology from json: ";
  EXPECT_EQ(FakeHost::traceTexts(2),
            (std::vector<std::string>{"loading topology json",
                                      failed + "Missing a comma or ']' after an array element. offset 3",
                                      "loading topology json",
                                      failed + "The document root must not be followed by other values. offset 3",
                                      "topology is the same as the previously loaded one (using it)",
                                      "loading topology json"}));
  EXPECT_EQ(text + " ", _topology_json);
}

// The tree is built, walked and destroyed one call per level, so a text
// nested deeper than 64 levels is refused like one that does not parse and
// the loaded tree stays. The text itself is read without recursion: 100,000
// levels (a chain of 25,000 multiplexers) on a 1 MiB stack.
TEST(TopologyLoad, NestingDeeperThanSixtyFourLevelsIsRefused) {
  auto nested = [](size_t levels) {  // an ignored key of an I2C medium
    return R"([{"type":"I2C","ham":"h","id":1,"x":)" + std::string(levels - 2, '[') + std::string(levels - 2, ']') + "}]";
  };
  std::string chain = R"([{"type":"I2C","ham":"h","id":1,"muxes":)";
  for (int i = 0; i < 25000; ++i) chain += R"([{"did":1,"busses":[{"id":1,"muxes":)";
  chain += "[]";
  for (int i = 0; i < 25000; ++i) chain += "}]}]";
  chain += "}]";
  onStackOf(1 << 20, [&] {
    EXPECT_EQ(PL_STATUS_OK, loadTopology(nested(64).c_str()));
    ASSERT_EQ(PL_STATUS_OK, loadTopology(kWalkJson.c_str()));
    FakeHost::reset();
    EXPECT_EQ(PL_STATUS_BAD_INPUT, loadTopology(nested(65).c_str()));
    EXPECT_EQ(PL_STATUS_BAD_INPUT, loadTopology(chain.c_str()));
  });
  EXPECT_EQ(2, FakeHost::countTrace("failed to load topology from json: nested more than 64 levels deep", 2));
  EXPECT_TRUE(_topology_json == kWalkJson);
  EXPECT_NE(nullptr, findDevice(13));
}

TEST(TopologyLoad, FindDeviceReturnsTheFirstInWalkOrder) {
  ASSERT_EQ(PL_STATUS_OK, loadTopology(readFile(KELDO_SOURCE_DIR "/tests/data/topology/board.json").c_str()));
  // did 25 sits on accelerator 3 (listed first) and on accelerator 1 (walked first).
  EXPECT_EQ(getDeviceByLabel("tempEarly"), findDevice(25));
  EXPECT_EQ(getDeviceByLabel("xcvr3"), findDevice(50));  // two muxes deep
  EXPECT_EQ(nullptr, findDevice(99));
}

TEST(TopologyLoad, LaterLabelWinsFirstMuxChannelWinsAndLookupsCheckTheKind) {
  ASSERT_EQ(PL_STATUS_OK, loadTopology(R"([{"type":"I2C","ham":"h","id":1,"label":"bus",
    "devices":[{"did":1,"label":"x"},{"did":2,"label":"x"},{"did":3,"label":"y"}],
    "muxes":[{"did":4,"busses":[{"id":5,"devices":[{"did":6}]},{"id":5,"label":"y","devices":[{"did":7}]}]}]}])"));
  auto firstDid = [](Bus* bus) { return bus && !bus->devices.empty() ? bus->devices[0]->did : 0; };
  const Device* x = getDeviceByLabel("x");
  EXPECT_EQ(2u, x ? x->did : 0);
  EXPECT_EQ(nullptr, getDeviceByLabel("y"));
  EXPECT_EQ(7u, firstDid(getBusByLabel("y")));  // a dropped channel keeps its label
  auto* i2c = static_cast<I2C*>(_topology->media.at(0).get());
  EXPECT_EQ(static_cast<Bus*>(i2c), getBusByLabel("bus"));  // the bus part, at its own address
  EXPECT_EQ(nullptr, getDeviceByLabel("bus"));
  ASSERT_EQ(1u, i2c->muxes.at(0)->busses.size());
  EXPECT_EQ(6u, firstDid(i2c->muxes.at(0)->busses.at(5).get()));
  EXPECT_TRUE(isDeviceObject("{\"did\":1}"));
  EXPECT_FALSE(isDeviceObject(" {"));
  EXPECT_FALSE(isDeviceObject(nullptr));
}

TEST(AhamAddress, FieldsArePackedIntoWordOneCutToTheirWidths) {
  const struct {
    const char* json;
    uint32_t word1;
  } cases[] = {
      {R"({"address":80})", 0x02000050},  // size 1 by default
      {R"({"address":255})", 0x0200007F},
      {R"({"address":1,"readDelay":7})", 0xC2000001},
      {R"({"address":1,"busTimeout":9})", 0x02400001},
      {R"({"address":1,"accel":130})", 0x02008001},
      {R"({"address":1,"addrSize":2})", 0x04000001},
      {R"({"address":1,"addrSize":6})", 0x04000001},  // wraps to 2 and passes
      {R"({"address":127,"writeDelay":1,"readDelay":2,"busTimeout":5,"extraDelay":1,"addrSize":2,"accel":127})",
       0x9D5FC07F},
  };
  for (const auto& c : cases) {
    rapidjson::Document document;
    document.Parse(c.json);
    AhamAddress addr;
    addr.word0 = addr.word1 = 0xFFFFFFFF;
    fillAddressFromJSON(document, addr);
    EXPECT_EQ(0u, addr.word0) << c.json;
    EXPECT_EQ(c.word1, addr.word1) << std::hex << addr.word1 << " from " << c.json;
  }
}

TEST(TopologyDeathTest, BoardFileFaultsStopTheHost) {
  GTEST_FLAG_SET(death_test_style, "threadsafe");
  const std::string i2c = R"([{"type":"I2C","ham":"h","id":1,"devices":[)";
  const struct {
    std::string json;
    const char* text;
  } cases[] = {
      {R"({"a":1})", "json.IsArray()"},
      {R"([{"ham":"h"}])", "it->HasMember( \"type\" )"},
      {R"([{"type":"i2c","ham":"h"}])", "Unknown type"},
      {R"([{"type":"Celestica","ham":"h","accelerators":[{"id":1},{"id":1}]}])",
       "scd->accelerators.find( accel->id ) == scd->accelerators.end()"},
      {R"([{"type":"SCD","ham":"h","pci":1,"accelerators":[{"id":0,"busses":[{"id":2},{"id":2}]}]}])",
       "accel->busses.find( bus->id ) == accel->busses.end()"},
      {i2c + R"({"label":"d"}]}])", "json.HasMember( \"did\" )"},
      {i2c + R"({"did":1,"driver":"X"}]}])", "json.HasMember( \"address\" )"},
      {i2c + R"({"did":1,"driver":"X","address":{"accel":1}}]}])", "value.HasMember( \"address\" )"},
      {i2c + R"({"did":1,"driver":"X","address":{"address":1,"addrSize":4}}]}])",
       "addr.addrSize == 1 || addr.addrSize == 2 || addr.addrSize == 4"},
  };
  for (const auto& c : cases) {
    EXPECT_DEATH(loadTopology(c.json.c_str()), testing::HasSubstr(std::string("Assertion `") + c.text + "' failed"))
        << c.json;
  }
}

}  // namespace
