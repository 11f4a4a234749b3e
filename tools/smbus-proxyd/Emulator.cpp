#include "Emulator.h"

#include <algorithm>

#include "TransactionLog.h"

namespace SmbusProxyd {

namespace {

// The longest run one entry may read: a whole 64 KiB EEPROM.
constexpr uint32_t kMaxReadBytes = 64 * 1024;
// Answers must fit one frame (1 MiB) with room for the framing overhead.
constexpr size_t kMaxAnswerBytes = 1000 * 1000;

struct Address {
  BusKey bus;
  uint8_t device;
  uint32_t reg;
  unsigned addrSize;
};

// Word 0 is the register; word 1 holds device (0-6), bus (7-13),
// accelerator (14-20) and the register address size (25-26).
Address decode(const Smbus::Request& request) {
  const uint32_t word0 = static_cast<uint32_t>(request.address() & 0xFFFFFFFFu);
  const uint32_t word1 = static_cast<uint32_t>(request.address() >> 32);
  Address a;
  a.bus = BusKey{static_cast<uint32_t>(request.mastertype()), request.pciaddress(), (word1 >> 14) & 0x7F,
                 (word1 >> 7) & 0x7F};
  a.device = static_cast<uint8_t>(word1 & 0x7F);
  a.reg = word0;
  a.addrSize = (word1 >> 25) & 0x3;
  return a;
}

// The register goes on the wire as addrSize bytes; only 2 means two, every
// other value one. Register-mapped devices see the whole word.
uint32_t registerMask(const Address& a, const Device& device) {
  if (device.fullRegister()) return 0xFFFFFFFFu;
  return a.addrSize == 2 ? 0xFFFFu : 0xFFu;
}

AccessResult failed(std::string error) { return AccessResult{false, {}, std::move(error)}; }

// Names the entry, the bus and the device, as a platform engineer reading
// the client's log needs them.
std::string failureText(int index, const Smbus::Request& request, const std::string& error) {
  std::string type = Smbus::RequestType_IsValid(request.type())
                         ? Smbus::RequestType_Name(request.type())
                         : "TYPE" + std::to_string(request.type());
  const Address a = decode(request);
  return "entry " + std::to_string(index) + " (" + type + "): " + error + "; " + DeviceKey{a.bus, a.device}.text();
}

}  // namespace

Emulator::Emulator(Board board, EmulatorLimits limits) : board_(std::move(board)), limits_(limits) {
  limits_.defaultRetries = std::min(limits_.defaultRetries, kMaxRetries);
}

const Outcome& Emulator::run(const Smbus::TransactionRequest& request, const std::function<bool()>& stopRequested) {
  ++transactions_;
  runAttempts(request, stopRequested, outcome_);
  if (log_) log_->flush();
  return outcome_;
}

// The outcome is reset field by field: a cleared response keeps the memory of
// its entries for this answer.
void Emulator::runAttempts(const Smbus::TransactionRequest& request, const std::function<bool()>& stopRequested,
                           Outcome& outcome) {
  outcome.drop = outcome.stopped = false;
  outcome.delayMs = 0;
  outcome.notice.clear();
  outcome.response.Clear();
  const std::optional<uint32_t> retries = retriesFor(request, outcome);
  if (!retries) {
    outcome.response.set_failure(1);
    outcome.response.set_reason(outcome.notice);
    return;
  }
  for (unsigned number = 1;; ++number) {
    if (number > 1 && stopRequested && stopRequested()) {
      outcome.stopped = true;
      return;
    }
    Attempt a = attempt(request, number);
    outcome.delayMs = std::min(outcome.delayMs + a.delayMs, kMaxDelayMs);
    if (a.drop) {
      outcome.drop = true;
      return;
    }
    if (a.ok) {
      for (std::string& data : a.answers) outcome.response.add_response()->set_data(std::move(data));
      return;
    }
    if (a.final || number > *retries) {
      outcome.response.set_failure(1);
      outcome.response.set_reason(a.final ? a.reason : a.reason + "; " + std::to_string(number) + " attempts");
      return;
    }
  }
}

std::optional<uint32_t> Emulator::retriesFor(const Smbus::TransactionRequest& request, Outcome& outcome) const {
  const uint32_t asked =
      request.has_retrycount() ? std::min(request.retrycount(), kMaxRetries) : limits_.defaultRetries;
  const uint64_t entries = static_cast<uint64_t>(request.request_size());
  const std::string head = "transaction " + std::to_string(transactions_) + ": " + std::to_string(entries) + " entries";
  const std::string bound = "the limit of " + std::to_string(limits_.maxEntryRuns) + " entry runs (--max-entry-runs)";
  if (entries > limits_.maxEntryRuns) {
    outcome.notice = head + " exceed " + bound;
    return std::nullopt;
  }
  if (entries == 0 || entries * (uint64_t{asked} + 1) <= limits_.maxEntryRuns) return asked;
  const uint32_t cut = static_cast<uint32_t>(limits_.maxEntryRuns / entries - 1);
  outcome.notice = head + " x " + std::to_string(asked + 1) + " attempts exceed " + bound + "; retries cut to " +
                   std::to_string(cut);
  return cut;
}

Emulator::Attempt Emulator::attempt(const Smbus::TransactionRequest& request, unsigned number) {
  Attempt a;
  a.answers.reserve(static_cast<size_t>(request.request_size()));
  size_t answerBytes = 0;
  for (int i = 0; i < request.request_size(); ++i) {
    const Smbus::Request& entry = request.request(i);
    AccessResult result = runEntry(entry, a);
    if (log_) log_->write(LogEntry{transactions_, number, i, &entry, result.ok, result.data, result.error});
    if (a.drop) return a;
    answerBytes += result.data.size();
    if (result.ok && answerBytes > kMaxAnswerBytes) {
      result = failed("answer longer than one frame");
      a.final = true;
    }
    if (!result.ok) {
      a.ok = false;
      if (a.reason.empty()) a.reason = failureText(i, entry, result.error);
      return a;
    }
    a.answers.push_back(std::move(result.data));
  }
  return a;
}

AccessResult Emulator::runEntry(const Smbus::Request& request, Attempt& attempt) {
  const Address a = decode(request);
  std::vector<Device*>& heard = heard_;
  if (!board_.responders(a.bus, a.device, heard)) return failed("unknown bus");
  if (heard.empty()) return failed("no acknowledge");
  if (heard.size() > 1) return failed("address conflict, " + std::to_string(heard.size()) + " devices answer");
  Device& device = *heard.front();
  AccessResult result;
  if (!applyFault(device, result, attempt)) return result;
  if (request.type() == Smbus::READ && request.length() > kMaxReadBytes) return failed("read longer than 64 KiB");
  const uint32_t mask = registerMask(a, device);
  return device.apply(Access{request.type(), a.reg & mask, mask, request.length(), request.data()});
}

bool Emulator::applyFault(Device& device, AccessResult& result, Attempt& attempt) {
  std::optional<Fault>& slot = device.fault() ? device.fault() : anyDeviceFault_;
  if (!slot) return true;
  const Fault fault = *slot;
  if (slot->remaining > 0 && --slot->remaining == 0) slot.reset();
  switch (fault.kind) {
    case FaultKind::Nak:
      result = failed("no acknowledge");
      return false;
    case FaultKind::Delay:
      attempt.delayMs = std::min(attempt.delayMs + fault.delayMs, kMaxDelayMs);
      return true;
    case FaultKind::Drop:
      attempt.drop = true;
      result = failed("connection dropped");
      return false;
    case FaultKind::Fail:
      attempt.final = true;
      attempt.reason = fault.reason;
      result = failed(fault.reason);
      return false;
  }
  return true;
}

}  // namespace SmbusProxyd
