// The device model: creation, registration by uid and reuse, multi-devices,
// and the polling timer protocol.
#include <malloc.h>

#include <cstddef>
#include <stdexcept>

#include <gtest/gtest.h>

#include "Components/Gpio.h"
#include "Components/HardwareDevice.h"
#include "FakeHam.h"
#include "FakeHost.h"
#include "Ham/SimHam.h"
#include "Keldo.h"
#include "SmallStack.h"
#include "Topology.h"
#include "Zanty.h"

#if defined(__SANITIZE_ADDRESS__)
// From the sanitizer runtime (its header does not come with every compiler).
extern "C" size_t __sanitizer_get_current_allocated_bytes();
#endif

using Component::DeviceBase;
using Component::HardwareDevice;
using Component::MultiDevice;
using Component::LogicalDevice::Gpio;
using Component::LogicalDevice::RegGpio;
using C = FakeHam::Call;

namespace {

// An object of `driver` that needs no access method (and so no topology).
// Devices are never destroyed, so every test uses uids of its own.
std::string object(const std::string& driver, unsigned uid, const std::string& more = "") {
  return R"({"did": 16, "uid": )" + std::to_string(uid) + R"(, "driver": ")" + driver +
         R"(", "provideHam": 0, "address": {"address": 80})" + more + "}";
}

Ham::Ham* hamGivenToFactory = nullptr;

// Records what it saw when init() ran.
class RecordingDevice : public HardwareDevice {
 public:
  using HardwareDevice::HardwareDevice;
  Utils::ExpectedValues* expectedValues() override { return &table; }
  void init() override {
    auto* fake = dynamic_cast<FakeHam*>(ham());
    seenHam = ham();
    seenNames = fake ? fake->setDriverNameCount : -1;
    seenTables = fake ? fake->setExpectedCount : -1;
    seenRegistered = DeviceBase::devices.count(uid) != 0;
  }

  Utils::ExpectedValues table{{0x10, Utils::ExpectedVal(0x3f, 1)}};
  unsigned int uid = 0;
  Ham::Ham* seenHam = nullptr;
  int seenNames = -1, seenTables = -1;  // setDriverName and setExpected calls so far
  bool seenRegistered = true;
};

class Group : public MultiDevice {};

}  // namespace

void Drivers::addExtraDriverRows(std::map<std::string, DriverFactory>& rows) {
  rows["Recorder"] = [](const DriverArgs& args, Ham::Ham* ham) -> DeviceBase* {
    hamGivenToFactory = ham;
    auto* device = new RecordingDevice(ham);
    device->uid = args.uid;
    return device;
  };
  rows["Refuses"] = [](const DriverArgs&, Ham::Ham* ham) -> DeviceBase* { hamGivenToFactory = ham; return nullptr; };
  rows["Group"] = [](const DriverArgs&, Ham::Ham* ham) -> DeviceBase* { hamGivenToFactory = ham; return new Group; };
}

namespace {

class Registry : public ::testing::Test {
 protected:
  void SetUp() override {
    FakeHost::reset();
    hamGivenToFactory = nullptr;
  }
};

TEST_F(Registry, SecondObjectWithSameUidGetsFirstDevice) {
  Drivers::DriverArgs first, second;
  DeviceBase* device = DeviceBase::create(object("Dummy", 7).c_str(), first);
  ASSERT_NE(nullptr, device);
  EXPECT_EQ(device, DeviceBase::create(object("Recorder", 7).c_str(), second));
  EXPECT_EQ(1, FakeHost::countTrace("using previously instanciated HardwareDevice Recorder", 0));
}

TEST_F(Registry, UnknownDriverRegistersNothing) {
  Drivers::DriverArgs args;
  EXPECT_EQ(nullptr, DeviceBase::create(object("dummy", 8).c_str(), args));
  const std::vector<std::string> traces = FakeHost::traceTexts(0);
  ASSERT_GE(traces.size(), 3u);
  EXPECT_EQ((std::vector<std::string>{"creating HardwareDevice dummy", "driver dummy not found",
                                      "factory function returned a null object"}),
            std::vector<std::string>(traces.end() - 3, traces.end()));
  EXPECT_EQ(0u, DeviceBase::devices.count(8));
}

// The Ham is named (after the object in simulation) and given the driver's
// table before init(), and the device is registered only after init().
TEST_F(Registry, HamIsWiredBeforeInitAndDeviceRegisteredAfter) {
  const struct {
    int simulation;
    std::string more;
    std::string objectName;
  } cases[] = {{1, R"(, "name": "psu1")", "psu1"}, {1, "", ""}, {0, R"(, "name": "psu1")", ""},
               // the text is read again for the name, without recursion (on a 1 MiB stack)
               {1, R"(, "x": )" + std::string(100000, '[') + std::string(100000, ']') + R"(, "name": "n")", "n"}};
  unsigned int uid = 20;
  for (const auto& c : cases) onStackOf(1 << 20, [&] {
    SCOPED_TRACE(c.more.substr(0, 20) + (c.simulation ? " simulated" : " on hardware"));
    Utils::simulationMode = c.simulation;
    FakeHam ham;
    Drivers::DriverArgs args;
    ASSERT_TRUE(args.parseJSON(object("Recorder", ++uid, c.more).c_str()));
    auto* device = dynamic_cast<RecordingDevice*>(HardwareDevice::create(args, &ham));
    ASSERT_NE(nullptr, device);
    EXPECT_EQ(&ham, hamGivenToFactory);
    EXPECT_EQ(&ham, device->seenHam);
    EXPECT_EQ(1, device->seenNames);
    EXPECT_EQ(1, device->seenTables);
    EXPECT_FALSE(device->seenRegistered);
    EXPECT_EQ("Recorder", ham.driverName);
    EXPECT_EQ(c.objectName, ham.suffix);
    EXPECT_EQ(&device->table, ham.expected);
    EXPECT_EQ(device, DeviceBase::devices.at(uid));
  });
}

long heapInUse() {
#if defined(__SANITIZE_ADDRESS__)
  return static_cast<long>(__sanitizer_get_current_allocated_bytes());
#else
  return static_cast<long>(mallinfo2().uordblks);
#endif
}

// A host that keeps retrying an object whose driver refuses it must not be
// left with an access method per try.
TEST_F(Registry, HamBuiltForARefusedDeviceIsReleased) {
  Utils::simulationMode = 0;
  ASSERT_EQ(PL_STATUS_OK, Topology::loadTopology(R"([{"type": "I2C", "ham": "SimHam", "id": 1,
      "devices": [{"did": 16, "components": [{"uid": 41}]}]}])"));
  auto attempt = [] {
    Drivers::DriverArgs args;
    ASSERT_TRUE(args.parseJSON(R"({"did": 16, "uid": 41, "driver": "Refuses", "address": {"address": 80}})"));
    EXPECT_EQ(nullptr, HardwareDevice::create(args, nullptr));
    EXPECT_NE(nullptr, hamGivenToFactory);  // a Ham was built for the attempt
    FakeHost::reset();
  };
  attempt();  // fills lasting caches
  const long before = heapInUse(), tries = 100;
  for (long i = 0; i < tries; ++i) attempt();
  EXPECT_LT(heapInUse() - before, tries * static_cast<long>(sizeof(Ham::SimHam)) / 2);
}

TEST_F(Registry, MultiDeviceGetsNoHamAndAddsItsObjectsThroughTheEntryPoints) {
  const std::string gpio = object("Dummy", 51, R"(, "driverArgs": {"register": "32", "bitpos": "1"})");
  std::string escaped;
  for (char c : gpio) escaped += c == '"' ? std::string("\\\"") : std::string(1, c);
  const std::string json = R"({"did": 1, "uid": 50, "driver": "Group", "isMultiDevice": true, "provideHam": 1,
      "multiDeviceArgs": {"gpio": ")" + escaped + R"("}})";
  Drivers::DriverArgs args;
  auto* group = dynamic_cast<Group*>(DeviceBase::create(json.c_str(), args));
  ASSERT_NE(nullptr, group);
  EXPECT_EQ(nullptr, hamGivenToFactory);

  // Through pl_gpio_add: a register GPIO of the new device, which has no Ham.
  pl_gpio* handle = FakeHost::keep(group->addGpio("gpio"));
  ASSERT_NE(nullptr, handle);
  EXPECT_EQ(std::vector<pl_gpio*>{handle}, group->gpios);
  EXPECT_TRUE(FakeHost::hasTrace("MultiDevice::addGpio driver args = " + gpio, 6));
  auto* line = dynamic_cast<RegGpio*>(static_cast<Gpio*>(handle->owner));
  ASSERT_NE(nullptr, line);
  EXPECT_EQ(32, line->reg());
  EXPECT_EQ(1, line->bit());
  unsigned int value = 0;
  EXPECT_EQ(PL_STATUS_INTERNAL, handle->ops->bit_read(handle, &value));

  FakeHost::reset();
  EXPECT_EQ(nullptr, group->addLed("led"));
  EXPECT_TRUE(group->leds.empty());
  EXPECT_EQ(std::vector<std::string>{"Failed to find driverArgs for driver key 'led'"}, FakeHost::traceTexts(0));
  EXPECT_EQ(nullptr, pl_gpio_add(json.c_str()));  // a multi-device has no GPIO of its own
  EXPECT_EQ(nullptr, pl_gpio_add("{"));
  EXPECT_FALSE(FakeHost::hasTrace("DeviceBase::create() failed"));  // the GPIO entry says nothing itself
}

class Poller : public Component::PollingDevice<HardwareDevice> {
 public:
  Poller() { pollInterval_ = 1000; }
  void pollCallback() override { ++polls; }
  pl_timer_handle timer() const { return pollTimer_; }
  int polls = 0;
};

TEST(PollingDevice, TimerProtocol) {
  FakeHost::reset();
  pl_timer_handle timer;
  {
    Poller poller;
    timer = poller.timer();
    EXPECT_EQ(1, FakeHost::countTrace("creating timer", 0));
    EXPECT_EQ(static_cast<Component::PollingDevice<HardwareDevice>*>(&poller), FakeHost::timer(timer).context);
    FakeHost::failTimerSet(true);  // a failed arming is traced by pollStart and by the handler alike
    EXPECT_FALSE(poller.pollStart());
    FakeHost::fire(timer);
    EXPECT_EQ(2, FakeHost::countTrace("failed to set timer interval", 0));
    FakeHost::failTimerSet(false);
    EXPECT_TRUE(poller.pollStart());
    EXPECT_TRUE(poller.pollStart());
    EXPECT_EQ(2, FakeHost::countTrace("setting polling interval to 1000ms", 0));
    for (int i = 0; i < 3; ++i) FakeHost::fire(timer);
    EXPECT_EQ(4, poller.polls);
    EXPECT_EQ(4, FakeHost::countTrace("pollCallbackWrapper", 6));
    ASSERT_EQ(6u, FakeHost::timerSets().size());  // start, handler, start, then one per poll
    for (const auto& set : FakeHost::timerSets()) {
      EXPECT_EQ(std::make_pair(timer, 1000u), std::make_pair(set.timer, set.interval));
    }
    EXPECT_TRUE(FakeHost::timer(timer).armed);
    EXPECT_FALSE(FakeHost::timer(timer).deleted);
  }
  EXPECT_TRUE(FakeHost::timer(timer).deleted);
  // A successful re-arm by the handler counts as started.
  Poller other;
  FakeHost::fire(other.timer());
  EXPECT_TRUE(other.pollStart());
  EXPECT_EQ(7u, FakeHost::timerSets().size());
}

}  // namespace
