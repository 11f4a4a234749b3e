#include "Drivers/GenericSmbusMux.h"

#include "Ham/Ham.h"

namespace Drivers {

Component::HardwareDevice* GenericSmbusMux::create(const DriverArgs&, Ham::Ham* ham) {
  return new GenericSmbusMux(ham);
}

Component::LogicalDevice::Mux* GenericSmbusMux::newMux(const FactoryArgs&, unsigned int value) {
  return new Mux(this, value);
}

// The chip has no register index: a send byte is the whole control write.
unsigned int GenericSmbusMux::Mux::selectRequest(Ham::Ham* ham) {
  ham->addSendByte(static_cast<uint8_t>(value_), false);
  return 1;
}

// Control byte 0 disconnects every channel, whichever one was selected.
unsigned int GenericSmbusMux::Mux::resetRequest(Ham::Ham* ham) {
  ham->addSendByte(0, false);
  return 1;
}

pl_status GenericSmbusMux::Mux::executeMuxRequest() {
  Ham::Ham* ham = device_->ham();
  if (ham == nullptr) {
    return PL_STATUS_UNAVAILABLE;  // built without access ("provideHam": 0)
  }
  ham->prepare();
  selectRequest(ham);
  return ham->execute();
}

}  // namespace Drivers
