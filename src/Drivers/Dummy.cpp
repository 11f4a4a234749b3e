#include "Drivers/Dummy.h"

namespace Drivers {

Component::HardwareDevice* Dummy::create(const DriverArgs&, Ham::Ham* ham) { return new Dummy(ham); }

}  // namespace Drivers
