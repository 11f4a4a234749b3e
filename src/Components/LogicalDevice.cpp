#include "Components/LogicalDevice.h"

namespace Component {
namespace LogicalDevice {

void traceCreateFailed(const AddTraces& traces) {
  if (!traces.silent) {
    pl_trace(traces.level, "DeviceBase::create() failed");
  }
}

void traceFactoryFailed(const AddTraces& traces) {
  if (!traces.silent && traces.factoryFailed != nullptr) {
    pl_trace(traces.level, "%s", traces.factoryFailed);
  }
}

}  // namespace LogicalDevice
}  // namespace Component
