// The host's raw SMBus access on the fake access method: each operation is one
// transaction, followed by the read or write pause whatever its outcome, and
// the two block reads apply their length rules. The pauses are recorded
// instead of slept: the executable defines usleep itself.
#include <unistd.h>

#include <functional>
#include <memory>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "Drivers/SmbusProxyDriver.h"
#include "FakeHam.h"
#include "FakeHost.h"

namespace {
std::vector<useconds_t> pauses;
}  // namespace

extern "C" int usleep(useconds_t microseconds) {
  pauses.push_back(microseconds);
  return 0;
}

namespace {

using C = FakeHam::Call;
using Proxy = Drivers::SmbusProxyDriver::SmbusProxy;

// A device answers a block read with all it has, more than was asked or less.
struct DeviceLengthHam : FakeHam {
  std::string getBlock(ResponseId id, uint32_t) override { return FakeHam::getBlock(id, 0); }
};

class SmbusProxyDriver : public ::testing::Test {
 protected:
  // Read pause 5 ms, write pause 7 ms.
  SmbusProxyDriver() {
    FakeHost::reset();
    pauses.clear();
    Drivers::DriverArgs args;
    args.driverArgs = {{"localReadDelayMs", "5"}, {"localWriteDelayMs", "7"}};
    device_.reset(Drivers::SmbusProxyDriver::create(args, &ham_));
    proxy_.reset(static_cast<Proxy*>(device_->newSmbusProxy(args)));
  }

  DeviceLengthHam ham_;
  std::unique_ptr<Component::HardwareDevice> device_;
  std::unique_ptr<Proxy> proxy_;
};

TEST_F(SmbusProxyDriver, EachOperationIsOneTransactionThenItsPauseFailedOrNot) {
  EXPECT_EQ(FakeHost::traceTexts(0), (std::vector<std::string>{"setting read delay of 5000 useconds\n",
                                                               "setting write delay of 7000 useconds\n"}));
  EXPECT_TRUE(ham_.retryCountSet && ham_.retryCount == 0) << "the host's own request is tried once";
  uint8_t b = 0, data[32] = {'a', 'b'};
  uint16_t w = 0;
  unsigned int length = 0;
  const useconds_t read = 5000, write = 7000;
  const struct {
    std::function<pl_status(Proxy&)> call;
    C queued;
    useconds_t pause;
  } cases[] = {
      {[&](Proxy& p) { return p.receiveByte(&b); }, C::recvByte(), read},
      {[&](Proxy& p) { return p.sendByte(0x42); }, C::sendByte(0x42), write},
      {[&](Proxy& p) { return p.readByte(1, &b); }, C::read8(1), read},
      {[&](Proxy& p) { return p.writeByte(2, 0x33); }, C::write8(2, 0x33), write},
      {[&](Proxy& p) { return p.readWord(3, &w); }, C::read16(3), read},
      {[&](Proxy& p) { return p.writeWord(4, 0xBEEF); }, C::write16(4, 0xBEEF), write},
      {[&](Proxy& p) { return p.i2cBlockWrite(5, data, 2); }, C::write(5, "ab"), write},
      {[&](Proxy& p) { return p.blockWrite(6, data, 2); }, C::writeBlock(6, "ab"), write},
      {[&](Proxy& p) { return p.processCall(7, 0x1234, &w); }, C::processCall(7, 0x1234), write},
      {[&](Proxy& p) { return p.blockRead(9, data, &length); }, C::readBlock(9), read},
  };
  for (pl_status status : {0, 6}) {
    for (const auto& c : cases) {
      SCOPED_TRACE(::testing::PrintToString(c.queued) + " answering " + std::to_string(status));
      ham_.calls.clear();
      pauses.clear();
      ham_.executeResults = {status};
      EXPECT_EQ(status, c.call(*proxy_));
      EXPECT_EQ((FakeHam::Calls{C::prepare(), c.queued, C::execute()}), ham_.calls);
      EXPECT_EQ(std::vector<useconds_t>{c.pause}, pauses);
    }
  }
}

// An I2C block read wants exactly the length asked for: anything else, a
// failed read included, answers 4 at once and leaves the buffer alone. A
// block read reports what came, at most one 32-byte block.
TEST_F(SmbusProxyDriver, BlockReadLengths) {
  uint8_t buffer[40] = {};
  ham_.blocks = {{1, "xyz"}, {2, "ab"}, {3, "abcd"}, {4, std::string(40, 'z')}};
  EXPECT_EQ(PL_STATUS_OK, proxy_->i2cBlockRead(1, buffer, 3));
  EXPECT_EQ(std::string("xyz"), std::string(buffer, buffer + 3));
  EXPECT_EQ(std::vector<useconds_t>{5000}, pauses);
  ham_.executeResults = {6};
  for (uint32_t reg : {1, 2, 3}) EXPECT_EQ(PL_STATUS_UNAVAILABLE, proxy_->i2cBlockRead(reg, buffer + 8, 3)) << reg;
  EXPECT_EQ(std::vector<useconds_t>{5000}, pauses);
  EXPECT_EQ(0, buffer[8]);
  unsigned int length = 0;
  EXPECT_EQ(PL_STATUS_OK, proxy_->blockRead(4, buffer, &length));
  EXPECT_EQ(32u, length);
  EXPECT_EQ('z', buffer[31]);
  EXPECT_EQ(0, buffer[32]);
}

}  // namespace
