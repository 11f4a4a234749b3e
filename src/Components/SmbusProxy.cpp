#include "Components/SmbusProxy.h"

#include <cstdio>
#include <string>

#include "Components/LogicalDevice.h"
#include "KeldoUtil/Assert.h"
#include "KeldoUtil/NotImplementedException.h"
#include "Topology.h"

namespace Component {
namespace LogicalDevice {

const pl_smbus_ops SmbusProxy::ops_ = {sizeof(pl_smbus_ops),
                                       &SmbusProxy::quickCommandCallback,
                                       &SmbusProxy::receiveByteCallback,
                                       &SmbusProxy::sendByteCallback,
                                       &SmbusProxy::readByteCallback,
                                       &SmbusProxy::writeByteCallback,
                                       &SmbusProxy::readWordCallback,
                                       &SmbusProxy::writeWordCallback,
                                       &SmbusProxy::blockReadCallback,
                                       &SmbusProxy::blockWriteCallback,
                                       &SmbusProxy::i2cBlockReadCallback,
                                       &SmbusProxy::i2cBlockWriteCallback,
                                       &SmbusProxy::processCallCallback,
                                       &SmbusProxy::blockProcessCallCallback};

SmbusProxy::SmbusProxy() : smbus_{nullptr, &ops_, this} {}

pl_status SmbusProxy::quickCommand(int) { throw NotImplementedException("quickCommand"); }

pl_status SmbusProxy::blockProcessCall(uint8_t, const uint8_t*, uint8_t, uint8_t*, uint8_t*) {
  throw NotImplementedException("blockProcessCall");
}

namespace {
// Every callback traces its own name at level 1 and forwards untouched.
SmbusProxy* proxy(const char* name, pl_smbus* smbus) {
  pl_trace(1, "%s", name);
  return ownerOf<SmbusProxy>(smbus);
}
}  // namespace

pl_status SmbusProxy::quickCommandCallback(pl_smbus* smbus, int value) {
  return proxy("quickCommandCallback", smbus)->quickCommand(value);
}
pl_status SmbusProxy::receiveByteCallback(pl_smbus* smbus, uint8_t* value) {
  return proxy("receiveByteCallback", smbus)->receiveByte(value);
}
pl_status SmbusProxy::sendByteCallback(pl_smbus* smbus, uint8_t value) {
  return proxy("sendByteCallback", smbus)->sendByte(value);
}
pl_status SmbusProxy::readByteCallback(pl_smbus* smbus, uint8_t command, uint8_t* value) {
  return proxy("readByteCallback", smbus)->readByte(command, value);
}
pl_status SmbusProxy::writeByteCallback(pl_smbus* smbus, uint8_t command, uint8_t value) {
  return proxy("writeByteCallback", smbus)->writeByte(command, value);
}
pl_status SmbusProxy::readWordCallback(pl_smbus* smbus, uint8_t command, uint16_t* value) {
  return proxy("readWordCallback", smbus)->readWord(command, value);
}
pl_status SmbusProxy::writeWordCallback(pl_smbus* smbus, uint8_t command, uint16_t value) {
  return proxy("writeWordCallback", smbus)->writeWord(command, value);
}
pl_status SmbusProxy::blockReadCallback(pl_smbus* smbus, uint8_t command, uint8_t* data, unsigned int* length) {
  return proxy("blockReadCallback", smbus)->blockRead(command, data, length);
}
pl_status SmbusProxy::blockWriteCallback(pl_smbus* smbus, uint8_t command, const uint8_t* data,
                                         unsigned int length) {
  return proxy("blockWriteCallback", smbus)->blockWrite(command, data, length);
}
pl_status SmbusProxy::i2cBlockReadCallback(pl_smbus* smbus, uint8_t command, uint8_t* data, unsigned int length) {
  return proxy("i2cBlockReadCallback", smbus)->i2cBlockRead(command, data, length);
}
pl_status SmbusProxy::i2cBlockWriteCallback(pl_smbus* smbus, uint8_t command, const uint8_t* data,
                                            unsigned int length) {
  return proxy("i2cBlockWriteCallback", smbus)->i2cBlockWrite(command, data, length);
}
pl_status SmbusProxy::processCallCallback(pl_smbus* smbus, uint8_t command, uint16_t value, uint16_t* result) {
  return proxy("processCallCallback", smbus)->processCall(command, value, result);
}
pl_status SmbusProxy::blockProcessCallCallback(pl_smbus* smbus, uint8_t command, const uint8_t* data,
                                               uint8_t length, uint8_t* result, uint8_t* resultLength) {
  return proxy("blockProcessCallCallback", smbus)->blockProcessCall(command, data, length, result, resultLength);
}

}  // namespace LogicalDevice
}  // namespace Component

namespace {

using Component::DeviceBase;
using Component::LogicalDevice::AddTraces;

const AddTraces kSmbusTraces = {"newSmbusProxy() failed", 0, false};

// A bus name stands for the device at `address` on that bus, which the board
// description labels "<bus><0x<address in two or more lower-case hex digits>>".
std::string deviceLabel(const char* bus, uint8_t address) {
  char suffix[8];
  std::snprintf(suffix, sizeof suffix, "<0x%02x>", static_cast<unsigned int>(address));
  return std::string(bus) + suffix;
}

// Whatever driver the board description gives the device, the host asked for
// raw access, so the proxy driver serves it. The change stays in the topology,
// and `args` receives the copy that creates the device.
DeviceBase* deviceOnBus(const char* bus, uint8_t address, Drivers::DriverArgs& args, bool& found) {
  Topology::Device* topoDev = Topology::getDeviceByLabel(deviceLabel(bus, address).c_str());
  found = topoDev != nullptr;
  if (!found) {
    pl_trace(0, "smbus_add failed: device does not exist in topology");
    return nullptr;
  }
  KELDO_ASSERT(topoDev->args);
  topoDev->args->driver = "SmbusProxyDriver";
  args = *topoDev->args;
  return Component::HardwareDevice::create(args, nullptr);
}

}  // namespace

extern "C" pl_smbus* pl_smbus_add(const char* objectOrBus, uint8_t address) {
  pl_trace(7, "pl_smbus_add( '%s', %u )", objectOrBus, static_cast<unsigned int>(address));
  Drivers::DriverArgs args;
  DeviceBase* device = nullptr;
  if (Topology::isDeviceObject(objectOrBus)) {
    device = DeviceBase::create(objectOrBus, args);
  } else {
    bool found = false;
    device = deviceOnBus(objectOrBus, address, args, found);
    if (!found) {
      return nullptr;
    }
  }
  using Component::LogicalDevice::deviceForAdd;
  using Component::LogicalDevice::madeForAdd;
  if (deviceForAdd(device, kSmbusTraces) == nullptr) {
    return nullptr;
  }
  auto* proxy = madeForAdd(device->newSmbusProxy(args), kSmbusTraces);
  return proxy ? proxy->handle() : nullptr;
}
