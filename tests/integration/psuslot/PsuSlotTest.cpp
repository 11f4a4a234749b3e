// PSU identification through the plug-in's C entry points: EEPROMs and a
// PMBus unit served by the reference proxy daemon, a fake ipmitool on PATH,
// and a FRU record in the IPMI cache of a private /var/run. Cases: cases.json.
#include <gtest/gtest.h>
#include <rapidjson/document.h>
#include <rapidjson/stringbuffer.h>
#include <rapidjson/writer.h>

#include "../proxyd/ProxydProcess.h"
#include "FakeHost.h"
#include "Plugin.h"
#include "keldo/pl_host.h"

namespace {

const std::string kHere = KELDO_SOURCE_DIR "/tests/integration/psuslot/", kData = KELDO_SOURCE_DIR "/tests/data/";

class PsuSlotThroughThePlugin : public ::testing::Test {
 protected:
  static void SetUpTestSuite() {
    ASSERT_TRUE(enterPrivateVarRun());
    setenv("PATH", (kData + "ipmi/bin:" + getenv("PATH")).c_str(), 1);
    setenv("FAKE_IPMITOOL_DATA", (kData + "ipmi/normal").c_str(), 1);
    proxyd = new ProxydProcess(kHere + "emulation.json");
    setenv("KELDO_SMBUS_SOCKET", proxyd->socket().c_str(), 1);
    ASSERT_EQ(plugin().sym<pl_status (*)(const char*)>("pl_slot_init")(readFile(kHere + "topology.json").c_str()), 0);
  }
  static void TearDownTestSuite() { delete proxyd; }

  static Plugin& plugin() {
    static Plugin* p = new Plugin(KELDO_PLUGIN);  // never unloaded
    return *p;
  }
  template <typename Handle>
  static Handle* add(const char* entry, const rapidjson::Value& object) {
    rapidjson::StringBuffer json;
    rapidjson::Writer<rapidjson::StringBuffer> writer(json);
    object.Accept(writer);
    return FakeHost::keep(plugin().sym<Handle* (*)(const char*)>(entry)(json.GetString()));
  }
  // get_presence, and the description it handed over ("" for none).
  static std::pair<pl_status, std::string> presence(pl_slot* slot) {
    char* description = nullptr;
    const pl_status status = slot->ops->get_presence(slot, &description);
    return {status, description != nullptr ? description : ""};
  }

  static ProxydProcess* proxyd;
};
ProxydProcess* PsuSlotThroughThePlugin::proxyd = nullptr;

TEST_F(PsuSlotThroughThePlugin, EachIdentificationTypeHandsTheHostTheDescriptionOfItsUnit) {
  rapidjson::Document cases;
  cases.Parse(readFile(kHere + "cases.json").c_str());
  for (const auto& c : cases["cases"].GetArray()) {
    const std::string name = c["name"].GetString();
    if (c.HasMember("powerOk")) {
      pl_psu* psu = add<pl_psu>("pl_psu_add", c["object"]);
      int ok = -1;
      EXPECT_EQ(psu->ops->get_power_ok(psu, &ok), 0) << name;
      EXPECT_EQ(ok, c["powerOk"].GetInt()) << name;
      continue;
    }
    if (c.HasMember("control")) proxyd->control(c["control"].GetString());
    if (c.HasMember("cache")) writeFile("/var/run/ipmiCache", readFile(kData + "ipmi/" + c["cache"].GetString()));
    pl_slot* slot = add<pl_slot>("pl_slot_add", c["object"]);
    if (c.HasMember("cache")) FakeHost::fire(FakeHost::timerSets().back().timer);  // the IPMI access's first poll
    const auto [status, fdl] = presence(slot);
    rapidjson::Document handed;
    EXPECT_EQ(status, c["presence"].GetInt()) << name;
    EXPECT_TRUE(c["fdl"].IsNull() ? fdl.empty() : handed.Parse(fdl.c_str()) == c["fdl"]) << name << ": " << fdl;
    proxyd->control("clear all");
  }
}

TEST_F(PsuSlotThroughThePlugin, AUnitSwappedBetweenTwoPresenceCallsIsIdentifiedAnew) {
  rapidjson::Document object;
  object.Parse(R"({"did": 80, "uid": 50, "driver": "PsuSlot", "address": {"address": 80},
                   "driverArgs": {"psuId": 1, "identificationType": "tlv"}})");
  pl_slot* slot = add<pl_slot>("pl_slot_add", object);
  FakeHost::reset();
  EXPECT_EQ(presence(slot).first, 1);
  EXPECT_EQ(presence(slot).first, 1);
  EXPECT_EQ(FakeHost::countTrace("Using cached fdl", 0), 1);
  ASSERT_EQ(proxyd->control("poke I2C/0/0/3/0x50 23 0x39"), "ok");  // last serial digit: another unit
  EXPECT_NE(presence(slot).second.find("\"serialNum\": \"DSN550A0009\""), std::string::npos);
  EXPECT_TRUE(FakeHost::hasTrace("PSU serialNum = 'DSN550A0009'", 0));
  ASSERT_EQ(proxyd->control("poke I2C/0/0/3/0x50 23 0x31"), "ok");
}

}  // namespace
