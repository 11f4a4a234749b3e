// GPIO objects: the C object and table the host sees, the callbacks, the
// register read-modify-write and the add entry point.
#include <cstddef>
#include <memory>

#include "Components/Gpio.h"
#include "DeviceModelSupport.h"
#include "FakeHam.h"

using Component::HardwareDevice;
using Component::LogicalDevice::Gpio;
using Component::LogicalDevice::RegGpio;
using C = FakeHam::Call;

namespace {

// Answers each operation with its own status so a mix-up shows.
class ScriptedGpio : public Gpio {
 public:
  pl_status bitClear() override { return 3; }
  pl_status bitSet() override { return 2; }
  pl_status bitRead(unsigned int* value) override {
    *value = 1;
    return 4;
  }
};

TEST(GpioObject, HostLayoutAndCallbacksReachingTheOwner) {
  EXPECT_EQ(Gpio::ops_.size, sizeof(pl_gpio_ops));
  EXPECT_EQ(Gpio::ops_.size, sizeof(void*) == 4 ? 16u : 32u);
  EXPECT_EQ(offsetof(pl_gpio_ops, bit_set), sizeof(void*));

  FakeHost::reset();
  ScriptedGpio gpio;
  pl_gpio* handle = gpio.handle();
  EXPECT_EQ(reinterpret_cast<char*>(handle) - reinterpret_cast<char*>(&gpio), static_cast<ptrdiff_t>(sizeof(void*)));
  EXPECT_EQ(handle->host, nullptr);
  EXPECT_EQ(handle->ops, &Gpio::ops_);
  EXPECT_EQ(handle->owner, static_cast<void*>(&gpio));

  unsigned int value = 0;
  EXPECT_EQ(handle->ops->bit_set(handle), 2);
  EXPECT_EQ(handle->ops->bit_clear(handle), 3);
  EXPECT_EQ(handle->ops->bit_read(handle, &value), 4);
  EXPECT_EQ(value, 1u);
  EXPECT_EQ(FakeHost::traceTexts(4),
            (std::vector<std::string>{"bitSetCallback", "bitClearCallback", "bitReadCallback"}));
}

Drivers::DriverArgs gpioArgs(const std::string& reg, const std::string& bit) {
  Drivers::DriverArgs args;
  args.driverArgs = {{"register", reg}, {"bitpos", bit}};
  return args;
}

class RegGpioTest : public ::testing::Test {
 protected:
  void SetUp() override {
    ham.stateful = true;
    ham.values[0x20] = 0x81;
  }
  std::unique_ptr<RegGpio> gpio(const std::string& bit) {
    return std::make_unique<RegGpio>(&device, gpioArgs("32", bit));
  }

  FakeHam ham;
  HardwareDevice device{&ham};
};

TEST_F(RegGpioTest, ReadModifyWriteKeepsTheOtherBits) {
  auto line = gpio("7");
  unsigned int value = 0;
  EXPECT_EQ(line->bitRead(&value), PL_STATUS_OK);
  EXPECT_EQ(value, 1u);
  EXPECT_EQ(line->bitClear(), PL_STATUS_OK);
  EXPECT_EQ(line->bitRead(&value), PL_STATUS_OK);
  EXPECT_EQ(value, 0u);
  EXPECT_EQ(line->bitSet(), PL_STATUS_OK);
  EXPECT_EQ(ham.writes(), (FakeHam::Calls{C::write8(0x20, 0x01), C::write8(0x20, 0x81)}));
}

TEST_F(RegGpioTest, FailedReadIsReturnedAndNothingIsWritten) {
  auto line = gpio("7");
  ham.failOn[0x20] = 2;
  unsigned int value = 7;
  EXPECT_EQ(line->bitRead(&value), 2);
  EXPECT_EQ(value, 7u);
  EXPECT_EQ(line->bitSet(), 2);
  EXPECT_EQ(line->bitClear(), 2);
  EXPECT_TRUE(ham.writes().empty());
}

TEST_F(RegGpioTest, WriteOnlyModeWritesWithoutReading) {
  auto line = gpio("3");
  line->writeOnlyIs(true);
  EXPECT_EQ(line->bitSet(), PL_STATUS_OK);
  EXPECT_EQ(line->bitClear(), PL_STATUS_OK);
  EXPECT_EQ(ham.writes(), (FakeHam::Calls{C::write8(0x20, 0x08), C::write8(0x20, 0xF7)}));
  EXPECT_TRUE(ham.callsOf({FakeHam::Op::Read8}).empty());
}

TEST_F(RegGpioTest, BitBeyondTheWordSelectsNothing) {
  auto line = gpio("40");
  unsigned int value = 7;
  EXPECT_EQ(line->bitRead(&value), PL_STATUS_OK);
  EXPECT_EQ(value, 0u);
  EXPECT_EQ(line->bitSet(), PL_STATUS_OK);
  EXPECT_EQ(line->bitClear(), PL_STATUS_OK);
  EXPECT_EQ(ham.writes(), (FakeHam::Calls{C::write8(0x20, 0x81), C::write8(0x20, 0x81)}));
}

TEST_F(RegGpioTest, ArgumentsAreRequiredDecimalNumbers) {
  Drivers::DriverArgs noBit;
  noBit.driverArgs["register"] = "32";
  EXPECT_DEATH({ RegGpio line(&device, noBit); }, "Assertion `it != args\\.driverArgs\\.end\\(\\)' failed");
  EXPECT_THROW({ RegGpio line(&device, gpioArgs("32", "x")); }, std::invalid_argument);
  EXPECT_EQ(gpio("7")->reg(), 32);
}

class GpioAdd : public DeviceModelTest::RegistryTest {};

TEST_F(GpioAdd, DefaultGpioOfAHardwareDeviceIsARegGpio) {
  using DeviceModelTest::object;
  pl_gpio* handle = FakeHost::keep(
      pl_gpio_add(object("GpioDriver", 60, R"(, "driverArgs": {"register": "18", "bitpos": "2"})").c_str()));
  ASSERT_NE(handle, nullptr);
  EXPECT_EQ(handle->ops, &Gpio::ops_);
  auto* line = dynamic_cast<RegGpio*>(static_cast<Gpio*>(handle->owner));
  ASSERT_NE(line, nullptr);
  EXPECT_EQ(line->reg(), 18);
  EXPECT_EQ(line->bit(), 2);
  // Built without an access method: nothing to talk to.
  unsigned int value = 0;
  EXPECT_EQ(handle->ops->bit_read(handle, &value), PL_STATUS_INTERNAL);

  EXPECT_EQ(pl_gpio_add("not json"), nullptr);
  EXPECT_TRUE(FakeHost::hasTrace("failed to parse json object as a device", 0));
}

}  // namespace
