#pragma once
// Raw SMBus endpoints: the host performs SMBus transactions on a device that
// the plug-in does not interpret, and a driver carries them out.
#include <cstdint>

#include "keldo/pl_host.h"

namespace Component {
namespace LogicalDevice {

class SmbusProxy {
 public:
  SmbusProxy();
  SmbusProxy(const SmbusProxy&) = delete;
  SmbusProxy& operator=(const SmbusProxy&) = delete;

  // Quick command and block process call are rare enough that a driver only
  // provides them when its device needs them; the defaults throw.
  virtual pl_status quickCommand(int value);
  virtual pl_status receiveByte(uint8_t* value) = 0;
  virtual pl_status sendByte(uint8_t value) = 0;
  virtual pl_status readByte(uint8_t command, uint8_t* value) = 0;
  virtual pl_status writeByte(uint8_t command, uint8_t value) = 0;
  virtual pl_status readWord(uint8_t command, uint16_t* value) = 0;
  virtual pl_status writeWord(uint8_t command, uint16_t value) = 0;
  virtual pl_status blockRead(uint8_t command, uint8_t* data, unsigned int* length) = 0;
  virtual pl_status blockWrite(uint8_t command, const uint8_t* data, unsigned int length) = 0;
  virtual pl_status i2cBlockRead(uint8_t command, uint8_t* data, unsigned int length) = 0;
  virtual pl_status i2cBlockWrite(uint8_t command, const uint8_t* data, unsigned int length) = 0;
  virtual pl_status processCall(uint8_t command, uint16_t value, uint16_t* result) = 0;
  virtual pl_status blockProcessCall(uint8_t command, const uint8_t* data, uint8_t length, uint8_t* result,
                                     uint8_t* resultLength);

  pl_smbus* handle() { return &smbus_; }

  static pl_status quickCommandCallback(pl_smbus* smbus, int value);
  static pl_status receiveByteCallback(pl_smbus* smbus, uint8_t* value);
  static pl_status sendByteCallback(pl_smbus* smbus, uint8_t value);
  static pl_status readByteCallback(pl_smbus* smbus, uint8_t command, uint8_t* value);
  static pl_status writeByteCallback(pl_smbus* smbus, uint8_t command, uint8_t value);
  static pl_status readWordCallback(pl_smbus* smbus, uint8_t command, uint16_t* value);
  static pl_status writeWordCallback(pl_smbus* smbus, uint8_t command, uint16_t value);
  static pl_status blockReadCallback(pl_smbus* smbus, uint8_t command, uint8_t* data, unsigned int* length);
  static pl_status blockWriteCallback(pl_smbus* smbus, uint8_t command, const uint8_t* data, unsigned int length);
  static pl_status i2cBlockReadCallback(pl_smbus* smbus, uint8_t command, uint8_t* data, unsigned int length);
  static pl_status i2cBlockWriteCallback(pl_smbus* smbus, uint8_t command, const uint8_t* data,
                                         unsigned int length);
  static pl_status processCallCallback(pl_smbus* smbus, uint8_t command, uint16_t value, uint16_t* result);
  static pl_status blockProcessCallCallback(pl_smbus* smbus, uint8_t command, const uint8_t* data, uint8_t length,
                                            uint8_t* result, uint8_t* resultLength);

  static const pl_smbus_ops ops_;

 protected:
  // Never destroyed through this class (there is no virtual destructor).
  ~SmbusProxy() = default;

  pl_smbus smbus_;
};

}  // namespace LogicalDevice
}  // namespace Component
