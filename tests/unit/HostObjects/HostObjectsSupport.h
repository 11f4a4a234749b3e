#pragma once
// Mock devices and logical devices for the host-object tests. A device put
// into the registry under a uid is reused by every add that names the uid.
#include <signal.h>

#include <cstdio>
#include <string>

#include <gmock/gmock.h>

#include "Components/Fan.h"
#include "Components/HardwareDevice.h"
#include "Components/Led.h"
#include "Components/Psu.h"
#include "Components/Slot.h"
#include "Components/SmbusProxy.h"
#include "Components/TempSensor.h"
#include "Components/Xcvr.h"
#include "FakeHost.h"

namespace HostObjectsTest {

namespace LD = Component::LogicalDevice;
using Args = const Component::FactoryArgs&;

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

class Registered {
 public:
  Registered(unsigned int uid, Component::DeviceBase* device) : uid_(uid) {
    Component::DeviceBase::devices[uid] = device;
  }
  ~Registered() { Component::DeviceBase::devices.erase(uid_); }

 private:
  unsigned int uid_;
};

inline std::string objectJson(unsigned int uid, const std::string& driverArgs = "") {
  return R"({"did": 1, "driver": "TestDevice", "uid": )" + std::to_string(uid) +
         R"(, "address": {"address": 16}, "driverArgs": {)" + driverArgs + "}}";
}

inline std::string pointerText(const void* p) {
  char text[32];
  std::snprintf(text, sizeof text, "%p", p);
  return text;
}

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

// A death test's child takes its recorded traces with it; this prints them to
// stderr when the child aborts (after the assertion message), so the matcher
// can see what was traced before the process stopped.
inline void dumpTracesOnAbort() {
  struct sigaction action {};
  action.sa_handler = [](int) {
    for (const auto& line : FakeHost::traces()) {
      std::fprintf(stderr, "[trace %d] %s\n", line.level, line.text.c_str());
    }
  };
  action.sa_flags = SA_RESETHAND;
  sigaction(SIGABRT, &action, nullptr);
}

}  // namespace HostObjectsTest
