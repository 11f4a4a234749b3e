// Creation, registration by uid and reuse of devices; multi-devices.
#include <malloc.h>

#include <algorithm>
#include <vector>

#include "Components/Gpio.h"
#include "DeviceModelSupport.h"
#include "FakeHam.h"
#include "Ham/SimHam.h"
#include "Keldo.h"
#include "Topology.h"
#include "Zanty.h"

#if defined(__SANITIZE_ADDRESS__)
// From the sanitizer runtime (its header does not come with every compiler).
extern "C" size_t __sanitizer_get_current_allocated_bytes();
#endif

using Component::DeviceBase;
using Component::HardwareDevice;
using Component::MultiDevice;
using DeviceModelTest::object;

namespace {

// What a driver saw when its init() ran.
struct InitView {
  Ham::Ham* ham = nullptr;
  int driverNameCalls = -1;
  int expectedCalls = -1;
  bool registered = true;
};

Ham::Ham* hamGivenToFactory = nullptr;

class RecordingDevice : public HardwareDevice {
 public:
  using HardwareDevice::HardwareDevice;
  Utils::ExpectedValues* expectedValues() override { return &table; }
  void init() override {
    auto* fake = dynamic_cast<FakeHam*>(ham());
    seen.ham = ham();
    seen.driverNameCalls = fake ? fake->setDriverNameCount : -1;
    seen.expectedCalls = fake ? fake->setExpectedCount : -1;
    seen.registered = DeviceBase::devices.count(uid) != 0;
  }

  Utils::ExpectedValues table{{0x10, Utils::ExpectedVal(0x3f, 1)}};
  unsigned int uid = 0;
  InitView seen;
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
  rows["Refuses"] = [](const DriverArgs&, Ham::Ham* ham) -> DeviceBase* {
    hamGivenToFactory = ham;
    return nullptr;
  };
  rows["Group"] = [](const DriverArgs&, Ham::Ham* ham) -> DeviceBase* {
    hamGivenToFactory = ham;
    return new Group;
  };
}

namespace {

class DeviceRegistry : public DeviceModelTest::RegistryTest {
 protected:
  void SetUp() override {
    RegistryTest::SetUp();
    hamGivenToFactory = nullptr;
  }
  void TearDown() override {
    Utils::simulationMode = savedSimulation_;
    RegistryTest::TearDown();
  }
  void simulate(bool on) { Utils::simulationMode = on ? 1 : 0; }

 private:
  int32_t savedSimulation_ = Utils::simulationMode;
};

TEST_F(DeviceRegistry, SecondObjectWithSameUidGetsFirstDevice) {
  Drivers::DriverArgs first, second;
  DeviceBase* device = DeviceBase::create(object("Dummy", 7).c_str(), first);
  ASSERT_NE(device, nullptr);
  EXPECT_EQ(DeviceBase::create(object("Recorder", 7).c_str(), second), device);
  EXPECT_EQ(dynamic_cast<RecordingDevice*>(device), nullptr);
  EXPECT_EQ(FakeHost::countTrace("using previously instanciated HardwareDevice Recorder", 0), 1);
  EXPECT_EQ(FakeHost::countTrace("creating HardwareDevice Recorder"), 0);
  EXPECT_EQ(DeviceBase::devices.at(7), device);
}

TEST_F(DeviceRegistry, UnknownDriverRegistersNothingSoALaterObjectTriesAgain) {
  Drivers::DriverArgs args;
  EXPECT_EQ(DeviceBase::create(object("dummy", 8).c_str(), args), nullptr);
  std::vector<std::string> traces = FakeHost::traceTexts(0);
  const std::vector<std::string> expected = {"creating HardwareDevice dummy", "driver dummy not found",
                                             "factory function returned a null object"};
  auto from = std::find(traces.begin(), traces.end(), expected.front());
  ASSERT_GE(traces.end() - from, 3);
  EXPECT_EQ(std::vector<std::string>(from, from + 3), expected);
  EXPECT_EQ(DeviceBase::devices.count(8), 0u);

  Drivers::DriverArgs retry;
  EXPECT_NE(DeviceBase::create(object("Dummy", 8).c_str(), retry), nullptr);
}

// The Ham is named and given the driver's table before init(), and the device
// is registered only after init().
TEST_F(DeviceRegistry, HamIsWiredBeforeInitAndDeviceRegisteredAfter) {
  struct Case {
    bool simulation;
    std::string more;
    std::string objectName;
  } cases[] = {
      {true, R"(, "name": "psu1")", "psu1"},
      {true, "", ""},
      {false, R"(, "name": "psu1")", ""},
  };
  unsigned int uid = 20;
  for (const Case& c : cases) {
    SCOPED_TRACE(c.more + (c.simulation ? " simulated" : " on hardware"));
    simulate(c.simulation);
    FakeHam ham;
    Drivers::DriverArgs args;
    ASSERT_TRUE(args.parseJSON(object("Recorder", ++uid, c.more).c_str()));
    auto* device = dynamic_cast<RecordingDevice*>(HardwareDevice::create(args, &ham));
    ASSERT_NE(device, nullptr);
    EXPECT_EQ(hamGivenToFactory, &ham);
    EXPECT_EQ(device->seen.ham, &ham);
    EXPECT_EQ(device->seen.driverNameCalls, 1);
    EXPECT_EQ(device->seen.expectedCalls, 1);
    EXPECT_FALSE(device->seen.registered);
    EXPECT_EQ(ham.driverName, "Recorder");
    EXPECT_EQ(ham.suffix, c.objectName);
    EXPECT_EQ(ham.expected, &device->table);
    EXPECT_EQ(DeviceBase::devices.at(uid), device);
    EXPECT_TRUE(FakeHost::hasTrace("Recorder device created", 0));
  }
}

long heapInUse() {
#if defined(__SANITIZE_ADDRESS__)
  return static_cast<long>(__sanitizer_get_current_allocated_bytes());
#else
  return static_cast<long>(mallinfo2().uordblks);
#endif
}

// A host that keeps retrying an object whose driver refuses it must not
// leave an access method behind per try.
TEST_F(DeviceRegistry, HamBuiltForARefusedDeviceIsReleased) {
  simulate(false);
  ASSERT_EQ(Topology::loadTopology(R"([{"type": "I2C", "ham": "SimHam", "id": 1,
      "devices": [{"did": 16, "components": [{"uid": 41}]}]}])"),
            PL_STATUS_OK);
  const std::string json = R"({"did": 16, "uid": 41, "driver": "Refuses", "address": {"address": 80}})";
  auto attempt = [&json] {
    Drivers::DriverArgs args;
    ASSERT_TRUE(args.parseJSON(json.c_str()));
    EXPECT_EQ(HardwareDevice::create(args, nullptr), nullptr);
    EXPECT_NE(hamGivenToFactory, nullptr);
  };
  attempt();  // fills lasting caches
  FakeHost::reset();
  const long before = heapInUse();
  const long tries = 100;
  for (long i = 0; i < tries; ++i) {
    attempt();
    FakeHost::reset();
  }
  // A leak grows the heap by one Ham per try; the allocator's own caches do
  // not grow with the number of tries.
  EXPECT_LT(heapInUse() - before, tries * static_cast<long>(sizeof(Ham::SimHam)) / 2);
}

TEST_F(DeviceRegistry, MultiDeviceGetsNoHamAndAddsItsObjectsThroughTheEntryPoints) {
  const std::string gpio = object("Dummy", 51, R"(, "driverArgs": {"register": "32", "bitpos": "1"})");
  std::string escaped;
  for (char c : gpio) escaped += c == '"' ? std::string("\\\"") : std::string(1, c);
  const std::string json = R"({"did": 1, "uid": 50, "driver": "Group", "isMultiDevice": true, "provideHam": 1,
      "multiDeviceArgs": {"gpio": ")" + escaped + R"("}})";

  Drivers::DriverArgs args;
  auto* group = dynamic_cast<Group*>(DeviceBase::create(json.c_str(), args));
  ASSERT_NE(group, nullptr);
  EXPECT_EQ(hamGivenToFactory, nullptr);
  EXPECT_TRUE(FakeHost::hasTrace("Group MultiDevice created", 0));
  EXPECT_EQ(group->deviceDriverArgs, (std::map<std::string, std::string>{{"gpio", gpio}}));

  pl_gpio* handle = FakeHost::keep(group->addGpio("gpio"));
  ASSERT_NE(handle, nullptr);
  EXPECT_EQ(group->gpios, std::vector<pl_gpio*>{handle});
  EXPECT_TRUE(FakeHost::hasTrace("MultiDevice::addGpio driver args = " + gpio, 6));
  EXPECT_NE(DeviceBase::devices.count(51), 0u);

  FakeHost::reset();
  EXPECT_EQ(group->addLed("led"), nullptr);
  EXPECT_EQ(group->addFan("fan"), nullptr);
  EXPECT_TRUE(group->leds.empty());
  EXPECT_TRUE(group->fans.empty());
  EXPECT_EQ(FakeHost::traceTexts(), (std::vector<std::string>{"Failed to find driverArgs for driver key 'led'",
                                                               "Failed to find driverArgs for driver key 'fan'"}));
  EXPECT_EQ(FakeHost::traceLevel("Failed to find driverArgs for driver key 'led'"), 0);

  // A multi-device offers no GPIO of its own.
  EXPECT_EQ(pl_gpio_add(json.c_str()), nullptr);
}

}  // namespace
