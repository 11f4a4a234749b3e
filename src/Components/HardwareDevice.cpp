#include "Components/HardwareDevice.h"

#include "Components/Gpio.h"
#include "Ham/Ham.h"
#include "Keldo.h"
#include "KeldoUtil/Json.h"
#include "KeldoUtil/NotImplementedException.h"
#include "Zanty.h"

namespace Component {

std::map<unsigned int, DeviceBase*>& DeviceBase::devices = *new std::map<unsigned int, DeviceBase*>;
Utils::ExpectedValues HardwareDevice::emptyExpectedValues;

void DeviceBase::init() {}

void* DeviceBase::newPoePort(const FactoryArgs&) { throw NotImplementedException("newPoePort"); }

LogicalDevice::TempSensor* DeviceBase::newTempSensor(const FactoryArgs&) {
  throw NotImplementedException("newTempSensor");
}

LogicalDevice::Slot* DeviceBase::newSlot(const FactoryArgs&) { throw NotImplementedException("newSlot"); }

LogicalDevice::SfpXcvr* DeviceBase::newSfpXcvr(unsigned int, const FactoryArgs&) {
  throw NotImplementedException("newSfpXcvr");
}

LogicalDevice::QsfpXcvr* DeviceBase::newQsfpXcvr(unsigned int, const FactoryArgs&) {
  throw NotImplementedException("newQsfpXcvr");
}

LogicalDevice::Led* DeviceBase::newLed(const FactoryArgs&) { throw NotImplementedException("newLed"); }

LogicalDevice::Fan* DeviceBase::newFan(const FactoryArgs&) { throw NotImplementedException("newFan"); }

LogicalDevice::Mux* DeviceBase::newMux(const FactoryArgs&, unsigned int) { throw NotImplementedException("newMux"); }

LogicalDevice::Psu* DeviceBase::newPsu(const FactoryArgs&) { throw NotImplementedException("newPsu"); }

LogicalDevice::SmbusProxy* DeviceBase::newSmbusProxy(const FactoryArgs&) {
  throw NotImplementedException("newSmbusProxy");
}

DeviceBase* DeviceBase::create(const char* json, Drivers::DriverArgs& args) {
  pl_trace(0, "parsing devArgs = %s", json);
  if (!args.parseJSON(json)) {
    pl_trace(0, "failed to parse json object as a device");
    return nullptr;
  }
  if (args.isMultiDevice) {
    return MultiDevice::create(args);
  }
  return HardwareDevice::create(args, nullptr);
}

// A registered uid wins over everything else in the request: the first
// object that named the uid chose the driver, its arguments and its Ham.
DeviceBase* DeviceBase::findDevice(Drivers::DriverArgs& args) {
  pl_trace(0, "looking for already existing device %u", args.uid);
  auto it = devices.find(args.uid);
  if (it == devices.end()) {
    return nullptr;
  }
  pl_trace(0, "using previously instanciated HardwareDevice %s", args.driver.c_str());
  return it->second;
}

DeviceBase* DeviceBase::callDriverFactoryFunc(Drivers::DriverArgs& args, Ham::Ham* ham) {
  pl_trace(0, "creating HardwareDevice %s", args.driver.c_str());
  auto it = Drivers::drivers.find(args.driver);
  if (it == Drivers::drivers.end()) {
    pl_trace(0, "driver %s not found", args.driver.c_str());
    return nullptr;
  }
  pl_trace(0, "calling factory function for %s", args.driver.c_str());
  return it->second(args, ham);
}

LogicalDevice::Gpio* HardwareDevice::newGpio(const FactoryArgs& args) {
  return new LogicalDevice::RegGpio(this, args);
}

Utils::ExpectedValues* HardwareDevice::expectedValues() { return &emptyExpectedValues; }

namespace {
// The simulated access method names its register file after the object, taken
// from the "name" of the text the host passed. Arguments that came from the
// topology have no such text and so no name.
std::string simulationObjectName(const Drivers::DriverArgs& args) {
  if (!Utils::isInSimulation() || args.json.empty()) {
    return std::string();
  }
  rapidjson::Document object;
  if (!Utils::parseJson(object, args.json.c_str()) || !object.IsObject() || !object.HasMember("name")) {
    return std::string();
  }
  return object["name"].GetString();
}
}  // namespace

// Creation runs in one direction: factory, Ham and simulation wiring, init(),
// then registration, so nothing half-built is ever found by uid.
DeviceBase* HardwareDevice::create(Drivers::DriverArgs& args, Ham::Ham* ham) {
  if (DeviceBase* existing = findDevice(args)) {
    return existing;
  }
  Ham::Ham* builtHam = nullptr;
  if (ham == nullptr && args.provideHam) {
    pl_trace(0, "creating Ham");
    builtHam = Ham::createHam(args);
    if (builtHam == nullptr) {
      pl_trace(0, "failed to create Ham");
      return nullptr;
    }
    ham = builtHam;
  }
  DeviceBase* device = callDriverFactoryFunc(args, ham);
  if (device == nullptr) {
    pl_trace(0, "factory function returned a null object");
    // Nothing holds the access method built for this attempt; a host that
    // retries a bad object must not leak one per try.
    delete builtHam;
    return nullptr;
  }
  // Every driver row builds a hardware device; a device of another kind under
  // a driver name simply gets no access method.
  if (auto* hardware = dynamic_cast<HardwareDevice*>(device)) {
    std::string objectName = simulationObjectName(args);
    hardware->hamIs(ham);
    if (ham != nullptr) {
      ham->setDriverName(args.driver, objectName);
      ham->setExpected(hardware->expectedValues());
    }
  }
  device->init();
  pl_trace(0, "%s device created", args.driver.c_str());
  // A device created by init() under the same uid is replaced by this one.
  devices[args.uid] = device;
  return device;
}

// A multi-device stands for a group of objects, not for one piece of hardware,
// so it never gets a Ham, whatever its arguments say.
DeviceBase* MultiDevice::create(Drivers::DriverArgs& args) {
  if (DeviceBase* existing = findDevice(args)) {
    return existing;
  }
  DeviceBase* device = callDriverFactoryFunc(args, nullptr);
  if (device == nullptr) {
    pl_trace(0, "factory function returned a null object");
    return nullptr;
  }
  if (auto* multi = dynamic_cast<MultiDevice*>(device)) {
    multi->deviceDriverArgsIs(args.multiDeviceArgs);
  }
  device->init();
  pl_trace(0, "%s MultiDevice created", args.driver.c_str());
  devices[args.uid] = device;
  return device;
}

const char* MultiDevice::getDeviceDriverArg(const std::string& key) {
  auto it = deviceDriverArgs.find(key);
  if (it == deviceDriverArgs.end()) {
    pl_trace(0, "Failed to find driverArgs for driver key '%s'", key.c_str());
    return nullptr;
  }
  return it->second.c_str();
}

namespace {
// Looks the key up and hands its text to the kind's exported add entry,
// exactly as a host call would, so the nested add goes through
// DeviceBase::create again (the text normally names a device of its own).
// Every handle the entry returns is kept, a null one included, so the lists
// mirror the order of the add calls. Only some kinds trace the text first.
template <typename Handle>
Handle* addThroughEntry(MultiDevice& device, const std::string& key, Handle* (*add)(const char*),
                        std::vector<Handle*>& list, const char* traceFormat = nullptr) {
  const char* json = device.getDeviceDriverArg(key);
  if (json == nullptr) {
    return nullptr;
  }
  if (traceFormat != nullptr) {
    pl_trace(6, traceFormat, json);
  }
  list.push_back(add(json));
  return list.back();
}
}  // namespace

pl_slot* MultiDevice::addSlot(const std::string& key) { return addThroughEntry(*this, key, pl_slot_add, slots); }
pl_led* MultiDevice::addLed(const std::string& key) { return addThroughEntry(*this, key, pl_led_add, leds); }
pl_psu* MultiDevice::addPsu(const std::string& key) { return addThroughEntry(*this, key, pl_psu_add, psus); }
pl_fan* MultiDevice::addFan(const std::string& key) {
  return addThroughEntry(*this, key, pl_fan_add, fans, "MultiDevice::addFan driver args = %s");
}
pl_xcvr* MultiDevice::addXcvr(const std::string& key) {
  return addThroughEntry(*this, key, pl_xcvr_add, xcvrs, "MultiDevice::addXcvr driver args = %s");
}
pl_gpio* MultiDevice::addGpio(const std::string& key) {
  return addThroughEntry(*this, key, pl_gpio_add, gpios, "MultiDevice::addGpio driver args = %s");
}

}  // namespace Component
