#pragma once
// A multiplexer channel on the path to a device. The SMBus transport splices
// its select operations in front of a transaction and its reset operations
// after it, so a whole transaction through any chain of muxes is one round trip.
#include "keldo/pl_host.h"

namespace Ham {
class Ham;
}

namespace Component {
class HardwareDevice;

namespace LogicalDevice {

class Mux {
 public:
  virtual ~Mux() = default;
  // The multiplexer chip's own device (its Ham carries the chip's address).
  virtual HardwareDevice* device() const = 0;
  // Queue on `ham` the operations that switch the mux to its channel (select)
  // or back (reset); return how many entries were queued.
  virtual unsigned int selectRequest(Ham::Ham* ham) = 0;
  virtual unsigned int resetRequest(Ham::Ham* ham) = 0;
  // Switch the mux to its channel in a transaction of its own.
  virtual pl_status executeMuxRequest() = 0;
};

}  // namespace LogicalDevice
}  // namespace Component
