// The Zant-Y CPLD end to end: the built plug-in loaded with dlopen, and the
// reference proxy daemon emulating the example board (boards/zant-y) on a real
// socket, with its transaction log and its control socket (peek, poke).
#include <algorithm>
#include <string>

#include <gtest/gtest.h>

#include "../proxyd/ProxydProcess.h"
#include "FakeHost.h"
#include "Plugin.h"
#include "keldo/pl_host.h"

namespace {

const std::string kBoard = std::string(KELDO_SOURCE_DIR) + "/boards/zant-y/";

std::string object(const std::string& type, int id) {
  return R"({"did": 35, "uid": 350, "driver": "ZantYCPLD", "address": {"address": 35},
             "driverArgs": {"xcvrPoll": "", "type": ")" + type + R"(", "id": ")" + std::to_string(id) + "\"}}";
}

TEST(ZantYCPLD, PollsInOneTransactionAndSettersChangeTheirBitOnly) {
  ProxydProcess proxyd(kBoard + "emulation.json");
  setenv("KELDO_SMBUS_SOCKET", proxyd.socket().c_str(), 1);
  static Plugin* plugin = new Plugin(KELDO_PLUGIN);  // never unloaded, as by a host
  const std::string topology = readFile(kBoard + "topology.json");
  ASSERT_EQ(PL_STATUS_OK, plugin->sym<pl_status (*)(const char*)>("pl_xcvr_init")(topology.c_str()));
  auto xcvr = [&](const char* type, int id) {
    return FakeHost::keep(plugin->sym<pl_xcvr* (*)(const char*)>("pl_xcvr_add")(object(type, id).c_str()));
  };
  // Transactions so far, and the request entries of all of them.
  auto load = [&] {
    const std::string log = readFile(proxyd.log());
    return std::make_pair(proxyd.control("transactions"), static_cast<int>(std::count(log.begin(), log.end(), '\n')));
  };
  auto peek = [&](int reg) {
    return std::stoi(proxyd.control("peek SCD/0xff00/1/2/0x23 " + std::to_string(reg)).substr(3), nullptr, 16);
  };

  pl_xcvr* sfp1 = xcvr("sfp", 1);
  pl_xcvr* qsfp2 = xcvr("qsfp", 2);
  pl_led* led = FakeHost::keep(plugin->sym<pl_led* (*)(const char*)>("pl_led_add")(object("status", 1).c_str()));
  ASSERT_TRUE(sfp1 && qsfp2 && led);
  // The first poll (36 reads) and a write per port-LED register; the other objects cost nothing.
  EXPECT_EQ(std::make_pair(std::string("ok 4"), 36 + 3), load());

  // A module pulled out of SFP cage 1 shows at the next poll (one transaction of 36 reads), not before.
  const int present = peek(0xA259) & 1;
  EXPECT_EQ(present, sfp1->ops->u.sfp.get_presence(sfp1));
  EXPECT_EQ("ok", proxyd.control("poke SCD/0xff00/1/2/0x23 0xa259 " + std::to_string(peek(0xA259) ^ 1)));
  EXPECT_EQ(present, sfp1->ops->u.sfp.get_presence(sfp1));
  FakeHost::fire(FakeHost::timerSets().at(0).timer);
  EXPECT_EQ(1 - present, sfp1->ops->u.sfp.get_presence(sfp1));
  EXPECT_EQ(std::make_pair(std::string("ok 5"), 36 + 3 + 36), load());

  // Each setter changes its own bit of the emulated register and nothing else.
  const int lpMode = peek(0xA361), txDisable = peek(0xA250), systemLed = peek(0xA106);
  EXPECT_EQ(PL_STATUS_OK, qsfp2->ops->u.qsfp.set_lp_mode(qsfp2, 1));
  EXPECT_EQ(lpMode | 0x02, peek(0xA361));
  EXPECT_EQ(PL_STATUS_OK, sfp1->ops->u.sfp.set_tx_disable(sfp1, 1));
  EXPECT_EQ(txDisable | 0x01, peek(0xA250));
  EXPECT_EQ(PL_STATUS_OK, led->ops->set_light_setting(led, PL_LED_GOOD));
  EXPECT_EQ((systemLed & 0xCC) | 0x10, peek(0xA106));
}

}  // namespace
