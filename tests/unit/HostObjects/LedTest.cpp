// LEDs: status texts, the one blink timer, and the walk over the blink list.
#include <gtest/gtest.h>

#include "HostObjectsSupport.h"

namespace {

using namespace HostObjectsTest;
using LD::Led;
using ::testing::_;
using ::testing::Invoke;
using ::testing::Return;

TEST(LedDeathTest, StatusTexts) {
  const char* texts[] = {"Off", "Good", "Warning", "Bad", "Inactive", "Unknown", "Beacon"};
  for (int s = 0; s < 7; ++s) EXPECT_STREQ(texts[s], Led::getLedStatusString(pl_led_status(s)));
  EXPECT_DEATH(Led::getLedStatusString(pl_led_status(7)),
               "Assertion `\\( unsigned \\)status < sizeof \\( strs \\) / sizeof \\( \\*strs \\)' failed");
}

class Blink : public ::testing::Test {
 protected:
  void SetUp() override {
    Led::notifyList_.clear();
    Led::blinkStatus_ = false;
    Led::blinkTimer_ = 0;
    FakeHost::reset();
  }
  void TearDown() override { SetUp(); }

  using Blinker = ::testing::NiceMock<MockLed>;
  Blinker leds_[3] = {Blinker(true), Blinker(true), Blinker(true)};
};

TEST_F(Blink, TickSteppingOutcomes) {
  struct Case {
    const char* list;
    const char* leaving;  // these answer false
    const char* notified;
    const char* remaining;
  } cases[] = {
      {"ABC", "", "ABC", "ABC"},
      {"AB", "A", "A", "B"},        // B follows the removed A: skipped this tick
      {"A", "A", "A", ""},          // empty afterwards: not re-armed
      {"ABC", "C", "ABCAB", "AB"},  // removing the last wraps round to the first
      {"ABC", "B", "AB", "AC"},
      {"ABC", "AC", "ACB", "B"},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(std::string(c.list) + " leaving " + c.leaving);
    SetUp();
    Led::createBlinkTimer();
    std::string notified;
    const bool phase = Led::blinkStatus_;
    for (int i = 0; i < 3; ++i) {
      const bool stays = std::string(c.leaving).find(char('A' + i)) == std::string::npos;
      ON_CALL(leds_[i], handleBlinkTimer(phase)).WillByDefault(Invoke([&notified, i, stays](bool) {
        notified += char('A' + i);
        return stays;
      }));
    }
    for (const char* l = c.list; *l; ++l) Led::notifyOnBlink(&leds_[*l - 'A']);
    ASSERT_EQ(1u, FakeHost::timerSets().size());  // only the first notification arms

    FakeHost::fire(Led::blinkTimer_);

    EXPECT_EQ(c.notified, notified);
    std::string remaining;
    for (Led* led : Led::notifyList_) remaining += char('A' + (static_cast<Blinker*>(led) - leds_));
    EXPECT_EQ(c.remaining, remaining);
    EXPECT_NE(phase, Led::blinkStatus_);
    EXPECT_EQ(*c.remaining ? 2u : 1u, FakeHost::timerSets().size());
    EXPECT_EQ(1000u, FakeHost::timerSets().back().interval);
    EXPECT_EQ(4, FakeHost::traceLevel("handleBlinkTimerCallback() led blink timer hit notifying " +
                                      std::to_string(std::string(c.list).size()) + " leds"));
  }
}

TEST_F(Blink, AddsShareOneTimer) {
  ::testing::NiceMock<MockDevice> device;
  Registered registered(9101, &device);
  MockLed steady;
  EXPECT_CALL(device, newLed(_))
      .WillOnce(Return(&steady))
      .WillOnce(Return(&leds_[0]))
      .WillOnce(Return(&leds_[1]))
      .WillOnce(Return(nullptr));
  const std::string json = objectJson(9101);
  const size_t timers = FakeHost::timerCount();

  EXPECT_EQ(steady.handle(), FakeHost::keep(pl_led_add(json.c_str())));
  EXPECT_EQ(0u, Led::blinkTimer_);
  EXPECT_EQ(leds_[0].handle(), FakeHost::keep(pl_led_add(json.c_str())));
  EXPECT_EQ(leds_[1].handle(), FakeHost::keep(pl_led_add(json.c_str())));
  EXPECT_EQ(1, FakeHost::countTrace("creating unique led blink timer", 0));
  EXPECT_EQ(timers + 1, FakeHost::timerCount());
  EXPECT_EQ(&Led::handleBlinkTimerCallback, FakeHost::timer(Led::blinkTimer_).callback);
  EXPECT_FALSE(FakeHost::timer(Led::blinkTimer_).armed);

  EXPECT_EQ(nullptr, pl_led_add(json.c_str()));
  EXPECT_EQ(0, FakeHost::traceLevel("newLed() failed"));

  EXPECT_CALL(leds_[2], setLightSetting(PL_LED_BEACON)).WillOnce(Return(17));
  pl_led* handle = leds_[2].handle();
  EXPECT_EQ(17, handle->ops->set_light_setting(handle, PL_LED_BEACON));
  EXPECT_EQ(4, FakeHost::traceLevel("setLightSettingCallback(" + pointerText(handle) + ", 6)"));
}

TEST_F(Blink, TimerMisuseStops) {
  EXPECT_DEATH(Led::notifyOnBlink(&leds_[0]), "Assertion `blinkTimer_' failed");
  EXPECT_DEATH(
      {
        dumpTracesOnAbort();
        FakeHost::failNextTimerAdd();
        Led::createBlinkTimer();
      },
      "Assertion `blinkTimer_' failed.*\\[trace 0\\] failed to create blink timer");
}

}  // namespace
