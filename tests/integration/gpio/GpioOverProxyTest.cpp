// A GPIO line on a "GpioDriver" register block, driven through its callback
// table by the real plug-in over the reference proxy daemon; the emulated
// register is read back through the daemon's control socket.
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <cstring>
#include <string>

#include <gtest/gtest.h>

#include "ChildProcess.h"
#include "FakeHost.h"
#include "Plugin.h"
#include "TempDir.h"
#include "keldo/pl_host.h"

namespace {

const char* kEmulation = R"({"buses": [{"master": "I2C", "bus": 3,
    "devices": [{"address": "0x3e", "registers": {"0x10": "0x81"}}]}]})";
const char* kTopology = R"([{"type": "I2C", "ham": "KeldoSmbus", "id": 3, "devices": [
    {"did": 62, "uid": 62, "driver": "GpioDriver", "address": {"address": 62}, "components": [{"uid": 62}]}]}])";
const char* kGpio = R"({"did": 62, "uid": 62, "driver": "GpioDriver", "address": {"address": 62},
    "driverArgs": {"register": 16, "bitpos": 7}})";

// One command line on the daemon's control socket; returns its answer line.
std::string control(const std::string& path, const std::string& command) {
  int fd = socket(AF_UNIX, SOCK_STREAM, 0);
  sockaddr_un addr{};
  addr.sun_family = AF_UNIX;
  std::strncpy(addr.sun_path, path.c_str(), sizeof addr.sun_path - 1);
  if (connect(fd, reinterpret_cast<sockaddr*>(&addr), sizeof addr) != 0) {
    close(fd);
    return "connect failed";
  }
  std::string line = command + "\n";
  (void)!write(fd, line.data(), line.size());
  std::string answer;
  char c;
  while (read(fd, &c, 1) == 1 && c != '\n') answer += c;
  close(fd);
  return answer;
}

TEST(GpioOverProxy, BitFlipsReachTheRegisterAndKeepTheOtherBits) {
  TempDir run;
  writeFile(run.file("emulation.json"), kEmulation);
  const std::string socket = run.file("proxy.sock");
  ChildProcess daemon({KELDO_PROXYD, "--emulation", run.file("emulation.json"), "--socket", socket}, {},
                      run.file("daemon.out"));
  ASSERT_TRUE(waitForPath(socket)) << readFile(run.file("daemon.out"));
  setenv("KELDO_SMBUS_SOCKET", socket.c_str(), 1);

  Plugin plugin(KELDO_PLUGIN);
  ASSERT_EQ(plugin.sym<pl_status (*)(const char*)>("pl_gpio_init")(kTopology), 0);
  pl_gpio* gpio = FakeHost::keep(plugin.sym<pl_gpio* (*)(const char*)>("pl_gpio_add")(kGpio));
  ASSERT_NE(gpio, nullptr);
  ASSERT_EQ(gpio->ops->size, sizeof(pl_gpio_ops));

  const std::string peek = "peek I2C/0/0/3/0x3e 0x10";
  unsigned int bit = 9;
  EXPECT_EQ(gpio->ops->bit_read(gpio, &bit), 0);
  EXPECT_EQ(bit, 1u);
  EXPECT_EQ(gpio->ops->bit_clear(gpio), 0);
  EXPECT_EQ(control(socket + ".ctl", peek), "ok 0x01");
  EXPECT_EQ(gpio->ops->bit_read(gpio, &bit), 0);
  EXPECT_EQ(bit, 0u);
  EXPECT_EQ(gpio->ops->bit_set(gpio), 0);
  EXPECT_EQ(control(socket + ".ctl", peek), "ok 0x81");

  // A device that stops answering: the failure comes back as a status and
  // the register is not written.
  ASSERT_EQ(control(socket + ".ctl", "fault I2C/0/0/3/0x3e nak"), "ok");
  EXPECT_EQ(gpio->ops->bit_clear(gpio), 6);
  ASSERT_EQ(control(socket + ".ctl", "clear all"), "ok");
  EXPECT_EQ(control(socket + ".ctl", peek), "ok 0x81");
}

}  // namespace
