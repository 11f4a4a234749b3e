#pragma once
// Hardware access method: a transaction builder. A driver prepares, queues
// SMBus-style operations (keeping the ResponseId of each read), executes the
// whole queue at once and fetches the read results by id.
#include <cstdint>
#include <string>

#include "Ham/ExpectedVal.h"
#include "Topology.h"
#include "keldo/pl_host.h"

namespace Drivers {
struct DriverArgs;
}

namespace Ham {

class Ham {
 public:
  using ResponseId = uint32_t;
  static constexpr ResponseId INVALID_RESPONSE_ID = 0xFFFFFFFF;

  uint32_t retryCount = 0;
  bool retryCountSet = false;

  // The virtual-table layout that the host, access methods and drivers built
  // apart from this library are compiled against: keep the order, add only at
  // the end.
  virtual void init();                                                             // 1
  virtual void prepare() = 0;                                                      // 2
  virtual pl_status execute() = 0;                                                 // 3
  virtual ResponseId addRecvByte();                                                // 4
  virtual ResponseId addRead8(uint32_t reg);                                       // 5
  virtual ResponseId addRead16(uint32_t reg);                                      // 6
  virtual ResponseId addRead32(uint32_t reg);                                      // 7
  virtual ResponseId addRead(uint32_t reg, uint32_t length, bool flag);            // 8
  virtual ResponseId addReadBlock(uint32_t reg);                                   // 9
  virtual ResponseId addSendByte(uint8_t value, bool flag);                        // 10
  virtual ResponseId addWrite8(uint32_t reg, uint8_t value, bool flag);            // 11
  virtual ResponseId addWrite16(uint32_t reg, uint16_t value, bool flag);          // 12
  virtual ResponseId addWrite32(uint32_t reg, uint32_t value, bool flag);          // 13
  virtual ResponseId addWrite(uint32_t reg, const void* data, uint32_t length, bool flag);       // 14
  virtual ResponseId addWriteBlock(uint32_t reg, const void* data, uint32_t length, bool flag);  // 15
  virtual ResponseId addProcessCall(uint32_t reg, uint16_t value);                 // 16
  virtual uint8_t get8(ResponseId id);                                             // 17
  virtual uint16_t get16(ResponseId id);                                           // 18
  virtual uint32_t get32(ResponseId id);                                           // 19
  virtual std::string getBlock(ResponseId id, uint32_t length);                    // 20
  virtual void setExpected(Utils::ExpectedValues* expected);                       // 21
  virtual void setDriverName(std::string driverName, std::string suffix);          // 22
  // Declared after the design's slots so that their order is unchanged; lets a
  // device release an access method it built but could not use.
  virtual ~Ham() = default;

  void retryCountIs(uint32_t count);

  // One-shot operations: prepare, queue one operation, execute, fetch. A failed
  // execute() is returned as it is and leaves the output untouched.
  pl_status recvByte(uint8_t* out);
  pl_status read8(uint32_t reg, uint8_t* out);
  pl_status read16(uint32_t reg, uint16_t* out);
  pl_status read32(uint32_t reg, uint32_t* out);
  pl_status read(uint32_t reg, uint32_t length, std::string* out, bool flag);
  pl_status readBlock(uint32_t reg, std::string* out);
  pl_status processCall(uint32_t reg, uint16_t value, uint16_t* out);
  pl_status sendByte(uint8_t value, bool flag);
  pl_status write8(uint32_t reg, uint8_t value, bool flag);
  pl_status write16(uint32_t reg, uint16_t value, bool flag);
  pl_status write32(uint32_t reg, uint32_t value, bool flag);
  pl_status write(uint32_t reg, const void* data, uint32_t length, bool flag);
  pl_status writeBlock(uint32_t reg, const void* data, uint32_t length, bool flag);

  // Builds the access method registered under `name` in Ham::hams and runs its
  // init(); null (with a trace) when there is no such row or the factory fails.
  static Ham* create(const std::string& name, const Topology::Topology& topology,
                     const Drivers::DriverArgs& driverArgs);
};

// Finds the component or device that `driverArgs` names in the loaded topology
// and builds the access method that its outermost access-capable ancestor
// names ("SimHam" in simulation). Null with a trace on failure.
Ham* createHam(const Drivers::DriverArgs& driverArgs);

// The component or device of a driver's arguments, and the access method
// named by its outermost access-capable ancestor: on the way up, every
// medium that has one overwrites `hamName`, so the outermost one wins.
class SearchVisitor : public Topology::PathVisitor {
 public:
  SearchVisitor(uint32_t componentUid, uint32_t deviceUid) : PathVisitor(componentUid, deviceUid) {}

  const Topology::Device* device = nullptr;
  std::string hamName;

 private:
  void onPath(const Topology::Component* node) override;
  void onPath(const Topology::Device* node) override;
  void onPath(const Topology::Mux* node) override;
  void onPath(const Topology::Bus* node) override;
  void onPath(const Topology::Accelerator* node) override;
  void onPath(const Topology::SCD* node) override;
  void onPath(const Topology::I2C* node) override;
  void onPath(const Topology::IOPort* node) override;
  void onPath(const Topology::Celestica* node) override;
  void onPath(const Topology::PLM* node) override;
  void onPath(const Topology::SccSpi* node) override;
  // An access-capable medium: its access method, and its line.
  template <typename... Values>
  void medium(const Topology::MediumNode& node, const char* format, Values... values) {
    hamName = node.ham;
    pl_trace(2, format, values...);
  }
};

}  // namespace Ham
