#include "FakeHam.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <iomanip>

namespace {

const char* opName(FakeHam::Op op) {
  switch (op) {
    case FakeHam::Op::Init: return "init";
    case FakeHam::Op::Prepare: return "prepare";
    case FakeHam::Op::Execute: return "execute";
    case FakeHam::Op::RecvByte: return "recvByte";
    case FakeHam::Op::Read8: return "read8";
    case FakeHam::Op::Read16: return "read16";
    case FakeHam::Op::Read32: return "read32";
    case FakeHam::Op::Read: return "read";
    case FakeHam::Op::ReadBlock: return "readBlock";
    case FakeHam::Op::ProcessCall: return "processCall";
    case FakeHam::Op::SendByte: return "sendByte";
    case FakeHam::Op::Write8: return "write8";
    case FakeHam::Op::Write16: return "write16";
    case FakeHam::Op::Write32: return "write32";
    case FakeHam::Op::Write: return "write";
    case FakeHam::Op::WriteBlock: return "writeBlock";
    case FakeHam::Op::Get8: return "get8";
    case FakeHam::Op::Get16: return "get16";
    case FakeHam::Op::Get32: return "get32";
    case FakeHam::Op::GetBlock: return "getBlock";
  }
  return "?";
}

bool isWrite(FakeHam::Op op) {
  switch (op) {
    case FakeHam::Op::SendByte:
    case FakeHam::Op::Write8:
    case FakeHam::Op::Write16:
    case FakeHam::Op::Write32:
    case FakeHam::Op::Write:
    case FakeHam::Op::WriteBlock:
      return true;
    default:
      return false;
  }
}

}  // namespace

std::ostream& operator<<(std::ostream& out, const FakeHam::Call& call) {
  out << opName(call.op) << std::hex << "(reg 0x" << call.reg << ", value 0x" << call.value << std::dec;
  if (!call.data.empty()) out << ", data " << std::quoted(call.data);
  if (call.flag) out << ", flag";
  return out << ")";
}

FakeHam::Calls FakeHam::callsOf(std::initializer_list<Op> ops) const {
  Calls out;
  for (const Call& c : calls) {
    if (std::find(ops.begin(), ops.end(), c.op) != ops.end()) out.push_back(c);
  }
  return out;
}

FakeHam::Calls FakeHam::writes() const {
  Calls out;
  for (const Call& c : calls) {
    if (isWrite(c.op)) out.push_back(c);
  }
  return out;
}

void FakeHam::clearRecord() {
  calls.clear();
  fetches.clear();
}

void FakeHam::init() { calls.push_back({Op::Init}); }

void FakeHam::prepare() {
  calls.push_back(Call::prepare());
  queued_.clear();
  executedOk_ = false;
}

pl_status FakeHam::execute() {
  calls.push_back(Call::execute());
  pl_status status = executeDefault;
  if (!executeResults.empty()) {
    status = executeResults.front();
    executeResults.pop_front();
  }
  for (uint32_t reg : queued_) {
    auto it = failOn.find(reg);
    if (it != failOn.end()) {
      status = it->second;
      break;
    }
  }
  executedOk_ = status == PL_STATUS_OK;
  return status;
}

FakeHam::ResponseId FakeHam::queue(Call call) {
  if (stateful && isWrite(call.op)) {
    if (call.op == Op::Write || call.op == Op::WriteBlock) {
      blocks[call.reg] = call.data;
    } else {
      values[call.reg] = call.value;
    }
  }
  queued_.push_back(call.reg);
  calls.push_back(std::move(call));
  return static_cast<ResponseId>(queued_.size() - 1);
}

FakeHam::ResponseId FakeHam::addRecvByte() { return queue(Call::recvByte()); }
FakeHam::ResponseId FakeHam::addRead8(uint32_t reg) { return queue(Call::read8(reg)); }
FakeHam::ResponseId FakeHam::addRead16(uint32_t reg) { return queue(Call::read16(reg)); }
FakeHam::ResponseId FakeHam::addRead32(uint32_t reg) { return queue(Call::read32(reg)); }
FakeHam::ResponseId FakeHam::addRead(uint32_t reg, uint32_t length, bool flag) {
  return queue(Call::read(reg, length, flag));
}
FakeHam::ResponseId FakeHam::addReadBlock(uint32_t reg) { return queue(Call::readBlock(reg)); }
FakeHam::ResponseId FakeHam::addSendByte(uint8_t value, bool flag) { return queue(Call::sendByte(value, flag)); }
FakeHam::ResponseId FakeHam::addWrite8(uint32_t reg, uint8_t value, bool flag) {
  return queue(Call::write8(reg, value, flag));
}
FakeHam::ResponseId FakeHam::addWrite16(uint32_t reg, uint16_t value, bool flag) {
  return queue(Call::write16(reg, value, flag));
}
FakeHam::ResponseId FakeHam::addWrite32(uint32_t reg, uint32_t value, bool flag) {
  return queue(Call::write32(reg, value, flag));
}
namespace {
std::string bytes(const void* data, uint32_t length) {
  return length == 0 ? std::string() : std::string(static_cast<const char*>(data), length);
}
}  // namespace

FakeHam::ResponseId FakeHam::addWrite(uint32_t reg, const void* data, uint32_t length, bool flag) {
  return queue(Call::write(reg, bytes(data, length), flag));
}
FakeHam::ResponseId FakeHam::addWriteBlock(uint32_t reg, const void* data, uint32_t length, bool flag) {
  return queue(Call::writeBlock(reg, bytes(data, length), flag));
}
FakeHam::ResponseId FakeHam::addProcessCall(uint32_t reg, uint16_t value) {
  return queue(Call::processCall(reg, value));
}

bool FakeHam::fetchable(ResponseId id, Op op, uint32_t length, uint32_t* reg) {
  bool known = id < queued_.size();
  *reg = known ? queued_[id] : 0;
  fetches.push_back({op, *reg, length});
  if (!known) {
    ADD_FAILURE() << "FakeHam: " << opName(op) << " with id " << id << " but only " << queued_.size()
                  << " operation(s) queued since prepare()";
    return false;
  }
  if (!executedOk_ && !lenient) {
    ADD_FAILURE() << "FakeHam: " << opName(op) << " of register 0x" << std::hex << *reg
                  << " without a successful execute()";
  }
  return true;
}

uint32_t FakeHam::number(ResponseId id, Op op) {
  uint32_t reg;
  if (!fetchable(id, op, 0, &reg)) return 0;
  auto it = values.find(reg);
  return it == values.end() ? 0 : it->second;
}

uint8_t FakeHam::get8(ResponseId id) { return static_cast<uint8_t>(number(id, Op::Get8)); }
uint16_t FakeHam::get16(ResponseId id) { return static_cast<uint16_t>(number(id, Op::Get16)); }
uint32_t FakeHam::get32(ResponseId id) { return number(id, Op::Get32); }

std::string FakeHam::getBlock(ResponseId id, uint32_t length) {
  uint32_t reg;
  if (!fetchable(id, Op::GetBlock, length, &reg)) return "";
  auto it = blocks.find(reg);
  if (it == blocks.end()) return "";
  return length == 0 ? it->second : it->second.substr(0, length);
}

void FakeHam::setExpected(Utils::ExpectedValues* map) {
  expected = map;
  ++setExpectedCount;
}

void FakeHam::setDriverName(std::string name, std::string nameSuffix) {
  driverName = std::move(name);
  suffix = std::move(nameSuffix);
  ++setDriverNameCount;
}
