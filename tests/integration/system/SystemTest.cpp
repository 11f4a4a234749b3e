// The plug-in loaded through dlopen the way the host loads it: init entries
// against a real listening socket and against none, the system object's
// operations through its callback table, and the exported symbol set.
#include <dlfcn.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <set>
#include <string>

#include <gtest/gtest.h>

#include "FakeHost.h"
#include "Plugin.h"
#include "ProxyStub.h"
#include "TempDir.h"
#include "keldo/pl_host.h"

// The executable exports these, so the plug-in's calls bind here: the test
// counts the proxy connection attempts and the pauses between them without
// waiting thirty seconds.
namespace {
int proxyConnects = 0;
int sleeps = 0;
}  // namespace

extern "C" unsigned int sleep(unsigned int) {
  ++sleeps;
  return 0;
}

extern "C" int connect(int fd, const struct sockaddr* addr, socklen_t len) {
  using Connect = int (*)(int, const struct sockaddr*, socklen_t);
  static Connect real = reinterpret_cast<Connect>(dlsym(RTLD_NEXT, "connect"));
  if (addr != nullptr && addr->sa_family == AF_UNIX) ++proxyConnects;
  return real(fd, addr, len);
}

namespace {

using InitFn = pl_status (*)(const char*);

const char* kTopology = R"([{"type": "I2C", "ham": "SimHam", "id": 1, "label": "bus1",
                            "devices": [{"did": 16, "label": "sensor1"}]}])";

Plugin& plugin() {
  static Plugin* p = new Plugin(KELDO_PLUGIN);
  return *p;
}

void* socketPointer() { return *plugin().sym<void**>("_plSock"); }

TEST(PluginInit, ProxySocketLifecycle) {
  auto systemInit = plugin().sym<InitFn>("pl_system_init");
  auto ledInit = plugin().sym<InitFn>("pl_led_init");
  setenv("KELDO_SMBUS_SOCKET", "/nonexistent/keldo-test.sock", 1);

  // Proxy absent: thirty attempts, a pause after each, one trace, no socket.
  FakeHost::reset();
  EXPECT_EQ(systemInit(kTopology), 4);
  EXPECT_EQ(proxyConnects, 30);
  EXPECT_EQ(sleeps, 30);
  EXPECT_EQ(FakeHost::countTrace("pl_system_init: socket Setup failed!", 0), 1);
  EXPECT_EQ(socketPointer(), nullptr);
  EXPECT_FALSE(FakeHost::hasTrace("loading topology json"));

  // Proxy listening: one attempt, topology loaded.
  ProxyStub proxy;
  FakeHost::reset();
  EXPECT_EQ(systemInit(kTopology), 0);
  EXPECT_EQ(proxyConnects, 31);
  EXPECT_NE(socketPointer(), nullptr);
  EXPECT_EQ(FakeHost::traceLevel("pl_system_init"), 0);
  EXPECT_TRUE(FakeHost::hasTrace("loading topology json", 2));

  // Later inits keep the socket.
  EXPECT_EQ(ledInit(kTopology), 0);
  EXPECT_EQ(proxyConnects, 31);
}

// A stand-in ipmitool on PATH that records its arguments and exits with the
// status found in FAKE_IPMITOOL_EXIT.
class SystemObject : public ::testing::Test {
 protected:
  void SetUp() override {
    writeFile(dir_.file("ipmitool"),
              "#!/bin/sh\necho \"$@\" >> \"" + dir_.file("calls") + "\"\nexit ${FAKE_IPMITOOL_EXIT:-0}\n");
    chmod(dir_.file("ipmitool").c_str(), 0755);
    oldPath_ = std::getenv("PATH");
    setenv("PATH", (dir_.path() + ":" + oldPath_).c_str(), 1);
    FakeHost::reset();
  }
  void TearDown() override {
    setenv("PATH", oldPath_.c_str(), 1);
    unsetenv("FAKE_IPMITOOL_EXIT");
  }
  pl_system* add(const char* json) {
    return FakeHost::keep(plugin().sym<pl_system* (*)(const char*)>("pl_system_add")(json));
  }

  TempDir dir_;
  std::string oldPath_;
};

TEST_F(SystemObject, TwoObjectsShareOneTable) {
  pl_system* a = add("{}");
  pl_system* b = add("{\"anything\": 1}");
  ASSERT_NE(a, nullptr);
  EXPECT_NE(a, b);
  EXPECT_EQ(a->ops, b->ops);
  EXPECT_EQ(a->host, nullptr);
  EXPECT_EQ(a->ops->size, sizeof(pl_system_ops));
  EXPECT_EQ(a->ops->reserved, nullptr);
  EXPECT_TRUE(FakeHost::hasTrace("ZantYSystem::pl_system_add( '{}' )", 0));
}

TEST_F(SystemObject, PowerOperationsRunIpmitool) {
  pl_system* sys = add("{}");
  EXPECT_EQ(sys->ops->poweroff(sys), 0);
  EXPECT_EQ(sys->ops->powercycle(sys), 0);
  EXPECT_EQ(readFile(dir_.file("calls")), "chassis power off\nchassis power cycle\n");
  EXPECT_FALSE(FakeHost::hasTrace("ipmitool chassis power off error"));

  setenv("FAKE_IPMITOOL_EXIT", "1", 1);
  EXPECT_EQ(sys->ops->poweroff(sys), 6);
  EXPECT_EQ(sys->ops->powercycle(sys), 6);
  EXPECT_EQ(FakeHost::countTrace("ipmitool chassis power off error", 0), 1);
  EXPECT_EQ(FakeHost::countTrace("ipmitool chassis power cycle error", 0), 1);
}

TEST_F(SystemObject, ReloadCauseIsNotProvidedAndWritesNothing) {
  pl_system* sys = add("{}");
  char cause[100] = "untouched";
  char description[500] = "untouched";
  long when = 42;
  EXPECT_EQ(sys->ops->get_reload_cause(sys, &cause, &when, &description), 5);
  EXPECT_STREQ(cause, "untouched");
  EXPECT_STREQ(description, "untouched");
  EXPECT_EQ(when, 42);
  EXPECT_EQ(sys->ops->get_reload_cause(nullptr, nullptr, nullptr, nullptr), 5);
}

// The host resolves exactly these names (plus the two SMBus access-method
// constructors for users that address a bus directly); everything else,
// including the statically linked proxy client and messages, stays hidden.
TEST(PluginSymbols, ExportsExactlyTheHostEntryPoints) {
  std::string command = std::string("nm -D --defined-only ") + KELDO_PLUGIN;
  FILE* pipe = popen(command.c_str(), "r");
  ASSERT_NE(pipe, nullptr);
  std::set<std::string> names;
  char line[1024];
  while (fgets(line, sizeof line, pipe) != nullptr) {
    char type = 0;
    char name[1000];
    if (sscanf(line, "%*s %c %999s", &type, name) == 2) {
      names.insert(name);
    }
  }
  ASSERT_EQ(pclose(pipe), 0);

  const std::set<std::string> expected = {
      "_plSock",
      "pl_system_init", "pl_slot_init", "pl_led_init", "pl_temp_sensor_init", "pl_fan_init",
      "pl_xcvr_init", "pl_psu_init", "pl_gpio_init", "pl_smbus_init",
      "pl_system_add", "pl_slot_add", "pl_led_add", "pl_temp_sensor_add", "pl_fan_add",
      "pl_xcvr_add", "pl_psu_add", "pl_gpio_add", "pl_smbus_add",
      "_Z18pl_system_poweroffP9pl_system",
      "_Z20pl_system_powercycleP9pl_system",
      "_Z26pl_system_get_reload_causeP9pl_systemPA100_cPlPA500_c",
      "_ZN3Ham13KeldoSmbusHam11createOnBusERKN8Topology8TopologyEPKNS1_3BusEh",
      "_ZN3Ham13KeldoSmbusHam17createFromAddressERKN8Topology11AhamAddressEPKNS1_10PCIAddressE",
  };
  EXPECT_EQ(names, expected);
}

}  // namespace
