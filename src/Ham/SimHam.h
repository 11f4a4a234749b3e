#pragma once
// Simulated registers: each driver's registers live as one line of text in a
// small file, so that they survive the process, can be read and edited by hand
// while the system runs, and are shared by every process that opens the file.
// See docs/simulation.md for the file format and the rules for editing it.
#include <cstdint>
#include <map>
#include <string>
#include <vector>

#include "Ham/Ham.h"

namespace Ham {

class SimHam : public Ham {
 public:
  // Registry factory. The access method starts without a file: the driver
  // names it (setDriverName) and then hands over its table (setExpected).
  static Ham* create(const Topology::Topology& topology, const Drivers::DriverArgs& driverArgs);

  void init() override;
  void prepare() override;
  pl_status execute() override;
  ResponseId addRecvByte() override;
  ResponseId addRead8(uint32_t reg) override;
  ResponseId addRead16(uint32_t reg) override;
  ResponseId addRead(uint32_t reg, uint32_t length, bool flag) override;
  ResponseId addReadBlock(uint32_t reg) override;
  ResponseId addSendByte(uint8_t value, bool flag) override;
  ResponseId addWrite8(uint32_t reg, uint8_t value, bool flag) override;
  ResponseId addWrite16(uint32_t reg, uint16_t value, bool flag) override;
  ResponseId addWrite(uint32_t reg, const void* data, uint32_t length, bool flag) override;
  ResponseId addWriteBlock(uint32_t reg, const void* data, uint32_t length, bool flag) override;
  ResponseId addProcessCall(uint32_t reg, uint16_t value) override;
  uint8_t get8(ResponseId id) override;
  uint16_t get16(ResponseId id) override;
  std::string getBlock(ResponseId id, uint32_t length) override;
  void setExpected(Utils::ExpectedValues* map) override;
  void setDriverName(std::string driverName, std::string nameSuffix) override;

  const std::string& simFileName() const { return simFileName_; }
  bool simFileExists() const { return simFileExists_; }
  uint32_t fileSize() const { return simFileSize; }
  const std::map<uint32_t, uint32_t>& registerOffsets() const { return offsets; }

  // The directory of the simulation files: KELDOLIB_SIMDIR when it is set
  // (even empty), else "/tmp/KeldoSimulationDevices". Read from the
  // environment on first use and kept for the life of the process.
  static const std::string& simulationDirectory();
  // Test hook: forget the cached directory, so that the next access method
  // to be named reads KELDOLIB_SIMDIR again.
  static void forgetSimulationDirectory();

 private:
  ResponseId queueRegister(uint32_t reg);
  uint32_t fetchRegister(ResponseId id) const;
  bool isListed(uint32_t reg) const;
  uint32_t textLength(uint32_t reg) const;
  void warnNotSimulated(uint32_t reg) const;
  uint32_t readNumber(ResponseId id, uint32_t width);
  std::string readText(uint32_t reg, uint32_t count);
  void writeText(uint32_t reg, const std::string& text);
  void writeSimulationFile();

  Utils::ExpectedValues* expected = nullptr;  // the driver's table, not owned
  std::map<uint32_t, uint32_t> offsets;        // register -> offset of its text
  std::string driverName_;
  std::string suffix;
  uint32_t register_ = 0;  // register of the operation queued last
  bool simFileExists_ = false;
  uint32_t simFileSize = 0;  // without the newline
  std::string simFileName_;
  // Registers of the operations queued since prepare(), indexed by response
  // id, so a transaction of several reads answers each for its own register.
  std::vector<uint32_t> queued_;
};

}  // namespace Ham
