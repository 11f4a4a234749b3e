#pragma once
// The add sequence that every host object kind follows (find or create the
// device, ask it for the logical device, hand the host the C object embedded
// in it), and the way back from a C object to its logical device.
#include <utility>

#include "Components/HardwareDevice.h"
#include "keldo/pl_host.h"

namespace Component {
namespace LogicalDevice {

// What an add entry point says when it gives the host a null handle. Kinds
// differ only in the factory's name, the level, and whether they speak at all.
struct AddTraces {
  const char* factoryFailed;  // e.g. "newLed() failed"; null: the factory step says it itself
  int level;                  // level of both failure traces
  bool silent;                // true: fail without any trace of our own
};

void traceCreateFailed(const AddTraces& traces);
void traceFactoryFailed(const AddTraces& traces);

// The device named by the object JSON the host passed, created or reused.
inline auto fromObject(const char* objectJson) {
  return [objectJson](Drivers::DriverArgs& args) { return DeviceBase::create(objectJson, args); };
}

// Finds the device with `device(args)` (which fills `args`) and builds the
// logical device with `factory(device, args)`. Null when either step fails.
template <typename DeviceSource, typename Factory>
auto addLogicalDevice(DeviceSource device, const AddTraces& traces, Factory factory)
    -> decltype(factory(std::declval<DeviceBase&>(), std::declval<const FactoryArgs&>())) {
  Drivers::DriverArgs args;
  DeviceBase* found = device(args);
  if (found == nullptr) {
    traceCreateFailed(traces);
    return nullptr;
  }
  auto made = factory(*found, args);
  if (made == nullptr) {
    traceFactoryFailed(traces);
  }
  return made;
}

// The host's handle of a logical device, or null.
template <typename Logical>
auto handleOf(Logical* logical) -> decltype(logical->handle()) {
  return logical != nullptr ? logical->handle() : nullptr;
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

}  // namespace LogicalDevice
}  // namespace Component
