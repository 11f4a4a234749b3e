#pragma once
// Shared by the device-model tests: object texts and a fixture that leaves
// the device registry as it found it.
#include <gtest/gtest.h>

#include <map>
#include <set>
#include <string>

#include "Components/HardwareDevice.h"
#include "FakeHost.h"

namespace DeviceModelTest {

// An object of `driver` that needs no access method (and so no topology).
inline std::string object(const std::string& driver, unsigned uid, const std::string& more = "") {
  return R"({"did": 16, "uid": )" + std::to_string(uid) + R"(, "driver": ")" + driver +
         R"(", "provideHam": 0, "address": {"address": 80})" + more + "}";
}

// Devices are never destroyed by the library; each test deletes the ones it
// caused, so the next test starts from the same registry.
class RegistryTest : public ::testing::Test {
 protected:
  void SetUp() override {
    FakeHost::reset();
    for (const auto& entry : Component::DeviceBase::devices) before_.insert(entry.first);
  }
  void TearDown() override {
    auto& devices = Component::DeviceBase::devices;
    for (auto it = devices.begin(); it != devices.end();) {
      if (before_.count(it->first)) {
        ++it;
        continue;
      }
      delete it->second;
      it = devices.erase(it);
    }
  }

 private:
  std::set<unsigned int> before_;
};

}  // namespace DeviceModelTest
