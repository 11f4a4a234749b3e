#pragma once
// Small pieces that several drivers share: a text template with named
// placeholders, external commands with a time limit, byte-sum checks, and
// devices and register GPIOs found by topology label.
#include <cstdint>
#include <string>
#include <utility>

#include "Drivers/Drivers.h"
#include "keldo/pl_host.h"

namespace Component {
class HardwareDevice;
namespace LogicalDevice {
class Gpio;
}
}  // namespace Component

namespace Drivers {

// A reusable template such as "dev-{bus}". One formatting pass is start(),
// any number of set(), then one str() or charPtr(); misuse stops the host.
class FormatFdl {
 public:
  explicit FormatFdl(std::string format) : format_(std::move(format)) {}

  void start();
  // Replaces every "{key}"; a key that the text does not hold stops the host.
  // A value containing its own placeholder never terminates.
  bool set(std::string key, std::string value);
  std::string str();
  // Valid until the next start().
  const char* charPtr();

 private:
  bool active_ = false;
  std::string format_;
  std::string text_;
};

// Runs `command` through the shell under the timeout utility and collects its
// standard output. 0 on exit status 0, 4 when the limit expired, 6 otherwise
// (the output read so far is kept). Never traces.
pl_status runCmd(const char* command, std::string& output, unsigned int timeoutSeconds);

// The text of a driver setting, or null when the object gives none.
const std::string* findArg(const DriverArgs& args, const std::string& key);
// A yes/no setting: true only for the exact text "true".
bool isTrueArg(const DriverArgs& args, const std::string& key);

// Strips spaces and tabs at both ends; line ends are kept.
std::string trim(const std::string& text);

// True when the bytes add up to 0 modulo 256 (the empty text included).
bool zeroChecksum(const std::string& bytes);

// The device behind a topology label, created (with `driverName` when the
// topology names no driver) or reused by uid. A missing label stops the host.
Component::HardwareDevice* getHardwareDeviceByLabel(const char* label, std::string driverName);

// A GPIO on one bit of an 8-bit register of the device, for the driver's own
// use (it is not handed to the host).
Component::LogicalDevice::Gpio* getRegGpioForDevice(Component::HardwareDevice* device, uint32_t reg, uint32_t bit);
// The same on the device with that label; a bare register block becomes a
// "Dummy" device.
Component::LogicalDevice::Gpio* getRegGpioForDevice(const char* label, uint32_t reg, uint32_t bit);

}  // namespace Drivers
