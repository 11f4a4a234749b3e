// LEDs: status texts, the set-light-setting callback, pl_led_add with its
// one blink timer, and the walk over the blink list on each tick.
#include <cstring>
#include <vector>

#include <gtest/gtest.h>

#include "HostObjectsSupport.h"

namespace {

using namespace HostObjectsTest;
using LD::Led;

TEST(LedStatus, Texts) {
  const char* texts[] = {"Off", "Good", "Warning", "Bad", "Inactive", "Unknown", "Beacon"};
  for (int s = 0; s < 7; ++s) {
    EXPECT_STREQ(texts[s], Led::getLedStatusString(static_cast<pl_led_status>(s)));
  }
}

TEST(LedStatusDeathTest, OutOfRangeStops) {
  const char* text = "Assertion `\\( unsigned \\)status < sizeof \\( strs \\) / sizeof \\( \\*strs \\)' failed";
  EXPECT_DEATH(Led::getLedStatusString(static_cast<pl_led_status>(7)), text);
  EXPECT_DEATH(Led::getLedStatusString(static_cast<pl_led_status>(-1)), text);
}

TEST(LedCallback, ForwardsAndTraces) {
  FakeHost::reset();
  TestLed led;
  pl_led* handle = led.handle();
  EXPECT_EQ(42, handle->ops->set_light_setting(handle, PL_LED_BEACON));
  EXPECT_EQ("setLightSetting 6", led.call);
  EXPECT_EQ(4, FakeHost::traceLevel("setLightSettingCallback(" + pointerText(handle) + ", 6)"));
}

// A blinking LED that logs each notification (its name and the phase) and
// answers `stays`.
struct BlinkLog {
  std::string names;
  std::vector<bool> phases;
};

class BlinkingLed : public TestLed {
 public:
  BlinkingLed(char name, BlinkLog& log) : TestLed(true), name_(name), log_(log) {}
  bool handleBlinkTimer(bool on) override {
    log_.names += name_;
    log_.phases.push_back(on);
    return stays;
  }
  bool stays = true;

 private:
  char name_;
  BlinkLog& log_;
};

class Blink : public ::testing::Test {
 protected:
  void SetUp() override {
    FakeHost::reset();
    Led::notifyList_.clear();
    Led::blinkStatus_ = false;
    Led::blinkTimer_ = 0;
  }
  void TearDown() override {
    Led::notifyList_.clear();
    Led::blinkTimer_ = 0;
  }
  std::string listNames() {
    std::string names;
    for (Led* led : Led::notifyList_) {
      names += static_cast<char>('A' + (static_cast<BlinkingLed*>(led) - leds_));
    }
    return names;
  }

  BlinkLog log_;
  BlinkingLed leds_[3] = {{'A', log_}, {'B', log_}, {'C', log_}};
};

TEST_F(Blink, TickSteppingOutcomes) {
  struct Case {
    const char* list;
    const char* leaving;  // the LEDs that answer false
    const char* notified;
    const char* remaining;
  } cases[] = {
      {"ABC", "", "ABC", "ABC"},
      {"AB", "A", "A", "B"},          // B follows the removed A and sits this tick out
      {"A", "A", "A", ""},            // empty afterwards: no re-arm
      {"ABC", "C", "ABCAB", "AB"},    // removing the last wraps round to the first
      {"ABC", "B", "AB", "AC"},       // C follows the removed B
      {"ABC", "AC", "ACB", "B"},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(std::string(c.list) + " leaving " + c.leaving);
    SetUp();
    Led::createBlinkTimer();
    for (BlinkingLed& led : leds_) led.stays = true;
    for (const char* l = c.leaving; *l; ++l) leds_[*l - 'A'].stays = false;
    for (const char* l = c.list; *l; ++l) Led::notifyOnBlink(&leds_[*l - 'A']);
    const bool phase = Led::blinkStatus_;
    log_ = {};
    FakeHost::reset();

    FakeHost::fire(Led::blinkTimer_);

    EXPECT_EQ(c.notified, log_.names);
    EXPECT_EQ(std::vector<bool>(log_.names.size(), phase), log_.phases);
    EXPECT_EQ(c.remaining, listNames());
    EXPECT_NE(phase, Led::blinkStatus_);
    const bool rearmed = *c.remaining != '\0';
    ASSERT_EQ(rearmed ? 1u : 0u, FakeHost::timerSets().size());
    if (rearmed) {
      EXPECT_EQ(Led::blinkTimer_, FakeHost::timerSets()[0].timer);
      EXPECT_EQ(1000u, FakeHost::timerSets()[0].interval);
    }
    EXPECT_EQ(4, FakeHost::traceLevel("handleBlinkTimerCallback() led blink timer hit notifying " +
                                      std::to_string(strlen(c.list)) + " leds"));
  }
}

TEST_F(Blink, FirstNotificationArmsAndPhasesAlternate) {
  Led::createBlinkTimer();
  FakeHost::reset();
  Led::notifyOnBlink(&leds_[0]);
  Led::notifyOnBlink(&leds_[1]);
  Led::notifyOnBlink(&leds_[0]);  // not checked for duplicates
  ASSERT_EQ(1u, FakeHost::timerSets().size());
  EXPECT_EQ(1000u, FakeHost::timerSets()[0].interval);
  EXPECT_EQ(3, FakeHost::countTrace("notifyOnBlink() adding led to blink notification list", 4));

  FakeHost::fire(Led::blinkTimer_);
  FakeHost::fire(Led::blinkTimer_);
  EXPECT_EQ("ABAABA", log_.names);
  EXPECT_EQ((std::vector<bool>{false, false, false, true, true, true}), log_.phases);
}

TEST_F(Blink, OneTimerForTheWholeProcess) {
  TestDevice first, second;
  Registered r1(9101, &first), r2(9102, &second);
  TestLed steady;
  BlinkingLed blinkA('A', log_), blinkB('B', log_);
  const size_t timersBefore = FakeHost::timerCount();

  first.led = &steady;
  EXPECT_EQ(steady.handle(), FakeHost::keep(pl_led_add(objectJson(9101).c_str())));
  EXPECT_EQ(0u, Led::blinkTimer_);

  first.led = &blinkA;
  second.led = &blinkB;
  EXPECT_EQ(blinkA.handle(), FakeHost::keep(pl_led_add(objectJson(9101).c_str())));
  EXPECT_EQ(blinkB.handle(), FakeHost::keep(pl_led_add(objectJson(9102).c_str())));

  EXPECT_EQ(1, FakeHost::countTrace("creating unique led blink timer", 0));
  EXPECT_EQ(timersBefore + 1, FakeHost::timerCount());
  ASSERT_NE(0u, Led::blinkTimer_);
  const FakeHost::Timer& timer = FakeHost::timer(Led::blinkTimer_);
  EXPECT_EQ(&Led::handleBlinkTimerCallback, timer.callback);
  EXPECT_EQ(nullptr, timer.context);
  EXPECT_FALSE(timer.armed);  // created, armed only by the first notification
}

TEST_F(Blink, AddFailures) {
  TestDevice device;
  Registered registered(9103, &device);
  EXPECT_EQ(nullptr, pl_led_add("{not json"));
  EXPECT_EQ(0, FakeHost::traceLevel("DeviceBase::create() failed"));
  EXPECT_FALSE(FakeHost::hasTrace("newLed() failed"));

  FakeHost::reset();
  EXPECT_EQ(nullptr, pl_led_add(objectJson(9103).c_str()));
  EXPECT_EQ(1, device.factoryCalls);
  EXPECT_EQ(0, FakeHost::traceLevel("newLed() failed"));
  EXPECT_FALSE(FakeHost::hasTrace("DeviceBase::create() failed"));
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
