// PSU slots on the fake access method: the bus readers, the FRU parser and
// the configuration errors that stop the host. Cases: psu-slot-cases.json.
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
  FakeHam ham;
  Drivers::DriverArgs args;
  std::unique_ptr<PsuSlot> device;
  std::unique_ptr<PsuSlot::Slot> slot;
};

TEST(PsuSlotReaders, TlvEepromsStopOnceSerialAndModelAreRead) {
  for (const auto& c : cases()["tlv"].GetArray()) {
    Bay bay({{"psuId", "1"}, {"identificationType", "tlv"}});
    bay.eeprom(readFile(kImages + c["image"].GetString()));
    std::string serial, model;
    EXPECT_EQ(bay.slot->readSerialAndModelTlv(serial, model), c["result"].GetInt()) << c["why"].GetString();
    EXPECT_EQ(serial + "|" + model, text(c, "serial") + "|" + text(c, "model"));
    EXPECT_EQ(bay.ham.callsOf({FakeHam::Op::Read}).size(), c["reads"].GetUint()) << c["why"].GetString();
  }
}

TEST(PsuSlotReaders, FruProductInfoGivesPartNumberAndSerialOrSaysWhatIsWrong) {
  for (const auto& c : cases()["fru"].GetArray()) {
    FakeHost::reset();
    std::string image = readFile(kImages + c["image"].GetString()), serial, model;
    if (c.HasMember("truncate")) image.resize(c["truncate"].GetUint());
    EXPECT_EQ(Drivers::readFruProductInfo(2, image, c.HasMember("allowInvalid"), serial, model), c["result"].GetInt());
    EXPECT_EQ(serial + "|" + model, text(c, "serial") + "|" + text(c, "model")) << c["image"].GetString();
    std::vector<std::string> traces;
    for (const auto& t : c["traces"].GetArray()) traces.push_back(t.GetString());
    EXPECT_EQ(FakeHost::traceTexts(0), traces);
  }
}

// What the readers hand on to the model table is shown through the plug-in's
// entry points (tests/integration/psuslot), swapped units included.
TEST(PsuSlotReaders, PmbusKeepsTheCountBytesThatLeadTheManufacturerBlocks) {
  Bay bay({{"psuId", "1"}, {"identificationType", "pmbus"}});
  bay.ham.values = {{0x9A, 10}, {0x9E, 3}};
  bay.ham.blocks = {{0x9A, "\x0A" "DPS550AB6A"}, {0x9E, "\x03" "PSN"}};
  std::string serial, model;
  EXPECT_EQ(bay.slot->readSerialAndModelPmbus(serial, model), 0);
  EXPECT_EQ(model + serial, "\x0A" "DPS550AB6A" "\x03" "PSN");
  EXPECT_EQ(bay.ham.calls, (FakeHam::Calls{C::prepare(), C::read8(0x9A), C::read8(0x9E), C::execute(), C::prepare(),
                                           C::read(0x9A, 11), C::read(0x9E, 4), C::execute()}));
  bay.ham.executeResults = {6};
  EXPECT_EQ(bay.slot->readSerialAndModelPmbus(serial, model), 6);
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
          bay.slot->getPresence(nullptr);
        },
        c["assertion"].GetString());
  }
}

}  // namespace
