#include "Drivers/Zant/ZantCPLDs.h"

namespace Drivers {

namespace LD = Component::LogicalDevice;

namespace {

// One register of a simulated power-on image.
Utils::ExpectedVal byte(uint8_t value) { return Utils::ExpectedVal(value, 1); }

// The Y board's system LED takes bits 0, 1, 4 and 5 of its register: "Good"
// sets bit 4, "Beacon" bits 4 and 1, every other status bits 5 and 1.
constexpr LedEncoding kZantYSystemLed = {
    {0xCC, 0x22},  // Off
    {0xCC, 0x10},  // Good
    {0xCC, 0x22},  // Warning
    {0xCC, 0x22},  // Bad
    {0xCC, 0x22},  // Inactive
    {0xCC, 0x22},  // Unknown
    {0xCC, 0x12},  // Beacon
};

}  // namespace

// Register maps: one row per block, in the kind order reset, lpMode,
// presence, interrupt (QSFP) or rxLos, txDisable, txFault, presence (SFP).

const CelXcvrCPLD::Limits ZantCCPLD::qsfpRegisterLimits = {8, 10, 18, 21, 29, 32};

const CelXcvrCPLD::RegisterMap ZantCCPLD::qsfpRegisterMap = {
    0x250, 0x252, 0x254, 0x256,  // ports 1-8
    0x251, 0x253, 0x255, 0x257,  // ports 9-10
    0x2D0, 0x2D2, 0x2D4, 0x2D6,  // ports 11-18
    0x2D1, 0x2D3, 0x2D5, 0x2D7,  // ports 19-21
    0x3D0, 0x3D2, 0x3D4, 0x3D6,  // ports 22-29
    0x3D1, 0x3D3, 0x3D5, 0x3D7,  // ports 30-32
};

const CelXcvrCPLD::Limits ZantQCPLD::qsfpRegisterLimits = {8, 16, 24, 32};

const CelXcvrCPLD::RegisterMap ZantQCPLD::qsfpRegisterMap = {
    0x250, 0x252, 0x254, 0x256,  // ports 1-8
    0x251, 0x253, 0x255, 0x257,  // ports 9-16
    0x2D0, 0x2D2, 0x2D4, 0x2D6,  // ports 17-24
    0x2D1, 0x2D3, 0x2D5, 0x2D7,  // ports 25-32
};

const CelXcvrCPLD::RegisterMap ZantQCPLD::qsfpPortLedsRegMap = {
    0x203, 0x204, 0x283, 0x284, 0x285, 0x286, 0x394, 0x395, 0x396, 0x397, 0x398,
    0x399, 0x39A, 0x39B, 0x39C, 0x39D, 0x39E, 0x39F, 0x3A0, 0x3A1, 0x3A2,
};

Utils::ExpectedValues ZantQCPLD::values = {
    {0x303, byte(0xFC)},
    {0x250, byte(0xFF)}, {0x251, byte(0xFF)}, {0x252, byte(0xFF)}, {0x253, byte(0xFF)},
    {0x254, byte(0x0F)}, {0x255, byte(0xFF)}, {0x256, byte(0xFF)}, {0x257, byte(0xFF)},
    {0x2D0, byte(0xFF)}, {0x2D1, byte(0xFF)}, {0x2D2, byte(0xFF)}, {0x2D3, byte(0xFF)},
    {0x2D4, byte(0xFF)}, {0x2D5, byte(0xFF)}, {0x2D6, byte(0xFF)}, {0x2D7, byte(0xFF)},
};

const CelXcvrCPLD::Limits ZantSCPLD::sfpRegisterLimits = {8, 16, 18, 26, 34, 36, 44, 48};

const CelXcvrCPLD::RegisterMap ZantSCPLD::sfpRegisterMap = {
    0x240, 0x250, 0x256, 0x259,  // ports 1-8
    0x241, 0x251, 0x257, 0x25A,  // ports 9-16
    0x242, 0x252, 0x258, 0x25B,  // ports 17-18
    0x2C0, 0x2D0, 0x2D6, 0x2D9,  // ports 19-26
    0x2C1, 0x2D1, 0x2D7, 0x2DA,  // ports 27-34
    0x2C2, 0x2D2, 0x2D8, 0x2DB,  // ports 35-36
    0x3C0, 0x3D0, 0x3D4, 0x3D6,  // ports 37-44
    0x3C1, 0x3D1, 0x3D5, 0x3D7,  // ports 45-48
};

const CelXcvrCPLD::RegisterMap ZantSCPLD::qsfpRegisterMap = {
    0x360, 0x361, 0x362, 0x363,  // QSFP ports 1-6 on bits 0-5
};

const CelXcvrCPLD::RegisterMap ZantSCPLD::qsfpPortLedsRegMap = {0x383, 0x384, 0x385};

Utils::ExpectedValues ZantSCPLD::values = {
    {0x303, byte(0xFC)},
    {0x240, byte(0x3F)}, {0x241, byte(0x3F)}, {0x242, byte(0xFF)},
    {0x250, byte(0xFF)}, {0x251, byte(0xFF)}, {0x252, byte(0x03)},
    {0x256, byte(0x3F)}, {0x257, byte(0x3F)}, {0x258, byte(0xFF)},
    {0x259, byte(0x3F)}, {0x25A, byte(0x3F)}, {0x25B, byte(0xFF)},
    {0x2C0, byte(0xCF)}, {0x2C1, byte(0xCF)}, {0x2C2, byte(0xFF)},
    {0x2D0, byte(0xFF)}, {0x2D1, byte(0xFF)}, {0x2D2, byte(0x03)},
    {0x2D6, byte(0xCF)}, {0x2D7, byte(0xCF)}, {0x2D8, byte(0xFF)},
    {0x2D9, byte(0xCF)}, {0x2DA, byte(0xCF)}, {0x2DB, byte(0xFF)},
    {0x360, byte(0x0C)}, {0x361, byte(0xFF)}, {0x362, byte(0xF3)}, {0x363, byte(0xFF)},
    {0x3C0, byte(0xF3)}, {0x3C1, byte(0xF3)},
    {0x3D0, byte(0xFF)}, {0x3D1, byte(0x0F)},
    {0x3D4, byte(0xF3)}, {0x3D5, byte(0xF3)}, {0x3D6, byte(0xF3)}, {0x3D7, byte(0xF3)},
};

const CelXcvrCPLD::Limits ZantYCPLD::sfpRegisterLimits = {8, 16, 18, 26, 34, 36, 44, 48};

const CelXcvrCPLD::RegisterMap ZantYCPLD::sfpRegisterMap = {
    0xA240, 0xA250, 0xA256, 0xA259,  // ports 1-8
    0xA241, 0xA251, 0xA257, 0xA25A,  // ports 9-16
    0xA242, 0xA252, 0xA258, 0xA25B,  // ports 17-18
    0xA2C0, 0xA2D0, 0xA2D6, 0xA2D9,  // ports 19-26
    0xA2C1, 0xA2D1, 0xA2D7, 0xA2DA,  // ports 27-34
    0xA2C2, 0xA2D2, 0xA2D8, 0xA2DB,  // ports 35-36
    0xA3C0, 0xA3D0, 0xA3D4, 0xA3D6,  // ports 37-44
    0xA3C1, 0xA3D1, 0xA3D5, 0xA3D7,  // ports 45-48
};

const CelXcvrCPLD::RegisterMap ZantYCPLD::qsfpRegisterMap = {
    0xA360, 0xA361, 0xA362, 0xA363,  // QSFP ports 1-6 on bits 0-5
};

const CelXcvrCPLD::RegisterMap ZantYCPLD::qsfpPortLedsRegMap = {0xA260, 0xA2E0, 0xA3E0};

// As documented: 0xA3D1 is listed twice (the map keeps one), 0xA25B and the
// system LED register 0xA106 not at all, so in simulation they answer 0 or
// fail.
Utils::ExpectedValues ZantYCPLD::values = {
    {0xA240, byte(0x00)}, {0xA241, byte(0x00)}, {0xA242, byte(0xFC)},
    {0xA250, byte(0xFF)}, {0xA251, byte(0xFF)}, {0xA252, byte(0x03)},
    {0xA256, byte(0x00)}, {0xA257, byte(0x00)}, {0xA258, byte(0xFC)},
    {0xA259, byte(0x00)}, {0xA25A, byte(0x00)},
    {0xA2C0, byte(0x00)}, {0xA2C1, byte(0x00)}, {0xA2C2, byte(0xFC)},
    {0xA2D0, byte(0xFF)}, {0xA2D1, byte(0xFF)}, {0xA2D2, byte(0x03)},
    {0xA2D6, byte(0x00)}, {0xA2D7, byte(0x00)}, {0xA2D8, byte(0xFC)},
    {0xA2D9, byte(0x00)}, {0xA2DA, byte(0x00)}, {0xA2DB, byte(0xFC)},
    {0xA360, byte(0xFF)}, {0xA361, byte(0xC0)}, {0xA362, byte(0xC0)}, {0xA363, byte(0xFF)},
    {0xA3C0, byte(0x00)}, {0xA3C1, byte(0xF0)},
    {0xA3D0, byte(0x00)}, {0xA3D1, byte(0x00)}, {0xA3D1, byte(0x00)},
    {0xA3D4, byte(0x00)}, {0xA3D5, byte(0xF0)}, {0xA3D6, byte(0x00)}, {0xA3D7, byte(0xF0)},
};

Component::HardwareDevice* ZantCCPLD::create(const DriverArgs& args, Ham::Ham* ham) {
  return createVariant<ZantCCPLD>("ZantCCPLD", args, ham);
}

void ZantCCPLD::init() {
  pl_trace(5, "ZantCCPLD init function");
  startPolling(&qsfpRegisterMap, nullptr);
}

LD::QsfpXcvr* ZantCCPLD::newQsfpXcvr(unsigned int id, const FactoryArgs&) {
  KELDO_ASSERT(id >= 1 && id <= 32);
  pl_trace(0, "creating new QsfpXcvr for id %hhu", id);
  return newQsfp(id, &qsfpRegisterLimits);
}

Component::HardwareDevice* ZantQCPLD::create(const DriverArgs& args, Ham::Ham* ham) {
  return createVariant<ZantQCPLD>("ZantQCPLD", args, ham);
}

void ZantQCPLD::init() {
  pl_trace(5, "ZantQCPLD init function");
  startPolling(&qsfpRegisterMap, nullptr);
  lightPortLeds(&qsfpPortLedsRegMap);
}

LD::QsfpXcvr* ZantQCPLD::newQsfpXcvr(unsigned int id, const FactoryArgs&) {
  KELDO_ASSERT(id >= 1 && id <= 32);
  pl_trace(0, "creating new QsfpXcvr for id %hhu", id);
  return newQsfp(id, &qsfpRegisterLimits);
}

Component::HardwareDevice* ZantSCPLD::create(const DriverArgs& args, Ham::Ham* ham) {
  return createVariant<ZantSCPLD>("ZantSCPLD", args, ham);
}

void ZantSCPLD::init() {
  pl_trace(5, "ZantSCPLD init function");
  startPolling(&qsfpRegisterMap, &sfpRegisterMap);
  lightPortLeds(&qsfpPortLedsRegMap);
}

LD::QsfpXcvr* ZantSCPLD::newQsfpXcvr(unsigned int id, const FactoryArgs&) {
  KELDO_ASSERT(id >= 1 && id <= 6);
  pl_trace(5, "creating new QsfpXcvr for id %hhu", id);
  return newQsfp(id, nullptr);
}

LD::SfpXcvr* ZantSCPLD::newSfpXcvr(unsigned int id, const FactoryArgs&) {
  KELDO_ASSERT(id >= 1 && id <= 48);
  pl_trace(5, "creating new SfpXcvr for id %hhu", id);
  return newSfp(id, sfpRegisterLimits);
}

Component::HardwareDevice* ZantYCPLD::create(const DriverArgs& args, Ham::Ham* ham) {
  return createVariant<ZantYCPLD>("ZantYCPLD", args, ham);
}

void ZantYCPLD::init() {
  pl_trace(5, "ZantYCPLD init function");
  startPolling(&qsfpRegisterMap, &sfpRegisterMap);
  portLedValue = 0;  // the Q and S boards start their port LEDs at 0xFF
  lightPortLeds(&qsfpPortLedsRegMap);
}

LD::QsfpXcvr* ZantYCPLD::newQsfpXcvr(unsigned int id, const FactoryArgs&) {
  KELDO_ASSERT(id >= 1 && id <= 6);
  pl_trace(5, "creating new QsfpXcvr for id %hhu", id);
  return newQsfp(id, nullptr);
}

LD::SfpXcvr* ZantYCPLD::newSfpXcvr(unsigned int id, const FactoryArgs&) {
  KELDO_ASSERT(id >= 1 && id <= 48);
  pl_trace(5, "creating new SfpXcvr for id %hhu", id);
  return newSfp(id, sfpRegisterLimits);
}

LD::Led* ZantYCPLD::newLed(const FactoryArgs& args) {
  const auto [id, type] = ledArgs(args);
  if (type != "status") {
    pl_trace(0, "Error: failed to find driverArg for ZantYCPLD::newLed");
    return nullptr;
  }
  pl_trace(5, "creating new ZantYCPLD %s LED with id %hhu", type.c_str(), static_cast<uint8_t>(id + 1));
  return new SystemLed(this, id);
}

pl_status ZantYCPLD::SystemLed::setLightSetting(pl_led_status status) {
  return setSystemLedRegister(*cpld_->ham(), SYSTEM_LED_REGISTER, kZantYSystemLed, id_, status,
                              "Setting status for ZantYCPLD System LED-%hhu failed.");
}

}  // namespace Drivers
