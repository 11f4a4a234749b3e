// The SMBus transport end to end: the built plug-in loaded with dlopen, the
// reference proxy daemon as a child process on a real socket, and the host's
// view through pl_smbus_add and the SMBus callback table. The daemon plays
// tests/data/smbus/board.json and logs every entry it executes.
#include <signal.h>

#include <cerrno>
#include <chrono>
#include <cstring>
#include <fstream>
#include <regex>
#include <string>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

#include "../proxyd/ProxydProcess.h"
#include "FakeHost.h"
#include "Plugin.h"
#include "keldo/pl_host.h"

namespace {

const std::string kData = std::string(KELDO_SOURCE_DIR) + "/tests/data/smbus/";

// The entries of the daemon's last transaction, every attempt, as
// "MASTER bus=B addr=0xA type=T reg=0xR".
std::vector<std::string> lastTransaction(const ProxydProcess& proxyd) {
  static const std::regex line("txn=(\\d+) attempt=\\d+ entry=\\d+ master=(\\w+) pci=\\S+ accel=\\d+ "
                               "(bus=\\d+ addr=0x[0-9a-f]+ type=\\w+ reg=0x[0-9a-f]+) .*");
  std::vector<std::string> entries;
  std::string txn;
  std::ifstream in(proxyd.log());
  std::smatch m;
  for (std::string text; std::getline(in, text);) {
    if (!std::regex_match(text, m, line)) continue;
    if (m[1] != txn) entries.clear();
    txn = m[1];
    entries.push_back(m[2].str() + " " + m[3].str());
  }
  return entries;
}

class SmbusTransport : public ::testing::Test {
 protected:
  // One daemon and one initialised plug-in for the whole executable, as a
  // host would have them.
  static void SetUpTestSuite() {
    proxyd = new ProxydProcess(kData + "board.json");
    setenv("KELDO_SMBUS_SOCKET", proxyd->socket().c_str(), 1);
    std::ifstream in(kData + "topology.json");
    const std::string topology((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
    ASSERT_EQ(plugin().sym<pl_status (*)(const char*)>("pl_smbus_init")(topology.c_str()), PL_STATUS_OK);
  }
  static void TearDownTestSuite() {
    delete proxyd;
    proxyd = nullptr;
  }
  void SetUp() override { FakeHost::reset(); }
  void TearDown() override { EXPECT_EQ(proxyd->control("clear all"), "ok"); }

  static Plugin& plugin() {
    static Plugin* p = new Plugin(KELDO_PLUGIN);  // never unloaded
    return *p;
  }
  static pl_smbus* add(const char* objectOrBus, uint8_t address) {
    return FakeHost::keep(plugin().sym<pl_smbus* (*)(const char*, uint8_t)>("pl_smbus_add")(objectOrBus, address));
  }

  static ProxydProcess* proxyd;
};
ProxydProcess* SmbusTransport::proxyd = nullptr;

const char* const kDeepDevice = R"({"did": 80, "uid": 1080, "driver": "SmbusProxyDriver", "address": {"address": 80}})";

TEST_F(SmbusTransport, DeviceBehindTwoMuxesIsOneRoundTripPerCall) {
  pl_smbus* smbus = add(kDeepDevice, 0);
  ASSERT_NE(smbus, nullptr);
  EXPECT_EQ(smbus->ops->write_byte(smbus, 0x11, 0xA7), PL_STATUS_OK);
  uint8_t byte = 0;
  EXPECT_EQ(smbus->ops->read_byte(smbus, 0x11, &byte), PL_STATUS_OK);
  EXPECT_EQ(byte, 0xA7);
  // Every entry of the read in the daemon's last transaction: one round trip.
  EXPECT_EQ(lastTransaction(*proxyd),
            (std::vector<std::string>{
                "SCD bus=2 addr=0x70 type=WRITE reg=0x4", "SCD bus=2 addr=0x71 type=WRITE reg=0x8",
                "SCD bus=2 addr=0x50 type=READ reg=0x11", "SCD bus=2 addr=0x71 type=WRITE reg=0x0",
                "SCD bus=2 addr=0x70 type=WRITE reg=0x0"}));
}

// The proxy object asks for no retries, so a failure shows after one attempt.
TEST_F(SmbusTransport, ProxyFromBusNameServesTheCallbackTableAndFailuresGiveStatusSix) {
  pl_smbus* smbus = add("i2c3", 0x48);
  ASSERT_NE(smbus, nullptr);
  const pl_smbus_ops& ops = *smbus->ops;
  FakeHost::reset();  // from here on only the transport traces
  uint8_t byte = 0;
  EXPECT_EQ(ops.read_byte(smbus, 0x00, &byte), PL_STATUS_OK);
  EXPECT_EQ(byte, 0x19);
  EXPECT_EQ(ops.write_word(smbus, 0x01, 0xBEEF), PL_STATUS_OK);
  uint8_t two[2] = {};
  EXPECT_EQ(ops.i2c_block_read(smbus, 0x01, two, 2), PL_STATUS_OK);
  EXPECT_EQ(two[0], 0xEF);
  EXPECT_EQ(two[1], 0xBE);

  EXPECT_EQ(proxyd->control("fault I2C/0/0/3/0x48 nak"), "ok");
  EXPECT_EQ(ops.read_byte(smbus, 0x00, &byte), PL_STATUS_INTERNAL);
  EXPECT_EQ(lastTransaction(*proxyd), std::vector<std::string>{"I2C bus=3 addr=0x48 type=READ reg=0x0"});
  EXPECT_EQ(proxyd->control("fault I2C/0/0/3/0x48 fail thermal trip on 0x48"), "ok");
  EXPECT_EQ(ops.read_byte(smbus, 0x00, &byte), PL_STATUS_INTERNAL);
  EXPECT_EQ(byte, 0x19);
  EXPECT_EQ(FakeHost::traceTexts(3),
            (std::vector<std::string>{"execute: failure in response entry 0 (READ): no acknowledge; device 0x48 on "
                                      "bus I2C pci 0x00000000 accel 0 bus 3; 1 attempts",
                                      "execute: failure in response thermal trip on 0x48"}));
}

TEST_F(SmbusTransport, DaemonKilledMidTransactionThenRestartedWithoutReinit) {
  pl_smbus* smbus = add(kDeepDevice, 0);
  ASSERT_NE(smbus, nullptr);
  uint8_t byte = 0;
  ASSERT_EQ(smbus->ops->read_byte(smbus, 0x10, &byte), PL_STATUS_OK);
  FakeHost::reset();

  // The answer is held back three seconds; the daemon dies while it waits.
  EXPECT_EQ(proxyd->control("fault SCD/0xff00/1/8/0x50 delay 3000"), "ok");
  std::thread killer([] {
    std::this_thread::sleep_for(std::chrono::milliseconds(300));
    proxyd->stop(SIGKILL);
  });
  const auto start = std::chrono::steady_clock::now();
  EXPECT_EQ(smbus->ops->read_byte(smbus, 0x10, &byte), PL_STATUS_UNAVAILABLE);
  EXPECT_LT(std::chrono::steady_clock::now() - start, std::chrono::milliseconds(2500));
  killer.join();
  EXPECT_EQ(smbus->ops->read_byte(smbus, 0x10, &byte), PL_STATUS_UNAVAILABLE);  // nobody listens
  auto error = [](int e) { return "execute: error. " + std::to_string(e) + ", " + std::strerror(e); };
  EXPECT_EQ(FakeHost::traceTexts(3), (std::vector<std::string>{error(ECONNRESET), error(ECONNREFUSED)}));

  proxyd->start();
  byte = 0;
  EXPECT_EQ(smbus->ops->read_byte(smbus, 0x10, &byte), PL_STATUS_OK);
  EXPECT_EQ(byte, 0x5A);
}

}  // namespace
