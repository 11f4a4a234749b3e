// SMBus proxies: pl_smbus_add by bus name (label rule, driver overwrite,
// copied arguments) and by inline object, and the thirteen callbacks.
#include <gtest/gtest.h>

#include "HostObjectsSupport.h"
#include "KeldoUtil/NotImplementedException.h"
#include "Topology.h"

namespace {

using namespace HostObjectsTest;
using ::testing::_;
using ::testing::AllOf;
using ::testing::Field;
using ::testing::Return;

// On bus "B": two labelled devices with drivers of their own, one without.
const char* kTopology = R"([{"type": "I2C", "ham": "SimHam", "id": 3, "label": "B", "devices": [
    {"did": 50, "label": "B<0x05>", "driver": "Dummy", "uid": 9401, "address": {"address": 5},
     "driverArgs": {"localReadDelayMs": "2"}},
    {"did": 51, "label": "B<0xab>", "driver": "LM75", "uid": 9402, "address": {"address": 43}},
    {"did": 52, "label": "B<0x07>"}]}])";

class SmbusAdd : public ::testing::Test {
 protected:
  SmbusAdd() : first_(9401, &device_), second_(9402, &device_) {
    EXPECT_EQ(PL_STATUS_OK, Topology::loadTopology(kTopology));
    FakeHost::reset();
  }

  ::testing::StrictMock<MockDevice> device_;
  Registered first_, second_;
  MockProxy proxy_;
};

auto proxyArgs(unsigned int uid, size_t driverArgCount) {
  return AllOf(Field(&Drivers::DriverArgs::driver, "SmbusProxyDriver"), Field(&Drivers::DriverArgs::uid, uid),
               Field(&Drivers::DriverArgs::driverArgs, testing::SizeIs(driverArgCount)));
}

TEST_F(SmbusAdd, BusNameMakesTheLabelledDeviceAProxy) {
  EXPECT_CALL(device_, newSmbusProxy(proxyArgs(9401, 1))).WillOnce(Return(&proxy_)).WillOnce(Return(nullptr));
  EXPECT_CALL(device_, newSmbusProxy(proxyArgs(9402, 0))).WillOnce(Return(&proxy_));
  EXPECT_EQ(proxy_.handle(), FakeHost::keep(pl_smbus_add("B", 5)));
  EXPECT_EQ(proxy_.handle(), FakeHost::keep(pl_smbus_add("B", 0xab)));
  EXPECT_EQ(7, FakeHost::traceLevel("pl_smbus_add( 'B', 171 )"));
  // The new driver name stays in the topology, and the device was looked up
  // with the copy.
  EXPECT_EQ("SmbusProxyDriver", Topology::getDeviceByLabel("B<0xab>")->args->driver);
  EXPECT_EQ(2, FakeHost::countTrace("using previously instanciated HardwareDevice SmbusProxyDriver"));

  EXPECT_EQ(nullptr, pl_smbus_add("B", 5));
  EXPECT_EQ(0, FakeHost::traceLevel("newSmbusProxy() failed"));
  EXPECT_EQ(nullptr, pl_smbus_add("B", 6));
  EXPECT_EQ(0, FakeHost::traceLevel("smbus_add failed: device does not exist in topology"));
  EXPECT_FALSE(FakeHost::hasTrace("DeviceBase::create() failed"));
  EXPECT_DEATH(pl_smbus_add("B", 7), "Assertion `topoDev->args' failed");
}

TEST_F(SmbusAdd, InlineObjectKeepsItsDriver) {
  const std::string json = objectJson(9401);
  EXPECT_CALL(device_, newSmbusProxy(Field(&Drivers::DriverArgs::driver, "TestDevice"))).WillOnce(Return(&proxy_));
  EXPECT_EQ(proxy_.handle(), FakeHost::keep(pl_smbus_add(json.c_str(), 0x10)));
  EXPECT_EQ(7, FakeHost::traceLevel("pl_smbus_add( '" + json + "', 16 )"));
  EXPECT_EQ(nullptr, pl_smbus_add("{", 0x10));
  EXPECT_EQ(0, FakeHost::traceLevel("DeviceBase::create() failed"));
}

TEST(SmbusCallbacks, ForwardUnchangedAndTraceAtLevelOne) {
  MockProxy proxy;
  pl_smbus* h = proxy.handle();
  const pl_smbus_ops& o = *h->ops;
  uint8_t byte = 0;
  uint16_t word = 0;
  uint8_t data[32] = {};
  unsigned int length = 0;
  ::testing::InSequence order;
  EXPECT_CALL(proxy, receiveByte(&byte)).WillOnce(Return(60));
  EXPECT_CALL(proxy, sendByte(200)).WillOnce(Return(61));
  EXPECT_CALL(proxy, readByte(0x81, &byte)).WillOnce(Return(62));
  EXPECT_CALL(proxy, writeByte(1, 255)).WillOnce(Return(63));
  EXPECT_CALL(proxy, readWord(2, &word)).WillOnce(Return(64));
  EXPECT_CALL(proxy, writeWord(3, 0xBEEF)).WillOnce(Return(65));
  EXPECT_CALL(proxy, blockRead(4, data, &length)).WillOnce(Return(66));
  EXPECT_CALL(proxy, blockWrite(5, data, 7)).WillOnce(Return(67));
  EXPECT_CALL(proxy, i2cBlockRead(6, data, 8)).WillOnce(Return(68));
  EXPECT_CALL(proxy, i2cBlockWrite(7, data, 9)).WillOnce(Return(69));
  EXPECT_CALL(proxy, processCall(8, 513, &word)).WillOnce(Return(70));
  FakeHost::reset();
  const std::vector<pl_status> results = {
      o.receive_byte(h, &byte),         o.send_byte(h, 200),           o.read_byte(h, 0x81, &byte),
      o.write_byte(h, 1, 255),          o.read_word(h, 2, &word),      o.write_word(h, 3, 0xBEEF),
      o.block_read(h, 4, data, &length), o.block_write(h, 5, data, 7), o.i2c_block_read(h, 6, data, 8),
      o.i2c_block_write(h, 7, data, 9), o.process_call(h, 8, 513, &word)};
  EXPECT_EQ((std::vector<pl_status>{60, 61, 62, 63, 64, 65, 66, 67, 68, 69, 70}), results);

  // The two operations that drivers rarely have default to the base's, which throws.
  uint8_t resultLength = 0;
  EXPECT_THROW(o.quick_command(h, 1), NotImplementedException);
  EXPECT_THROW(o.block_process_call(h, 1, data, 1, data, &resultLength), NotImplementedException);
  EXPECT_EQ((std::vector<std::string>{"receiveByteCallback", "sendByteCallback", "readByteCallback",
                                      "writeByteCallback", "readWordCallback", "writeWordCallback",
                                      "blockReadCallback", "blockWriteCallback", "i2cBlockReadCallback",
                                      "i2cBlockWriteCallback", "processCallCallback", "quickCommandCallback",
                                      "blockProcessCallCallback"}),
            FakeHost::traceTexts(1));
  EXPECT_EQ(13u, FakeHost::traces().size());
}

}  // namespace
