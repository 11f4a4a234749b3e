// SMBus proxies: pl_smbus_add for an inline device object and for a bus name
// (the label rule, the driver overwrite, the copied arguments), and the
// thirteen callbacks.
#include <functional>
#include <vector>

#include <gtest/gtest.h>

#include "HostObjectsSupport.h"
#include "KeldoUtil/NotImplementedException.h"
#include "Topology.h"

namespace {

using namespace HostObjectsTest;

class TestProxy : public LD::SmbusProxy, public Recorder {
 public:
  pl_status receiveByte(uint8_t* v) override {
    *v = 0x77;
    return record("receiveByte");
  }
  pl_status sendByte(uint8_t v) override { return record("sendByte " + std::to_string(v)); }
  pl_status readByte(uint8_t c, uint8_t* v) override {
    *v = 0x77;
    return record("readByte " + std::to_string(c));
  }
  pl_status writeByte(uint8_t c, uint8_t v) override { return record(text("writeByte", c, v)); }
  pl_status readWord(uint8_t c, uint16_t* v) override {
    *v = 0x7777;
    return record("readWord " + std::to_string(c));
  }
  pl_status writeWord(uint8_t c, uint16_t v) override { return record(text("writeWord", c, v)); }
  pl_status blockRead(uint8_t c, uint8_t* d, unsigned int* len) override {
    d[0] = 0x77;
    *len = 1;
    return record("blockRead " + std::to_string(c));
  }
  pl_status blockWrite(uint8_t c, const uint8_t* d, unsigned int len) override {
    return record(text("blockWrite", c, len) + " " + std::to_string(d[0]));
  }
  pl_status i2cBlockRead(uint8_t c, uint8_t* d, unsigned int len) override {
    d[0] = 0x77;
    return record(text("i2cBlockRead", c, len));
  }
  pl_status i2cBlockWrite(uint8_t c, const uint8_t* d, unsigned int len) override {
    return record(text("i2cBlockWrite", c, len) + " " + std::to_string(d[0]));
  }
  pl_status processCall(uint8_t c, uint16_t v, uint16_t* r) override {
    *r = 0x7777;
    return record(text("processCall", c, v));
  }

 private:
  static std::string text(const char* name, unsigned int a, unsigned int b) {
    return std::string(name) + " " + std::to_string(a) + " " + std::to_string(b);
  }
};

// Two labelled devices with drivers of their own, one labelled device
// without a driver, all on bus "B".
const char* kTopology = R"([{"type": "I2C", "ham": "SimHam", "id": 3, "label": "B", "devices": [
    {"did": 50, "label": "B<0x05>", "driver": "Dummy", "uid": 9401, "address": {"address": 5},
     "driverArgs": {"localReadDelayMs": "2"}},
    {"did": 51, "label": "B<0xab>", "driver": "LM75", "uid": 9402, "address": {"address": 43}},
    {"did": 52, "label": "B<0x07>"}]}])";

class SmbusAdd : public ::testing::Test {
 protected:
  SmbusAdd() : first_(9401, &device_), second_(9402, &device_) {
    EXPECT_EQ(PL_STATUS_OK, Topology::loadTopology(kTopology));
    device_.proxy = &proxy_;
    FakeHost::reset();
  }

  TestDevice device_;
  Registered first_, second_;
  TestProxy proxy_;
};

TEST_F(SmbusAdd, BusNameFindsTheLabelledDeviceAndMakesItAProxy) {
  struct Case {
    uint8_t address;
    const char* label;
    unsigned int uid;
  } cases[] = {{5, "B<0x05>", 9401}, {0xab, "B<0xab>", 9402}};
  for (const Case& c : cases) {
    SCOPED_TRACE(c.label);
    FakeHost::reset();
    EXPECT_EQ(proxy_.handle(), FakeHost::keep(pl_smbus_add("B", c.address)));
    EXPECT_EQ(7, FakeHost::traceLevel("pl_smbus_add( 'B', " + std::to_string(c.address) + " )"));
    // The topology keeps the new driver name, and the factory got the copy
    // that created (here: found) the device.
    EXPECT_EQ("SmbusProxyDriver", Topology::getDeviceByLabel(c.label)->args->driver);
    EXPECT_EQ("SmbusProxyDriver", device_.lastArgs.driver);
    EXPECT_EQ(c.uid, device_.lastArgs.uid);
    EXPECT_EQ(c.uid == 9401 ? 1u : 0u, device_.lastArgs.driverArgs.count("localReadDelayMs"));
    EXPECT_TRUE(FakeHost::hasTrace("using previously instanciated HardwareDevice SmbusProxyDriver"));
  }
}

TEST_F(SmbusAdd, FailuresReturnNullWithTheirTrace) {
  EXPECT_EQ(nullptr, pl_smbus_add("B", 6));
  EXPECT_EQ(0, FakeHost::traceLevel("smbus_add failed: device does not exist in topology"));
  EXPECT_EQ(nullptr, pl_smbus_add("NoBus", 5));
  EXPECT_FALSE(FakeHost::hasTrace("DeviceBase::create() failed"));
  EXPECT_EQ(0, device_.factoryCalls);

  FakeHost::reset();
  EXPECT_EQ(nullptr, pl_smbus_add("{", 5));
  EXPECT_EQ(0, FakeHost::traceLevel("DeviceBase::create() failed"));

  FakeHost::reset();
  device_.proxy = nullptr;
  EXPECT_EQ(nullptr, pl_smbus_add("B", 5));
  EXPECT_EQ(0, FakeHost::traceLevel("newSmbusProxy() failed"));
}

TEST_F(SmbusAdd, InlineObjectKeepsItsDriver) {
  TestDevice own;
  own.proxy = &proxy_;
  Registered registered(9403, &own);
  const std::string json = objectJson(9403);
  EXPECT_EQ(proxy_.handle(), FakeHost::keep(pl_smbus_add(json.c_str(), 0x10)));
  EXPECT_EQ("TestDevice", own.lastArgs.driver);
  EXPECT_EQ(9403u, own.lastArgs.uid);
  EXPECT_TRUE(FakeHost::hasTrace("pl_smbus_add( '" + json + "', 16 )", 7));
}

TEST_F(SmbusAdd, LabelledDeviceWithoutDriverStops) {
  EXPECT_DEATH(pl_smbus_add("B", 7), "Assertion `topoDev->args' failed");
}

TEST(SmbusCallbacks, ForwardUnchangedAndTraceAtLevelOne) {
  TestProxy proxy;
  pl_smbus* h = proxy.handle();
  uint8_t byte = 0;
  uint16_t word = 0;
  uint8_t buffer[32] = {9};
  unsigned int length = 0;
  struct Case {
    const char* name;
    std::function<pl_status()> call;
    const char* expectedCall;
  };
  const std::vector<Case> cases = {
      {"receiveByteCallback", [&] { return h->ops->receive_byte(h, &byte); }, "receiveByte"},
      {"sendByteCallback", [&] { return h->ops->send_byte(h, 200); }, "sendByte 200"},
      {"readByteCallback", [&] { return h->ops->read_byte(h, 0x81, &byte); }, "readByte 129"},
      {"writeByteCallback", [&] { return h->ops->write_byte(h, 1, 255); }, "writeByte 1 255"},
      {"readWordCallback", [&] { return h->ops->read_word(h, 2, &word); }, "readWord 2"},
      {"writeWordCallback", [&] { return h->ops->write_word(h, 3, 0xBEEF); }, "writeWord 3 48879"},
      {"blockReadCallback", [&] { return h->ops->block_read(h, 4, buffer, &length); }, "blockRead 4"},
      {"blockWriteCallback", [&] { return h->ops->block_write(h, 5, buffer, 7); }, "blockWrite 5 7 9"},
      {"i2cBlockReadCallback", [&] { return h->ops->i2c_block_read(h, 6, buffer, 8); }, "i2cBlockRead 6 8"},
      {"i2cBlockWriteCallback", [&] { return h->ops->i2c_block_write(h, 7, buffer, 9); }, "i2cBlockWrite 7 9 9"},
      {"processCallCallback", [&] { return h->ops->process_call(h, 8, 513, &word); }, "processCall 8 513"},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    FakeHost::reset();
    buffer[0] = 9;
    proxy.call.clear();
    proxy.result = 60 + static_cast<int>(&c - cases.data());
    EXPECT_EQ(proxy.result, c.call());
    EXPECT_EQ(c.expectedCall, proxy.call);
    ASSERT_EQ(1u, FakeHost::traces().size());
    EXPECT_EQ(1, FakeHost::traces()[0].level);
    EXPECT_EQ(c.name, FakeHost::traces()[0].text);
  }
  EXPECT_EQ(0x77, byte);
  EXPECT_EQ(0x7777, word);
  EXPECT_EQ(1u, length);

  // The two operations a driver rarely has are the base's, which throw.
  FakeHost::reset();
  uint8_t resultLength = 0;
  try {
    h->ops->quick_command(h, 1);
    ADD_FAILURE() << "quickCommand did not throw";
  } catch (const NotImplementedException& e) {
    EXPECT_STREQ("Not implemented quickCommand", e.what());
  }
  try {
    h->ops->block_process_call(h, 1, buffer, 1, buffer, &resultLength);
    ADD_FAILURE() << "blockProcessCall did not throw";
  } catch (const NotImplementedException& e) {
    EXPECT_STREQ("Not implemented blockProcessCall", e.what());
  }
  EXPECT_EQ((std::vector<std::string>{"quickCommandCallback", "blockProcessCallCallback"}),
            FakeHost::traceTexts(1));
}

}  // namespace
