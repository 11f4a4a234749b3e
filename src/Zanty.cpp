// The name-to-factory registries. A name in the topology ("ham") or in an
// object's JSON ("driver") becomes code only through these tables, which are
// filled here at load time and never change afterwards.
#include "Zanty.h"

#include "Drivers/Dummy.h"
#include "Drivers/GenericSmbusMux.h"
#include "Drivers/Ipmi.h"
#include "Drivers/LM75.h"
#include "Drivers/Pmbus.h"
#include "Drivers/PsuSlot.h"
#include "Drivers/SmbusProxyDriver.h"
#include "Drivers/Zant/ZantCPLDs.h"
#include "Ham/IpmiToolHam.h"
#include "Ham/KeldoSmbusHam.h"
#include "Ham/SimHam.h"

namespace Drivers {
namespace {

std::map<std::string, DriverFactory> driverRows() {
  std::map<std::string, DriverFactory> rows = {
      {"Dummy", Dummy::create},
      {"GpioDriver", Dummy::create},
      {"SmbusProxyDriver", SmbusProxyDriver::create},
      {"PCA9548", GenericSmbusMux::create},
      {"LM75", LM75::create},
      {"Pmbus", Pmbus::create},
      {"ZantYCPLD", ZantYCPLD::create},
      {"PsuSlot", PsuSlot::create},
      {"Ipmi", Ipmi::create},
  };
  if (addExtraDriverRows != nullptr) {
    addExtraDriverRows(rows);
  }
  return rows;
}

}  // namespace

const std::map<std::string, DriverFactory> drivers = driverRows();

}  // namespace Drivers

namespace Ham {

const std::map<std::string, HamFactory> hams = {
    {"KeldoSmbus", KeldoSmbusHam::create},
    {"SimHam", SimHam::create},
};

const std::map<std::string, IpmiHamFactory> ipmiHams = {
    {"IpmiTool", IpmiToolHam::create},
};

}  // namespace Ham
