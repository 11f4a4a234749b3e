// The host-timer protocol of polling devices: one timer per device, armed
// once by pollStart() and re-armed by the handler after every poll.
#include "DeviceModelSupport.h"

using Component::HardwareDevice;
using Component::PollingDevice;

namespace {

class Poller : public PollingDevice<HardwareDevice> {
 public:
  explicit Poller(unsigned int intervalMs) { pollInterval_ = intervalMs; }
  void pollCallback() override { ++polls; }
  void intervalIs(unsigned int intervalMs) { pollInterval_ = intervalMs; }
  pl_timer_handle timer() const { return pollTimer_; }
  int polls = 0;
};

class PollingDeviceTest : public ::testing::Test {
 protected:
  void SetUp() override { FakeHost::reset(); }
};

TEST_F(PollingDeviceTest, TimerPollsThisDeviceAndDiesWithIt) {
  pl_timer_handle timer;
  {
    Poller poller(1000);
    timer = poller.timer();
    EXPECT_TRUE(FakeHost::hasTrace("creating timer", 0));
    EXPECT_EQ(FakeHost::timer(timer).context, static_cast<PollingDevice<HardwareDevice>*>(&poller));
    EXPECT_FALSE(FakeHost::timer(timer).armed);
    FakeHost::fire(timer);
    EXPECT_EQ(poller.polls, 1);
    EXPECT_FALSE(FakeHost::timer(timer).deleted);
  }
  EXPECT_TRUE(FakeHost::timer(timer).deleted);
  EXPECT_TRUE(FakeHost::hasTrace("destroying timer", 0));
}

TEST_F(PollingDeviceTest, StartArmsOnceAndEveryPollRearms) {
  Poller poller(1000);
  EXPECT_TRUE(poller.pollStart());
  EXPECT_TRUE(poller.pollStart());
  EXPECT_EQ(FakeHost::timerSets().size(), 1u);
  EXPECT_EQ(FakeHost::countTrace("setting polling interval to 1000ms", 0), 1);

  for (int i = 0; i < 3; ++i) {
    FakeHost::fire(poller.timer());
    EXPECT_TRUE(FakeHost::timer(poller.timer()).armed);
  }
  EXPECT_EQ(poller.polls, 3);
  EXPECT_EQ(FakeHost::countTrace("pollCallbackWrapper", 6), 3);
  ASSERT_EQ(FakeHost::timerSets().size(), 4u);
  for (const auto& set : FakeHost::timerSets()) {
    EXPECT_EQ(set.timer, poller.timer());
    EXPECT_EQ(set.interval, 1000u);
  }

  poller.intervalIs(5000);
  FakeHost::fire(poller.timer());
  EXPECT_EQ(FakeHost::timerSets().back().interval, 5000u);
}

TEST_F(PollingDeviceTest, FailedArmingIsReportedAndRetriedByTheNextStart) {
  Poller poller(1000);
  FakeHost::failTimerSet(true);
  EXPECT_FALSE(poller.pollStart());
  FakeHost::fire(poller.timer());
  EXPECT_EQ(poller.polls, 1);
  EXPECT_EQ(FakeHost::countTrace("failed to set timer interval", 0), 2);

  FakeHost::failTimerSet(false);
  EXPECT_TRUE(poller.pollStart());
  EXPECT_EQ(FakeHost::timerSets().size(), 3u);

  // A successful re-arm from the handler counts as started, too.
  Poller other(1000);
  FakeHost::fire(other.timer());
  const size_t sets = FakeHost::timerSets().size();
  EXPECT_TRUE(other.pollStart());
  EXPECT_EQ(FakeHost::timerSets().size(), sets);
}

}  // namespace
