// The SMBus transport end to end: the built plug-in loaded with dlopen, the
// reference proxy daemon as a child process on a real socket, and the host's
// view through pl_smbus_add and the SMBus callback table. The daemon plays
// tests/data/smbus/board.json and logs every entry it executes.
#include <signal.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <chrono>
#include <fstream>
#include <memory>
#include <regex>
#include <string>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

#include "ChildProcess.h"
#include "FakeHost.h"
#include "Plugin.h"
#include "TempDir.h"
#include "keldo/pl_host.h"

namespace {

const std::string kData = std::string(KELDO_SOURCE_DIR) + "/tests/data/smbus/";

// One executed request entry, as the daemon logged it.
struct Entry {
  unsigned txn, attempt;
  std::string master;
  unsigned bus, addr;
  std::string type;
  unsigned reg;
  bool operator==(const Entry& o) const {
    return master == o.master && bus == o.bus && addr == o.addr && type == o.type && reg == o.reg;
  }
};

std::ostream& operator<<(std::ostream& out, const Entry& e) {
  return out << e.master << " bus " << e.bus << " 0x" << std::hex << e.addr << " " << e.type << " reg 0x" << e.reg
             << std::dec;
}

class Proxyd {
 public:
  Proxyd() : socket_(dir_.file("proxy.sock")), log_(dir_.file("proxyd.log")) { start(); }

  void start() {
    unlink(socket_.c_str());
    unlink((socket_ + ".ctl").c_str());
    process_ = std::make_unique<ChildProcess>(
        std::vector<std::string>{KELDO_PROXYD, "-e", kData + "board.json", "-s", socket_, "-l", log_},
        std::vector<std::string>{},
        dir_.file("proxyd.out"));
    if (!waitForPath(socket_ + ".ctl")) throw std::runtime_error("proxy daemon did not start");
  }
  void kill() { process_->stop(SIGKILL); }

  // One control command, e.g. "fault I2C/0/0/3/0x48 nak"; its one-line answer.
  std::string control(const std::string& command) const {
    int fd = ::socket(AF_UNIX, SOCK_STREAM, 0);
    sockaddr_un addr{};
    addr.sun_family = AF_UNIX;
    std::snprintf(addr.sun_path, sizeof addr.sun_path, "%s.ctl", socket_.c_str());
    std::string answer;
    if (connect(fd, reinterpret_cast<sockaddr*>(&addr), sizeof addr) == 0) {
      std::string line = command + "\n";
      (void)!write(fd, line.data(), line.size());
      char c;
      while (read(fd, &c, 1) == 1 && c != '\n') answer += c;
    }
    close(fd);
    return answer;
  }

  // The entries of the last transaction in the log.
  std::vector<Entry> lastTransaction() const {
    static const std::regex line(
        "txn=(\\d+) attempt=(\\d+) entry=\\d+ master=(\\w+) pci=\\S+ accel=\\d+ bus=(\\d+) addr=0x([0-9a-f]+) "
        "type=(\\w+) reg=0x([0-9a-f]+) .*");
    std::vector<Entry> all;
    std::ifstream in(log_);
    std::smatch m;
    for (std::string text; std::getline(in, text);) {
      if (!std::regex_match(text, m, line)) continue;
      all.push_back({unsigned(std::stoul(m[1])), unsigned(std::stoul(m[2])), m[3], unsigned(std::stoul(m[4])),
                     unsigned(std::stoul(m[5], nullptr, 16)), m[6], unsigned(std::stoul(m[7], nullptr, 16))});
    }
    std::vector<Entry> last;
    for (const Entry& e : all) {
      if (e.txn == all.back().txn) last.push_back(e);
    }
    return last;
  }

  const std::string& socket() const { return socket_; }

 private:
  TempDir dir_;
  std::string socket_, log_;
  std::unique_ptr<ChildProcess> process_;
};

// The transport's own lines; creating a device traces at the same level.
std::vector<std::string> executeTraces() {
  std::vector<std::string> lines;
  for (const std::string& line : FakeHost::traceTexts(3)) {
    if (line.rfind("execute:", 0) == 0) lines.push_back(line);
  }
  return lines;
}

Plugin& plugin() {
  static Plugin* p = new Plugin(KELDO_PLUGIN);
  return *p;
}

class SmbusTransport : public ::testing::Test {
 protected:
  // One daemon and one initialised plug-in for the whole executable, as a
  // host would have them.
  static void SetUpTestSuite() {
    proxyd = new Proxyd;
    setenv("KELDO_SMBUS_SOCKET", proxyd->socket().c_str(), 1);
    std::ifstream in(kData + "topology.json");
    std::string topology((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
    ASSERT_EQ(plugin().sym<pl_status (*)(const char*)>("pl_smbus_init")(topology.c_str()), PL_STATUS_OK);
  }
  static void TearDownTestSuite() {
    delete proxyd;
    proxyd = nullptr;
  }
  void SetUp() override { FakeHost::reset(); }
  void TearDown() override { EXPECT_EQ(proxyd->control("clear all"), "ok"); }

  static pl_smbus* add(const char* objectOrBus, uint8_t address) {
    auto smbusAdd = plugin().sym<pl_smbus* (*)(const char*, uint8_t)>("pl_smbus_add");
    return FakeHost::keep(smbusAdd(objectOrBus, address));
  }

  static Proxyd* proxyd;
};
Proxyd* SmbusTransport::proxyd = nullptr;

const char* const kDeepDevice = R"({"did": 80, "uid": 1080, "driver": "SmbusProxyDriver", "address": {"address": 80}})";

TEST_F(SmbusTransport, DeviceBehindTwoMuxesIsOneRoundTripPerCall) {
  pl_smbus* smbus = add(kDeepDevice, 0);
  ASSERT_NE(smbus, nullptr);
  const pl_smbus_ops& ops = *smbus->ops;

  EXPECT_EQ(ops.write_byte(smbus, 0x11, 0xA7), PL_STATUS_OK);
  const std::string before = proxyd->control("transactions");
  uint8_t byte = 0;
  EXPECT_EQ(ops.read_byte(smbus, 0x11, &byte), PL_STATUS_OK);
  EXPECT_EQ(byte, 0xA7);
  EXPECT_EQ(proxyd->control("transactions"), "ok " + std::to_string(std::stoul(before.substr(3)) + 1));

  const std::vector<Entry> expected = {
      {0, 0, "SCD", 2, 0x70, "WRITE", 0x04}, {0, 0, "SCD", 2, 0x71, "WRITE", 0x08},
      {0, 0, "SCD", 2, 0x50, "READ", 0x11},  {0, 0, "SCD", 2, 0x71, "WRITE", 0x00},
      {0, 0, "SCD", 2, 0x70, "WRITE", 0x00}};
  EXPECT_EQ(proxyd->lastTransaction(), expected);

  uint16_t word = 0;
  EXPECT_EQ(ops.read_word(smbus, 0x12, &word), PL_STATUS_OK);
  EXPECT_EQ(word, 0x1234);
  uint8_t block[32] = {};
  unsigned int length = 0;
  EXPECT_EQ(ops.block_read(smbus, 0x20, block, &length), PL_STATUS_OK);
  EXPECT_EQ(std::vector<uint8_t>(block, block + length), (std::vector<uint8_t>{1, 2, 3, 4, 5}));
}

TEST_F(SmbusTransport, ProxyFromBusNameServesTheCallbackTable) {
  pl_smbus* smbus = add("i2c3", 0x48);
  ASSERT_NE(smbus, nullptr);
  const pl_smbus_ops& ops = *smbus->ops;
  EXPECT_EQ(ops.size, sizeof(pl_smbus_ops));

  uint8_t byte = 0;
  EXPECT_EQ(ops.read_byte(smbus, 0x00, &byte), PL_STATUS_OK);
  EXPECT_EQ(byte, 0x19);
  EXPECT_EQ(proxyd->lastTransaction(), (std::vector<Entry>{{0, 0, "I2C", 3, 0x48, "READ", 0x00}}));
  EXPECT_EQ(ops.write_word(smbus, 0x01, 0xBEEF), PL_STATUS_OK);
  uint8_t two[2] = {};
  EXPECT_EQ(ops.i2c_block_read(smbus, 0x01, two, 2), PL_STATUS_OK);
  EXPECT_EQ(two[0], 0xEF);
  EXPECT_EQ(two[1], 0xBE);
  uint8_t three[3] = {};  // the device answers exactly what is asked, so a short read needs a failure
  EXPECT_EQ(proxyd->control("fault I2C/0/0/3/0x48 nak count 1"), "ok");
  EXPECT_EQ(ops.i2c_block_read(smbus, 0x01, three, 3), PL_STATUS_UNAVAILABLE);
  EXPECT_TRUE(FakeHost::hasTrace("i2cBlockReadCallback", 1));
}

TEST_F(SmbusTransport, FailureAnswersGiveStatusSixAfterOneAttempt) {
  pl_smbus* smbus = add("i2c3", 0x48);
  ASSERT_NE(smbus, nullptr);
  uint8_t byte = 0x77;
  EXPECT_EQ(proxyd->control("fault I2C/0/0/3/0x48 nak"), "ok");
  EXPECT_EQ(smbus->ops->read_byte(smbus, 0x00, &byte), PL_STATUS_INTERNAL);
  const auto entries = proxyd->lastTransaction();
  ASSERT_EQ(entries.size(), 1u);
  EXPECT_EQ(entries[0].attempt, 1u);  // the proxy object asks for no retries

  EXPECT_EQ(proxyd->control("fault I2C/0/0/3/0x48 fail thermal trip on 0x48"), "ok");
  EXPECT_EQ(smbus->ops->read_byte(smbus, 0x00, &byte), PL_STATUS_INTERNAL);
  EXPECT_EQ(byte, 0x77);
  auto lines = executeTraces();
  ASSERT_EQ(lines.size(), 2u);
  EXPECT_EQ(lines[0].rfind("execute: failure in response entry 0 (READ): no acknowledge", 0), 0u) << lines[0];
  EXPECT_EQ(lines[1], "execute: failure in response thermal trip on 0x48");
}

TEST_F(SmbusTransport, DaemonKilledMidTransactionThenRestartedWithoutReinit) {
  pl_smbus* smbus = add(kDeepDevice, 0);
  ASSERT_NE(smbus, nullptr);
  uint8_t byte = 0;
  ASSERT_EQ(smbus->ops->read_byte(smbus, 0x10, &byte), PL_STATUS_OK);

  // The answer is held back three seconds; the daemon dies while it waits.
  EXPECT_EQ(proxyd->control("fault SCD/0xff00/1/8/0x50 delay 3000"), "ok");
  std::thread killer([] {
    std::this_thread::sleep_for(std::chrono::milliseconds(300));
    proxyd->kill();
  });
  auto start = std::chrono::steady_clock::now();
  EXPECT_EQ(smbus->ops->read_byte(smbus, 0x10, &byte), PL_STATUS_UNAVAILABLE);
  EXPECT_LT(std::chrono::steady_clock::now() - start, std::chrono::milliseconds(2500));
  killer.join();
  EXPECT_EQ(smbus->ops->read_byte(smbus, 0x10, &byte), PL_STATUS_UNAVAILABLE);  // nobody listens
  auto lines = executeTraces();
  EXPECT_EQ(lines.size(), 2u);
  EXPECT_TRUE(!lines.empty() && std::regex_match(lines[0], std::regex("execute: error\\. \\d+, .+"))) << lines[0];

  proxyd->start();
  byte = 0;
  EXPECT_EQ(smbus->ops->read_byte(smbus, 0x10, &byte), PL_STATUS_OK);
  EXPECT_EQ(byte, 0x5A);
}

}  // namespace
