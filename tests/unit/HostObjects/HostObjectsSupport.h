#pragma once
// Test devices and logical devices for the host-object tests: a device that
// hands out whatever logical devices the test gave it, registered under a uid
// so that an add with that uid reuses it, and logical devices that record the
// call that reached them.
#include <signal.h>

#include <cstdio>
#include <memory>
#include <string>

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

// What a factory was asked for, and what it hands back (null allowed).
class TestDevice : public Component::HardwareDevice {
 public:
  LD::Led* newLed(const Component::FactoryArgs& args) override { return seen(args, led); }
  LD::Fan* newFan(const Component::FactoryArgs& args) override { return seen(args, fan); }
  LD::Psu* newPsu(const Component::FactoryArgs& args) override { return seen(args, psu); }
  LD::Slot* newSlot(const Component::FactoryArgs& args) override { return seen(args, slot); }
  LD::TempSensor* newTempSensor(const Component::FactoryArgs& args) override { return seen(args, sensor); }
  LD::SmbusProxy* newSmbusProxy(const Component::FactoryArgs& args) override { return seen(args, proxy); }
  LD::SfpXcvr* newSfpXcvr(unsigned int id, const Component::FactoryArgs& args) override {
    lastId = id;
    return seen(args, sfp);
  }
  LD::QsfpXcvr* newQsfpXcvr(unsigned int id, const Component::FactoryArgs& args) override {
    lastId = id;
    return seen(args, qsfp);
  }

  LD::Led* led = nullptr;
  LD::Fan* fan = nullptr;
  LD::Psu* psu = nullptr;
  LD::Slot* slot = nullptr;
  LD::TempSensor* sensor = nullptr;
  LD::SmbusProxy* proxy = nullptr;
  LD::SfpXcvr* sfp = nullptr;
  LD::QsfpXcvr* qsfp = nullptr;

  int factoryCalls = 0;
  unsigned int lastId = 0;
  Drivers::DriverArgs lastArgs;

 private:
  template <typename T>
  T* seen(const Component::FactoryArgs& args, T* result) {
    ++factoryCalls;
    lastArgs = args;
    return result;
  }
};

// Puts a device into the registry under `uid` for the life of the object.
class Registered {
 public:
  Registered(unsigned int uid, Component::DeviceBase* device) : uid_(uid) {
    Component::DeviceBase::devices[uid] = device;
  }
  ~Registered() { Component::DeviceBase::devices.erase(uid_); }
  Registered(const Registered&) = delete;
  Registered& operator=(const Registered&) = delete;

 private:
  unsigned int uid_;
};

// The object JSON of a device with this uid; `driverArgs` is the body of the
// "driverArgs" object.
inline std::string objectJson(unsigned int uid, const std::string& driverArgs = "",
                              const std::string& driver = "TestDevice") {
  return R"({"did": 1, "driver": ")" + driver + R"(", "uid": )" + std::to_string(uid) +
         R"(, "address": {"address": 16}, "driverArgs": {)" + driverArgs + "}}";
}

inline std::string pointerText(const void* p) {
  char text[32];
  std::snprintf(text, sizeof text, "%p", p);
  return text;
}

// The last call that reached a recording logical device, as "name args".
struct Recorder {
  std::string call;
  pl_status result = 42;  // what every operation answers
  pl_status record(std::string text) {
    call = std::move(text);
    return result;
  }
};

class TestLed : public LD::Led, public Recorder {
 public:
  explicit TestLed(bool canBlink = false) { canBlink_ = canBlink; }
  pl_status setLightSetting(pl_led_status status) override {
    return record("setLightSetting " + std::to_string(status));
  }
};

class TestSfp : public LD::SfpXcvr, public Recorder {
 public:
  using SfpXcvr::SfpXcvr;
  pl_status getPresence() override { return record("getPresence"); }
  pl_status getTxFault(int* v) override { return get("getTxFault", v); }
  pl_status getRxLos(int* v) override { return get("getRxLos", v); }
  pl_status getTxDisable(int* v) override { return get("getTxDisable", v); }
  pl_status setTxDisable(int v) override { return record("setTxDisable " + std::to_string(v)); }

 private:
  pl_status get(const char* name, int* v) {
    *v = 77;
    return record(name);
  }
};

class TestQsfp : public LD::QsfpXcvr, public Recorder {
 public:
  using QsfpXcvr::QsfpXcvr;
  pl_status getPresence() override { return record("getPresence"); }
  pl_status getModSel(int* v) override { return get("getModSel", v); }
  pl_status setModSel(int v) override { return set("setModSel", v); }
  pl_status getLpMode(int* v) override { return get("getLpMode", v); }
  pl_status setLpMode(int v) override { return set("setLpMode", v); }
  pl_status getReset(int* v) override { return get("getReset", v); }
  pl_status setReset(int v) override { return set("setReset", v); }
  pl_status getInterrupt(int* v) override { return get("getInterrupt", v); }

 private:
  pl_status get(const char* name, int* v) {
    *v = 77;
    return record(name);
  }
  pl_status set(const char* name, int v) { return record(std::string(name) + " " + std::to_string(v)); }
};

class TestFan : public LD::Fan, public Recorder {
 public:
  pl_status getRpm(int* rpm) override {
    *rpm = 77;
    return record("getRpm");
  }
  pl_status setRpm(int rpm) override { return record("setRpm " + std::to_string(rpm)); }
};

class TestPsu : public LD::Psu, public Recorder {
 public:
  pl_status get_power_ok(int* ok) override {
    *ok = 77;
    return record("get_power_ok");
  }
  pl_status get_input_current(float* v) override { return get("get_input_current", v); }
  pl_status get_output_current(float* v) override { return get("get_output_current", v); }
  pl_status get_input_voltage(float* v) override { return get("get_input_voltage", v); }
  pl_status get_output_voltage(float* v) override { return get("get_output_voltage", v); }
  pl_status get_input_power(float* v) override { return get("get_input_power", v); }
  pl_status get_output_power(float* v) override { return get("get_output_power", v); }

 private:
  pl_status get(const char* name, float* v) {
    *v = 77.0f;
    return record(name);
  }
};

class TestSlot : public LD::Slot, public Recorder {
 public:
  pl_status getPresence(char** description) override {
    *description = const_cast<char*>("present");
    return record("getPresence");
  }
};

class TestSensor : public LD::TempSensor, public Recorder {
 public:
  pl_status getTemperature(float* celsius) override {
    *celsius = 77.0f;
    return record("getTemperature");
  }
  // Keeps the order of the threshold calls on top of the default behaviour.
  void alertThresholdIs(float t) override {
    order += "alert " + std::to_string(static_cast<int>(t)) + ";";
    TempSensor::alertThresholdIs(t);
  }
  void criticalThresholdIs(float t) override {
    order += "critical " + std::to_string(static_cast<int>(t)) + ";";
    TempSensor::criticalThresholdIs(t);
  }
  std::string order;
};

// In a death test the recorded traces die with the child; this prints them
// to stderr when the child aborts, after the assertion message, so that a
// death test can see what was traced before the process stopped.
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
