#pragma once
// LEDs as the host sees them, and the one blink timer that every blinking LED
// of the process shares.
#include <list>
#include <utility>

#include "Components/HardwareDevice.h"
#include "Components/LogicalDevice.h"
#include "keldo/pl_host.h"

namespace Component {
namespace LogicalDevice {

class Led {
 public:
  Led();
  virtual ~Led() = default;
  Led(const Led&) = delete;
  Led& operator=(const Led&) = delete;

  // Called on every blink tick with the phase to show. True keeps the LED on
  // the notification list; an LED that never blinks has nothing to show.
  virtual bool handleBlinkTimer(bool on);
  virtual pl_status setLightSetting(pl_led_status status) = 0;

  pl_led* handle() { return &led_; }
  bool canBlink() const { return canBlink_; }

  static pl_status setLightSettingCallback(pl_led* led, pl_led_status status);
  static const char* getLedStatusString(pl_led_status status);

  // The blink machinery. One host timer serves every LED of the process: a
  // driver calls notifyOnBlink(this) when its LED starts blinking, and the
  // LED leaves the list by answering false from handleBlinkTimer.
  static void createBlinkTimer();
  static void notifyOnBlink(Led* led);
  static void handleBlinkTimerCallback(void* context);

  static const pl_led_ops ops_;
  static unsigned int blinkPeriod_;  // milliseconds
  static pl_timer_handle blinkTimer_;  // 0 until created
  static bool blinkStatus_;          // the phase handed out on the next tick
  // In insertion order; drivers that stop blinking on their own remove
  // their entries here.
  static std::list<Led*> notifyList_;

 protected:
  pl_led led_;
  bool canBlink_ = false;  // set by a driver whose LED can show a blinking status
};

}  // namespace LogicalDevice
}  // namespace Component
