// Host objects: the tables and C objects the host reads, the add entry points,
// every callback through its table, and the one LED blink timer.
#include <algorithm>
#include <cstdio>
#include <cstring>
#include <functional>
#include <stdexcept>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "Components/Fan.h"
#include "Components/Led.h"
#include "Components/Psu.h"
#include "Components/Slot.h"
#include "Components/SmbusProxy.h"
#include "Components/TempSensor.h"
#include "Components/Xcvr.h"
#include "FakeHost.h"
#include "KeldoUtil/NotImplementedException.h"
#include "Topology.h"

namespace {

namespace LD = Component::LogicalDevice;
using Args = const Component::FactoryArgs&;
using Drivers::DriverArgs;
using LD::Led;
using ::testing::_;
using ::testing::Field;
using ::testing::Return;


struct MockDevice : Component::HardwareDevice {
  MOCK_METHOD(LD::Led*, newLed, (Args), (override));
  MOCK_METHOD(LD::Fan*, newFan, (Args), (override));
  MOCK_METHOD(LD::Psu*, newPsu, (Args), (override));
  MOCK_METHOD(LD::Slot*, newSlot, (Args), (override));
  MOCK_METHOD(LD::TempSensor*, newTempSensor, (Args), (override));
  MOCK_METHOD(LD::SmbusProxy*, newSmbusProxy, (Args), (override));
  MOCK_METHOD(LD::SfpXcvr*, newSfpXcvr, (unsigned int, Args), (override));
  MOCK_METHOD(LD::QsfpXcvr*, newQsfpXcvr, (unsigned int, Args), (override));
};
struct MockLed : LD::Led {
  explicit MockLed(bool canBlink = false) { canBlink_ = canBlink; }
  MOCK_METHOD(pl_status, setLightSetting, (pl_led_status), (override));
  MOCK_METHOD(bool, handleBlinkTimer, (bool), (override));
};
struct MockSfp : LD::SfpXcvr {
  using SfpXcvr::SfpXcvr;
  MOCK_METHOD(pl_status, getPresence, (), (override));
  MOCK_METHOD(pl_status, getTxFault, (int*), (override));
  MOCK_METHOD(pl_status, getRxLos, (int*), (override));
  MOCK_METHOD(pl_status, getTxDisable, (int*), (override));
  MOCK_METHOD(pl_status, setTxDisable, (int), (override));
};
struct MockQsfp : LD::QsfpXcvr {
  using QsfpXcvr::QsfpXcvr;
  MOCK_METHOD(pl_status, getPresence, (), (override));
  MOCK_METHOD(pl_status, getModSel, (int*), (override));
  MOCK_METHOD(pl_status, setModSel, (int), (override));
  MOCK_METHOD(pl_status, getLpMode, (int*), (override));
  MOCK_METHOD(pl_status, setLpMode, (int), (override));
  MOCK_METHOD(pl_status, getReset, (int*), (override));
  MOCK_METHOD(pl_status, setReset, (int), (override));
  MOCK_METHOD(pl_status, getInterrupt, (int*), (override));
};
struct MockFan : LD::Fan {
  MOCK_METHOD(pl_status, getRpm, (int*), (override));
  MOCK_METHOD(pl_status, setRpm, (int), (override));
};
struct MockPsu : LD::Psu {
  MOCK_METHOD(pl_status, get_power_ok, (int*), (override));
  MOCK_METHOD(pl_status, get_input_current, (float*), (override));
  MOCK_METHOD(pl_status, get_output_current, (float*), (override));
  MOCK_METHOD(pl_status, get_input_voltage, (float*), (override));
  MOCK_METHOD(pl_status, get_output_voltage, (float*), (override));
  MOCK_METHOD(pl_status, get_input_power, (float*), (override));
  MOCK_METHOD(pl_status, get_output_power, (float*), (override));
};
struct MockSlot : LD::Slot {
  MOCK_METHOD(pl_status, getPresence, (char**), (override));
};
struct MockSensor : LD::TempSensor {
  MOCK_METHOD(pl_status, getTemperature, (float*), (override));
  MOCK_METHOD(void, alertThresholdIs, (float), (override));
  MOCK_METHOD(void, criticalThresholdIs, (float), (override));
};
struct MockProxy : LD::SmbusProxy {
  MOCK_METHOD(pl_status, receiveByte, (uint8_t*), (override));
  MOCK_METHOD(pl_status, sendByte, (uint8_t), (override));
  MOCK_METHOD(pl_status, readByte, (uint8_t, uint8_t*), (override));
  MOCK_METHOD(pl_status, writeByte, (uint8_t, uint8_t), (override));
  MOCK_METHOD(pl_status, readWord, (uint8_t, uint16_t*), (override));
  MOCK_METHOD(pl_status, writeWord, (uint8_t, uint16_t), (override));
  MOCK_METHOD(pl_status, blockRead, (uint8_t, uint8_t*, unsigned int*), (override));
  MOCK_METHOD(pl_status, blockWrite, (uint8_t, const uint8_t*, unsigned int), (override));
  MOCK_METHOD(pl_status, i2cBlockRead, (uint8_t, uint8_t*, unsigned int), (override));
  MOCK_METHOD(pl_status, i2cBlockWrite, (uint8_t, const uint8_t*, unsigned int), (override));
  MOCK_METHOD(pl_status, processCall, (uint8_t, uint16_t, uint16_t*), (override));
};

std::string objectJson(unsigned int uid, const std::string& driverArgs = "") {
  return R"({"did": 1, "driver": "TestDevice", "uid": )" + std::to_string(uid) +
         R"(, "address": {"address": 16}, "driverArgs": {)" + driverArgs + "}}";
}

std::string pointerText(const void* p) {
  char text[32];
  std::snprintf(text, sizeof text, "%p", p);
  return text;
}

// The last `n` level-0 traces (fewer when there are fewer).
std::vector<std::string> lastTraces(size_t n) {
  const std::vector<std::string> t = FakeHost::traceTexts(0);
  return {t.end() - static_cast<ptrdiff_t>(std::min(n, t.size())), t.end()};
}

size_t words(size_t n) { return n * sizeof(void*); }

TEST(Layout, TableSizesAndTransceiverFamilies) {
  const pl_xcvr_ops& sfp = LD::SfpXcvr::ops_;
  const pl_xcvr_ops& qsfp = LD::QsfpXcvr::ops_;
  const std::pair<uint32_t, size_t> sizes[] = {
      {LD::Led::ops_.size, words(2)},         {LD::Slot::ops_.size, words(2)}, {LD::TempSensor::ops_.size, words(3)},
      {LD::Fan::ops_.size, words(4)},         {LD::Psu::ops_.size, words(9)},  {LD::SmbusProxy::ops_.size, words(14)},
      {sfp.size, 8 + words(9)},  // size and family words, then the larger (QSFP) part
      {qsfp.size, 8 + words(9)}, {sfp.u.sfp.size, words(6)},      {qsfp.u.qsfp.size, words(9)},
  };
  for (const auto& [size, expected] : sizes) EXPECT_EQ(expected, size);
  EXPECT_EQ(nullptr, LD::TempSensor::ops_.reserved);
  EXPECT_EQ(nullptr, LD::Psu::ops_.reserved);
  EXPECT_EQ(0u, sfp.family);
  EXPECT_EQ(1u, qsfp.family);
  // The three slots that SFP lacks are zero bytes.
  const size_t tail = offsetof(pl_xcvr_ops, u) + sizeof(pl_sfp_ops);
  ASSERT_EQ(words(3), sizeof(pl_xcvr_ops) - tail);
  for (size_t i = tail; i < sizeof(pl_xcvr_ops); ++i) EXPECT_EQ(0, reinterpret_cast<const char*>(&sfp)[i]) << i;
}

// The C object sits at `offset` in the logical device, with the host word
// zeroed, the kind's table and the logical device as owner.
template <typename Object>
auto embedded(Object& object, size_t offset) {
  auto* handle = object.handle();
  EXPECT_EQ(static_cast<ptrdiff_t>(offset), reinterpret_cast<char*>(handle) - reinterpret_cast<char*>(&object));
  EXPECT_EQ(nullptr, handle->host);
  EXPECT_EQ(&Object::ops_, handle->ops);
  EXPECT_EQ(&object, handle->owner);
  return handle;
}

// A row of the table below: the callback's trace and level, and a call through
// the table that the mock expects with exactly these arguments. The status (any
// one) must come back unchanged.
#define FORWARDS(trace, level, mock, expected, call) \
  {trace, level, [&] { EXPECT_CALL(mock, expected).WillOnce(Return(pl_status(77))); return call; }}

// Every callback forwards the host's arguments to its own operation, returns
// the status unchanged and traces once, with its own text and level.
TEST(Callbacks, ForwardAndTrace) {
  MockLed led;
  MockSlot slot;
  MockSensor sensor;
  MockFan fan;
  MockPsu psu;
  MockSfp sfp(11);
  MockQsfp qsfp(0);
  MockProxy proxy;
  pl_led* l = embedded<LD::Led>(led, words(1));
  pl_slot* sl = embedded<LD::Slot>(slot, words(1));
  pl_temp_sensor* t = embedded<LD::TempSensor>(sensor, words(1));
  pl_fan* f = embedded<LD::Fan>(fan, words(1));
  pl_psu* p = embedded<LD::Psu>(psu, words(1));
  pl_smbus* h = embedded<LD::SmbusProxy>(proxy, words(1));
  pl_xcvr* s = embedded<LD::SfpXcvr>(sfp, words(2));  // after the port index
  pl_xcvr* q = embedded<LD::QsfpXcvr>(qsfp, words(2));

  const pl_sfp_ops& so = s->ops->u.sfp;
  const pl_qsfp_ops& qo = q->ops->u.qsfp;
  const pl_smbus_ops& o = *h->ops;
  int i = 0;
  unsigned int n = 0;
  float v = 0;
  char* text = nullptr;
  uint8_t b = 0, d[4] = {};
  uint16_t w = 0;
  const struct {
    std::string trace;
    int level;
    std::function<pl_status()> call;
  } rows[] = {
      FORWARDS("setLightSettingCallback(" + pointerText(l) + ", 6)", 4, led, setLightSetting(PL_LED_BEACON),
               l->ops->set_light_setting(l, PL_LED_BEACON)),
      FORWARDS("getPresenceCallback(" + pointerText(sl) + ")", 4, slot, getPresence(&text),
               sl->ops->get_presence(sl, &text)),
      FORWARDS("getTemperatureCallback(" + pointerText(t) + ")", 4, sensor, getTemperature(&v),
               t->ops->get_temperature(t, &v)),
      FORWARDS("getRpmCallback(" + pointerText(f) + ")", 4, fan, getRpm(&i), f->ops->get_rpm(f, &i)),
      FORWARDS("setRpmCallback(" + pointerText(f) + ", -1200)", 4, fan, setRpm(-1200), f->ops->set_rpm(f, -1200)),
      {"debugInfoCallback(" + pointerText(f) + ")", 4, [&] {  // by default: OK, the host's pointer left alone
         char host[] = "host", *info = host;
         EXPECT_EQ(PL_STATUS_OK, f->ops->debug_info(f, &info));
         EXPECT_EQ(host, info);
         return pl_status(77);
       }},
      FORWARDS("get_power_ok_callback", 4, psu, get_power_ok(&i), p->ops->get_power_ok(p, &i)),
      FORWARDS("get_input_current_callback", 4, psu, get_input_current(&v), p->ops->get_input_current(p, &v)),
      FORWARDS("get_output_current_callback", 4, psu, get_output_current(&v), p->ops->get_output_current(p, &v)),
      FORWARDS("get_input_voltage_callback", 4, psu, get_input_voltage(&v), p->ops->get_input_voltage(p, &v)),
      FORWARDS("get_output_voltage_callback", 4, psu, get_output_voltage(&v), p->ops->get_output_voltage(p, &v)),
      FORWARDS("get_input_power_callback", 4, psu, get_input_power(&v), p->ops->get_input_power(p, &v)),
      FORWARDS("get_output_power_callback", 4, psu, get_output_power(&v), p->ops->get_output_power(p, &v)),
      // Transceivers trace their zero-based port.
      FORWARDS("getPresenceCallback(11)", 4, sfp, getPresence(), so.get_presence(s)),
      FORWARDS("getTxFaultCallback(11)", 4, sfp, getTxFault(&i), so.get_tx_fault(s, &i)),
      FORWARDS("getRxLosCallback(11)", 4, sfp, getRxLos(&i), so.get_rx_los(s, &i)),
      FORWARDS("getTxDisableCallback(11)", 4, sfp, getTxDisable(&i), so.get_tx_disable(s, &i)),
      FORWARDS("setTxDisableCallback(11, -3)", 4, sfp, setTxDisable(-3), so.set_tx_disable(s, -3)),
      FORWARDS("getPresenceCallback(0)", 4, qsfp, getPresence(), qo.get_presence(q)),
      FORWARDS("getModSelCallback(0)", 4, qsfp, getModSel(&i), qo.get_mod_sel(q, &i)),
      FORWARDS("setModSelCallback(0, 1)", 4, qsfp, setModSel(1), qo.set_mod_sel(q, 1)),
      FORWARDS("getLpModeCallback(0)", 4, qsfp, getLpMode(&i), qo.get_lp_mode(q, &i)),
      FORWARDS("setLpModeCallback(0, 0)", 4, qsfp, setLpMode(0), qo.set_lp_mode(q, 0)),
      FORWARDS("getResetCallback(0)", 4, qsfp, getReset(&i), qo.get_reset(q, &i)),
      FORWARDS("setResetCallback(0, 7)", 4, qsfp, setReset(7), qo.set_reset(q, 7)),
      FORWARDS("getInterruptCallback(0)", 4, qsfp, getInterrupt(&i), qo.get_interrupt(q, &i)),
      // SMBus proxies trace at level 1; the two rare operations default to throwing.
      {"quickCommandCallback", 1, [&] {
         EXPECT_THROW(o.quick_command(h, 1), NotImplementedException);
         return pl_status(77);
       }},
      FORWARDS("receiveByteCallback", 1, proxy, receiveByte(&b), o.receive_byte(h, &b)),
      FORWARDS("sendByteCallback", 1, proxy, sendByte(200), o.send_byte(h, 200)),
      FORWARDS("readByteCallback", 1, proxy, readByte(0x81, &b), o.read_byte(h, 0x81, &b)),
      FORWARDS("writeByteCallback", 1, proxy, writeByte(1, 255), o.write_byte(h, 1, 255)),
      FORWARDS("readWordCallback", 1, proxy, readWord(2, &w), o.read_word(h, 2, &w)),
      FORWARDS("writeWordCallback", 1, proxy, writeWord(3, 0xBEEF), o.write_word(h, 3, 0xBEEF)),
      FORWARDS("blockReadCallback", 1, proxy, blockRead(4, d, &n), o.block_read(h, 4, d, &n)),
      FORWARDS("blockWriteCallback", 1, proxy, blockWrite(5, d, 7), o.block_write(h, 5, d, 7)),
      FORWARDS("i2cBlockReadCallback", 1, proxy, i2cBlockRead(6, d, 8), o.i2c_block_read(h, 6, d, 8)),
      FORWARDS("i2cBlockWriteCallback", 1, proxy, i2cBlockWrite(7, d, 9), o.i2c_block_write(h, 7, d, 9)),
      FORWARDS("processCallCallback", 1, proxy, processCall(8, 513, &w), o.process_call(h, 8, 513, &w)),
      {"blockProcessCallCallback", 1, [&] {
         EXPECT_THROW(o.block_process_call(h, 1, d, 1, d, &b), NotImplementedException);
         return pl_status(77);
       }},
  };
  for (const auto& row : rows) {
    SCOPED_TRACE(row.trace);
    FakeHost::reset();
    EXPECT_EQ(77, row.call());
    EXPECT_EQ(std::vector<std::string>{row.trace}, FakeHost::traceTexts(row.level));
    EXPECT_EQ(1u, FakeHost::traces().size());
  }
}

// Add entry points on a mock device registered under kUid (and kUid + 1).
constexpr unsigned int kUid = 9301;

class Adds : public ::testing::Test {
 protected:
  Adds() {
    FakeHost::reset();
    Component::DeviceBase::devices[kUid] = Component::DeviceBase::devices[kUid + 1] = &device_;
  }
  ~Adds() override {
    Component::DeviceBase::devices.erase(kUid);
    Component::DeviceBase::devices.erase(kUid + 1);
  }

  ::testing::StrictMock<MockDevice> device_;
  const std::string json_ = objectJson(kUid, R"("speed": "3")");
};

TEST_F(Adds, HandBackTheEmbeddedObjectOrTraceAtTheKindsLevel) {
  MockSlot slot;
  MockFan fan;
  MockPsu psu;
  const auto speed = Field(&DriverArgs::driverArgs, testing::Contains(testing::Pair("speed", "3")));
  EXPECT_CALL(device_, newSlot(speed)).WillOnce(Return(&slot)).WillOnce(Return(nullptr));
  EXPECT_CALL(device_, newFan(speed)).WillOnce(Return(&fan)).WillOnce(Return(nullptr));
  EXPECT_CALL(device_, newPsu(speed)).WillOnce(Return(&psu)).WillOnce(Return(nullptr));
  const struct {
    std::function<void*(const char*)> add;
    const void* handle;
    const char* factoryFailed;
    int level;
  } cases[] = {
      {[](const char* j) -> void* { return pl_slot_add(j); }, slot.handle(), "newSlot() failed", 0},
      {[](const char* j) -> void* { return pl_fan_add(j); }, fan.handle(), "newFan() failed", 0},
      {[](const char* j) -> void* { return pl_psu_add(j); }, psu.handle(), "newPsu() failed", 2},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.factoryFailed);
    FakeHost::reset();
    EXPECT_EQ(c.handle, c.add(json_.c_str()));
    EXPECT_EQ(nullptr, c.add(json_.c_str()));
    EXPECT_EQ(nullptr, c.add("{"));
    EXPECT_EQ(c.level, FakeHost::traceLevel(c.factoryFailed));
    EXPECT_EQ(c.level, FakeHost::traceLevel("DeviceBase::create() failed"));
  }
}

TEST_F(Adds, SensorThresholdsOnEveryAddAndSilentFailures) {
  MockSensor sensor;
  ::testing::InSequence order;
  for (float alert : {75.0f, 70.0f}) {
    EXPECT_CALL(device_, newTempSensor(_)).WillOnce(Return(&sensor));
    EXPECT_CALL(sensor, alertThresholdIs(alert));
    EXPECT_CALL(sensor, criticalThresholdIs(alert + 10));
    EXPECT_EQ(sensor.handle(), pl_temp_sensor_add(json_.c_str(), alert, alert + 10));
    EXPECT_EQ((std::vector<std::string>{"setting alert threshold", "setting critical threshold"}), lastTraces(2));
  }
  // A failed sensor add says nothing of its own, whichever step failed.
  EXPECT_CALL(device_, newTempSensor(_)).WillOnce(Return(nullptr));
  FakeHost::reset();
  EXPECT_EQ(nullptr, pl_temp_sensor_add(json_.c_str(), 1.0f, 2.0f));
  EXPECT_EQ(nullptr, pl_temp_sensor_add(R"({"did": 1, "driver": "NoSuchDriver", "uid": 9399, "provideHam": 0,
      "address": {"address": 1}})", 1.0f, 2.0f));
  EXPECT_TRUE(FakeHost::hasTrace("driver NoSuchDriver not found"));
  for (const char* text : {"DeviceBase::create() failed", "newTempSensor() failed", "setting alert threshold"}) {
    EXPECT_FALSE(FakeHost::hasTrace(text)) << text;
  }
}

TEST_F(Adds, TransceiverIdAndType) {
  MockSfp sfp;
  MockQsfp qsfp;
  EXPECT_CALL(device_, newQsfpXcvr(1, _)).WillOnce(Return(&qsfp)).WillOnce(Return(nullptr));
  EXPECT_CALL(device_, newSfpXcvr(12, _)).WillOnce(Return(&sfp)).WillOnce(Return(nullptr));
  auto add = [](const std::string& args) { return pl_xcvr_add(objectJson(kUid, args).c_str()); };
  const struct {
    const char* args;
    pl_xcvr* handle;
    const char* factoryFailed;
  } cases[] = {
      {R"("type": "qsfp", "id": "1")", qsfp.handle(), "newQsfpXcvr() failed"},
      {R"("type": "qsfp+", "id": "01")", nullptr, "newQsfpXcvr() failed"},
      {R"("type": "sfp", "id": "12abc")", sfp.handle(), "newSfpXcvr() failed"},  // leading digits count
      {R"("type": "sfp+", "id": "12")", nullptr, "newSfpXcvr() failed"},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.args);
    FakeHost::reset();
    EXPECT_EQ(c.handle, add(c.args));
    EXPECT_EQ(c.handle ? -1 : 0, FakeHost::traceLevel(c.factoryFailed));
  }
  EXPECT_THROW(add(R"("type": "sfp", "id": "abc")"), std::invalid_argument);
  EXPECT_EQ(nullptr, pl_xcvr_add("{"));
  EXPECT_EQ(0, FakeHost::traceLevel("DeviceBase::create() failed"));

  // Faults of the board description stop the host after their trace.
  const std::pair<const char*, const char*> faults[] = {
      {R"("type": "sfp")", "No id argument given for Xcvr"},
      {R"("id": "3")", "No type argument given for Xcvr"},
      {R"("type": "QSFP", "id": "3")", "Xcvr type QSFP not supported"},
  };
  for (const auto& [args, traced] : faults) {
    EXPECT_DEATH(add(args), std::string("Assertion `false' failed.*\\[trace 0\\] ") + traced);
  }
}

// Bus "B" holds labelled devices with drivers of their own, and one without.
const char* kBus = R"([{"type": "I2C", "ham": "SimHam", "id": 3, "label": "B", "devices": [
    {"did": 50, "label": "B<0x05>", "driver": "Dummy", "uid": 9301, "address": {"address": 5},
     "driverArgs": {"localReadDelayMs": "2"}},
    {"did": 51, "label": "B<0xab>", "driver": "LM75", "uid": 9302, "address": {"address": 171}},
    {"did": 52, "label": "B<0x07>"}]}])";

TEST_F(Adds, SmbusProxyByBusNameOrInlineObject) {
  ASSERT_EQ(PL_STATUS_OK, Topology::loadTopology(kBus));
  MockProxy proxy;
  auto proxyOf = [](unsigned int uid, size_t argCount) {
    return AllOf(Field(&DriverArgs::driver, "SmbusProxyDriver"), Field(&DriverArgs::uid, uid),
                 Field(&DriverArgs::driverArgs, testing::SizeIs(argCount)));
  };
  EXPECT_CALL(device_, newSmbusProxy(proxyOf(kUid, 1))).WillOnce(Return(&proxy)).WillOnce(Return(nullptr));
  EXPECT_CALL(device_, newSmbusProxy(proxyOf(kUid + 1, 0))).WillOnce(Return(&proxy));
  EXPECT_CALL(device_, newSmbusProxy(Field(&DriverArgs::driver, "TestDevice"))).WillOnce(Return(&proxy));

  EXPECT_EQ(proxy.handle(), pl_smbus_add("B", 5));
  EXPECT_EQ(proxy.handle(), pl_smbus_add("B", 0xab));
  EXPECT_EQ("SmbusProxyDriver", Topology::getDeviceByLabel("B<0xab>")->args->driver);  // stays in the topology
  EXPECT_EQ(nullptr, pl_smbus_add("B", 5));
  EXPECT_EQ(0, FakeHost::traceLevel("newSmbusProxy() failed"));
  FakeHost::reset();
  EXPECT_EQ(nullptr, pl_smbus_add("B", 6));
  EXPECT_EQ(std::vector<std::string>{"smbus_add failed: device does not exist in topology"}, lastTraces(1));
  EXPECT_DEATH(pl_smbus_add("B", 7), "Assertion `topoDev->args' failed");

  EXPECT_EQ(proxy.handle(), pl_smbus_add(objectJson(kUid).c_str(), 0x10));
  EXPECT_EQ(nullptr, pl_smbus_add("{", 0x10));
  EXPECT_EQ(0, FakeHost::traceLevel("DeviceBase::create() failed"));
}

TEST(LedDeathTest, StatusTexts) {
  EXPECT_STREQ("Off", Led::getLedStatusString(PL_LED_OFF));
  EXPECT_STREQ("Beacon", Led::getLedStatusString(PL_LED_BEACON));
  EXPECT_DEATH(Led::getLedStatusString(pl_led_status(7)),
               "Assertion `\\( unsigned \\)status < sizeof \\( strs \\) / sizeof \\( \\*strs \\)' failed");
}

class Blink : public Adds {
 protected:
  void SetUp() override {
    Led::notifyList_.clear();
    Led::blinkStatus_ = false;
    Led::blinkTimer_ = 0;
    FakeHost::reset();
  }
  void TearDown() override { SetUp(); }
};

// One tick walks the list with the current phase; an LED answering false
// leaves it. After a removal the walk steps once more: the LED behind sits the
// tick out, and removing the last LED wraps round to the first.
TEST_F(Blink, TickOutcomes) {
  const struct {
    const char* list;
    const char* leaving;  // these answer false
    const char* notified;
    const char* remaining;
  } cases[] = {
      {"ABC", "", "ABC", "ABC"}, {"AB", "A", "A", "B"},   {"A", "A", "A", ""},
      {"ABC", "C", "ABCAB", "AB"}, {"ABC", "B", "AB", "AC"}, {"ABC", "AC", "ACB", "B"},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(std::string(c.list) + " leaving " + c.leaving);
    SetUp();
    ::testing::NiceMock<MockLed> leds[3];
    std::string notified;
    for (int i = 0; i < 3; ++i) {
      const bool stays = std::strchr(c.leaving, 'A' + i) == nullptr;
      ON_CALL(leds[i], handleBlinkTimer(false)).WillByDefault([&notified, i, stays](bool) {
        notified += char('A' + i);
        return stays;
      });
    }
    Led::createBlinkTimer();
    for (const char* l = c.list; *l; ++l) Led::notifyOnBlink(&leds[*l - 'A']);
    FakeHost::fire(Led::blinkTimer_);

    EXPECT_EQ(c.notified, notified);
    std::string remaining;
    for (Led* led : Led::notifyList_) remaining += char('A' + (static_cast<decltype(&leds[0])>(led) - leds));
    EXPECT_EQ(c.remaining, remaining);
    EXPECT_TRUE(Led::blinkStatus_);
    // The first notification arms the timer; the tick re-arms it unless the list emptied.
    EXPECT_EQ(*c.remaining ? 2u : 1u, FakeHost::timerSets().size());
    EXPECT_EQ(1000u, FakeHost::timerSets().back().interval);
    EXPECT_EQ(4, FakeHost::traceLevel("handleBlinkTimerCallback() led blink timer hit notifying " +
                                      std::to_string(std::strlen(c.list)) + " leds"));
  }
}

TEST_F(Blink, AddsShareOneTimer) {
  MockLed steady, first(true), second(true);
  EXPECT_CALL(device_, newLed(_))
      .WillOnce(Return(&steady))
      .WillOnce(Return(&first))
      .WillOnce(Return(&second))
      .WillOnce(Return(nullptr));
  EXPECT_EQ(steady.handle(), pl_led_add(json_.c_str()));
  EXPECT_EQ(0u, Led::blinkTimer_);  // an LED that cannot blink needs none
  EXPECT_EQ(first.handle(), pl_led_add(json_.c_str()));
  EXPECT_EQ(second.handle(), pl_led_add(json_.c_str()));
  EXPECT_EQ(1, FakeHost::countTrace("creating unique led blink timer", 0));
  EXPECT_EQ(&Led::handleBlinkTimerCallback, FakeHost::timer(Led::blinkTimer_).callback);
  EXPECT_EQ(nullptr, pl_led_add(json_.c_str()));
  EXPECT_EQ(0, FakeHost::traceLevel("newLed() failed"));
}

TEST_F(Blink, TimerMisuseStops) {
  MockLed led;
  EXPECT_DEATH(Led::notifyOnBlink(&led), "Assertion `blinkTimer_' failed");
  FakeHost::failNextTimerAdd();
  EXPECT_DEATH(Led::createBlinkTimer(), "Assertion `blinkTimer_' failed.*\\[trace 0\\] failed to create blink timer");
}

}  // namespace
