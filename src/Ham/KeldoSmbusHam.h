#pragma once
// Access method of every real SMBus/I2C device. It never touches a bus: one
// transaction becomes one Smbus::TransactionRequest that the platform's SMBus
// proxy service carries out, and the answer's entries are matched back to the
// response ids. A device behind multiplexers gets the multiplexer select
// entries in front of its own and the reset entries after them, so a
// transaction through any chain of multiplexers is still one round trip.
#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "AhamAddress.h"
#include "Ham/Ham.h"
#include "KeldoUtil/Smbus.pb.h"
#include "Topology.h"
#include "keldo/pl_host.h"

namespace Component {
namespace LogicalDevice {
class Mux;
}
}  // namespace Component

namespace Ham {

class KeldoSmbusHam : public Ham {
 public:
  KeldoSmbusHam() = default;
  KeldoSmbusHam(const KeldoSmbusHam&) = delete;
  KeldoSmbusHam& operator=(const KeldoSmbusHam&) = delete;
  ~KeldoSmbusHam() override;

  void init() override;
  void prepare() override;
  pl_status execute() override;
  ResponseId addRecvByte() override;
  ResponseId addRead8(uint32_t reg) override;
  ResponseId addRead16(uint32_t reg) override;
  ResponseId addRead(uint32_t reg, uint32_t length, bool flag) override;
  ResponseId addReadBlock(uint32_t reg) override;
  ResponseId addSendByte(uint8_t value, bool flag) override;
  ResponseId addWrite8(uint32_t reg, uint8_t value, bool flag) override;
  ResponseId addWrite16(uint32_t reg, uint16_t value, bool flag) override;
  ResponseId addWrite(uint32_t reg, const void* data, uint32_t length, bool flag) override;
  ResponseId addWriteBlock(uint32_t reg, const void* data, uint32_t length, bool flag) override;
  ResponseId addProcessCall(uint32_t reg, uint16_t value) override;
  uint8_t get8(ResponseId idx) override;
  uint16_t get16(ResponseId idx) override;
  std::string getBlock(ResponseId idx, uint32_t length) override;

  // The 7-bit device address and bus id inside address word 1.
  virtual void setAddress(uint8_t value);
  virtual uint8_t getAddress() const;
  virtual void setBus(uint8_t value);
  virtual uint8_t getBus() const;

  // Factory of the "KeldoSmbus" access method: resolves the device or
  // component that `driverArgs` names. Null when the topology lacks it. The
  // caller (Ham::create) runs init().
  static KeldoSmbusHam* create(const Topology::Topology& topology, const Drivers::DriverArgs& driverArgs);
  // For users that address a bus directly: the device at the 7-bit `address`
  // on `bus`, a node of `topology`. Initialised; null when the bus is not in
  // the tree.
  PL_EXPORT static KeldoSmbusHam* createOnBus(const Topology::Topology& topology, const Topology::Bus* bus,
                                              uint8_t address);
  // Without a topology: an SCD-served device when `pciAddress` is given, else
  // a plain I2C one (which has no accelerator). Initialised, no multiplexers.
  PL_EXPORT static KeldoSmbusHam* createFromAddress(const Topology::AhamAddress& ahamAddress,
                                                    const Topology::PCIAddress* pciAddress);

  // Word 0: register of the operation being queued; word 1: the device's bus
  // coordinates plus the read flag of the operation being queued.
  Topology::AhamAddress address;
  uint32_t pciAddress = 0;  // controller's PCI address, 0 without one
  Smbus::TransactionRequest request;
  Smbus::TransactionResponse response;
  Smbus::MasterType masterType = Smbus::I2C_FLAGGED;
  // Between the controller and the device, outermost first. Owned: the
  // resolution makes one for this access method from each multiplexer device.
  std::vector<Component::LogicalDevice::Mux*> muxes;
  // Leading request entries that select the multiplexers; they stay queued
  // from one transaction to the next.
  int32_t prepareRequestCount_ = 0;
  int32_t nextResponseId = -1;
  // Bytes each request entry's answer must hold, in request order; 0 where
  // the caller or the device decides the length.
  std::vector<uint8_t> answerWidths_;

  void masterTypeIs(int value);

 private:
  const std::string& responseData(ResponseId idx) const;
  pl_status checkAnswerWidths() const;
};

// Resolution of a device's path through the topology: the access method is
// built at the target, and every ancestor, innermost first, adds what it
// knows about the path to it.
class KeldoSmbusVisitor : public Topology::PathVisitor {
 public:
  using PathVisitor::PathVisitor;

  // The access method built at the target, null until then. The caller takes it.
  std::unique_ptr<KeldoSmbusHam> ham_;

 protected:
  ~KeldoSmbusVisitor() = default;
  void onPath(const Topology::Mux* node) override;
  void onPath(const Topology::Bus* node) override;
  void onPath(const Topology::Accelerator* node) override;
  void onPath(const Topology::SCD* node) override;
  void onPath(const Topology::I2C* node) override;
  void onPath(const Topology::IOPort* node) override;
  void onPath(const Topology::Celestica* node) override;
  void onPath(const Topology::PLM* node) override;
  void onPath(const Topology::SccSpi* node) override;
  // A controller node above the device: the outermost one visited decides.
  void controller(int masterType) { ham_->masterTypeIs(masterType); }

  // Id of the last bus passed on the way up: the channel of the multiplexer
  // above it.
  uint32_t channel_ = 0;
};

// Target: the component of `driverArgs`, or its device when it names no
// component. The access method is built at that device.
class KeldoSmbusDriverVisitor : public KeldoSmbusVisitor {
 public:
  explicit KeldoSmbusDriverVisitor(const Drivers::DriverArgs& driverArgs);

 private:
  void onPath(const Topology::Device* node) override;
  using KeldoSmbusVisitor::onPath;

  const Drivers::DriverArgs& driverArgs_;
};

// Target: one bus node; the device is the given address on it.
class KeldoSmbusBusIdVisitor : public KeldoSmbusVisitor {
 public:
  KeldoSmbusBusIdVisitor(const Topology::Bus* bus, uint8_t address) : KeldoSmbusVisitor(bus), address_(address) {}

 private:
  void onPath(const Topology::Bus* node) override;
  using KeldoSmbusVisitor::onPath;

  uint8_t address_;
};

}  // namespace Ham
