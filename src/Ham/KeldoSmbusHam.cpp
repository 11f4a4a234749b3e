// SMBus transport over the platform's proxy socket: request entries from
// queued operations, multiplexer select/reset splicing, one round trip per
// transaction, and resolution of a device's path from the topology.
#include "Ham/KeldoSmbusHam.h"

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <memory>

#include "Components/HardwareDevice.h"
#include "Components/Mux.h"
#include "Drivers/Drivers.h"
#include "Keldo.h"
#include "KeldoUtil/Assert.h"
#include "PlatformLibrary/PLSocket.h"

namespace Ham {

using Component::LogicalDevice::Mux;

namespace {

enum class Flag { None, Write, Read };
constexpr uint32_t kCallerLength = 0xFFFFFFFF;

// Bits 25-26 of word 1 for everything resolved from the topology.
constexpr uint32_t kAddrSizeOne = 0x2000000;

// The address of a multiplexer chip as its own access method knows it: the
// select and reset entries travel with it, while controller and PCI address
// stay those of the device (they share the controller).
const Topology::AhamAddress& muxAddress(const Mux& mux) {
  Component::HardwareDevice* device = mux.device();
  const auto* muxHam = dynamic_cast<const KeldoSmbusHam*>(device ? device->ham() : nullptr);
  KELDO_ASSERT(muxHam);
  return muxHam->address;
}

// What one queued operation puts into its request entry. The register always
// goes into address word 0; `data`, when the rule has it, is `length` bytes.
struct EntryRule {
  Smbus::RequestType type;
  uint32_t length;  // kCallerLength: the caller's length
  bool data;
  Flag flag;        // which entry flag the caller's bool sets
  uint8_t answer;   // bytes the answer must hold; 0: the caller or the device decides
};

// One row per operation, in the order of the Ham slots. A send byte is a
// write of length 0 whose register is the byte itself, which is also how
// multiplexer select and reset bytes travel; a receive byte is a read of
// length 0 that still answers one byte.
const EntryRule kRecvByte{Smbus::READ, 0, false, Flag::None, 1};
const EntryRule kRead8{Smbus::READ, 1, false, Flag::None, 1};
const EntryRule kRead16{Smbus::READ, 2, false, Flag::None, 2};
const EntryRule kRead{Smbus::READ, kCallerLength, false, Flag::Read, 0};
const EntryRule kReadBlock{Smbus::BLOCK_READ, 0, false, Flag::None, 0};
const EntryRule kSendByte{Smbus::WRITE, 0, false, Flag::Write, 0};
const EntryRule kWrite8{Smbus::WRITE, 1, true, Flag::Write, 0};
const EntryRule kWrite16{Smbus::WRITE, 2, true, Flag::Write, 0};
const EntryRule kWrite{Smbus::WRITE, kCallerLength, true, Flag::Write, 0};
const EntryRule kWriteBlock{Smbus::BLOCK_WRITE, kCallerLength, true, Flag::Write, 0};
const EntryRule kProcessCall{Smbus::PROCESS_CALL, 2, true, Flag::None, 2};

// Appends the entry of one operation; the entry carries the address as it
// is at queuing time (register in word 0, read flag in bit 21 of word 1).
Ham::ResponseId queue(KeldoSmbusHam& ham, const EntryRule& rule, uint32_t reg, uint32_t length,
                      const void* bytes, bool flag) {
  ham.address.word0 = reg;
  ham.address.setReadFlag(rule.flag == Flag::Read && flag ? 1 : 0);

  const int value = rule.type;
  KELDO_ASSERT(::Smbus::RequestType_IsValid(value));
  Smbus::Request* entry = ham.request.add_request();
  entry->set_address(ham.address.packed());
  entry->set_type(static_cast<Smbus::RequestType>(value));
  entry->set_length(rule.length == kCallerLength ? length : rule.length);
  entry->set_writeflag(rule.flag == Flag::Write && flag);
  entry->set_pciaddress(ham.pciAddress);
  entry->set_mastertype(ham.masterType);
  if (rule.data && bytes != nullptr) {
    entry->set_data(static_cast<const char*>(bytes), entry->length());
  }
  ham.answerWidths_.push_back(rule.answer);
  return static_cast<Ham::ResponseId>(++ham.nextResponseId);
}

}  // namespace

Ham::ResponseId KeldoSmbusHam::addRecvByte() { return queue(*this, kRecvByte, 0, 0, nullptr, false); }
Ham::ResponseId KeldoSmbusHam::addRead8(uint32_t reg) { return queue(*this, kRead8, reg, 0, nullptr, false); }
Ham::ResponseId KeldoSmbusHam::addRead16(uint32_t reg) { return queue(*this, kRead16, reg, 0, nullptr, false); }
Ham::ResponseId KeldoSmbusHam::addRead(uint32_t reg, uint32_t length, bool flag) {
  return queue(*this, kRead, reg, length, nullptr, flag);
}
Ham::ResponseId KeldoSmbusHam::addReadBlock(uint32_t reg) { return queue(*this, kReadBlock, reg, 0, nullptr, false); }
Ham::ResponseId KeldoSmbusHam::addSendByte(uint8_t value, bool flag) {
  return queue(*this, kSendByte, value, 0, nullptr, flag);
}
Ham::ResponseId KeldoSmbusHam::addWrite8(uint32_t reg, uint8_t value, bool flag) {
  return queue(*this, kWrite8, reg, 0, &value, flag);
}
// 16-bit values go on the wire low byte first, as SMBus words do.
Ham::ResponseId KeldoSmbusHam::addWrite16(uint32_t reg, uint16_t value, bool flag) {
  const uint8_t bytes[2] = {static_cast<uint8_t>(value), static_cast<uint8_t>(value >> 8)};
  return queue(*this, kWrite16, reg, 0, bytes, flag);
}
Ham::ResponseId KeldoSmbusHam::addWrite(uint32_t reg, const void* data, uint32_t length, bool flag) {
  return queue(*this, kWrite, reg, length, data, flag);
}
Ham::ResponseId KeldoSmbusHam::addWriteBlock(uint32_t reg, const void* data, uint32_t length, bool flag) {
  return queue(*this, kWriteBlock, reg, length, data, flag);
}
Ham::ResponseId KeldoSmbusHam::addProcessCall(uint32_t reg, uint16_t value) {
  const uint8_t bytes[2] = {static_cast<uint8_t>(value), static_cast<uint8_t>(value >> 8)};
  return queue(*this, kProcessCall, reg, 0, bytes, false);
}

KeldoSmbusHam::~KeldoSmbusHam() {
  for (Mux* mux : muxes) {
    delete mux;
  }
}

void KeldoSmbusHam::masterTypeIs(int value) {
  KELDO_ASSERT(::Smbus::MasterType_IsValid(value));
  masterType = static_cast<Smbus::MasterType>(value);
}

// The select entries are queued once, here, and stay at the head of the
// request for the life of the access method.
void KeldoSmbusHam::init() {
  prepareRequestCount_ = 0;
  request.Clear();
  answerWidths_.clear();
  response.Clear();
  const Topology::AhamAddress own = address;
  for (Mux* mux : muxes) {
    address = muxAddress(*mux);
    prepareRequestCount_ += static_cast<int32_t>(mux->selectRequest(this));
  }
  address = own;
  nextResponseId = -1;
}

// The driver's entries are cleared but kept, so the next transaction reuses
// their memory (a CPLD poll queues 36 of them every second).
void KeldoSmbusHam::prepare() {
  auto* entries = request.mutable_request();
  while (entries->size() > prepareRequestCount_) {
    entries->RemoveLast();
  }
  answerWidths_.resize(static_cast<size_t>(prepareRequestCount_));
  response.Clear();
  nextResponseId = -1;
}

pl_status KeldoSmbusHam::execute() {
  // Switch the multiplexers back innermost first, the reverse of selection.
  const Topology::AhamAddress own = address;
  for (auto mux = muxes.rbegin(); mux != muxes.rend(); ++mux) {
    address = muxAddress(**mux);
    (*mux)->resetRequest(this);
  }
  address = own;

  pl_trace(4, "executing KeldoSmbusHam request");
  if (retryCountSet) {
    request.set_retrycount(retryCount);
  }

  int result = -1;
  if (_plSock != nullptr) {
    result = _plSock->sendRequestWait(request, response);  // reuses the last answer's memory
  } else {
    errno = ENOTCONN;  // init never connected; report it like a lost connection
  }
  if (result < 0) {
    pl_trace(3, "%s: error. %d, %s", "execute", errno, std::strerror(errno));
    response.Clear();
    return PL_STATUS_UNAVAILABLE;
  }

  if (response.failure() != 0) {
    pl_trace(3, "%s: failure in response %s", "execute",
             response.has_reason() ? response.reason().c_str() : "unknown reason");
    return PL_STATUS_INTERNAL;
  }
  if (response.response_size() != request.request_size()) {
    pl_trace(3, "%s: invalid number of response entries; expected %d, got %d", "execute", request.request_size(),
             response.response_size());
    return PL_STATUS_INTERNAL;
  }
  return checkAnswerWidths();
}

// A one- or two-byte read answered with another number of bytes comes from a
// proxy bug or a controller that reports a short transfer as done. It is the
// proxy's fault, not the driver's, so it fails the transaction here instead
// of reaching the width assertions of get8/get16.
pl_status KeldoSmbusHam::checkAnswerWidths() const {
  const size_t entries = std::min(answerWidths_.size(), static_cast<size_t>(response.response_size()));
  for (size_t i = 0; i < entries; ++i) {
    const size_t got = response.response(static_cast<int>(i)).data().size();
    if (answerWidths_[i] != 0 && got != answerWidths_[i]) {
      pl_trace(3, "%s: invalid width of response entry %d (register 0x%x); expected %u bytes, got %u", "execute",
               static_cast<int>(i), static_cast<unsigned>(request.request(static_cast<int>(i)).address()),
               static_cast<unsigned>(answerWidths_[i]), static_cast<unsigned>(got));
      return PL_STATUS_INTERNAL;
    }
  }
  return PL_STATUS_OK;
}

// The driver's operation `idx` answers in the entry after the select entries.
const std::string& KeldoSmbusHam::responseData(ResponseId idx) const {
  const Smbus::TransactionResponse& response_ = response;  // the name the assertion text uses
  KELDO_ASSERT(idx != INVALID_RESPONSE_ID);
  KELDO_ASSERT(( uint32_t )response_.response_size() > prepareRequestCount_ + idx);
  return response_.response(static_cast<int>(prepareRequestCount_ + idx)).data();
}

uint8_t KeldoSmbusHam::get8(ResponseId idx) {
  const std::string& data = responseData(idx);
  KELDO_ASSERT(data.size() == 1);
  return static_cast<uint8_t>(data[0]);
}

uint16_t KeldoSmbusHam::get16(ResponseId idx) {
  const std::string& data = responseData(idx);
  KELDO_ASSERT(data.size() == 2);
  return static_cast<uint16_t>(static_cast<uint8_t>(data[0]) | static_cast<uint8_t>(data[1]) << 8);
}

// Whatever the device sent: a block read's length is the device's, and a
// short or long answer is for the caller to judge.
std::string KeldoSmbusHam::getBlock(ResponseId idx, uint32_t) { return responseData(idx); }

void KeldoSmbusHam::setAddress(uint8_t value) { address.setAddress(value); }
uint8_t KeldoSmbusHam::getAddress() const { return static_cast<uint8_t>(address.address()); }
void KeldoSmbusHam::setBus(uint8_t value) { address.setBus(value); }
uint8_t KeldoSmbusHam::getBus() const { return static_cast<uint8_t>(address.bus()); }

KeldoSmbusHam* KeldoSmbusHam::create(const Topology::Topology& topology, const Drivers::DriverArgs& driverArgs) {
  KeldoSmbusDriverVisitor visitor(driverArgs);
  topology.accept(&visitor);
  return visitor.ham_.release();
}

KeldoSmbusHam* KeldoSmbusHam::createOnBus(const Topology::Topology& topology, const Topology::Bus* bus,
                                          uint8_t address) {
  KeldoSmbusBusIdVisitor visitor(bus, address);
  topology.accept(&visitor);
  KeldoSmbusHam* ham = visitor.ham_.release();
  if (ham != nullptr) {
    ham->init();
  }
  return ham;
}

KeldoSmbusHam* KeldoSmbusHam::createFromAddress(const Topology::AhamAddress& ahamAddress,
                                                const Topology::PCIAddress* pciAddress) {
  auto ham = std::make_unique<KeldoSmbusHam>();
  if (pciAddress != nullptr) {
    ham->masterTypeIs(Smbus::SCD);
    ham->pciAddress = pciAddress->value;
  } else {
    // A plain I2C controller has no accelerators to pick from.
    const struct {
      uint32_t accelerator;
    } address = {ahamAddress.accel()};
    KELDO_ASSERT(address.accelerator == 0);
    ham->masterTypeIs(Smbus::I2C);
  }
  ham->address = ahamAddress;
  ham->init();
  return ham.release();
}

// ---- Path resolution ----
//
// Nothing changes before the target is found. After it, each ancestor is
// visited once, innermost first, and every visit overwrites what it sets:
// so the bus id that stays is that of the bus the controller drives (bus ids
// below a multiplexer are its channel values), and the controller nearest
// the root decides the master type.

void KeldoSmbusVisitor::onPath(const Topology::Bus* node) {
  ham_->address.setBus(node->id);
  channel_ = node->id;
}

void KeldoSmbusVisitor::onPath(const Topology::Accelerator* node) { ham_->address.setAccel(node->id); }

void KeldoSmbusVisitor::onPath(const Topology::SCD* node) {
  ham_->pciAddress = node->pci;
  controller(Smbus::SCD);
}

void KeldoSmbusVisitor::onPath(const Topology::I2C* node) {
  controller(node->simulated ? Smbus::I2C_FLAGGED : Smbus::I2C);
}
void KeldoSmbusVisitor::onPath(const Topology::IOPort*) { controller(Smbus::IOPORT); }
void KeldoSmbusVisitor::onPath(const Topology::Celestica*) { controller(Smbus::CELESTICA); }
void KeldoSmbusVisitor::onPath(const Topology::PLM*) { controller(Smbus::PLM); }
void KeldoSmbusVisitor::onPath(const Topology::SccSpi*) { controller(Smbus::SCCSPI); }

// A multiplexer on the path: its chip is a device of the topology, created
// (or reused) like any other device, and asked for the channel of the bus
// just passed. Inserting at the front leaves the chain outermost first.
void KeldoSmbusVisitor::onPath(const Topology::Mux* node) {
  pl_trace(3, "Mux using device %u with value %u", node->did, channel_);
  const Topology::Device* topoDev = Topology::findDevice(node->did);
  if (topoDev == nullptr || !topoDev->args) {
    pl_trace(3, "Device %u isn't declared inline", node->did);
  }
  KELDO_ASSERT(topoDev != nullptr);
  KELDO_ASSERT(topoDev->args);
  Drivers::DriverArgs driverArgs = *topoDev->args;
  Component::DeviceBase* muxDevice = Component::HardwareDevice::create(driverArgs, nullptr);
  KELDO_ASSERT(muxDevice);
  Mux* mux = muxDevice->newMux(driverArgs, channel_);
  KELDO_ASSERT(mux);
  ham_->muxes.insert(ham_->muxes.begin(), mux);
}

KeldoSmbusDriverVisitor::KeldoSmbusDriverVisitor(const Drivers::DriverArgs& driverArgs)
    : KeldoSmbusVisitor(driverArgs.uid, driverArgs.did), driverArgs_(driverArgs) {}

// The device is where the access method is built: on the way up from its
// component, or as the target itself when no component is named.
void KeldoSmbusDriverVisitor::onPath(const Topology::Device*) {
  ham_ = std::make_unique<KeldoSmbusHam>();
  ham_->address = driverArgs_.address;
  ham_->address.setAddrSize(1);
}

void KeldoSmbusBusIdVisitor::onPath(const Topology::Bus* node) {
  if (!ham_) {
    ham_ = std::make_unique<KeldoSmbusHam>();
    ham_->address.word0 = 0;
    ham_->address.word1 = (address_ & 0x7Fu) | kAddrSizeOne;
  }
  KeldoSmbusVisitor::onPath(node);
}

}  // namespace Ham
