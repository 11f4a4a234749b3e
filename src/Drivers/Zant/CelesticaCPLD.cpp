#include "Drivers/Zant/CelesticaCPLD.h"

#include "Ham/Ham.h"

namespace Drivers {

namespace LD = Component::LogicalDevice;

namespace {

// The system LED owns bits 0 and 1 of the LED register: "Good" clears both,
// "Beacon" leaves bit 1 alone set, every other status sets both.
constexpr LedEncoding kSystemLed = {
    {0xFF, 0x03},  // Off
    {0xFC, 0x00},  // Good
    {0xFF, 0x03},  // Warning
    {0xFF, 0x03},  // Bad
    {0xFF, 0x03},  // Inactive
    {0xFF, 0x03},  // Unknown
    {0xFC, 0x02},  // Beacon
};

// PSU LED n (zero-based) is bit n + 2 of the LED register; a clear bit lights it.
uint8_t psuLedBit(uint8_t id) { return static_cast<uint8_t>(1u << (id + 2)); }

bool knownStatus(pl_led_status status) { return static_cast<unsigned>(status) <= PL_LED_BEACON; }

void traceSetting(const char* format, uint8_t id, pl_led_status status) {
  if (knownStatus(status)) {
    pl_trace(6, format, id, LD::Led::getLedStatusString(status));
  }
}

pl_status readLedRegister(Ham::Ham& ham, uint16_t reg, uint8_t* byte) {
  const pl_status status = ham.read8(reg, byte);
  if (status != PL_STATUS_OK) {
    pl_trace(0, "Error reading CPLD led register");
  }
  return status;
}

pl_status unexpectedSetting(uint8_t id, pl_led_status status) {
  pl_trace(0, "led %hhu was given an unexpected setting %d", id, static_cast<int>(status));
  return PL_STATUS_BAD_INPUT;
}

pl_status writeLedRegister(Ham::Ham& ham, uint16_t reg, uint8_t byte, const char* failed, uint8_t id) {
  const pl_status status = ham.write8(reg, byte, false);
  if (status != PL_STATUS_OK) {
    pl_trace(6, failed, id);
  }
  return status;
}

void traceXcvr(const char* operation, unsigned int index) {
  pl_trace(5, "%s(): id=%hhu", operation, static_cast<uint8_t>(index));
}

}  // namespace

pl_status setSystemLedRegister(Ham::Ham& ham, uint16_t reg, const LedEncoding& encoding, uint8_t id,
                               pl_led_status status, const char* writeFailed) {
  traceSetting("setting CPLD System Led %hhu to %s", id, status);
  uint8_t byte = 0;
  const pl_status read = readLedRegister(ham, reg, &byte);
  if (read != PL_STATUS_OK) {
    return read;
  }
  if (!knownStatus(status)) {
    return unexpectedSetting(id, status);
  }
  const LedBits& bits = encoding[status];
  return writeLedRegister(ham, reg, static_cast<uint8_t>((byte & bits.keep) | bits.add), writeFailed, id);
}

// Polling starts here, after the variant installed its maps: the first poll
// fills the cache before any transceiver object exists, and a timer that
// cannot be armed is a host that cannot run this driver.
void CelXcvrCPLD::init() {
  pl_trace(0, "CelXcvrCPLD::init()");
  portLedValue = 0x00FF;
  if (!xcvrPoll) {
    return;
  }
  updateRegisterCache();
  pollInterval_ = POLL_INTERVAL_MS;
  KELDO_ASSERT(pollStart());
}

void CelXcvrCPLD::pollCallback() {
  if (xcvrPoll) {
    updateRegisterCache();
  }
}

// The response ids of one transaction are consecutive, so the first read's id
// follows from the last one and the count, whatever the transport numbers from.
bool CelXcvrCPLD::updateRegisterCache() {
  ham_->prepare();
  Ham::Ham::ResponseId last = Ham::Ham::INVALID_RESPONSE_ID;
  uint32_t count = 0;
  for (const RegisterMap* map : registerMaps) {
    for (size_t i = 0; map != nullptr && i < map->size(); ++i, ++count) {
      last = ham_->addRead8((*map)[i]);
    }
  }
  if (ham_->execute() != PL_STATUS_OK) {
    pl_trace(0, "Failed to poll information for CelXcvrCPLD");
    return false;
  }
  Ham::Ham::ResponseId id = last - count + 1;
  for (const RegisterMap* map : registerMaps) {
    for (size_t i = 0; map != nullptr && i < map->size(); ++i) {
      registerCache[(*map)[i]] = ham_->get8(id++);
    }
  }
  pl_trace(6, "Register cache updated for CelXcvrCPLD");
  return true;
}

pl_status CelXcvrCPLD::getRegisterBit(uint16_t reg, uint8_t bit, int* value, bool refresh) {
  uint8_t& cached = registerCache[reg];
  if (refresh) {
    const pl_status status = ham_->read8(reg, &cached);
    if (status != PL_STATUS_OK) {
      return status;
    }
  }
  *value = (cached >> bit) & 1;
  return PL_STATUS_OK;
}

// The other bits are written back as last polled: a bit that the hardware
// changed since then is overwritten with its cached value.
pl_status CelXcvrCPLD::setRegisterBit(uint16_t reg, uint8_t bit, int value, bool refresh) {
  uint8_t byte = registerCache[reg];
  if (refresh) {
    const pl_status status = ham_->read8(reg, &byte);
    if (status != PL_STATUS_OK) {
      return status;
    }
  }
  const uint8_t mask = static_cast<uint8_t>(1u << bit);
  byte = static_cast<uint8_t>(value != 0 ? byte | mask : byte & ~mask);
  const pl_status status = ham_->write8(reg, byte, false);
  if (status != PL_STATUS_OK) {
    return status;
  }
  registerCache[reg] = byte;
  return PL_STATUS_OK;
}

uint16_t CelXcvrCPLD::xcvrRegister(Family family, const CelXcvr& xcvr, uint8_t kind) const {
  return (*registerMaps[family])[4u * xcvr.block() + kind];
}

pl_status CelXcvrCPLD::getRegisterBit(QsfpXcvr* xcvr, uint8_t kind, int* value, bool refresh) {
  return getRegisterBit(xcvrRegister(QSFP_MAP, *xcvr, kind), xcvr->bitpos(), value, refresh);
}
pl_status CelXcvrCPLD::getRegisterBit(SfpXcvr* xcvr, uint8_t kind, int* value, bool refresh) {
  return getRegisterBit(xcvrRegister(SFP_MAP, *xcvr, kind), xcvr->bitpos(), value, refresh);
}
pl_status CelXcvrCPLD::setRegisterBit(QsfpXcvr* xcvr, uint8_t kind, int value, bool refresh) {
  return setRegisterBit(xcvrRegister(QSFP_MAP, *xcvr, kind), xcvr->bitpos(), value, refresh);
}
pl_status CelXcvrCPLD::setRegisterBit(SfpXcvr* xcvr, uint8_t kind, int value, bool refresh) {
  return setRegisterBit(xcvrRegister(SFP_MAP, *xcvr, kind), xcvr->bitpos(), value, refresh);
}

void CelXcvrCPLD::computeOffsetAndBitpos(const Limits& limits, unsigned int index, unsigned char& offset,
                                         unsigned char& bitpos) {
  while (offset < limits.size() && index >= limits[offset]) {
    ++offset;
  }
  if (offset < limits.size()) {
    bitpos = static_cast<unsigned char>(offset == 0 ? index : index - limits[offset - 1]);
  }
}

void CelXcvrCPLD::activeLow(pl_status status, int* value) {
  if (status == PL_STATUS_OK) {
    *value = *value == 0 ? 1 : 0;
  }
}

// Reset and interrupt are active low: a clear bit holds the module in reset,
// or reports an interrupt pending.
pl_status CelXcvrCPLD::getQsfpReset(QsfpXcvr* xcvr, int* value) {
  traceXcvr("getQsfpReset", xcvr->index());
  const pl_status status = getRegisterBit(xcvr, QSFP_RESET, value, false);
  activeLow(status, value);
  return status;
}

pl_status CelXcvrCPLD::setQsfpReset(QsfpXcvr* xcvr, int value) {
  traceXcvr("setQsfpReset", xcvr->index());
  return setRegisterBit(xcvr, QSFP_RESET, !value, false);
}

pl_status CelXcvrCPLD::getQsfpLpMode(QsfpXcvr* xcvr, int* value) {
  traceXcvr("getQsfpLpMode", xcvr->index());
  return getRegisterBit(xcvr, QSFP_LP_MODE, value, false);
}

pl_status CelXcvrCPLD::setQsfpLpMode(QsfpXcvr* xcvr, int value) {
  traceXcvr("setQsfpLpMode", xcvr->index());
  return setRegisterBit(xcvr, QSFP_LP_MODE, value, false);
}

// Presence answers with the bit itself (1 present, 0 absent), or with the
// status of a read that failed.
pl_status CelXcvrCPLD::getQsfpPresence(QsfpXcvr* xcvr) {
  int bit = 0;
  const pl_status status = getRegisterBit(xcvr, QSFP_PRESENCE, &bit, false);
  return status != PL_STATUS_OK ? status : bit != 0;
}

pl_status CelXcvrCPLD::getQsfpInterrupt(QsfpXcvr* xcvr, int* value) {
  traceXcvr("getQsfpInterrupt", xcvr->index());
  const pl_status status = getRegisterBit(xcvr, QSFP_INTERRUPT, value, false);
  activeLow(status, value);
  return status;
}

// The CPLD has no module-select line: the host's selection is accepted and
// changes nothing.
pl_status CelXcvrCPLD::getQsfpModSel(QsfpXcvr* xcvr, int*) {
  traceXcvr("getQsfpModSel", xcvr->index());
  return PL_STATUS_OK;
}

pl_status CelXcvrCPLD::setQsfpModSel(QsfpXcvr* xcvr, int) {
  traceXcvr("setQsfpModSel", xcvr->index());
  return PL_STATUS_OK;
}

pl_status CelXcvrCPLD::getSfpRxLos(SfpXcvr* xcvr, int* value) { return getRegisterBit(xcvr, SFP_RX_LOS, value, false); }

pl_status CelXcvrCPLD::getSfpTxDisable(SfpXcvr* xcvr, int* value) {
  return getRegisterBit(xcvr, SFP_TX_DISABLE, value, false);
}

pl_status CelXcvrCPLD::setSfpTxDisable(SfpXcvr* xcvr, int value) {
  return setRegisterBit(xcvr, SFP_TX_DISABLE, value, false);
}

pl_status CelXcvrCPLD::getSfpTxFault(SfpXcvr* xcvr, int* value) {
  return getRegisterBit(xcvr, SFP_TX_FAULT, value, false);
}

pl_status CelXcvrCPLD::getSfpPresence(SfpXcvr* xcvr) {
  int bit = 0;
  const pl_status status = getRegisterBit(xcvr, SFP_PRESENCE, &bit, false);
  return status != PL_STATUS_OK ? status : bit != 0;
}

// A failed write is reported and the remaining registers are still written.
// The trace shows the register's low byte only.
void CelXcvrCPLD::setPortLedsRegister() {
  for (size_t i = 0; portLedsRegMap != nullptr && i < portLedsRegMap->size(); ++i) {
    const uint16_t reg = (*portLedsRegMap)[i];
    if (ham_->write8(reg, static_cast<uint8_t>(portLedValue), false) != PL_STATUS_OK) {
      pl_trace(0, "Failed to write QSFP Port Error LED Register: %hhu", static_cast<uint8_t>(reg));
    }
  }
}

void CelXcvrCPLD::startPolling(const RegisterMap* qsfpMap, const RegisterMap* sfpMap) {
  if (!xcvrPoll) {
    return;
  }
  registerMaps.resize(2);
  registerMaps[QSFP_MAP] = qsfpMap;
  if (sfpMap != nullptr) {
    registerMaps[SFP_MAP] = sfpMap;
  }
  CelXcvrCPLD::init();
}

void CelXcvrCPLD::lightPortLeds(const RegisterMap* map) {
  portLedsRegMap = map;
  setPortLedsRegister();
}

// Ports need the maps, which only a polling CPLD installs.
CelXcvrCPLD::QsfpXcvr* CelXcvrCPLD::newQsfp(unsigned int id, const Limits* limits) {
  KELDO_ASSERT(xcvrPoll);
  const unsigned int index = id - 1;
  unsigned char block = 0, bitpos = 0;
  if (limits == nullptr) {
    bitpos = static_cast<unsigned char>(index);
  } else {
    computeOffsetAndBitpos(*limits, index, block, bitpos);
  }
  return new QsfpXcvr(this, index, block, bitpos);
}

CelXcvrCPLD::SfpXcvr* CelXcvrCPLD::newSfp(unsigned int id, const Limits& limits) {
  KELDO_ASSERT(xcvrPoll);
  unsigned char block = 0, bitpos = 0;
  computeOffsetAndBitpos(limits, id - 1, block, bitpos);
  return new SfpXcvr(this, id - 1, block, bitpos);
}

std::pair<uint8_t, std::string> CelXcvrCPLD::ledArgs(const FactoryArgs& args) {
  KELDO_ASSERT(args.driverArgs.find( "id" ) != args.driverArgs.end());
  const int ledId = std::stoi(args.driverArgs.at("id"));
  KELDO_ASSERT(ledId >= 1 && ledId <= 2);
  auto it = args.driverArgs.find("type");
  KELDO_ASSERT(it != args.driverArgs.end());
  return {static_cast<uint8_t>(ledId - 1), it->second};
}

LD::Led* CelXcvrCPLD::newLed(const FactoryArgs& args) {
  const auto [id, type] = ledArgs(args);
  if (type == "status" || type == "psu") {
    pl_trace(5, "creating new ZantCPLD %s LED with id %hhu", type.c_str(), static_cast<uint8_t>(id + 1));
    return type == "status" ? static_cast<LD::Led*>(new SystemLed(this, id)) : new PsuLed(this, id);
  }
  pl_trace(0, "Error: failed to find driverArg for ZantCPLD::newLed");
  return nullptr;
}

// The blink phase goes to bit id + 2 whatever the LED; only PSU LEDs blink.
bool CelXcvrCPLD::Led::handleBlinkTimer(bool on) {
  Ham::Ham& ham = *cpld_->ham();
  uint8_t byte = 0;
  if (readLedRegister(ham, LED_REGISTER, &byte) != PL_STATUS_OK) {
    return false;
  }
  byte = static_cast<uint8_t>(byte & ~psuLedBit(id_));
  if (!on) {
    byte |= psuLedBit(id_);
  }
  ham.prepare();
  return ham.write8(LED_REGISTER, byte, false) == PL_STATUS_OK;
}

pl_status CelXcvrCPLD::SystemLed::setLightSetting(pl_led_status status) {
  return setSystemLedRegister(*cpld_->ham(), LED_REGISTER, kSystemLed, id_, status,
                              "Setting status for ZantCPLD System LED-%hhu failed.");
}

// "Beacon" blinks through the process's shared blink timer; any other status
// takes the LED off the blink list first. A second "Beacon" changes nothing.
pl_status CelXcvrCPLD::PsuLed::setLightSetting(pl_led_status status) {
  KELDO_ASSERT(id_ <= 1);
  traceSetting("setting CPLD PSU Led %hhu to %s", id_, status);
  if (blinking && status != PL_LED_BEACON) {
    notifyList_.remove(this);
    blinking = false;
  }
  Ham::Ham& ham = *cpld_->ham();
  uint8_t byte = 0;
  const pl_status read = readLedRegister(ham, LED_REGISTER, &byte);
  if (read != PL_STATUS_OK) {
    return read;
  }
  byte = static_cast<uint8_t>(byte & ~psuLedBit(id_));
  const uint8_t dark = static_cast<uint8_t>(byte | psuLedBit(id_));
  const char* const failed = "Setting status for ZantCPLD PSU LED-%hhu failed.";
  switch (status) {
    case PL_LED_GOOD:
      return writeLedRegister(ham, LED_REGISTER, byte, failed, id_);
    case PL_LED_OFF:
    case PL_LED_BAD:
      return writeLedRegister(ham, LED_REGISTER, dark, failed, id_);
    case PL_LED_BEACON:
      if (blinking) {
        return PL_STATUS_OK;
      }
      notifyOnBlink(this);
      blinking = true;
      return ham.write8(LED_REGISTER, dark, false);
    default:
      return unexpectedSetting(id_, status);
  }
}

}  // namespace Drivers
