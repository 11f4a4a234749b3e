// What the host reads byte for byte: each callback table's size word and slot
// wiring, the transceiver family parts, and where the C object sits inside
// each logical device. Sizes are transcribed per ABI, not taken from sizeof.
#include <cstring>

#include <gtest/gtest.h>

#include "HostObjectsSupport.h"

namespace {

using namespace HostObjectsTest;

constexpr bool kIlp32 = sizeof(void*) == 4;
uint32_t perAbi(uint32_t ilp32, uint32_t lp64) { return kIlp32 ? ilp32 : lp64; }

TEST(TableLayout, SizeWordsPerAbi) {
  EXPECT_EQ(perAbi(8, 16), LD::Led::ops_.size);
  EXPECT_EQ(perAbi(8, 16), LD::Slot::ops_.size);
  EXPECT_EQ(perAbi(12, 24), LD::TempSensor::ops_.size);
  EXPECT_EQ(perAbi(16, 32), LD::Fan::ops_.size);
  EXPECT_EQ(perAbi(36, 72), LD::Psu::ops_.size);
  EXPECT_EQ(perAbi(56, 112), LD::SmbusProxy::ops_.size);
  EXPECT_EQ(perAbi(44, 80), LD::SfpXcvr::ops_.size);
  EXPECT_EQ(perAbi(44, 80), LD::QsfpXcvr::ops_.size);
}

TEST(TableLayout, XcvrFamilyParts) {
  const pl_xcvr_ops& sfp = LD::SfpXcvr::ops_;
  const pl_xcvr_ops& qsfp = LD::QsfpXcvr::ops_;
  EXPECT_EQ(0u, sfp.family);
  EXPECT_EQ(1u, qsfp.family);
  EXPECT_EQ(perAbi(24, 48), sfp.u.sfp.size);
  EXPECT_EQ(perAbi(36, 72), qsfp.u.qsfp.size);

  // The three slots that SFP lacks are zero bytes in the table.
  const auto* bytes = reinterpret_cast<const unsigned char*>(&sfp);
  const size_t tail = offsetof(pl_xcvr_ops, u) + sizeof(pl_sfp_ops);
  ASSERT_EQ(perAbi(12, 24), sizeof(pl_xcvr_ops) - tail);
  for (size_t i = tail; i < sizeof(pl_xcvr_ops); ++i) {
    EXPECT_EQ(0, bytes[i]) << "byte " << i;
  }

}

// The slots the plug-in does not offer are null. The order of the others is
// checked by the callback tests, which call each slot and see which
// operation answers.
TEST(TableLayout, ReservedSlotsAreNull) {
  EXPECT_EQ(nullptr, LD::TempSensor::ops_.reserved);
  EXPECT_EQ(nullptr, LD::Psu::ops_.reserved);
}

template <typename Object, typename Handle>
ptrdiff_t handleOffset(Object& object, Handle* handle) {
  return reinterpret_cast<char*>(handle) - reinterpret_cast<char*>(&object);
}

// The C object follows the virtual-table pointer (a transceiver's follows its
// port index); its host word is zero, its owner the logical device.
TEST(TableLayout, EmbeddedObjects) {
  const ptrdiff_t word = sizeof(void*);
  TestLed led;
  TestFan fan;
  TestPsu psu;
  TestSlot slot;
  TestSensor sensor;
  TestSfp sfp(5);
  TestQsfp qsfp(6);
  struct Proxy : LD::SmbusProxy {
    pl_status receiveByte(uint8_t*) override { return 0; }
    pl_status sendByte(uint8_t) override { return 0; }
    pl_status readByte(uint8_t, uint8_t*) override { return 0; }
    pl_status writeByte(uint8_t, uint8_t) override { return 0; }
    pl_status readWord(uint8_t, uint16_t*) override { return 0; }
    pl_status writeWord(uint8_t, uint16_t) override { return 0; }
    pl_status blockRead(uint8_t, uint8_t*, unsigned int*) override { return 0; }
    pl_status blockWrite(uint8_t, const uint8_t*, unsigned int) override { return 0; }
    pl_status i2cBlockRead(uint8_t, uint8_t*, unsigned int) override { return 0; }
    pl_status i2cBlockWrite(uint8_t, const uint8_t*, unsigned int) override { return 0; }
    pl_status processCall(uint8_t, uint16_t, uint16_t*) override { return 0; }
  } proxy;

  EXPECT_EQ(word, handleOffset(static_cast<LD::Led&>(led), led.handle()));
  EXPECT_EQ(word, handleOffset(static_cast<LD::Fan&>(fan), fan.handle()));
  EXPECT_EQ(word, handleOffset(static_cast<LD::Psu&>(psu), psu.handle()));
  EXPECT_EQ(word, handleOffset(static_cast<LD::Slot&>(slot), slot.handle()));
  EXPECT_EQ(word, handleOffset(static_cast<LD::TempSensor&>(sensor), sensor.handle()));
  EXPECT_EQ(word, handleOffset(static_cast<LD::SmbusProxy&>(proxy), proxy.handle()));
  EXPECT_EQ(2 * word, handleOffset(static_cast<LD::SfpXcvr&>(sfp), sfp.handle()));
  EXPECT_EQ(2 * word, handleOffset(static_cast<LD::QsfpXcvr&>(qsfp), qsfp.handle()));
  EXPECT_EQ(5u, sfp.index());
  EXPECT_EQ(6u, qsfp.index());

  EXPECT_EQ(nullptr, led.handle()->host);
  EXPECT_EQ(&LD::Led::ops_, led.handle()->ops);
  EXPECT_EQ(static_cast<LD::Led*>(&led), led.handle()->owner);
  EXPECT_EQ(nullptr, sfp.handle()->host);
  EXPECT_EQ(&LD::SfpXcvr::ops_, sfp.handle()->ops);
  EXPECT_EQ(&LD::QsfpXcvr::ops_, qsfp.handle()->ops);
  EXPECT_EQ(static_cast<LD::QsfpXcvr*>(&qsfp), qsfp.handle()->owner);
  EXPECT_EQ(&LD::Psu::ops_, psu.handle()->ops);
  EXPECT_EQ(static_cast<LD::Psu*>(&psu), psu.handle()->owner);
  EXPECT_EQ(&LD::SmbusProxy::ops_, proxy.handle()->ops);
  EXPECT_EQ(nullptr, proxy.handle()->host);
}

}  // namespace
