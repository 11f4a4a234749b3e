// Resolution of a device's path from the topology into the address, master
// type, PCI address and multiplexer chain of its access method.
#include <gtest/gtest.h>

#include <memory>

#include "Drivers/GenericSmbusMux.h"
#include "Components/HardwareDevice.h"
#include "FakeHost.h"
#include "Ham/KeldoSmbusHam.h"
#include "Topology.h"

using Ham::KeldoSmbusHam;

namespace {

// SCD 0x1234, accelerator 2, bus 5: device 96 (component 7) directly on the
// bus, and device 97 (component 9) behind mux 0x70 channel 4 and mux 0x71
// channel 8. Two plain I2C buses, one flagged. Mux chips carry a component
// of their own uid so that each is found and registered under its own uid.
const char* const kBoard = R"([
  {"type": "SCD", "ham": "KeldoSmbus", "pci": 4660, "accelerators": [{"id": 2, "busses": [
    {"id": 5, "label": "scd-bus", "devices": [
      {"did": 112, "uid": 1112, "driver": "PCA9548", "address": {"address": 112}, "components": [{"uid": 1112}]},
      {"did": 96, "driver": "Dummy", "address": {"address": 80, "addrSize": 2, "readDelay": 3},
       "components": [{"uid": 7}]}],
     "muxes": [{"did": 112, "busses": [{"id": 4, "devices": [
        {"did": 113, "uid": 1113, "driver": "PCA9548", "address": {"address": 113}, "components": [{"uid": 1113}]}],
       "muxes": [{"did": 113, "busses": [{"id": 8, "label": "behind-muxes", "devices": [
        {"did": 97, "driver": "Dummy", "address": {"address": 81}, "components": [{"uid": 9}]}]}]}]}]}]}]}]},
  {"type": "I2C", "ham": "KeldoSmbus", "id": 12, "simulated": true, "devices": [
    {"did": 200, "driver": "Dummy", "address": {"address": 32}}]},
  {"type": "I2C", "ham": "KeldoSmbus", "id": 13, "label": "i2c-13", "devices": [
    {"did": 201, "driver": "Dummy", "address": {"address": 33}}]}
])";

// Word 1 of a resolved address: device, bus, accelerator, bits 25-26 = 1.
constexpr uint32_t word1(uint32_t address, uint32_t bus, uint32_t accel) {
  return address | bus << 7 | accel << 14 | 1u << 25;
}

class ResolutionTest : public ::testing::Test {
 protected:
  void SetUp() override {
    FakeHost::reset();
    ASSERT_EQ(Topology::loadTopology(kBoard), PL_STATUS_OK);
  }
  // The multiplexer devices live for the rest of the process, as in the host.
  void TearDown() override {
    for (const auto& entry : Component::DeviceBase::devices) FakeHost::keep(entry.second);
  }
  // The access method of topology device `did`, from its own arguments,
  // looked up by its component or by itself (uid NO_COMPONENT).
  std::unique_ptr<KeldoSmbusHam> resolve(uint32_t did, uint32_t uid) {
    Drivers::DriverArgs args = *Topology::findDevice(did)->args;
    args.uid = uid;
    return std::unique_ptr<KeldoSmbusHam>(KeldoSmbusHam::create(*Topology::_topology, args));
  }
};

TEST_F(ResolutionTest, DeviceOnControllerBusHasNoMuxes) {
  const uint32_t none = Drivers::DriverArgs::NO_COMPONENT;
  struct {
    uint32_t did, uid;
    Smbus::MasterType master;
    uint32_t pci, word1;
  } cases[] = {
      // JSON register size 2 and read delay 3: the size is sent as 1, the delay as written.
      {96, 7, Smbus::SCD, 4660, 0xC20082D0},     // by component
      {96, none, Smbus::SCD, 4660, 0xC20082D0},  // by device
      {200, none, Smbus::I2C_FLAGGED, 0, word1(32, 12, 0)},
      {201, none, Smbus::I2C, 0, word1(33, 13, 0)},
  };
  for (const auto& c : cases) {
    auto ham = resolve(c.did, c.uid);
    ASSERT_TRUE(ham) << c.did;
    EXPECT_EQ(ham->masterType, c.master) << c.did;
    EXPECT_EQ(ham->pciAddress, c.pci) << c.did;
    EXPECT_EQ(ham->address.word1, c.word1) << c.did;
    EXPECT_TRUE(ham->muxes.empty()) << c.did;
  }
  EXPECT_FALSE(resolve(96, 12345));  // no such component
}

TEST_F(ResolutionTest, MuxChainIsOutermostFirstAndSelectsLeadTheRequest) {
  auto ham = resolve(97, 9);
  ASSERT_TRUE(ham);
  EXPECT_EQ(ham->address.word1, word1(81, 5, 2));  // the controller's bus, not a channel
  EXPECT_EQ(ham->masterType, Smbus::SCD);
  ASSERT_EQ(ham->muxes.size(), 2u);
  auto* outer = dynamic_cast<Drivers::GenericSmbusMux::Mux*>(ham->muxes[0]);
  auto* inner = dynamic_cast<Drivers::GenericSmbusMux::Mux*>(ham->muxes[1]);
  ASSERT_TRUE(outer && inner);
  EXPECT_EQ(outer->value(), 4u);
  EXPECT_EQ(inner->value(), 8u);
  EXPECT_TRUE(FakeHost::hasTrace("Mux using device 113 with value 8", 3));
  EXPECT_TRUE(FakeHost::hasTrace("Mux using device 112 with value 4", 3));

  ham->init();
  ASSERT_EQ(ham->prepareRequestCount_, 2);
  EXPECT_EQ(ham->request.request(0).address(), uint64_t{word1(112, 5, 2)} << 32 | 4);
  EXPECT_EQ(ham->request.request(1).address(), uint64_t{word1(113, 5, 2)} << 32 | 8);
}

TEST_F(ResolutionTest, CreateOnBusAddressesTheGivenBus) {
  std::unique_ptr<KeldoSmbusHam> onI2c(
      KeldoSmbusHam::createOnBus(*Topology::_topology, Topology::getBusByLabel("i2c-13"), 0xC5));
  ASSERT_TRUE(onI2c);
  EXPECT_EQ(onI2c->address.packed(), uint64_t{0x45u | 13u << 7 | 0x2000000u} << 32);
  EXPECT_EQ(onI2c->masterType, Smbus::I2C);

  std::unique_ptr<KeldoSmbusHam> behind(
      KeldoSmbusHam::createOnBus(*Topology::_topology, Topology::getBusByLabel("behind-muxes"), 0x22));
  ASSERT_TRUE(behind);
  EXPECT_EQ(behind->address.word1, word1(0x22, 5, 2));
  EXPECT_EQ(behind->pciAddress, 4660u);
  EXPECT_EQ(behind->prepareRequestCount_, 2);  // initialised: selections queued
}

TEST(KeldoSmbusHamFromAddress, PciAddressDecidesTheController) {
  Topology::AhamAddress address;
  address.setAddress(0x48);
  const Topology::PCIAddress pci{0x300};
  std::unique_ptr<KeldoSmbusHam> scd(KeldoSmbusHam::createFromAddress(address, &pci));
  std::unique_ptr<KeldoSmbusHam> i2c(KeldoSmbusHam::createFromAddress(address, nullptr));
  EXPECT_EQ(scd->masterType, Smbus::SCD);
  EXPECT_EQ(scd->pciAddress, 0x300u);
  EXPECT_EQ(i2c->masterType, Smbus::I2C);
  EXPECT_EQ(i2c->pciAddress, 0u);
  EXPECT_EQ(i2c->address.word1, 0x48u);
  address.setAccel(1);
  EXPECT_DEATH(KeldoSmbusHam::createFromAddress(address, nullptr), "address.accelerator == 0");
}

TEST(KeldoSmbusResolutionDeathTest, MuxChipWithoutDriverStopsTheProcess) {
  const char* board = R"([{"type": "I2C", "ham": "KeldoSmbus", "id": 1, "devices": [{"did": 112}],
    "muxes": [{"did": 112, "busses": [{"id": 2, "devices": [{"did": 5, "driver": "Dummy", "address": {"address": 5}}]}]}]}])";
  ASSERT_EQ(Topology::loadTopology(board), PL_STATUS_OK);
  Drivers::DriverArgs args = *Topology::findDevice(5)->args;
  EXPECT_DEATH(KeldoSmbusHam::create(*Topology::_topology, args), "topoDev->args");
}

}  // namespace
