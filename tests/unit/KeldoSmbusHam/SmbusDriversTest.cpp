// The multiplexer and SMBus proxy drivers against a scripted Ham.
#include <gtest/gtest.h>

#include <chrono>
#include <functional>
#include <memory>

#include "Drivers/GenericSmbusMux.h"
#include "Drivers/SmbusProxyDriver.h"
#include "FakeHam.h"
#include "FakeHost.h"

using C = FakeHam::Call;
using Proxy = Drivers::SmbusProxyDriver::SmbusProxy;

namespace {

TEST(GenericSmbusMux, SelectSendsTheChannelLowByteAndResetSendsZero) {
  FakeHam ham;
  ham.executeResults = {PL_STATUS_INTERNAL};
  Drivers::GenericSmbusMux chip(&ham);
  std::unique_ptr<Component::LogicalDevice::Mux> mux(chip.newMux({}, 0x104));
  EXPECT_EQ(mux->device(), &chip);
  EXPECT_EQ(mux->selectRequest(&ham), 1u);
  EXPECT_EQ(mux->resetRequest(&ham), 1u);
  EXPECT_EQ(mux->executeMuxRequest(), PL_STATUS_INTERNAL);
  EXPECT_EQ(ham.calls, (FakeHam::Calls{C::sendByte(0x04), C::sendByte(0x00), C::prepare(), C::sendByte(0x04),
                                       C::execute()}));
}

using Settings = std::map<std::string, std::string>;

struct Fixture {
  explicit Fixture(Settings settings = {}) {
    FakeHost::reset();
    Drivers::DriverArgs args;
    args.driverArgs = std::move(settings);
    device.reset(static_cast<Drivers::SmbusProxyDriver*>(Drivers::SmbusProxyDriver::create(args, &ham)));
    proxy.reset(static_cast<Proxy*>(device->newSmbusProxy(args)));
  }
  // Runs `call` and returns how long it took, in milliseconds.
  long timed(const std::function<void()>& call) {
    auto start = std::chrono::steady_clock::now();
    call();
    return static_cast<long>(std::chrono::duration_cast<std::chrono::milliseconds>(
                                 std::chrono::steady_clock::now() - start).count());
  }
  FakeHam ham;
  std::unique_ptr<Drivers::SmbusProxyDriver> device;
  std::unique_ptr<Proxy> proxy;
};

TEST(SmbusProxyDriver, EachHostCallIsOneTransactionWithoutRetries) {
  Fixture f;
  EXPECT_TRUE(f.ham.retryCountSet);
  EXPECT_EQ(f.ham.retryCount, 0u);
  f.ham.values = {{0x10, 0xAB}, {0x12, 0xBEEF}, {0x18, 0x4321}};
  f.ham.blocks = {{0x14, "xyz"}, {0x16, "pq"}};
  uint8_t byte = 0, buffer[32] = {};
  uint16_t word = 0;
  unsigned int length = 0;
  const uint8_t out[2] = {'a', 'b'};
  struct {
    std::function<pl_status(Proxy&)> call;
    C queued;
  } cases[] = {
      {[&](Proxy& p) { return p.receiveByte(&byte); }, C::recvByte()},
      {[&](Proxy& p) { return p.sendByte(0x5A); }, C::sendByte(0x5A)},
      {[&](Proxy& p) { return p.readByte(0x10, &byte); }, C::read8(0x10)},
      {[&](Proxy& p) { return p.writeByte(0x11, 0x22); }, C::write8(0x11, 0x22)},
      {[&](Proxy& p) { return p.readWord(0x12, &word); }, C::read16(0x12)},
      {[&](Proxy& p) { return p.writeWord(0x13, 0xBEEF); }, C::write16(0x13, 0xBEEF)},
      {[&](Proxy& p) { return p.blockRead(0x14, buffer, &length); }, C::readBlock(0x14)},
      {[&](Proxy& p) { return p.blockWrite(0x15, out, 2); }, C::writeBlock(0x15, "ab")},
      {[&](Proxy& p) { return p.i2cBlockRead(0x16, buffer, 2); }, C::read(0x16, 2)},
      {[&](Proxy& p) { return p.i2cBlockWrite(0x17, out, 2); }, C::write(0x17, "ab")},
      {[&](Proxy& p) { return p.processCall(0x18, 0x1234, &word); }, C::processCall(0x18, 0x1234)},
  };
  for (const auto& c : cases) {
    f.ham.clearRecord();
    EXPECT_EQ(c.call(*f.proxy), PL_STATUS_OK) << c.queued;
    EXPECT_EQ(f.ham.calls, (FakeHam::Calls{C::prepare(), c.queued, C::execute()}));
  }
  EXPECT_EQ(length, 3u);
  EXPECT_EQ(std::string(buffer, buffer + 2), "pq");
  EXPECT_EQ(word, 0x4321);
}

TEST(SmbusProxyDriver, DelaysAreMillisecondSettingsAndFollowFailedAccessesToo) {
  Fixture f(Settings{{"localReadDelayMs", "30"}});
  EXPECT_EQ(f.proxy->readDelayUs(), 30000u);
  EXPECT_EQ(f.proxy->writeDelayUs(), 0u);
  EXPECT_EQ(FakeHost::traceTexts(0), (std::vector<std::string>{"setting read delay of 30000 useconds\n",
                                                               "setting write delay of 0 useconds\n"}));
  f.ham.executeResults = {PL_STATUS_INTERNAL};
  uint8_t value = 7;
  EXPECT_GE(f.timed([&] { EXPECT_EQ(f.proxy->readByte(1, &value), PL_STATUS_INTERNAL); }), 30);
  EXPECT_EQ(value, 7);
}

TEST(SmbusProxyDriver, I2cBlockReadOfTheWrongLengthIsStatusFourWithoutPause) {
  Fixture f(Settings{{"localReadDelayMs", "2000"}});
  f.ham.blocks[0x16] = "ab";
  uint8_t buffer[3] = {1, 2, 3};
  EXPECT_LT(f.timed([&] { EXPECT_EQ(f.proxy->i2cBlockRead(0x16, buffer, 3), PL_STATUS_UNAVAILABLE); }), 1000);
  EXPECT_EQ(buffer[0], 1);
}

TEST(SmbusProxyDriver, BlockReadReportsAtMostOneSmbusBlock) {
  Fixture f;
  f.ham.blocks[0x20] = std::string(40, 'z');
  uint8_t buffer[40] = {};
  unsigned int length = 0;
  EXPECT_EQ(f.proxy->blockRead(0x20, buffer, &length), PL_STATUS_OK);
  EXPECT_EQ(length, 32u);
  EXPECT_EQ(buffer[31], 'z');
  EXPECT_EQ(buffer[32], 0);
}

}  // namespace
