#include "Components/LogicalDevice.h"

namespace Component {
namespace LogicalDevice {

DeviceBase* deviceForAdd(DeviceBase* device, const AddTraces& traces) {
  if (device == nullptr && !traces.silent) {
    pl_trace(traces.level, "DeviceBase::create() failed");
  }
  return device;
}

void traceFactoryFailed(const AddTraces& traces) {
  if (!traces.silent) {
    pl_trace(traces.level, "%s", traces.factoryFailed);
  }
}

}  // namespace LogicalDevice
}  // namespace Component
