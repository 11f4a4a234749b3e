// Loading the board description: reuse of an identical text, parse errors,
// the readers and their uniqueness rules, the label index and its lookups.
#include <gtest/gtest.h>

#include "Drivers/Drivers.h"
#include "FakeHost.h"
#include "Topology.h"
#include "TopologyTestSupport.h"

using namespace Topology;
using TopologyTest::assertion;

namespace {

const char* const kSmallJson =
    R"([{"type":"I2C","ham":"SimHam","id":1,"label":"bus1","devices":[{"did":16,"label":"sensor1"}]}])";

TEST(TopologyLoad, SameTextIsKeptAndAnyByteDifferenceRebuilds) {
  const std::string text = kSmallJson;
  ASSERT_EQ(PL_STATUS_OK, loadTopology("[]"));
  FakeHost::reset();

  ASSERT_EQ(PL_STATUS_OK, loadTopology(text.c_str()));
  const std::shared_ptr<Node> first = _topology_index.at("sensor1");
  EXPECT_EQ(PL_STATUS_OK, loadTopology(text.c_str()));
  EXPECT_EQ(first, _topology_index.at("sensor1"));
  EXPECT_EQ(1, FakeHost::countTrace("loading topology json", 2));
  EXPECT_EQ(1, FakeHost::countTrace("topology is the same as the previously loaded one (using it)", 2));

  EXPECT_EQ(PL_STATUS_OK, loadTopology((text + " ").c_str()));
  EXPECT_EQ(2, FakeHost::countTrace("loading topology json", 2));
  EXPECT_NE(first, _topology_index.at("sensor1"));
  EXPECT_EQ(text + " ", _topology_json);
}

TEST(TopologyLoad, UnparsableTextIsReportedAndKeepsTheTree) {
  ASSERT_EQ(PL_STATUS_OK, loadTopology(kSmallJson));
  const Device* sensor = getDeviceByLabel("sensor1");
  struct Case {
    const char* text;
    const char* trace;
  } cases[] = {
      {"", "The document is empty. offset 0"},
      {" \n ", "The document is empty. offset 3"},
      {"[] x", "The document root must not be followed by other values. offset 3"},
      {"[{\"type\":}]", "Invalid value. offset 9"},
      {"[1 2]", "Missing a comma or ']' after an array element. offset 3"},
  };
  for (const Case& c : cases) {
    FakeHost::reset();
    EXPECT_EQ(PL_STATUS_BAD_INPUT, loadTopology(c.text)) << c.text;
    EXPECT_EQ(2, FakeHost::traceLevel(std::string("failed to load topology from json: ") + c.trace)) << c.text;
    EXPECT_EQ(kSmallJson, _topology_json);
    EXPECT_EQ(sensor, findDevice(16));
    EXPECT_EQ(sensor, getDeviceByLabel("sensor1"));
  }
}

TEST(TopologyLoad, EmptyArrayAndTrailingBlanksAreValid) {
  ASSERT_EQ(PL_STATUS_OK, loadTopology(kSmallJson));
  EXPECT_EQ(PL_STATUS_OK, loadTopology(" [ ] \n\t"));
  ASSERT_NE(nullptr, _topology);
  EXPECT_TRUE(_topology->media.empty());
  EXPECT_TRUE(_topology_index.empty());
  EXPECT_EQ(nullptr, findDevice(16));
}

TEST(TopologyLoad, BoardIsReadIntoTypedNodes) {
  ASSERT_EQ(PL_STATUS_OK, loadTopology(TopologyTest::boardJson().c_str()));
  ASSERT_EQ(4u, _topology->media.size());
  auto* scd = dynamic_cast<SCD*>(_topology->media[0].get());
  auto* i2c = dynamic_cast<I2C*>(_topology->media[1].get());
  ASSERT_TRUE(scd && i2c);
  EXPECT_EQ(768u, scd->pci);
  EXPECT_EQ("KeldoSmbus", scd->ham);
  EXPECT_TRUE(i2c->simulated);

  // The bus part of a medium-bus sits at its own address inside the node.
  Bus* bus = getBusByLabel("i2c7");
  EXPECT_EQ(static_cast<Bus*>(i2c), bus);
  EXPECT_NE(static_cast<void*>(i2c), static_cast<void*>(bus));
  EXPECT_EQ(nullptr, getDeviceByLabel("i2c7"));
  EXPECT_EQ(nullptr, getBusByLabel("boardTemp"));
  EXPECT_EQ(nullptr, getNodeByLabel("nothing"));
  EXPECT_NE(nullptr, dynamic_cast<Component*>(getNodeByLabel("psu1Sensor")));
  EXPECT_EQ(50u, getBusByLabel("xcvr3Bus")->devices.at(0)->did);
  EXPECT_EQ(getBusByLabel("xcvr3Bus"), dynamic_cast<Mux*>(getNodeByLabel("mux2"))->busses.at(3).get());

  // Driver arguments come from the device object itself and carry no text.
  const Device* psu = getDeviceByLabel("psu1");
  ASSERT_NE(nullptr, psu->args);
  EXPECT_EQ("Pmbus", psu->args->driver);
  EXPECT_EQ(300u, psu->args->uid);
  EXPECT_EQ("25000", psu->args->driverArgs.at("maxFanRpm"));
  EXPECT_EQ(88u, psu->args->address.address());
  EXPECT_TRUE(psu->args->json.empty());
  EXPECT_EQ(2u, psu->components.size());
  EXPECT_EQ(nullptr, getDeviceByLabel("xcvr3")->args);
}

TEST(TopologyLoad, UniquenessRulesDifferPerPlace) {
  // Labels: the later node wins, whatever its type. Mux channels: the first wins.
  ASSERT_EQ(PL_STATUS_OK, loadTopology(R"([{"type":"I2C","ham":"h","id":1,
    "devices":[{"did":1,"label":"x"},{"did":2,"label":"x"},{"did":1,"label":"y"}],
    "muxes":[{"did":3,"busses":[{"id":5,"devices":[{"did":4}]},{"id":5,"label":"y","devices":[{"did":6}]}]}]}])"));
  ASSERT_NE(nullptr, getDeviceByLabel("x"));
  EXPECT_EQ(2u, getDeviceByLabel("x")->did);
  EXPECT_EQ(nullptr, getDeviceByLabel("y"));
  ASSERT_NE(nullptr, getBusByLabel("y"));
  EXPECT_EQ(6u, getBusByLabel("y")->devices.at(0)->did);  // a dropped channel keeps its label
  const Mux* mux = dynamic_cast<I2C*>(_topology->media[0].get())->muxes.at(0).get();
  ASSERT_EQ(1u, mux->busses.size());
  EXPECT_EQ(4u, mux->busses.at(5)->devices.at(0)->did);
}

TEST(TopologyDeathTest, ConfigurationFaultsStopTheHost) {
  GTEST_FLAG_SET(death_test_style, "threadsafe");
  const char* const i2c = R"({"type":"I2C","ham":"h",)";
  struct Case {
    std::string json;
    const char* text;
  } cases[] = {
      {R"({"a":1})", "json.IsArray()"},
      {"[1]", "it->IsObject()"},
      {R"([{"ham":"h"}])", "it->HasMember( \"type\" )"},
      {R"([{"type":"I2C"}])", "it->HasMember( \"ham\" )"},
      {R"([{"type":"i2c","ham":"h"}])", "Unknown type"},
      {R"([{"type":"SCD","ham":"h"}])", "json.HasMember( \"pci\" )"},
      {R"([{"type":"SCD","ham":"h","pci":1,"accelerators":{}}])", "accels.IsArray()"},
      {R"([{"type":"Celestica","ham":"h","accelerators":[{"id":1},{"id":1}]}])",
       "scd->accelerators.find( accel->id ) == scd->accelerators.end()"},
      {R"([{"type":"SCD","ham":"h","pci":1,"accelerators":[{"id":0,"busses":[{"id":2},{"id":2}]}]}])",
       "accel->busses.find( bus->id ) == accel->busses.end()"},
      {std::string("[") + i2c + R"("devices":[{"did":1}]}])", "json.HasMember( \"id\" )"},
      {std::string("[") + i2c + R"("id":1,"devices":[{"label":"d"}]}])", "json.HasMember( \"did\" )"},
      {std::string("[") + i2c + R"("id":1,"devices":[{"did":1,"components":[{}]}]}])", "json.HasMember( \"uid\" )"},
      {std::string("[") + i2c + R"("id":1,"simulated":1}])", "IsBool()"},
      {std::string("[") + i2c + R"("id":1,"devices":[{"did":1,"driver":"LM75"}]}])",
       "json.HasMember( \"address\" )"},
  };
  for (const Case& c : cases) {
    EXPECT_DEATH(loadTopology(c.json.c_str()), assertion(c.text)) << c.json;
  }

  struct AddressCase {
    const char* json;
    const char* text;
  } addresses[] = {
      {R"({"accel":1})", "value.HasMember( \"address\" )"},
      {R"({"address":1,"addrSize":4})", "addr.addrSize == 1 || addr.addrSize == 2 || addr.addrSize == 4"},
  };
  for (const AddressCase& c : addresses) {
    rapidjson::Document document;
    document.Parse(c.json);
    AhamAddress addr;
    EXPECT_DEATH(fillAddressFromJSON(document, addr), assertion(c.text)) << c.json;
  }
}

}  // namespace
