#pragma once
// The register map of "TestPanel", a test-only front-panel device with one
// LED and four SFP and four QSFP ports whose state lives in one-byte
// registers. Shared by the driver (which builds its simulation table from
// it) and the integration tests (which read the simulation file with it).
#include <cstdint>

namespace TestPanel {

constexpr uint32_t LED_STATUS = 0x10;  // the pl_led_status last set
constexpr uint32_t LED_PHASE = 0x11;   // the blink phase last shown
constexpr uint32_t SFP_PORT0 = 0x20;   // one register per SFP port
constexpr uint32_t QSFP_PORT0 = 0x40;  // one register per QSFP port
constexpr uint32_t GPIO_LINES = 0x50;  // free bits for register GPIOs
constexpr unsigned int PORTS = 4;      // per family; ids 1..4

enum SfpBit { SFP_PRESENT, SFP_TX_FAULT, SFP_RX_LOS, SFP_TX_DISABLE };
enum QsfpBit { QSFP_PRESENT, QSFP_MOD_SEL, QSFP_LP_MODE, QSFP_RESET, QSFP_INTERRUPT };

struct Register {
  uint32_t reg;
  uint8_t initial;
};

// In ascending order, as the simulation file lays them out.
constexpr Register registers[] = {
    {LED_STATUS, 0x00},     {LED_PHASE, 0x00},
    {SFP_PORT0, 0x01},      // present
    {SFP_PORT0 + 1, 0x05},  // present, receive loss of signal
    {SFP_PORT0 + 2, 0x00},  // empty
    {SFP_PORT0 + 3, 0x01},
    {QSFP_PORT0, 0x11},      // present, interrupt pending
    {QSFP_PORT0 + 1, 0x01},
    {QSFP_PORT0 + 2, 0x00},
    {QSFP_PORT0 + 3, 0x01},
    {GPIO_LINES, 0x81},
};

}  // namespace TestPanel
