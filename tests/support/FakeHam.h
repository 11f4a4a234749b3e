#pragma once
// An in-process access method for unit tests of everything that talks to a
// Ham: it records what the code under test queued, answers reads from canned
// register data and plays scripted execute() results.
//
//   FakeHam ham;
//   ham.values[0x10] = 0x3f;                 // get8/16/32 of register 0x10
//   ham.blocks[0x20] = "abc";                // getBlock of register 0x20
//   ham.executeResults = {PL_STATUS_OK, 4};  // first two execute() calls...
//   ham.executeDefault = PL_STATUS_OK;       // ...then this one
//   ham.failOn[0x30] = 2;                    // any transaction touching 0x30
//   ham.stateful = true;                     // writes update values/blocks
//   ...code under test...
//   using C = FakeHam::Call;
//   EXPECT_EQ(ham.calls, (FakeHam::Calls{C::prepare(), C::read8(0x10), C::execute()}));
//   EXPECT_EQ(ham.writes(), (FakeHam::Calls{C::write8(0x10, 0x3e)}));
//
// Response ids count the operations queued since the last prepare(), from 0.
// A fetch answers for the register of the operation its id names: numeric
// fetches from `values` (masked to the fetch's width, 0 when absent), getBlock
// from `blocks` ("" when absent; cut to `length` unless that is 0). The byte
// operations (recvByte/sendByte) use BYTE_REGISTER.
//
// Usage faults of the code under test are reported as gtest failures: a fetch
// with an id not handed out since the last prepare(), and a fetch when the
// last execute() did not return PL_STATUS_OK (set `lenient` to allow it).
#include <cstdint>
#include <deque>
#include <map>
#include <ostream>
#include <string>
#include <utility>
#include <vector>

#include "Ham/Ham.h"

class FakeHam : public Ham::Ham {
 public:
  static constexpr uint32_t BYTE_REGISTER = 0xFFFFFFFF;

  enum class Op {
    Init, Prepare, Execute,
    RecvByte, Read8, Read16, Read32, Read, ReadBlock, ProcessCall,
    SendByte, Write8, Write16, Write32, Write, WriteBlock,
    Get8, Get16, Get32, GetBlock,
  };

  // One recorded call. `value`: the written value, the process-call value or
  // the length of read/write/getBlock; `data`: the bytes of write/writeBlock;
  // `reg`: the register (fetches: the register answered, ids aside).
  struct Call {
    Call(Op op, uint32_t reg = 0, uint32_t value = 0, std::string data = {}, bool flag = false)
        : op(op), reg(reg), value(value), data(std::move(data)), flag(flag) {}

    Op op;
    uint32_t reg;
    uint32_t value;
    std::string data;
    bool flag;
    bool operator==(const Call& o) const {
      return op == o.op && reg == o.reg && value == o.value && data == o.data && flag == o.flag;
    }
    bool operator!=(const Call& o) const { return !(*this == o); }

    // Builders for expected call lists.
    static Call prepare() { return {Op::Prepare}; }
    static Call execute() { return {Op::Execute}; }
    static Call recvByte() { return {Op::RecvByte, BYTE_REGISTER}; }
    static Call read8(uint32_t reg) { return {Op::Read8, reg}; }
    static Call read16(uint32_t reg) { return {Op::Read16, reg}; }
    static Call read32(uint32_t reg) { return {Op::Read32, reg}; }
    static Call read(uint32_t reg, uint32_t length, bool flag = false) { return {Op::Read, reg, length, "", flag}; }
    static Call readBlock(uint32_t reg) { return {Op::ReadBlock, reg}; }
    static Call processCall(uint32_t reg, uint16_t value) { return {Op::ProcessCall, reg, value}; }
    static Call sendByte(uint8_t value, bool flag = false) { return {Op::SendByte, BYTE_REGISTER, value, "", flag}; }
    static Call write8(uint32_t reg, uint8_t value, bool flag = false) { return {Op::Write8, reg, value, "", flag}; }
    static Call write16(uint32_t reg, uint16_t value, bool flag = false) { return {Op::Write16, reg, value, "", flag}; }
    static Call write32(uint32_t reg, uint32_t value, bool flag = false) { return {Op::Write32, reg, value, "", flag}; }
    static Call write(uint32_t reg, const std::string& data, bool flag = false) {
      return {Op::Write, reg, static_cast<uint32_t>(data.size()), data, flag};
    }
    static Call writeBlock(uint32_t reg, const std::string& data, bool flag = false) {
      return {Op::WriteBlock, reg, static_cast<uint32_t>(data.size()), data, flag};
    }
  };
  using Calls = std::vector<Call>;

  // Script.
  std::map<uint32_t, uint32_t> values;
  std::map<uint32_t, std::string> blocks;
  std::deque<pl_status> executeResults;  // consumed one per execute()
  pl_status executeDefault = PL_STATUS_OK;
  std::map<uint32_t, pl_status> failOn;  // wins over executeResults
  bool stateful = false;
  bool lenient = false;

  // Record. `calls` holds init, prepare, execute and every queued operation
  // in order; `fetches` the get8/16/32/getBlock calls (value: getBlock length).
  Calls calls;
  Calls fetches;
  Utils::ExpectedValues* expected = nullptr;  // last setExpected
  std::string driverName, suffix;               // last setDriverName
  int setExpectedCount = 0, setDriverNameCount = 0;

  // Views of `calls`: only the given kinds / only the writes (incl. sendByte).
  Calls callsOf(std::initializer_list<Op> ops) const;
  Calls writes() const;
  // Forget the record (not the script).
  void clearRecord();

  void init() override;
  void prepare() override;
  pl_status execute() override;
  ResponseId addRecvByte() override;
  ResponseId addRead8(uint32_t reg) override;
  ResponseId addRead16(uint32_t reg) override;
  ResponseId addRead32(uint32_t reg) override;
  ResponseId addRead(uint32_t reg, uint32_t length, bool flag) override;
  ResponseId addReadBlock(uint32_t reg) override;
  ResponseId addSendByte(uint8_t value, bool flag) override;
  ResponseId addWrite8(uint32_t reg, uint8_t value, bool flag) override;
  ResponseId addWrite16(uint32_t reg, uint16_t value, bool flag) override;
  ResponseId addWrite32(uint32_t reg, uint32_t value, bool flag) override;
  ResponseId addWrite(uint32_t reg, const void* data, uint32_t length, bool flag) override;
  ResponseId addWriteBlock(uint32_t reg, const void* data, uint32_t length, bool flag) override;
  ResponseId addProcessCall(uint32_t reg, uint16_t value) override;
  uint8_t get8(ResponseId id) override;
  uint16_t get16(ResponseId id) override;
  uint32_t get32(ResponseId id) override;
  std::string getBlock(ResponseId id, uint32_t length) override;
  void setExpected(Utils::ExpectedValues* map) override;
  void setDriverName(std::string name, std::string nameSuffix) override;

 private:
  ResponseId queue(Call call);
  bool fetchable(ResponseId id, Op op, uint32_t length, uint32_t* reg);
  uint32_t number(ResponseId id, Op op);

  std::vector<uint32_t> queued_;  // registers of this transaction, by id
  bool executedOk_ = false;
};

std::ostream& operator<<(std::ostream& out, const FakeHam::Call& call);
