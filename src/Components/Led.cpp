#include "Components/Led.h"

#include <iterator>

#include "KeldoUtil/Assert.h"

namespace Component {
namespace LogicalDevice {

const pl_led_ops Led::ops_ = {sizeof(pl_led_ops), &Led::setLightSettingCallback};

unsigned int Led::blinkPeriod_ = 1000;
pl_timer_handle Led::blinkTimer_ = 0;
bool Led::blinkStatus_ = false;
std::list<Led*> Led::notifyList_;

// The host word belongs to the host; it starts zeroed and is never touched again.
Led::Led() : led_{nullptr, &ops_, this} {}

bool Led::handleBlinkTimer(bool) { return false; }

pl_status Led::setLightSettingCallback(pl_led* led, pl_led_status status) {
  pl_trace(4, "%s(%p, %d)", "setLightSettingCallback", static_cast<void*>(led), static_cast<int>(status));
  return ownerOf<Led>(led)->setLightSetting(status);
}

const char* Led::getLedStatusString(pl_led_status status) {
  static const char* const strs[] = {"Off", "Good", "Warning", "Bad", "Inactive", "Unknown", "Beacon"};
  KELDO_ASSERT(( unsigned )status < sizeof ( strs ) / sizeof ( *strs ));
  return strs[status];
}

void Led::createBlinkTimer() {
  if (blinkTimer_ != 0) {
    return;
  }
  pl_trace(0, "creating unique led blink timer");
  blinkTimer_ = pl_timer_add(&Led::handleBlinkTimerCallback, nullptr);
  if (blinkTimer_ == 0) {
    pl_trace(0, "failed to create blink timer");
  }
  KELDO_ASSERT(blinkTimer_);
}

void Led::notifyOnBlink(Led* led) {
  pl_trace(4, "%s() adding led to blink notification list", "notifyOnBlink");
  KELDO_ASSERT(blinkTimer_);
  notifyList_.push_back(led);
  // A longer list means the timer is already running.
  if (notifyList_.size() == 1) {
    pl_timer_set(blinkTimer_, blinkPeriod_);
  }
}

void Led::handleBlinkTimerCallback(void*) {
  pl_trace(4, "%s() led blink timer hit notifying %zu leds", "handleBlinkTimerCallback", notifyList_.size());
  // After a removal the walk steps once more, as on a circular list with a
  // head node: the LED behind the removed one sits this tick out, and removing
  // the last LED wraps round to the first, so the LEDs before it are notified
  // a second time with the same phase. Every wrap follows a removal, so the
  // walk ends.
  auto it = notifyList_.begin();
  while (it != notifyList_.end()) {
    if ((*it)->handleBlinkTimer(blinkStatus_)) {
      ++it;
      continue;
    }
    it = notifyList_.erase(it);
    it = (it == notifyList_.end()) ? notifyList_.begin() : std::next(it);
  }
  // A timer fires once per arming; an empty list leaves it idle until the
  // next notifyOnBlink.
  if (!notifyList_.empty()) {
    pl_timer_set(blinkTimer_, blinkPeriod_);
  }
  blinkStatus_ = !blinkStatus_;
}

}  // namespace LogicalDevice
}  // namespace Component

extern "C" pl_led* pl_led_add(const char* objectJson) {
  using namespace Component::LogicalDevice;
  static const AddTraces traces = {"newLed() failed", 0, false};
  auto newLed = [](Component::DeviceBase& device, const Component::FactoryArgs& args) { return device.newLed(args); };
  Led* led = addLogicalDevice(fromObject(objectJson), traces, newLed);
  if (led == nullptr) {
    return nullptr;
  }
  if (led->canBlink()) {
    Led::createBlinkTimer();
  }
  return led->handle();
}
