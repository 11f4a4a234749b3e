// PSU slots on the fake access method: each identification reader, the
// presence answer with the description handed to the host, and the
// configuration errors that stop the host. Cases: psu-slot-cases.json.
#include <memory>

#include <gtest/gtest.h>
#include <rapidjson/document.h>

#include "Drivers/IpmiFru.h"
#include "Drivers/PsuSlot.h"
#include "FakeHam.h"
#include "FakeHost.h"
#include "TempDir.h"

using Drivers::PsuSlot;
using C = FakeHam::Call;

namespace {

const std::string kImages = KELDO_SOURCE_DIR "/tests/data/psu/";

const rapidjson::Document& cases() {
  static rapidjson::Document document;
  if (!document.IsObject()) document.Parse(readFile(KELDO_SOURCE_DIR "/tests/unit/Drivers/psu-slot-cases.json").c_str());
  return document;
}

std::string text(const rapidjson::Value& object, const char* key) {
  return object.HasMember(key) ? object[key].GetString() : "";
}

// A slot of a PsuSlot device on a fake bus. `eeprom` makes the bus answer
// reads at every offset from an image.
struct Bay {
  explicit Bay(const std::map<std::string, std::string>& settings) {
    args.driverArgs = settings;
    device.reset(static_cast<PsuSlot*>(PsuSlot::create(args, &ham)));
    slot.reset(static_cast<PsuSlot::Slot*>(device->newSlot(args)));
  }
  void eeprom(const std::string& image) {
    for (size_t offset = 0; offset < image.size(); ++offset) ham.blocks[offset] = image.substr(offset);
  }
  std::string fdl() {
    char* description = nullptr;
    presence = slot->getPresence(&description);
    return description != nullptr ? description : "";
  }
  FakeHam ham;
  Drivers::DriverArgs args;
  std::unique_ptr<PsuSlot> device;
  std::unique_ptr<PsuSlot::Slot> slot;
  pl_status presence = -1;
};

std::string fdl(int psuId, const std::string& model, const std::string& serial, const std::string& row, bool managed) {
  return "{\"psuId\": " + std::to_string(psuId) + ", \"modelName\": \"" + model + "\", \"serialNum\": \"" + serial +
         "\", \"fdl\": \"" + row + "\", \"managed\": " + (managed ? "true" : "false") + "}";
}

TEST(PsuSlotReaders, TlvEepromsStopOnceSerialAndModelAreRead) {
  for (const auto& c : cases()["tlv"].GetArray()) {
    Bay bay({{"psuId", "1"}, {"identificationType", "tlv"}});
    bay.eeprom(readFile(kImages + c["image"].GetString()));
    std::string serial, model;
    EXPECT_EQ(bay.slot->readSerialAndModelTlv(serial, model), c["result"].GetInt()) << c["why"].GetString();
    EXPECT_EQ(serial, text(c, "serial"));
    EXPECT_EQ(model, text(c, "model"));
    EXPECT_EQ(bay.ham.callsOf({FakeHam::Op::Read}).size(), c["reads"].GetUint()) << c["why"].GetString();
  }
}

TEST(PsuSlotReaders, FruProductInfoGivesPartNumberAndSerialOrSaysWhatIsWrong) {
  for (const auto& c : cases()["fru"].GetArray()) {
    FakeHost::reset();
    std::string image = readFile(kImages + c["image"].GetString()), serial, model;
    if (c.HasMember("truncate")) image.resize(c["truncate"].GetUint());
    const bool allow = c.HasMember("allowInvalid");
    EXPECT_EQ(Drivers::readFruProductInfo(2, image, allow, serial, model), c["result"].GetInt()) << c["image"].GetString();
    EXPECT_EQ(serial, text(c, "serial"));
    EXPECT_EQ(model, text(c, "model"));
    std::vector<std::string> traces;
    for (const auto& t : c["traces"].GetArray()) traces.push_back(t.GetString());
    EXPECT_EQ(FakeHost::traceTexts(0), traces);
  }
}

TEST(PsuSlotReaders, PmbusKeepsTheCountBytesThatTheModelTableThenSkips) {
  Bay bay({{"psuId", "1"}, {"identificationType", "PMBus"}});
  EXPECT_TRUE(FakeHost::hasTrace("Invalid identification type: 'PMBus'", 0));
  EXPECT_EQ(bay.slot->identificationType(), PsuSlot::PMBUS);
  // Counts that are printable characters: 45 ('-') and 49 ('1') blank-padded bytes.
  const std::string model45 = "-" + std::string("DPS550AB6A").append(35, ' ');
  const std::string serial49 = "1" + std::string("PSN550A0007").append(38, ' ');
  bay.ham.values = {{0x9A, 45}, {0x9E, 49}};
  bay.ham.blocks = {{0x9A, model45}, {0x9E, serial49}};
  std::string serial, model;
  EXPECT_EQ(bay.slot->readSerialAndModelPmbus(serial, model), 0);
  EXPECT_EQ(model, model45);
  EXPECT_EQ(serial, serial49);
  EXPECT_EQ(bay.ham.calls, (FakeHam::Calls{C::prepare(), C::read8(0x9A), C::read8(0x9E), C::execute(), C::prepare(),
                                           C::read(0x9A, 46), C::read(0x9E, 50), C::execute()}));
  EXPECT_EQ(bay.fdl(), fdl(1, "DPS550AB6A", "PSN550A0007", "DPS550AB6A", true));

  bay.ham.blocks[0x9A] = "-XYZ-123";
  EXPECT_EQ(bay.fdl(), fdl(1, "XYZ-123", "PSN550A0007", "PWR-UNKNOWN", false));
  EXPECT_TRUE(FakeHost::hasTrace("Unknown modelName. PSU is unmanaged", 0));
  bay.ham.executeResults = {6};
  EXPECT_EQ(bay.slot->readSerialAndModelPmbus(serial, model), 6);
}

// A unit swapped between two calls, and the other identification types, are
// shown through the plug-in's entry points (tests/integration/psuslot).
TEST(PsuSlotPresence, APresenceLineDecidesBeforeTheUnitIsRead) {
  Bay bay({{"psuId", "2"}, {"identificationType", "tlv"}, {"presenceReg", "16"}, {"presenceBit", "1"},
           {"presenceActiveLow", "true"}});
  bay.eeprom(readFile(kImages + "tlv-dps550.bin"));
  bay.ham.values[16] = 0x02;
  EXPECT_EQ(bay.fdl(), "");
  EXPECT_EQ(bay.presence, 0);
  EXPECT_TRUE(bay.ham.callsOf({FakeHam::Op::Read}).empty());
  bay.ham.values[16] = 0x00;
  EXPECT_EQ(bay.fdl(), fdl(2, "DPS550AB6A", "DSN550A0001", "DPS550AB6A", true));
  bay.ham.failOn[16] = 4;
  EXPECT_EQ(bay.fdl(), "");
  EXPECT_EQ(bay.presence, 4);
}

TEST(PsuSlotDeathTest, ConfigurationErrorsStopTheHost) {
  for (const auto& c : cases()["deaths"].GetArray()) {
    std::map<std::string, std::string> settings;
    for (const auto& s : c["settings"].GetObject()) settings[s.name.GetString()] = s.value.GetString();
    EXPECT_DEATH(
        {
          Bay bay(settings);
          bay.eeprom(readFile(kImages + text(c, "image")));
          if (c.HasMember("failOn")) bay.ham.failOn[c["failOn"].GetUint()] = 4;
          bay.fdl();
        },
        c["assertion"].GetString());
  }
}

}  // namespace
