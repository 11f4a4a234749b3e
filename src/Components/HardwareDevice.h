#pragma once
// Device model: the devices that drivers build, registered by uid and shared
// by every host object that names the same uid.
#include <map>
#include <string>
#include <utility>
#include <vector>

#include "Components/PollingDevice.h"
#include "Drivers/Drivers.h"
#include "Ham/ExpectedVal.h"
#include "keldo/pl_host.h"

namespace Ham {
class Ham;
}

namespace Component {

using Drivers::FactoryArgs;

namespace LogicalDevice {
class TempSensor;
class Slot;
class SfpXcvr;
class QsfpXcvr;
class Led;
class Fan;
class Mux;
class Psu;
class SmbusProxy;
class Gpio;
}  // namespace LogicalDevice

class DeviceBase {
 public:
  // This order is the virtual-table layout that the host and drivers built
  // apart from this library are compiled against: reordering, or a new slot
  // anywhere but at the end, breaks them without a compile error. Every
  // factory operation's default throws NotImplementedException with the
  // operation's name.
  virtual void init();
  virtual void* newPoePort(const FactoryArgs& args);
  virtual LogicalDevice::TempSensor* newTempSensor(const FactoryArgs& args);
  virtual LogicalDevice::Slot* newSlot(const FactoryArgs& args);
  virtual LogicalDevice::SfpXcvr* newSfpXcvr(unsigned int id, const FactoryArgs& args);
  virtual LogicalDevice::QsfpXcvr* newQsfpXcvr(unsigned int id, const FactoryArgs& args);
  virtual LogicalDevice::Led* newLed(const FactoryArgs& args);
  virtual LogicalDevice::Fan* newFan(const FactoryArgs& args);
  virtual LogicalDevice::Mux* newMux(const FactoryArgs& args, unsigned int value);
  virtual LogicalDevice::Psu* newPsu(const FactoryArgs& args);
  virtual LogicalDevice::SmbusProxy* newSmbusProxy(const FactoryArgs& args);
  virtual ~DeviceBase() = default;

  // Every device ever created, by the uid of the object that created it.
  // Never destroyed: devices live until the process ends, and the host may
  // still call into them while static objects are being torn down.
  static std::map<unsigned int, DeviceBase*>& devices;

  // Entry of every add function: parses the object JSON into `args` and
  // creates or reuses the device. Null (with traces) on failure.
  static DeviceBase* create(const char* json, Drivers::DriverArgs& args);
  static DeviceBase* findDevice(Drivers::DriverArgs& args);
  static DeviceBase* callDriverFactoryFunc(Drivers::DriverArgs& args, Ham::Ham* ham);
};

class HardwareDevice : public DeviceBase {
 public:
  explicit HardwareDevice(Ham::Ham* ham = nullptr) : ham_(ham) {}

  virtual LogicalDevice::Gpio* newGpio(const FactoryArgs& args);
  virtual Utils::ExpectedValues* expectedValues();

  // Shared, always empty: the expected values of a driver without a table.
  static Utils::ExpectedValues emptyExpectedValues;

  // Creates (or reuses, by uid) the device; builds a Ham when `ham` is null
  // and the arguments ask for one.
  static DeviceBase* create(Drivers::DriverArgs& args, Ham::Ham* ham);

  Ham::Ham* ham() const { return ham_; }
  void hamIs(Ham::Ham* ham) { ham_ = ham; }

 protected:
  Ham::Ham* ham_;  // not owned
};

// A device that stands for a group of host objects and adds them itself.
class MultiDevice : public DeviceBase {
 public:
  static DeviceBase* create(Drivers::DriverArgs& args);

  // The JSON text stored for `key`, or null (with a trace).
  const char* getDeviceDriverArg(const std::string& key);
  pl_slot* addSlot(const std::string& key);
  pl_led* addLed(const std::string& key);
  pl_psu* addPsu(const std::string& key);
  pl_fan* addFan(const std::string& key);
  pl_xcvr* addXcvr(const std::string& key);
  pl_gpio* addGpio(const std::string& key);
  void deviceDriverArgsIs(const std::map<std::string, std::string>& args) { deviceDriverArgs = args; }

  std::vector<pl_slot*> slots;
  std::vector<pl_led*> leds;
  std::vector<pl_psu*> psus;
  std::vector<pl_fan*> fans;
  std::vector<pl_xcvr*> xcvrs;
  std::vector<pl_gpio*> gpios;
  std::map<std::string, std::string> deviceDriverArgs;
};

}  // namespace Component
