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
using Component::FactoryArgs;

const Component::LogicalDevice::AddTraces kSmbusTraces = {"newSmbusProxy() failed", 0, false};

// A bus name stands for the device at `address` on that bus, which the board
// description labels "<bus><0x<address in two or more lower-case hex digits>>".
std::string deviceLabel(const char* bus, uint8_t address) {
  char suffix[8];
  std::snprintf(suffix, sizeof suffix, "<0x%02x>", static_cast<unsigned int>(address));
  return std::string(bus) + suffix;
}

}  // namespace

// The host names either an object, like every other kind, or a bus and an
// address. For a bus the device is the topology's entry at that address, and
// an address with no entry fails before the shared sequence: there is no
// device to create. Whatever driver the board description gives the entry,
// the host asked for raw access, so the proxy driver serves it; the change
// stays in the topology, and the device is created from a copy.
extern "C" pl_smbus* pl_smbus_add(const char* objectOrBus, uint8_t address) {
  using namespace Component::LogicalDevice;
  pl_trace(7, "pl_smbus_add( '%s', %u )", objectOrBus, static_cast<unsigned int>(address));
  auto newSmbusProxy = [](DeviceBase& device, const FactoryArgs& args) { return device.newSmbusProxy(args); };
  if (Topology::isDeviceObject(objectOrBus)) {
    return handleOf(addLogicalDevice(fromObject(objectOrBus), kSmbusTraces, newSmbusProxy));
  }
  Topology::Device* topoDev = Topology::getDeviceByLabel(deviceLabel(objectOrBus, address).c_str());
  if (topoDev == nullptr) {
    pl_trace(0, "smbus_add failed: device does not exist in topology");
    return nullptr;
  }
  KELDO_ASSERT(topoDev->args);
  topoDev->args->driver = "SmbusProxyDriver";
  auto fromTopology = [topoDev](Drivers::DriverArgs& args) {
    args = *topoDev->args;
    return Component::HardwareDevice::create(args, nullptr);
  };
  return handleOf(addLogicalDevice(fromTopology, kSmbusTraces, newSmbusProxy));
}
