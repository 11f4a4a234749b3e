#include "Drivers/SmbusProxyDriver.h"

#include <unistd.h>

#include <algorithm>
#include <cstring>
#include <string>

#include "Ham/Ham.h"

namespace Drivers {

namespace {

// One SMBus block carries at most 32 data bytes; the host's buffer is sized
// for exactly that.
constexpr size_t kSmbusBlockMax = 32;

// A delay setting in milliseconds (decimal text) as microseconds; 0 when absent.
uint32_t delayUs(const DriverArgs& args, const char* key) {
  auto it = args.driverArgs.find(key);
  if (it == args.driverArgs.end()) {
    return 0;
  }
  return static_cast<uint32_t>(std::stoi(it->second)) * 1000u;
}

}  // namespace

// The host asked for this device itself, so a failed transaction is reported
// at once rather than retried by the proxy.
Component::HardwareDevice* SmbusProxyDriver::create(const DriverArgs&, Ham::Ham* ham) {
  if (ham != nullptr) {
    ham->retryCountIs(0);
  }
  return new SmbusProxyDriver(ham);
}

Component::LogicalDevice::SmbusProxy* SmbusProxyDriver::newSmbusProxy(const FactoryArgs& args) {
  const uint32_t readDelay = delayUs(args, "localReadDelayMs");
  const uint32_t writeDelay = delayUs(args, "localWriteDelayMs");
  pl_trace(0, "setting read delay of %d useconds\n", static_cast<int>(readDelay));
  pl_trace(0, "setting write delay of %d useconds\n", static_cast<int>(writeDelay));
  return new SmbusProxy(this, readDelay, writeDelay);
}

// The pause follows every access, failed or not: a slow device needs it
// after any bus traffic addressed to it.
template <typename Call>
pl_status SmbusProxyDriver::SmbusProxy::transact(uint32_t delayUs, Call call) {
  Ham::Ham* ham = owner_->ham();
  if (ham == nullptr) {
    return PL_STATUS_UNAVAILABLE;  // created with "provideHam": 0
  }
  const pl_status status = call(*ham);
  if (delayUs != 0) {
    usleep(delayUs);
  }
  return status;
}

pl_status SmbusProxyDriver::SmbusProxy::receiveByte(uint8_t* value) {
  return transact(readDelayUs_, [&](Ham::Ham& ham) { return ham.recvByte(value); });
}

pl_status SmbusProxyDriver::SmbusProxy::sendByte(uint8_t value) {
  return transact(writeDelayUs_, [&](Ham::Ham& ham) { return ham.sendByte(value, false); });
}

pl_status SmbusProxyDriver::SmbusProxy::readByte(uint8_t command, uint8_t* value) {
  return transact(readDelayUs_, [&](Ham::Ham& ham) { return ham.read8(command, value); });
}

pl_status SmbusProxyDriver::SmbusProxy::writeByte(uint8_t command, uint8_t value) {
  return transact(writeDelayUs_, [&](Ham::Ham& ham) { return ham.write8(command, value, false); });
}

pl_status SmbusProxyDriver::SmbusProxy::readWord(uint8_t command, uint16_t* value) {
  return transact(readDelayUs_, [&](Ham::Ham& ham) { return ham.read16(command, value); });
}

pl_status SmbusProxyDriver::SmbusProxy::writeWord(uint8_t command, uint16_t value) {
  return transact(writeDelayUs_, [&](Ham::Ham& ham) { return ham.write16(command, value, false); });
}

pl_status SmbusProxyDriver::SmbusProxy::i2cBlockWrite(uint8_t command, const uint8_t* data, unsigned int length) {
  return transact(writeDelayUs_, [&](Ham::Ham& ham) { return ham.write(command, data, length, false); });
}

pl_status SmbusProxyDriver::SmbusProxy::blockWrite(uint8_t command, const uint8_t* data, unsigned int length) {
  return transact(writeDelayUs_, [&](Ham::Ham& ham) { return ham.writeBlock(command, data, length, false); });
}

// A process call writes a word and reads one back in one transfer; it counts
// as a write for the pause.
pl_status SmbusProxyDriver::SmbusProxy::processCall(uint8_t command, uint16_t value, uint16_t* result) {
  return transact(writeDelayUs_, [&](Ham::Ham& ham) { return ham.processCall(command, value, result); });
}

// The host asked for exactly `length` bytes; anything else (a failed read
// included, which brings none) is a short read, reported without the pause.
pl_status SmbusProxyDriver::SmbusProxy::i2cBlockRead(uint8_t command, uint8_t* data, unsigned int length) {
  Ham::Ham* ham = owner_->ham();
  if (ham == nullptr) {
    return PL_STATUS_UNAVAILABLE;
  }
  std::string bytes;
  const pl_status status = ham->read(command, length, &bytes, false);
  if (bytes.size() != length) {
    return PL_STATUS_UNAVAILABLE;
  }
  if (length != 0) {
    std::memcpy(data, bytes.data(), length);
  }
  if (readDelayUs_ != 0) {
    usleep(readDelayUs_);
  }
  return status;
}

// The device decides the length; it is reported back, at most one block.
pl_status SmbusProxyDriver::SmbusProxy::blockRead(uint8_t command, uint8_t* data, unsigned int* length) {
  std::string bytes;
  const pl_status status = transact(readDelayUs_, [&](Ham::Ham& ham) { return ham.readBlock(command, &bytes); });
  const size_t count = std::min(bytes.size(), kSmbusBlockMax);
  if (count != 0) {
    std::memcpy(data, bytes.data(), count);
  }
  *length = static_cast<unsigned int>(count);
  return status;
}

}  // namespace Drivers
