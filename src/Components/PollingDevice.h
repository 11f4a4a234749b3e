#pragma once
// Periodic refresh from a host timer, for devices and access methods alike:
// it needs nothing but the host's timer services.
#include <utility>

#include "keldo/pl_host.h"

namespace Component {

// A device (or access method) that refreshes itself from a periodic host
// timer. A timer fires once per arming, so the handler re-arms after each poll.
template <typename T>
class PollingDevice : public T {
 public:
  template <typename... Args>
  explicit PollingDevice(Args&&... args) : T(std::forward<Args>(args)...) {
    pl_trace(0, "creating timer");
    pollTimer_ = pl_timer_add(&PollingDevice::handlePollTimerCallback, this);
  }
  // Virtual and ahead of the poll operation, so that a base without a
  // virtual destructor (Ham::IpmiHam) gets its slot in this order.
  virtual ~PollingDevice() {
    pl_trace(0, "destroying timer");
    pl_timer_delete(pollTimer_);
  }

  virtual void pollCallback() = 0;

  // Arms the timer with pollInterval_ unless polling already started.
  bool pollStart() {
    if (pollStarted_) {
      return true;
    }
    pl_trace(0, "setting polling interval to %ums", pollInterval_);
    if (pl_timer_set(pollTimer_, pollInterval_) != 0) {
      pl_trace(0, "failed to set timer interval");
      return false;
    }
    pollStarted_ = true;
    return true;
  }

  static void handlePollTimerCallback(void* context) {
    auto* self = static_cast<PollingDevice*>(context);
    pl_trace(6, "pollCallbackWrapper");
    self->pollCallback();
    if (pl_timer_set(self->pollTimer_, self->pollInterval_) != 0) {
      pl_trace(0, "failed to set timer interval");
    } else {
      self->pollStarted_ = true;
    }
  }

 protected:
  bool pollStarted_ = false;
  pl_timer_handle pollTimer_ = 0;
  unsigned int pollInterval_ = 0;
};

}  // namespace Component
