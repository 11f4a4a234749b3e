#pragma once
// The three process-wide name-to-factory registries. Filled by static
// initialisation, never changed afterwards. Names compare byte for byte.
#include <functional>
#include <map>
#include <memory>
#include <string>

namespace Drivers {
struct DriverArgs;
}
namespace Topology {
class Topology;
}
namespace Component {
class DeviceBase;
}

namespace Ham {
class Ham;
class IpmiHam;
}

namespace Drivers {
using DriverFactory = std::function<Component::DeviceBase*(const DriverArgs&, Ham::Ham*)>;
extern const std::map<std::string, DriverFactory> drivers;

// Extension point for test builds of the plug-in only: a test library may
// define it to add driver rows (tests/integration/drivers). The product defines none, so
// its registry holds exactly its own rows.
void addExtraDriverRows(std::map<std::string, DriverFactory>& rows) __attribute__((weak));
}  // namespace Drivers

namespace Ham {
using HamFactory = std::function<Ham*(const Topology::Topology&, const Drivers::DriverArgs&)>;
using IpmiHamFactory = std::function<std::shared_ptr<IpmiHam>()>;
extern const std::map<std::string, HamFactory> hams;
extern const std::map<std::string, IpmiHamFactory> ipmiHams;
}  // namespace Ham
