// Emulation files that are wrong in one place are refused with that place.
#include "EmulationFile.h"

#include <gtest/gtest.h>

#include "TempDir.h"

namespace {

TEST(EmulationFile, EachBrokenFieldIsReportedWithItsPlace) {
  const struct {
    const char* json;
    const char* message;
  } cases[] = {
      {R"({"buses": [{"bus": 3, "devices": [{"address": "0x80"}]}]})",
       "emulation.buses[0].devices[0].address: expected a number from 0 to 0x7f"},
      {R"({"buses": [{"bus": 3, "devices": [{"adress": 80}]}]})",
       "emulation.buses[0].devices[0]: unknown key \"adress\""},
      {R"({"buses": [{"bus": 3, "devices": [{"address": 1}, {"address": "1"}]}]})",
       "emulation.buses[0].devices[1].address: address used twice on this bus"},
      {R"({"buses": [{"bus": 3}, {"master": "I2C", "bus": 3}]})",
       "emulation.buses[1]: bus I2C pci 0x00000000 accel 0 bus 3 is declared twice"},
      {R"({"buses": [{"bus": 3, "devices": [{"address": 1, "mux": [{"channel": 8, "bus": 4}]}]}]})",
       "emulation.buses[0].devices[0].mux[0].channel: expected a number from 0 to 0x7"},
      {R"({"buses": [{"bus": 3, "devices": [{"address": 1, "mux": [{"channel": 0, "bus": 3}]}]}]})",
       "emulation.buses[0].devices[0].mux[0]: bus I2C pci 0x00000000 accel 0 bus 3 is declared twice"},
      {R"({"buses": [{"bus": 3, "devices": [{"address": 1, "mux": [], "registers": {}}]}]})",
       "emulation.buses[0].devices[0]: a multiplexer has no registers, blocks or EEPROM"},
      {R"({"buses": [{"bus": 3, "devices": [{"address": 1, "eeprom": "missing.bin"}]}]})",
       "emulation.buses[0].devices[0].eeprom: cannot read"},
      {R"({"buses": [{"bus": 3, "devices": [{"address": 1, "registers": {"0x100000": 1}}]}]})",
       "emulation.buses[0].devices[0].registers.0x100000: expected a number from 0 to 0xffff"},
      {R"({"buses": [{"bus": 3, "devices": [{"address": 1, "fault": {"type": "slow"}}]}]})",
       "emulation.buses[0].devices[0].fault.type: unknown fault \"slow\""},
      {R"({"buses": [{"bus": 3, "devices": [{"address": 1, "fault": {"type": "delay"}}]}]})",
       "emulation.buses[0].devices[0].fault: missing \"ms\""},
      {R"({"buses": [{"master": "USB", "bus": 3}]})", "emulation.buses[0].master: expected a number from 0 to 0x6"},
      {R"({"buses": [{"bus": 3,}]})", "offset 21: Missing a name for object member."},
  };
  TempDir dir;
  for (const auto& c : cases) {
    try {
      SmbusProxyd::parseEmulation(c.json, dir.path());
      ADD_FAILURE() << "accepted " << c.json;
    } catch (const SmbusProxyd::EmulationError& e) {
      EXPECT_EQ(std::string(e.what()).substr(0, std::string(c.message).size()), c.message) << c.json;
    }
  }
}

TEST(EmulationFile, EepromImagesAreFoundBesideTheFile) {
  TempDir dir;
  writeFile(dir.file("board.json"), R"({"buses": [{"bus": 1, "devices": [{"address": "0x50", "eeprom": "e.bin"}]}]})");
  writeFile(dir.file("e.bin"), "\x01\x02");
  SmbusProxyd::Board board = SmbusProxyd::loadEmulationFile(dir.file("board.json"));
  SmbusProxyd::Device* eeprom = board.device({{1, 0, 0, 1}, 0x50});
  ASSERT_NE(eeprom, nullptr);
  EXPECT_EQ(eeprom->registerAt(0), 0x01);
  EXPECT_EQ(eeprom->registerAt(1), 0x02);
}

}  // namespace
