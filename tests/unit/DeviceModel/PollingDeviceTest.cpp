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

size_t setsOf(pl_timer_handle timer, uint32_t interval) {
  size_t n = 0;
  for (const auto& set : FakeHost::timerSets()) n += set.timer == timer && set.interval == interval;
  return n;
}

class PollingDeviceTest : public ::testing::Test {
 protected:
  void SetUp() override { FakeHost::reset(); }
};

TEST_F(PollingDeviceTest, ConstructionCreatesATimerThatPollsThisDevice) {
  Poller poller(1000);
  EXPECT_TRUE(FakeHost::hasTrace("creating timer", 0));
  FakeHost::Timer& timer = FakeHost::timer(poller.timer());
  EXPECT_EQ(timer.context, static_cast<void*>(static_cast<PollingDevice<HardwareDevice>*>(&poller)));
  EXPECT_FALSE(timer.armed);
  FakeHost::fire(poller.timer());
  EXPECT_EQ(poller.polls, 1);
}

TEST_F(PollingDeviceTest, PollStartArmsOnlyOnce) {
  Poller poller(1000);
  EXPECT_TRUE(poller.pollStart());
  EXPECT_TRUE(poller.pollStart());
  EXPECT_EQ(FakeHost::timerSets().size(), 1u);
  EXPECT_EQ(setsOf(poller.timer(), 1000), 1u);
  EXPECT_EQ(FakeHost::countTrace("setting polling interval to 1000ms", 0), 1);
  EXPECT_EQ(poller.polls, 0);
}

TEST_F(PollingDeviceTest, HandlerRearmsAfterEveryPollWithTheCurrentInterval) {
  Poller poller(1000);
  ASSERT_TRUE(poller.pollStart());
  for (int i = 0; i < 3; ++i) {
    FakeHost::fire(poller.timer());
    EXPECT_TRUE(FakeHost::timer(poller.timer()).armed);
  }
  EXPECT_EQ(poller.polls, 3);
  EXPECT_EQ(setsOf(poller.timer(), 1000), 4u);
  EXPECT_EQ(FakeHost::countTrace("pollCallbackWrapper", 6), 3);

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

TEST_F(PollingDeviceTest, DestructionDeletesTheTimer) {
  pl_timer_handle timer;
  {
    Poller poller(1000);
    timer = poller.timer();
    EXPECT_FALSE(FakeHost::timer(timer).deleted);
  }
  EXPECT_TRUE(FakeHost::timer(timer).deleted);
  EXPECT_TRUE(FakeHost::hasTrace("destroying timer", 0));
}

}  // namespace
