// Drivers that exist only in the test build of the plug-in. "TestPanel"
// keeps every LED and transceiver signal in a register of its own, read and
// written through the device's Ham, so that a test running in simulation
// sees each host call land in the simulation file.
#include "Components/HardwareDevice.h"
#include "Components/Led.h"
#include "Components/Xcvr.h"
#include "Ham/Ham.h"
#include "TestPanel.h"
#include "Zanty.h"

namespace {

namespace LD = Component::LogicalDevice;

class Panel : public Component::HardwareDevice {
 public:
  using HardwareDevice::HardwareDevice;

  static Component::HardwareDevice* create(const Drivers::DriverArgs&, Ham::Ham* ham) { return new Panel(ham); }

  Utils::ExpectedValues* expectedValues() override {
    static Utils::ExpectedValues table = [] {
      Utils::ExpectedValues values;
      for (const TestPanel::Register& r : TestPanel::registers) {
        values[r.reg] = Utils::ExpectedVal(r.initial, 1);
      }
      return values;
    }();
    return &table;
  }

  LD::Led* newLed(const Component::FactoryArgs&) override;
  LD::SfpXcvr* newSfpXcvr(unsigned int id, const Component::FactoryArgs&) override;
  LD::QsfpXcvr* newQsfpXcvr(unsigned int id, const Component::FactoryArgs&) override;

  // A failed read is returned as it is, leaving `value` untouched.
  pl_status readBit(uint32_t reg, unsigned int bit, int* value) {
    uint8_t byte = 0;
    pl_status status = ham_->read8(reg, &byte);
    if (status == PL_STATUS_OK) {
      *value = (byte >> bit) & 1;
    }
    return status;
  }

  pl_status writeBit(uint32_t reg, unsigned int bit, int value) {
    uint8_t byte = 0;
    pl_status status = ham_->read8(reg, &byte);
    if (status != PL_STATUS_OK) {
      return status;
    }
    const uint8_t mask = static_cast<uint8_t>(1u << bit);
    return ham_->write8(reg, value ? (byte | mask) : (byte & ~mask), false);
  }

  // Presence answers the bit itself (1 present, 0 absent), or a failed read's status.
  pl_status presence(uint32_t reg) {
    int present = 0;
    pl_status status = readBit(reg, 0, &present);
    return status == PL_STATUS_OK ? present : status;
  }
};

// Shows its status as a number and, on "Beacon", the blink phase of every tick.
class PanelLed : public LD::Led {
 public:
  explicit PanelLed(Panel* panel) : panel_(panel) { canBlink_ = true; }

  pl_status setLightSetting(pl_led_status status) override {
    if (static_cast<unsigned int>(status) > PL_LED_BEACON) {
      return PL_STATUS_BAD_INPUT;
    }
    const bool beacon = status == PL_LED_BEACON;
    pl_status result = panel_->ham()->write8(TestPanel::LED_STATUS, static_cast<uint8_t>(status), false);
    if (beacon && !blinking_ && result == PL_STATUS_OK) {
      notifyOnBlink(this);
    }
    // A steady status takes the LED off the blink list at the next tick.
    blinking_ = beacon && result == PL_STATUS_OK;
    return result;
  }

  bool handleBlinkTimer(bool on) override {
    return blinking_ && panel_->ham()->write8(TestPanel::LED_PHASE, on ? 1 : 0, false) == PL_STATUS_OK;
  }

 private:
  Panel* panel_;
  bool blinking_ = false;
};

class PanelSfp : public LD::SfpXcvr {
 public:
  PanelSfp(Panel* panel, unsigned int index) : SfpXcvr(index), panel_(panel) {}

  pl_status getPresence() override { return panel_->presence(reg()); }
  pl_status getTxFault(int* v) override { return panel_->readBit(reg(), TestPanel::SFP_TX_FAULT, v); }
  pl_status getRxLos(int* v) override { return panel_->readBit(reg(), TestPanel::SFP_RX_LOS, v); }
  pl_status getTxDisable(int* v) override { return panel_->readBit(reg(), TestPanel::SFP_TX_DISABLE, v); }
  pl_status setTxDisable(int v) override { return panel_->writeBit(reg(), TestPanel::SFP_TX_DISABLE, v); }

 private:
  uint32_t reg() const { return TestPanel::SFP_PORT0 + index_; }
  Panel* panel_;
};

class PanelQsfp : public LD::QsfpXcvr {
 public:
  PanelQsfp(Panel* panel, unsigned int index) : QsfpXcvr(index), panel_(panel) {}

  pl_status getPresence() override { return panel_->presence(reg()); }
  pl_status getModSel(int* v) override { return panel_->readBit(reg(), TestPanel::QSFP_MOD_SEL, v); }
  pl_status setModSel(int v) override { return panel_->writeBit(reg(), TestPanel::QSFP_MOD_SEL, v); }
  pl_status getLpMode(int* v) override { return panel_->readBit(reg(), TestPanel::QSFP_LP_MODE, v); }
  pl_status setLpMode(int v) override { return panel_->writeBit(reg(), TestPanel::QSFP_LP_MODE, v); }
  pl_status getReset(int* v) override { return panel_->readBit(reg(), TestPanel::QSFP_RESET, v); }
  pl_status setReset(int v) override { return panel_->writeBit(reg(), TestPanel::QSFP_RESET, v); }
  pl_status getInterrupt(int* v) override { return panel_->readBit(reg(), TestPanel::QSFP_INTERRUPT, v); }

 private:
  uint32_t reg() const { return TestPanel::QSFP_PORT0 + index_; }
  Panel* panel_;
};

LD::Led* Panel::newLed(const Component::FactoryArgs&) { return new PanelLed(this); }

// Ids outside 1..PORTS have no port: null, as a real driver answers.
LD::SfpXcvr* Panel::newSfpXcvr(unsigned int id, const Component::FactoryArgs&) {
  return id >= 1 && id <= TestPanel::PORTS ? new PanelSfp(this, id - 1) : nullptr;
}

LD::QsfpXcvr* Panel::newQsfpXcvr(unsigned int id, const Component::FactoryArgs&) {
  return id >= 1 && id <= TestPanel::PORTS ? new PanelQsfp(this, id - 1) : nullptr;
}

}  // namespace

namespace Drivers {

void addExtraDriverRows(std::map<std::string, DriverFactory>& rows) { rows.emplace("TestPanel", &Panel::create); }

}  // namespace Drivers
