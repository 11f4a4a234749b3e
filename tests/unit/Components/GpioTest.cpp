// Register GPIOs: one bit of a device register behind the host's pl_gpio
// table, and the arguments that configure them.
#include <cstddef>
#include <stdexcept>

#include <gtest/gtest.h>

#include "Components/Gpio.h"
#include "Components/HardwareDevice.h"
#include "FakeHam.h"
#include "FakeHost.h"

using Component::HardwareDevice;
using Component::LogicalDevice::Gpio;
using Component::LogicalDevice::RegGpio;
using C = FakeHam::Call;

namespace {

Drivers::DriverArgs gpioArgs(const std::string& bit) {
  Drivers::DriverArgs args;
  args.driverArgs = {{"register", "32"}, {"bitpos", bit}};
  return args;
}

// Register 0x20 holds 0x81; each case reads the bit, clears it and sets it
// through the host's table.
TEST(RegGpio, ReadModifyWriteThroughTheHostTable) {
  EXPECT_EQ(4 * sizeof(void*), Gpio::ops_.size);
  const struct {
    const char* bit;
    bool writeOnly;
    pl_status readStatus;  // of every read of the register
    unsigned int read;     // 9: left untouched
    FakeHam::Calls writes;
    size_t reads;
  } cases[] = {
      {"7", false, PL_STATUS_OK, 1, {C::write8(0x20, 0x01), C::write8(0x20, 0x81)}, 3},  // other bits kept
      {"3", false, PL_STATUS_OK, 0, {C::write8(0x20, 0x81), C::write8(0x20, 0x89)}, 3},  // clearing a clear bit
      {"7", false, 2, 9, {}, 3},                                                       // failed reads write nothing
      {"3", true, PL_STATUS_OK, 0, {C::write8(0x20, 0xF7), C::write8(0x20, 0x08)}, 1},  // no read before a write
      {"39", false, PL_STATUS_OK, 0, {C::write8(0x20, 0x81), C::write8(0x20, 0x81)}, 3},  // beyond the word: no bit
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.bit);
    FakeHam ham;
    ham.stateful = true;
    ham.values[0x20] = 0x81;
    if (c.readStatus != PL_STATUS_OK) ham.failOn[0x20] = c.readStatus;
    HardwareDevice device(&ham);
    RegGpio line(&device, gpioArgs(c.bit));
    line.writeOnlyIs(c.writeOnly);
    pl_gpio* h = line.handle();  // right after the virtual-table pointer
    EXPECT_EQ(static_cast<ptrdiff_t>(sizeof(void*)), reinterpret_cast<char*>(h) - reinterpret_cast<char*>(&line));
    EXPECT_EQ(nullptr, h->host);
    EXPECT_EQ(&Gpio::ops_, h->ops);
    EXPECT_EQ(static_cast<Gpio*>(&line), h->owner);
    FakeHost::reset();
    unsigned int value = 9;
    EXPECT_EQ(c.readStatus, h->ops->bit_read(h, &value));
    EXPECT_EQ(c.read, value);
    EXPECT_EQ(c.readStatus, h->ops->bit_clear(h));
    EXPECT_EQ(c.readStatus, h->ops->bit_set(h));
    EXPECT_EQ(c.writes, ham.writes());
    EXPECT_EQ(c.reads, ham.callsOf({FakeHam::Op::Read8}).size());
    EXPECT_EQ((std::vector<std::string>{"bitReadCallback", "bitClearCallback", "bitSetCallback"}),
              FakeHost::traceTexts(4));
  }
}

TEST(RegGpioDeathTest, ArgumentsAreRequiredDecimalNumbers) {
  HardwareDevice device;
  Drivers::DriverArgs noBit;
  noBit.driverArgs["register"] = "32";
  EXPECT_DEATH(RegGpio(&device, noBit), "Assertion `it != args\\.driverArgs\\.end\\(\\)' failed");
  EXPECT_THROW(RegGpio(&device, gpioArgs("x")), std::invalid_argument);
}

}  // namespace
