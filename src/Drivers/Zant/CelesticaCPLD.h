#pragma once
// The Celestica CPLD of the Zant boards: byte-wide registers with 16-bit
// register numbers that carry the sideband signals of the transceiver cages,
// the system LED, the two PSU LEDs and the port LEDs. This is the shared
// mechanism; each board's variant (Drivers/Zant/ZantCPLDs) supplies only its
// register tables and id ranges.
//
// The host asks for transceiver signals far more often than they change, so
// every transceiver register is read in one transaction per poll into a
// cache, and the getters answer from memory.
#include <cstdint>
#include <map>
#include <string>
#include <utility>
#include <vector>

#include "Components/HardwareDevice.h"
#include "Components/Led.h"
#include "Components/Xcvr.h"
#include "KeldoUtil/Assert.h"

namespace Drivers {

class CelXcvr;

class CelXcvrCPLD : public Component::PollingDevice<Component::HardwareDevice> {
 public:
  // Blocks of four registers, one per kind; block b, kind k at 4 * b + k.
  using RegisterMap = std::vector<uint16_t>;
  // Cumulative port counts: block b holds the zero-based ports from the
  // previous limit (0 for block 0) up to limits[b] - 1.
  using Limits = std::vector<uint32_t>;

  // Kinds of the QSFP map and of the SFP map.
  enum QsfpKind : uint8_t { QSFP_RESET = 0, QSFP_LP_MODE = 1, QSFP_PRESENCE = 2, QSFP_INTERRUPT = 3 };
  enum SfpKind : uint8_t { SFP_RX_LOS = 0, SFP_TX_DISABLE = 1, SFP_TX_FAULT = 2, SFP_PRESENCE = 3 };
  // Entries of registerMaps.
  enum Family : uint8_t { QSFP_MAP = 0, SFP_MAP = 1 };

  static constexpr uint16_t LED_REGISTER = 0x303;
  static constexpr unsigned int POLL_INTERVAL_MS = 1000;

  class QsfpXcvr;
  class SfpXcvr;
  class Led;
  class SystemLed;
  class PsuLed;

  CelXcvrCPLD(Ham::Ham* ham, bool poll) : PollingDevice(ham), xcvrPoll(poll) {}

  void init() override;
  Component::LogicalDevice::Led* newLed(const FactoryArgs& args) override;
  void pollCallback() override;
  virtual void setPortLedsRegister();

  // Reads every mapped register in one transaction into registerCache. False
  // (with a trace) when the transaction fails; the cache then keeps its image.
  bool updateRegisterCache();

  // A bit of the cached image; with `refresh` the register is read first.
  pl_status getRegisterBit(uint16_t reg, uint8_t bit, int* value, bool refresh);
  // Writes the cached byte (or, with `refresh`, the byte read now) with one bit
  // changed; the cache takes the new byte once the write succeeded.
  pl_status setRegisterBit(uint16_t reg, uint8_t bit, int value, bool refresh);
  pl_status getRegisterBit(QsfpXcvr* xcvr, uint8_t kind, int* value, bool refresh);
  pl_status getRegisterBit(SfpXcvr* xcvr, uint8_t kind, int* value, bool refresh);
  pl_status setRegisterBit(QsfpXcvr* xcvr, uint8_t kind, int value, bool refresh);
  pl_status setRegisterBit(SfpXcvr* xcvr, uint8_t kind, int value, bool refresh);

  // Block (`offset`, which the caller sets to 0) and bit of a zero-based port.
  // A port beyond the last limit leaves `bitpos` as it was.
  static void computeOffsetAndBitpos(const Limits& limits, unsigned int index, unsigned char& offset,
                                     unsigned char& bitpos);
  // Turns an active-low signal into its logical value, for a successful read.
  static void activeLow(pl_status status, int* value);

  // What the host's transceiver callbacks do, answered from the cache.
  pl_status getQsfpReset(QsfpXcvr* xcvr, int* value);
  pl_status setQsfpReset(QsfpXcvr* xcvr, int value);
  pl_status getQsfpLpMode(QsfpXcvr* xcvr, int* value);
  pl_status setQsfpLpMode(QsfpXcvr* xcvr, int value);
  pl_status getQsfpPresence(QsfpXcvr* xcvr);
  pl_status getQsfpInterrupt(QsfpXcvr* xcvr, int* value);
  pl_status getQsfpModSel(QsfpXcvr* xcvr, int* value);
  pl_status setQsfpModSel(QsfpXcvr* xcvr, int value);
  pl_status getSfpRxLos(SfpXcvr* xcvr, int* value);
  pl_status getSfpTxDisable(SfpXcvr* xcvr, int* value);
  pl_status setSfpTxDisable(SfpXcvr* xcvr, int value);
  pl_status getSfpTxFault(SfpXcvr* xcvr, int* value);
  pl_status getSfpPresence(SfpXcvr* xcvr);

  std::map<uint16_t, uint8_t> registerCache;  // entries appear on first touch, as 0
  std::vector<const RegisterMap*> registerMaps;  // [QSFP_MAP], [SFP_MAP]; null: no such cage
  bool xcvrPoll;                                 // the object said "xcvrPoll"
  const RegisterMap* portLedsRegMap = nullptr;
  uint16_t portLedValue = 0x00FF;  // its low byte goes into every port-LED register

 protected:
  // The shared static create of the variants: a "gpio" object only needs the
  // CPLD as a register device; anything else gets the variant's driver.
  template <typename Variant>
  static Component::HardwareDevice* createVariant(const char* name, const DriverArgs& args, Ham::Ham* ham);

  // Installs the maps and starts polling, when the object asked for it.
  void startPolling(const RegisterMap* qsfpMap, const RegisterMap* sfpMap);
  // Makes `map` the port-LED registers and writes portLedValue into each.
  void lightPortLeds(const RegisterMap* map);
  // The port at the block and bit that `limits` give its zero-based index;
  // without limits the ports sit in block 0, one bit each.
  QsfpXcvr* newQsfp(unsigned int id, const Limits* limits);
  SfpXcvr* newSfp(unsigned int id, const Limits& limits);
  // The zero-based LED id and type of an LED object.
  static std::pair<uint8_t, std::string> ledArgs(const FactoryArgs& args);

 private:
  uint16_t xcvrRegister(Family family, const CelXcvr& xcvr, uint8_t kind) const;
};

// Where one port's signals sit: a block of its family's map and one bit of it.
// The port's zero-based index is the host-visible base's.
class CelXcvr {
 public:
  CelXcvr(CelXcvrCPLD* cpld, uint8_t block, uint8_t bitpos) : block_(block), bitpos_(bitpos), cpld_(cpld) {}
  uint8_t block() const { return block_; }
  uint8_t bitpos() const { return bitpos_; }

 protected:
  uint8_t block_;
  uint8_t bitpos_;
  CelXcvrCPLD* cpld_;
};

class CelXcvrCPLD::QsfpXcvr : public Component::LogicalDevice::QsfpXcvr, public CelXcvr {
 public:
  QsfpXcvr(CelXcvrCPLD* cpld, unsigned int index, uint8_t block, uint8_t bitpos)
      : Component::LogicalDevice::QsfpXcvr(index), CelXcvr(cpld, block, bitpos) {}
  pl_status getPresence() override { return cpld_->getQsfpPresence(this); }
  pl_status getModSel(int* value) override { return cpld_->getQsfpModSel(this, value); }
  pl_status setModSel(int value) override { return cpld_->setQsfpModSel(this, value); }
  pl_status getLpMode(int* value) override { return cpld_->getQsfpLpMode(this, value); }
  pl_status setLpMode(int value) override { return cpld_->setQsfpLpMode(this, value); }
  pl_status getReset(int* value) override { return cpld_->getQsfpReset(this, value); }
  pl_status setReset(int value) override { return cpld_->setQsfpReset(this, value); }
  pl_status getInterrupt(int* value) override { return cpld_->getQsfpInterrupt(this, value); }
};

class CelXcvrCPLD::SfpXcvr : public Component::LogicalDevice::SfpXcvr, public CelXcvr {
 public:
  SfpXcvr(CelXcvrCPLD* cpld, unsigned int index, uint8_t block, uint8_t bitpos)
      : Component::LogicalDevice::SfpXcvr(index), CelXcvr(cpld, block, bitpos) {}
  pl_status getPresence() override { return cpld_->getSfpPresence(this); }
  pl_status getTxFault(int* value) override { return cpld_->getSfpTxFault(this, value); }
  pl_status getRxLos(int* value) override { return cpld_->getSfpRxLos(this, value); }
  pl_status getTxDisable(int* value) override { return cpld_->getSfpTxDisable(this, value); }
  pl_status setTxDisable(int value) override { return cpld_->setSfpTxDisable(this, value); }
};

class CelXcvrCPLD::Led : public Component::LogicalDevice::Led {
 public:
  Led(CelXcvrCPLD* cpld, uint8_t id) : cpld_(cpld), id_(id) {}
  // Shows one blink phase on bit id + 2 of the LED register.
  bool handleBlinkTimer(bool on) override;
  bool isBlinking() const { return blinking; }

 protected:
  CelXcvrCPLD* cpld_;
  uint8_t id_;  // zero-based
  bool blinking = false;
};

class CelXcvrCPLD::SystemLed : public CelXcvrCPLD::Led {
 public:
  using Led::Led;
  pl_status setLightSetting(pl_led_status status) override;
};

class CelXcvrCPLD::PsuLed : public CelXcvrCPLD::Led {
 public:
  PsuLed(CelXcvrCPLD* cpld, uint8_t id) : Led(cpld, id) { canBlink_ = true; }
  pl_status setLightSetting(pl_led_status status) override;
};

// One status byte: keep the bits of `keep`, then set those of `add`.
struct LedBits {
  uint8_t keep;
  uint8_t add;
};
// Encodings indexed by pl_led_status, "Off" to "Beacon".
using LedEncoding = LedBits[PL_LED_BEACON + 1];

// Sets a system LED that takes a whole bit field of `reg`: read, re-encode,
// write. Statuses beyond the table answer 3 after the read, writing nothing.
pl_status setSystemLedRegister(Ham::Ham& ham, uint16_t reg, const LedEncoding& encoding, uint8_t id,
                               pl_led_status status, const char* writeFailed);

template <typename Variant>
Component::HardwareDevice* CelXcvrCPLD::createVariant(const char* name, const DriverArgs& args, Ham::Ham* ham) {
  pl_trace(5, "Creating %s device", name);
  auto type = args.driverArgs.find("type");
  if (type != args.driverArgs.end() && type->second == "gpio") {
    return new Component::HardwareDevice(ham);
  }
  KELDO_ASSERT(ham);  // a CPLD object with "provideHam": 0 has no way to its registers
  return new Variant(ham, args.driverArgs.count("xcvrPoll") != 0);
}

}  // namespace Drivers
