// The library frame: proxy socket set-up with its retry cycle, the common
// init sequence, and the once-only simulation decision.
#include <fcntl.h>
#include <unistd.h>

#include <cstdlib>

#include <gtest/gtest.h>

#include "FakeHost.h"
#include "Keldo.h"
#include "PlatformLibrary/PLSocket.h"
#include "Topology.h"

namespace {

int setupCalls = 0;
int setupSucceedsOnCall = 0;  // 0: never
unsigned int pauses = 0;
int openedFd = -1;

int scriptedSetup(PlatformLibrary::PLSocket* socket) {
  ++setupCalls;
  if (setupCalls == setupSucceedsOnCall) return 0;
  // A failed attempt may leave a descriptor and a host watcher behind.
  if (socket->fd_ < 0) socket->fd_ = openedFd = open("/dev/null", O_RDONLY);
  socket->watcher_ = 77;
  return -1;
}

unsigned int countingPause(unsigned int seconds) {
  pauses += seconds;
  return 0;
}

class SocketInit : public ::testing::Test {
 protected:
  void SetUp() override {
    FakeHost::reset();
    setupCalls = 0;
    setupSucceedsOnCall = 0;
    pauses = 0;
    Keldo::socketSetup = scriptedSetup;
    Keldo::pauseSeconds = countingPause;
  }
  void TearDown() override {
    delete _plSock;
    _plSock = nullptr;
  }
};

TEST_F(SocketInit, GivesUpAfterEveryAttemptFailedAndReleasesTheSocket) {
  EXPECT_EQ(plSockInit("pl_fan_init", 30), 4);
  EXPECT_EQ(setupCalls, 30);
  EXPECT_EQ(pauses, 30u);  // one second after every failure, the last one included
  EXPECT_EQ(_plSock, nullptr);
  EXPECT_EQ(FakeHost::countTrace("pl_fan_init: socket Setup failed!", 0), 1);
  ASSERT_EQ(FakeHost::deletedWatchers().size(), 1u);
  EXPECT_EQ(FakeHost::deletedWatchers()[0], 77u);
  EXPECT_EQ(fcntl(openedFd, F_GETFD), -1) << "descriptor of the discarded socket stays open";

  // Nothing is remembered: the next init runs the whole cycle again.
  EXPECT_EQ(plSockInit("pl_fan_init", 30), 4);
  EXPECT_EQ(setupCalls, 60);
}

TEST_F(SocketInit, StopsAtTheFirstSuccessAndKeepsTheSocket) {
  setupSucceedsOnCall = 3;
  EXPECT_EQ(plSockInit("pl_led_init", 30), 0);
  EXPECT_EQ(setupCalls, 3);
  EXPECT_EQ(pauses, 2u);
  ASSERT_NE(_plSock, nullptr);

  // Connected: later inits make no attempt and trace nothing.
  FakeHost::reset();
  EXPECT_EQ(plSockInit("pl_led_init", 30), 0);
  EXPECT_EQ(setupCalls, 3);
  EXPECT_TRUE(FakeHost::traces().empty());
}

TEST_F(SocketInit, NoAttemptsWithoutTries) {
  EXPECT_EQ(plSockInit("x", 0), 4);
  EXPECT_EQ(setupCalls, 0);
  EXPECT_EQ(_plSock, nullptr);
  EXPECT_TRUE(FakeHost::hasTrace("x: socket Setup failed!"));
}

TEST_F(SocketInit, InitTracesThenLoadsTopologyOnlyWhenConnected) {
  const char* json = R"([{"type": "I2C", "ham": "SimHam", "id": 1}])";
  EXPECT_EQ(keldoLibraryInit("pl_psu_init", json, 2), 4);
  ASSERT_GE(FakeHost::traces().size(), 2u);
  EXPECT_EQ(FakeHost::traces()[0].text, "pl_psu_init");
  EXPECT_EQ(FakeHost::traces()[0].level, 0);
  EXPECT_EQ(FakeHost::traces()[1].text, std::string("pl_psu_init: json = ") + json);
  EXPECT_EQ(FakeHost::traces()[1].level, 5);
  EXPECT_FALSE(FakeHost::hasTrace("loading topology json"));

  setupSucceedsOnCall = setupCalls + 1;
  EXPECT_EQ(keldoLibraryInit("pl_psu_init", json, 2), 0);
  EXPECT_TRUE(FakeHost::hasTrace("loading topology json", 2));
  EXPECT_EQ(keldoLibraryInit("pl_psu_init", "[", 2), 3);
  EXPECT_EQ(keldoLibraryInit("pl_psu_init", nullptr, 2), 3);
}

TEST(Simulation, DecidedOnceFromTheEnvironmentEvenWhenEmpty) {
  Utils::simulationMode = -1;
  setenv("SIMULATION_VMID", "", 1);
  EXPECT_TRUE(Utils::isInSimulation());
  unsetenv("SIMULATION_VMID");
  EXPECT_TRUE(Utils::isInSimulation()) << "the decision must not change once taken";

  Utils::simulationMode = -1;
  EXPECT_FALSE(Utils::isInSimulation());
  setenv("SIMULATION_VMID", "vm7", 1);
  EXPECT_FALSE(Utils::isInSimulation());
  unsetenv("SIMULATION_VMID");
  Utils::simulationMode = -1;
}

}  // namespace
