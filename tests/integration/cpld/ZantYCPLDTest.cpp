// The Zant-Y CPLD end to end: the built plug-in loaded with dlopen, the
// reference proxy daemon emulating the example board (boards/zant-y) on a real
// socket, its transaction log and its control socket to change and read the
// emulated registers.
#include <fstream>
#include <functional>
#include <map>
#include <string>

#include <gtest/gtest.h>

#include "../proxyd/ProxydProcess.h"
#include "FakeHost.h"
#include "Plugin.h"
#include "keldo/pl_host.h"

namespace {

const std::string kBoard = std::string(KELDO_SOURCE_DIR) + "/boards/zant-y/";
const std::string kCpld = "SCD/0xff00/1/2/0x23 ";

std::string object(const std::string& type, int id) {
  return R"({"did": 35, "uid": 350, "driver": "ZantYCPLD", "address": {"address": 35},
             "driverArgs": {"xcvrPoll": "true", "type": ")" + type + R"(", "id": ")" + std::to_string(id) + "\"}}";
}

// Entries per transaction number, from the daemon's log.
std::map<int, int> transactions(const ProxydProcess& proxyd) {
  std::map<int, int> entries;
  std::ifstream in(proxyd.log());
  for (std::string line; std::getline(in, line);) ++entries[std::stoi(line.substr(4))];
  return entries;
}

TEST(ZantYCPLD, PollsInOneTransactionAndSettersChangeTheirBitOnly) {
  ProxydProcess proxyd(kBoard + "emulation.json");
  setenv("KELDO_SMBUS_SOCKET", proxyd.socket().c_str(), 1);
  static Plugin* plugin = new Plugin(KELDO_PLUGIN);  // never unloaded, as by a host
  const std::string topology = readFile(kBoard + "topology.json");
  for (const char* init : {"pl_xcvr_init", "pl_led_init"}) {
    ASSERT_EQ(PL_STATUS_OK, plugin->sym<pl_status (*)(const char*)>(init)(topology.c_str())) << init;
  }
  auto xcvr = [&](const char* type, int id) {
    return FakeHost::keep(plugin->sym<pl_xcvr* (*)(const char*)>("pl_xcvr_add")(object(type, id).c_str()));
  };
  auto peek = [&](int reg) { return std::stoi(proxyd.control("peek " + kCpld + std::to_string(reg)).substr(3), nullptr, 16); };
  pl_xcvr* sfp1 = xcvr("sfp", 1);
  // Creation: the first poll, one transaction of 36 reads, then a write per port-LED register.
  EXPECT_EQ((std::map<int, int>{{1, 36}, {2, 1}, {3, 1}, {4, 1}}), transactions(proxyd));
  pl_xcvr* qsfp2 = xcvr("qsfp", 2);
  pl_led* led = FakeHost::keep(plugin->sym<pl_led* (*)(const char*)>("pl_led_add")(object("status", 1).c_str()));
  ASSERT_TRUE(sfp1 && qsfp2 && led);
  EXPECT_EQ(4u, transactions(proxyd).size()) << "more objects on the same CPLD cost no transaction";

  // A module pulled out of SFP cage 1 shows at the next poll, not before.
  const pl_timer_handle poll = FakeHost::timerSets().at(0).timer;
  const int present = peek(0xA259) & 1;
  EXPECT_EQ(present, sfp1->ops->u.sfp.get_presence(sfp1));
  EXPECT_EQ("ok", proxyd.control("poke " + kCpld + "0xa259 " + std::to_string(peek(0xA259) ^ 1)));
  EXPECT_EQ(present, sfp1->ops->u.sfp.get_presence(sfp1));
  FakeHost::fire(poll);
  EXPECT_EQ(1 - present, sfp1->ops->u.sfp.get_presence(sfp1));
  EXPECT_EQ(36, transactions(proxyd).rbegin()->second);
  EXPECT_EQ(5u, transactions(proxyd).size());

  // Each setter changes its own bit of the emulated register and nothing else.
  const struct {
    int reg, expected;
    std::function<pl_status()> set;
  } setters[] = {
      {0xA361, peek(0xA361) | 0x02, [&] { return qsfp2->ops->u.qsfp.set_lp_mode(qsfp2, 1); }},
      {0xA250, peek(0xA250) | 0x01, [&] { return sfp1->ops->u.sfp.set_tx_disable(sfp1, 1); }},
      {0xA250, peek(0xA250) & ~0x01, [&] { return sfp1->ops->u.sfp.set_tx_disable(sfp1, 0); }},
      {0xA106, (peek(0xA106) & 0xCC) | 0x10, [&] { return led->ops->set_light_setting(led, PL_LED_GOOD); }},
      {0xA106, (peek(0xA106) & 0xCC) | 0x22, [&] { return led->ops->set_light_setting(led, PL_LED_BAD); }},
  };
  for (const auto& s : setters) {
    EXPECT_EQ(PL_STATUS_OK, s.set());
    EXPECT_EQ(s.expected, peek(s.reg)) << std::hex << s.reg;
  }
}

}  // namespace
