#include "Components/Fan.h"

#include "Components/LogicalDevice.h"

namespace Component {
namespace LogicalDevice {

const pl_fan_ops Fan::ops_ = {sizeof(pl_fan_ops), &Fan::debugInfoCallback, &Fan::getRpmCallback,
                              &Fan::setRpmCallback};

Fan::Fan() : fan_{nullptr, &ops_, this} {}

pl_status Fan::debugInfo(char**) const { return PL_STATUS_OK; }

pl_status Fan::debugInfoCallback(const pl_fan* fan, char** info) {
  pl_trace(4, "%s(%p)", "debugInfoCallback", static_cast<const void*>(fan));
  return ownerOf<Fan>(fan)->debugInfo(info);
}

pl_status Fan::getRpmCallback(pl_fan* fan, int* rpm) {
  pl_trace(4, "%s(%p)", "getRpmCallback", static_cast<void*>(fan));
  return ownerOf<Fan>(fan)->getRpm(rpm);
}

pl_status Fan::setRpmCallback(pl_fan* fan, int rpm) {
  pl_trace(4, "%s(%p, %d)", "setRpmCallback", static_cast<void*>(fan), rpm);
  return ownerOf<Fan>(fan)->setRpm(rpm);
}

}  // namespace LogicalDevice
}  // namespace Component

extern "C" pl_fan* pl_fan_add(const char* objectJson) {
  using namespace Component::LogicalDevice;
  static const AddTraces traces = {"newFan() failed", 0, false};
  auto newFan = [](Component::DeviceBase& device, const Component::FactoryArgs& args) { return device.newFan(args); };
  return handleOf(addLogicalDevice(fromObject(objectJson), traces, newFan));
}
