#pragma once
// Raw SMBus access for the host to a device that the plug-in does not
// interpret: each host call is one transaction on the device's Ham, followed
// by the pause that slow devices need between accesses.
#include <cstdint>

#include "Components/HardwareDevice.h"
#include "Components/SmbusProxy.h"

namespace Drivers {

class SmbusProxyDriver : public Component::HardwareDevice {
 public:
  using HardwareDevice::HardwareDevice;

  static Component::HardwareDevice* create(const DriverArgs& args, Ham::Ham* ham);
  Component::LogicalDevice::SmbusProxy* newSmbusProxy(const FactoryArgs& args) override;

  class SmbusProxy final : public Component::LogicalDevice::SmbusProxy {
   public:
    SmbusProxy(SmbusProxyDriver* owner, uint32_t readDelayUs, uint32_t writeDelayUs)
        : owner_(owner), readDelayUs_(readDelayUs), writeDelayUs_(writeDelayUs) {}

    pl_status receiveByte(uint8_t* value) override;
    pl_status sendByte(uint8_t value) override;
    pl_status readByte(uint8_t command, uint8_t* value) override;
    pl_status writeByte(uint8_t command, uint8_t value) override;
    pl_status readWord(uint8_t command, uint16_t* value) override;
    pl_status writeWord(uint8_t command, uint16_t value) override;
    pl_status blockRead(uint8_t command, uint8_t* data, unsigned int* length) override;
    pl_status blockWrite(uint8_t command, const uint8_t* data, unsigned int length) override;
    pl_status i2cBlockRead(uint8_t command, uint8_t* data, unsigned int length) override;
    pl_status i2cBlockWrite(uint8_t command, const uint8_t* data, unsigned int length) override;
    pl_status processCall(uint8_t command, uint16_t value, uint16_t* result) override;


   private:
    template <typename Call>
    pl_status transact(uint32_t delayUs, Call call);

    SmbusProxyDriver* owner_;
    uint32_t readDelayUs_;
    uint32_t writeDelayUs_;
  };
};

}  // namespace Drivers
