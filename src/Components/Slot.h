#pragma once
// Bays into which a module (a power supply, a fan tray) is plugged.
#include "keldo/pl_host.h"

namespace Component {
namespace LogicalDevice {

class Slot {
 public:
  Slot();
  virtual ~Slot() = default;
  Slot(const Slot&) = delete;
  Slot& operator=(const Slot&) = delete;

  // What the status and the text mean is the driver's business.
  virtual pl_status getPresence(char** description) = 0;

  pl_slot* handle() { return &slot_; }

  static pl_status getPresenceCallback(pl_slot* slot, char** description);

  static const pl_slot_ops ops_;

 protected:
  pl_slot slot_;
};

}  // namespace LogicalDevice
}  // namespace Component
