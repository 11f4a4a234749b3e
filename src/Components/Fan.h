#pragma once
// Fans as the host sees them. Speeds pass between host and driver unchanged.
#include "keldo/pl_host.h"

namespace Component {
namespace LogicalDevice {

class Fan {
 public:
  Fan();
  virtual ~Fan() = default;
  Fan(const Fan&) = delete;
  Fan& operator=(const Fan&) = delete;

  // Optional text for the host's diagnostics; by default there is none and
  // the argument is left as the host passed it.
  virtual pl_status debugInfo(char** info) const;
  virtual pl_status getRpm(int* rpm) = 0;
  virtual pl_status setRpm(int rpm) = 0;

  pl_fan* handle() { return &fan_; }

  static pl_status debugInfoCallback(const pl_fan* fan, char** info);
  static pl_status getRpmCallback(pl_fan* fan, int* rpm);
  static pl_status setRpmCallback(pl_fan* fan, int rpm);

  static const pl_fan_ops ops_;

 protected:
  pl_fan fan_;
};

}  // namespace LogicalDevice
}  // namespace Component
