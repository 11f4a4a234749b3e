// What the host reads byte for byte: the tables' size words, the transceiver
// family parts, and where each C object sits. Values are transcribed per
// ABI; the slot order is checked by the callback tests.
#include <gtest/gtest.h>

#include "HostObjectsSupport.h"

namespace {

using namespace HostObjectsTest;

uint32_t perAbi(uint32_t ilp32, uint32_t lp64) { return sizeof(void*) == 4 ? ilp32 : lp64; }

template <typename Object, typename Handle>
ptrdiff_t offsetOf(Object& object, Handle* handle) {
  return reinterpret_cast<char*>(handle) - reinterpret_cast<char*>(&object);
}

TEST(TableLayout, SizesAndFamilies) {
  EXPECT_EQ(perAbi(8, 16), LD::Led::ops_.size);
  EXPECT_EQ(perAbi(8, 16), LD::Slot::ops_.size);
  EXPECT_EQ(perAbi(12, 24), LD::TempSensor::ops_.size);
  EXPECT_EQ(perAbi(16, 32), LD::Fan::ops_.size);
  EXPECT_EQ(perAbi(36, 72), LD::Psu::ops_.size);
  EXPECT_EQ(perAbi(56, 112), LD::SmbusProxy::ops_.size);
  EXPECT_EQ(nullptr, LD::TempSensor::ops_.reserved);
  EXPECT_EQ(nullptr, LD::Psu::ops_.reserved);

  const pl_xcvr_ops& sfp = LD::SfpXcvr::ops_;
  const pl_xcvr_ops& qsfp = LD::QsfpXcvr::ops_;
  EXPECT_EQ(perAbi(44, 80), sfp.size);
  EXPECT_EQ(perAbi(44, 80), qsfp.size);
  EXPECT_EQ(0u, sfp.family);
  EXPECT_EQ(1u, qsfp.family);
  EXPECT_EQ(perAbi(24, 48), sfp.u.sfp.size);
  EXPECT_EQ(perAbi(36, 72), qsfp.u.qsfp.size);
  // The three slots that SFP lacks are zero bytes.
  const auto* bytes = reinterpret_cast<const unsigned char*>(&sfp);
  const size_t tail = offsetof(pl_xcvr_ops, u) + sizeof(pl_sfp_ops);
  ASSERT_EQ(perAbi(12, 24), sizeof(pl_xcvr_ops) - tail);
  for (size_t i = tail; i < sizeof(pl_xcvr_ops); ++i) EXPECT_EQ(0, bytes[i]) << i;
}

// Right after the virtual-table pointer (a transceiver's after its port
// index), with the host word zeroed. Owner and table are exercised by every
// callback test.
TEST(TableLayout, EmbeddedObjects) {
  const ptrdiff_t word = sizeof(void*);
  MockLed led;
  MockPsu psu;
  MockProxy proxy;
  MockQsfp qsfp(6);
  EXPECT_EQ(word, offsetOf(static_cast<LD::Led&>(led), led.handle()));
  EXPECT_EQ(word, offsetOf(static_cast<LD::Psu&>(psu), psu.handle()));
  EXPECT_EQ(word, offsetOf(static_cast<LD::SmbusProxy&>(proxy), proxy.handle()));
  EXPECT_EQ(2 * word, offsetOf(static_cast<LD::QsfpXcvr&>(qsfp), qsfp.handle()));
  EXPECT_EQ(6u, qsfp.index());
  for (void* host : {led.handle()->host, psu.handle()->host, proxy.handle()->host, qsfp.handle()->host}) {
    EXPECT_EQ(nullptr, host);
  }
}

}  // namespace
