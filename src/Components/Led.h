#pragma once
// LEDs as the host sees them, the one blink timer that every blinking LED of
// the process shares, and the add sequence that every host object kind
// follows (create or reuse the device, ask it for the logical device, hand
// the host the C object embedded in it).
#include <list>
#include <utility>

#include "Components/HardwareDevice.h"
#include "keldo/pl_host.h"

namespace Component {
namespace LogicalDevice {

// What an add entry point says when it gives the host a null handle. Kinds
// differ only in the factory's name, the level, and whether they speak at all.
struct AddTraces {
  const char* factoryFailed;  // e.g. "newLed() failed"
  int level;                  // level of both failure traces
  bool silent;                // true: fail without any trace of our own
};

// Passes `device` through; a null one is reported as a failed creation.
DeviceBase* deviceForAdd(DeviceBase* device, const AddTraces& traces);
void traceFactoryFailed(const AddTraces& traces);

// Passes the factory's result through; a null one is reported.
template <typename Logical>
Logical* madeForAdd(Logical* made, const AddTraces& traces) {
  if (made == nullptr) {
    traceFactoryFailed(traces);
  }
  return made;
}

// Create or reuse the device named by the object JSON and build the logical
// device with `factory(device, args)`. Null when either step fails.
template <typename Factory>
auto addLogicalDevice(const char* objectJson, const AddTraces& traces, Factory factory)
    -> decltype(factory(std::declval<DeviceBase&>(), std::declval<const FactoryArgs&>())) {
  Drivers::DriverArgs args;
  DeviceBase* device = deviceForAdd(DeviceBase::create(objectJson, args), traces);
  if (device == nullptr) {
    return nullptr;
  }
  return madeForAdd(factory(*device, args), traces);
}

// The owner member of an embedded C object is the logical device itself.
template <typename Logical, typename Handle>
Logical* ownerOf(Handle* handle) {
  return static_cast<Logical*>(handle->owner);
}
template <typename Logical, typename Handle>
const Logical* ownerOf(const Handle* handle) {
  return static_cast<const Logical*>(handle->owner);
}

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
