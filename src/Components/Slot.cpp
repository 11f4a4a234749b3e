#include "Components/Slot.h"

#include "Components/LogicalDevice.h"

namespace Component {
namespace LogicalDevice {

const pl_slot_ops Slot::ops_ = {sizeof(pl_slot_ops), &Slot::getPresenceCallback};

Slot::Slot() : slot_{nullptr, &ops_, this} {}

pl_status Slot::getPresenceCallback(pl_slot* slot, char** description) {
  pl_trace(4, "%s(%p)", "getPresenceCallback", static_cast<void*>(slot));
  return ownerOf<Slot>(slot)->getPresence(description);
}

}  // namespace LogicalDevice
}  // namespace Component

extern "C" pl_slot* pl_slot_add(const char* objectJson) {
  using namespace Component::LogicalDevice;
  static const AddTraces traces = {"newSlot() failed", 0, false};
  auto newSlot = [](Component::DeviceBase& device, const Component::FactoryArgs& args) { return device.newSlot(args); };
  return handleOf(addLogicalDevice(fromObject(objectJson), traces, newSlot));
}
