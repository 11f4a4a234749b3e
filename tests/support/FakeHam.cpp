#include "FakeHam.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <iomanip>
#include <iterator>

namespace {

const char* opName(FakeHam::Op op) {
  static const char* const names[] = {"init",   "prepare",   "execute",     "recvByte", "read8",  "read16",  "read32",
                                      "read",   "readBlock", "processCall", "sendByte", "write8", "write16", "write32",
                                      "write",  "writeBlock", "get8",       "get16",    "get32",  "getBlock"};
  return names[static_cast<int>(op)];
}

}  // namespace

// "prepare", "read16(0x79)", "write16(0x3b, 0x64, flag)", "sendByte(0x3)".
std::ostream& operator<<(std::ostream& out, const FakeHam::Call& call) {
  using Op = FakeHam::Op;
  out << opName(call.op);
  if (call.op == Op::Init || call.op == Op::Prepare || call.op == Op::Execute) return out;
  const bool valueOnly = call.op == Op::SendByte, noValue = call.op == Op::RecvByte ||
      (call.op >= Op::Read8 && call.op <= Op::Read32) || call.op == Op::ReadBlock || (call.op >= Op::Get8 && call.op <= Op::Get32);
  out << std::hex << "(0x" << (valueOnly ? call.value : call.reg);
  if (!valueOnly && !noValue) out << ", 0x" << call.value;
  out << std::dec;
  if (!call.data.empty()) out << ", data " << std::quoted(call.data);
  return out << (call.flag ? ", flag)" : ")");
}

FakeHam::Calls FakeHam::callsOf(std::initializer_list<Op> ops) const {
  Calls out;
  std::copy_if(calls.begin(), calls.end(), std::back_inserter(out),
               [&](const Call& c) { return std::find(ops.begin(), ops.end(), c.op) != ops.end(); });
  return out;
}

FakeHam::Calls FakeHam::writes() const {
  return callsOf({Op::SendByte, Op::Write8, Op::Write16, Op::Write32, Op::Write, Op::WriteBlock});
}

void FakeHam::prepare() {
  calls.push_back(Call::prepare());
  queued_.clear();
  executedOk_ = false;
}

pl_status FakeHam::execute() {
  calls.push_back(Call::execute());
  pl_status status = PL_STATUS_OK;
  if (!executeResults.empty()) {
    status = executeResults.front();
    executeResults.pop_front();
  }
  auto failing = std::find_if(queued_.begin(), queued_.end(), [&](uint32_t reg) { return failOn.count(reg) != 0; });
  if (failing != queued_.end()) status = failOn[*failing];
  executedOk_ = status == PL_STATUS_OK;
  return status;
}

FakeHam::ResponseId FakeHam::queue(Call call) {
  if (stateful && (call.op == Op::Write || call.op == Op::WriteBlock)) {
    blocks[call.reg] = call.data;
  } else if (stateful && call.op >= Op::SendByte && call.op <= Op::Write32) {
    values[call.reg] = call.value;
  }
  queued_.push_back(call.reg);
  calls.push_back(std::move(call));
  return static_cast<ResponseId>(queued_.size() - 1);
}

uint32_t FakeHam::fetch(ResponseId id, Op op, uint32_t length) {
  const uint32_t reg = id < queued_.size() ? queued_[id] : 0;
  fetches.push_back({op, reg, length});
  if (id >= queued_.size()) {
    ADD_FAILURE() << "FakeHam: " << opName(op) << " with id " << id << " but only " << queued_.size()
                  << " operation(s) queued since prepare()";
  } else if (!executedOk_) {
    ADD_FAILURE() << "FakeHam: " << opName(op) << " of register 0x" << std::hex << reg
                  << " without a successful execute()";
  }
  return reg;
}

uint32_t FakeHam::number(ResponseId id, Op op) {
  auto it = values.find(fetch(id, op, 0));
  return it == values.end() ? 0 : it->second;
}

std::string FakeHam::getBlock(ResponseId id, uint32_t length) {
  auto it = blocks.find(fetch(id, Op::GetBlock, length));
  if (it == blocks.end()) return "";
  return length == 0 ? it->second : it->second.substr(0, length);
}
