#pragma once
// The add sequence that every host object kind follows (create or reuse the
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

}  // namespace LogicalDevice
}  // namespace Component
