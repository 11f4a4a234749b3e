#pragma once
// An in-process access method for unit tests of everything that talks to a
// Ham: it records what the code under test queued, answers fetches from canned
// register data and plays scripted execute() results.
//   ham.values[0x10] = 0x3f;                 // get8/16/32 of register 0x10
//   ham.blocks[0x20] = "abc";                // getBlock of register 0x20
//   ham.executeResults = {PL_STATUS_OK, 4};  // one per execute(), then OK
//   ham.failOn[0x30] = 2;                    // any transaction touching 0x30
//   ham.stateful = true;                     // writes update values/blocks
//   EXPECT_EQ(ham.calls, (FakeHam::Calls{C::prepare(), C::read8(0x10), C::execute()}));
// Response ids count the operations queued since prepare(), from 0. A fetch
// answers for its id's register: 0 or "" when absent, a block cut to `length`
// unless that is 0. recvByte/sendByte use BYTE_REGISTER. A fetch with an id
// not handed out, or after an execute() that failed, fails the test.
#include <cstdint>
#include <deque>
#include <map>
#include <ostream>
#include <string>
#include <tuple>
#include <vector>

#include "Ham/Ham.h"

class FakeHam : public Ham::Ham {
 public:
  static constexpr uint32_t BYTE_REGISTER = 0xFFFFFFFF;

  enum class Op {
    Init, Prepare, Execute, RecvByte, Read8, Read16, Read32, Read, ReadBlock, ProcessCall,
    SendByte, Write8, Write16, Write32, Write, WriteBlock, Get8, Get16, Get32, GetBlock,
  };

  // One recorded call. `value`: the written value, the process-call value or
  // the length of read/write/getBlock; `data`: the bytes of write/writeBlock.
  struct Call {
    Call(Op op, uint32_t reg = 0, uint32_t value = 0, std::string data = {}, bool flag = false)
        : op(op), reg(reg), value(value), data(std::move(data)), flag(flag) {}
    Op op;
    uint32_t reg, value;
    std::string data;
    bool flag;
    bool operator==(const Call& o) const {
      return std::tie(op, reg, value, data, flag) == std::tie(o.op, o.reg, o.value, o.data, o.flag);
    }

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
  std::deque<pl_status> executeResults;  // consumed one per execute(), then OK
  std::map<uint32_t, pl_status> failOn;  // wins over executeResults
  bool stateful = false;

  // Record: `calls` holds init, prepare, execute and every queued operation in
  // order; `fetches` the get8/16/32/getBlock calls (value: getBlock length).
  Calls calls, fetches;
  Utils::ExpectedValues* expected = nullptr;  // last setExpected
  std::string driverName, suffix;               // last setDriverName
  int setExpectedCount = 0, setDriverNameCount = 0;

  Calls callsOf(std::initializer_list<Op> ops) const;
  Calls writes() const;  // sendByte included

  void init() override { calls.push_back({Op::Init}); }
  void prepare() override;
  pl_status execute() override;
  ResponseId addRecvByte() override { return queue(Call::recvByte()); }
  ResponseId addRead8(uint32_t reg) override { return queue(Call::read8(reg)); }
  ResponseId addRead16(uint32_t reg) override { return queue(Call::read16(reg)); }
  ResponseId addRead32(uint32_t reg) override { return queue(Call::read32(reg)); }
  ResponseId addRead(uint32_t reg, uint32_t length, bool flag) override { return queue(Call::read(reg, length, flag)); }
  ResponseId addReadBlock(uint32_t reg) override { return queue(Call::readBlock(reg)); }
  ResponseId addSendByte(uint8_t value, bool flag) override { return queue(Call::sendByte(value, flag)); }
  ResponseId addWrite8(uint32_t reg, uint8_t v, bool flag) override { return queue(Call::write8(reg, v, flag)); }
  ResponseId addWrite16(uint32_t reg, uint16_t v, bool flag) override { return queue(Call::write16(reg, v, flag)); }
  ResponseId addWrite32(uint32_t reg, uint32_t v, bool flag) override { return queue(Call::write32(reg, v, flag)); }
  ResponseId addWrite(uint32_t reg, const void* data, uint32_t length, bool flag) override {
    return queue(Call::write(reg, bytes(data, length), flag));
  }
  ResponseId addWriteBlock(uint32_t reg, const void* data, uint32_t length, bool flag) override {
    return queue(Call::writeBlock(reg, bytes(data, length), flag));
  }
  ResponseId addProcessCall(uint32_t reg, uint16_t value) override { return queue(Call::processCall(reg, value)); }
  uint8_t get8(ResponseId id) override { return static_cast<uint8_t>(number(id, Op::Get8)); }
  uint16_t get16(ResponseId id) override { return static_cast<uint16_t>(number(id, Op::Get16)); }
  uint32_t get32(ResponseId id) override { return number(id, Op::Get32); }
  std::string getBlock(ResponseId id, uint32_t length) override;
  void setExpected(Utils::ExpectedValues* map) override {
    expected = map;
    ++setExpectedCount;
  }
  void setDriverName(std::string name, std::string nameSuffix) override {
    driverName = std::move(name);
    suffix = std::move(nameSuffix);
    ++setDriverNameCount;
  }

 private:
  static std::string bytes(const void* data, uint32_t length) {
    return length == 0 ? std::string() : std::string(static_cast<const char*>(data), length);
  }
  ResponseId queue(Call call);
  uint32_t fetch(ResponseId id, Op op, uint32_t length);  // the register answered
  uint32_t number(ResponseId id, Op op);

  std::vector<uint32_t> queued_;  // registers of this transaction, by id
  bool executedOk_ = false;
};

std::ostream& operator<<(std::ostream& out, const FakeHam::Call& call);
