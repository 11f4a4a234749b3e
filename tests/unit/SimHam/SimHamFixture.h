#pragma once
// Every SimHam test gets its own simulation directory: KELDOLIB_SIMDIR points
// at a fresh temporary directory and the cached directory is forgotten, so the
// next access method to be named picks it up.
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdlib>
#include <functional>
#include <memory>
#include <string>
#include <tuple>

#include "FakeHost.h"
#include "Ham/SimHam.h"
#include "TempDir.h"

class SimHamTest : public ::testing::Test {
 protected:
  void SetUp() override {
    setenv("KELDOLIB_SIMDIR", dir_.path().c_str(), 1);
    Ham::SimHam::forgetSimulationDirectory();
    FakeHost::reset();
  }
  void TearDown() override { Ham::SimHam::forgetSimulationDirectory(); }

  // A SimHam named `name` whose file holds `table`; the table must outlive it.
  std::unique_ptr<Ham::SimHam> simHam(Utils::ExpectedValues& table, const std::string& name = "LM75",
                                      const std::string& suffix = "") {
    std::unique_ptr<Ham::SimHam> ham(new Ham::SimHam);
    ham->setDriverName(name, suffix);
    ham->setExpected(&table);
    return ham;
  }

  std::string path(const std::string& name = "LM75") const { return dir_.file(name); }
  std::string contents(const std::string& name = "LM75") const { return readFile(path(name)); }

  static std::string warning(const std::string& driver, const char* reg) {
    return "WARNING: Simulated Driver " + driver + " doesn't yet have expectedVal set for register " + reg +
           " using SIMULATION_HAM()\n";
  }

  TempDir dir_;
};

// The LM75's table: temperature, then the two thresholds, one byte each.
inline Utils::ExpectedValues lm75Table() {
  return {{0, Utils::ExpectedVal(0x27, 1)}, {2, Utils::ExpectedVal(0x6E, 1)}, {3, Utils::ExpectedVal(0x6E, 1)}};
}
