#include "Drivers/Helpers.h"

#include <sys/wait.h>

#include <cstdio>
#include <exception>

#include "Components/Gpio.h"
#include "Components/HardwareDevice.h"
#include "Drivers/Drivers.h"
#include "Ham/SharedMap.h"
#include "KeldoUtil/Assert.h"
#include "Topology.h"

namespace Drivers {

void FormatFdl::start() {
  text_ = format_;
  active_ = true;
}

bool FormatFdl::set(std::string key, std::string value) {
  pl_trace(5, "FormatFdl::set( '%s', '%s' )", key.c_str(), value.c_str());
  KELDO_ASSERT(active_ && "FormatFdl: Must call start() before set(...)");
  const std::string placeholder = "{" + key + "}";
  std::string::size_type pos = text_.find(placeholder);
  if (pos == std::string::npos) {
    pl_trace(0, "Error: FormatFdl::set -- invalid key '%s'", placeholder.c_str());
    KELDO_ASSERT(0 && "Invalid key in FormatFdl::set");
  }
  // Each search starts over from the beginning of the text.
  while (pos != std::string::npos) {
    text_.replace(pos, placeholder.size(), value);
    pos = text_.find(placeholder);
  }
  return true;
}

std::string FormatFdl::str() {
  KELDO_ASSERT(active_ && "FormatFdl: Must call start() before str()");
  active_ = false;
  return text_;
}

const char* FormatFdl::charPtr() {
  KELDO_ASSERT(active_ && "FormatFdl: Must call start() before charPtr()");
  active_ = false;
  return text_.c_str();
}

pl_status runCmd(const char* command, std::string& output, unsigned int timeoutSeconds) {
  // The timeout utility exits with this status when it had to stop the command.
  constexpr int timedOut = 124;

  output.clear();
  const std::string line = "timeout " + std::to_string(timeoutSeconds) + "s " + command;
  FILE* pipe = popen(line.c_str(), "r");
  if (pipe == nullptr) {
    return PL_STATUS_INTERNAL;
  }
  char buffer[128];
  try {
    while (std::fgets(buffer, sizeof buffer, pipe) != nullptr) {
      output.append(buffer);
    }
  } catch (const std::exception&) {
    pclose(pipe);
    return PL_STATUS_INTERNAL;
  }
  const int status = pclose(pipe);
  if (status == -1 || !WIFEXITED(status)) {
    return PL_STATUS_INTERNAL;
  }
  switch (WEXITSTATUS(status)) {
    case 0:
      return PL_STATUS_OK;
    case timedOut:
      return PL_STATUS_UNAVAILABLE;
    default:
      return PL_STATUS_INTERNAL;
  }
}

const std::string* findArg(const DriverArgs& args, const std::string& key) {
  const auto it = args.driverArgs.find(key);
  return it == args.driverArgs.end() ? nullptr : &it->second;
}

bool isTrueArg(const DriverArgs& args, const std::string& key) {
  const std::string* text = findArg(args, key);
  return text != nullptr && *text == "true";
}

// One definition of the blanks: the shared key/value file trims the same way.
std::string trim(const std::string& text) { return Ham::trimWhitespace(text); }

bool zeroChecksum(const std::string& bytes) {
  uint8_t sum = 0;
  for (char byte : bytes) {
    sum = static_cast<uint8_t>(sum + static_cast<uint8_t>(byte));
  }
  return sum == 0;
}

namespace {
// A labelled device without "driver" in the topology has no arguments at all.
DriverArgs& topologyArgs(Topology::Device* topoDev) {
  KELDO_ASSERT(topoDev->args);
  return *topoDev->args;
}
}  // namespace

Component::HardwareDevice* getHardwareDeviceByLabel(const char* label, std::string driverName) {
  Topology::Device* device = Topology::getDeviceByLabel(label);
  if (device == nullptr) {
    pl_trace(0, "Unable to locate device %s", label);
  }
  KELDO_ASSERT(device);
  // The default driver is written into the topology's own arguments, so later
  // lookups of the label see it too.
  DriverArgs& args = topologyArgs(device);
  if (args.driver.empty()) {
    args.driver = std::move(driverName);
  }
  auto* dev = dynamic_cast<Component::HardwareDevice*>(Component::HardwareDevice::create(args, nullptr));
  KELDO_ASSERT(dev);
  return dev;
}

Component::LogicalDevice::Gpio* getRegGpioForDevice(Component::HardwareDevice* device, uint32_t reg, uint32_t bit) {
  DriverArgs args;
  args.driverArgs["register"] = std::to_string(reg);
  args.driverArgs["bitpos"] = std::to_string(bit);
  Component::LogicalDevice::Gpio* gpio = device->newGpio(args);
  KELDO_ASSERT(gpio);
  return gpio;
}

Component::LogicalDevice::Gpio* getRegGpioForDevice(const char* label, uint32_t reg, uint32_t bit) {
  return getRegGpioForDevice(getHardwareDeviceByLabel(label, "Dummy"), reg, bit);
}

}  // namespace Drivers
