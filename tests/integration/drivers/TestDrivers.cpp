// Drivers that exist only in the test build of the plug-in. "TestPanel" keeps
// every LED and transceiver signal in a one-byte register, read and written
// through the device's Ham, so that in simulation each host call lands in the
// simulation file. Registers: 0x10 LED status, 0x11 blink phase, 0x20 + n the
// SFP port n + 1 (bits: present, tx fault, rx los, tx disable), 0x50 free
// bits for register GPIOs.
#include "Components/HardwareDevice.h"
#include "Components/Led.h"
#include "Components/Xcvr.h"
#include "Ham/Ham.h"
#include "Zanty.h"

namespace {

namespace LD = Component::LogicalDevice;

class Panel : public Component::HardwareDevice {
 public:
  using HardwareDevice::HardwareDevice;

  // SFP 1 present, SFP 2 present with loss of signal.
  Utils::ExpectedValues* expectedValues() override {
    static Utils::ExpectedValues table = {
        {0x10, {0u, 1}}, {0x11, {0u, 1}}, {0x20, {0x01u, 1}}, {0x21, {0x05u, 1}}, {0x50, {0x81u, 1}}};
    return &table;
  }

  LD::Led* newLed(const Component::FactoryArgs&) override;
  LD::SfpXcvr* newSfpXcvr(unsigned int id, const Component::FactoryArgs&) override;

  pl_status readBit(uint32_t reg, unsigned int bit, int* value) {
    uint8_t byte = 0;
    pl_status status = ham_->read8(reg, &byte);
    *value = (byte >> bit) & 1;
    return status;
  }
  pl_status writeBit(uint32_t reg, unsigned int bit, int value) {
    uint8_t byte = 0;
    pl_status status = ham_->read8(reg, &byte);
    const uint8_t mask = static_cast<uint8_t>(1u << bit);
    return status != PL_STATUS_OK ? status : ham_->write8(reg, value ? (byte | mask) : (byte & ~mask), false);
  }
};

// Shows its status as a number and, while on "Beacon", the phase of every tick.
class PanelLed : public LD::Led {
 public:
  explicit PanelLed(Panel* panel) : panel_(panel) { canBlink_ = true; }

  pl_status setLightSetting(pl_led_status status) override {
    pl_status result = panel_->ham()->write8(0x10, static_cast<uint8_t>(status), false);
    const bool beacon = status == PL_LED_BEACON && result == PL_STATUS_OK;
    if (beacon && !blinking_) notifyOnBlink(this);
    blinking_ = beacon;  // a steady status leaves the blink list at the next tick
    return result;
  }
  bool handleBlinkTimer(bool on) override {
    return blinking_ && panel_->ham()->write8(0x11, on ? 1 : 0, false) == PL_STATUS_OK;
  }

 private:
  Panel* panel_;
  bool blinking_ = false;
};

class PanelSfp : public LD::SfpXcvr {
 public:
  PanelSfp(Panel* panel, unsigned int index) : SfpXcvr(index), panel_(panel), reg_(0x20 + index) {}
  pl_status getPresence() override {  // the present bit itself (1 present, 0 absent), or a failure
    int present = 0;
    pl_status status = panel_->readBit(reg_, 0, &present);
    return status == PL_STATUS_OK ? present : status;
  }
  pl_status getTxFault(int* v) override { return panel_->readBit(reg_, 1, v); }
  pl_status getRxLos(int* v) override { return panel_->readBit(reg_, 2, v); }
  pl_status getTxDisable(int* v) override { return panel_->readBit(reg_, 3, v); }
  pl_status setTxDisable(int v) override { return panel_->writeBit(reg_, 3, v); }

 private:
  Panel* panel_;
  uint32_t reg_;
};

LD::Led* Panel::newLed(const Component::FactoryArgs&) { return new PanelLed(this); }
LD::SfpXcvr* Panel::newSfpXcvr(unsigned int id, const Component::FactoryArgs&) { return new PanelSfp(this, id - 1); }

}  // namespace

namespace Drivers {

void addExtraDriverRows(std::map<std::string, DriverFactory>& rows) {
  rows.emplace("TestPanel", [](const DriverArgs&, Ham::Ham* ham) -> Component::DeviceBase* { return new Panel(ham); });
}

}  // namespace Drivers
