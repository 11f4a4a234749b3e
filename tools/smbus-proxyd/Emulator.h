#pragma once
// Carries out transactions on the emulated board the way the proxy does on
// real hardware: entries in order, the whole transaction retried after the
// first failing entry, failure answers that name the entry, bus and device.
#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "Board.h"
#include "KeldoUtil/Smbus.pb.h"

namespace SmbusProxyd {

class TransactionLog;

// What the server does with one transaction.
struct Outcome {
  bool drop = false;                  // close the connection instead of answering
  uint32_t delayMs = 0;               // hold the answer back this long
  Smbus::TransactionResponse response;
};

class Emulator {
 public:
  // Retries when the request carries no retry count.
  static constexpr uint32_t kDefaultRetries = 3;
  // A retry count beyond this is taken as this many: the daemon is single
  // threaded and a runaway count must not stall every other client.
  static constexpr uint32_t kMaxRetries = 1000;

  explicit Emulator(Board board, uint32_t defaultRetries = kDefaultRetries);

  Outcome run(const Smbus::TransactionRequest& request);

  Board& board() { return board_; }
  // A fault acting on every device that has none of its own.
  std::optional<Fault>& anyDeviceFault() { return anyDeviceFault_; }
  void setLog(TransactionLog* log) { log_ = log; }
  uint64_t transactions() const { return transactions_; }

 private:
  struct Attempt {
    bool ok = true;
    bool final = false;   // an injected failure: not retried
    bool drop = false;
    uint32_t delayMs = 0;
    std::string reason;
    std::vector<std::string> answers;
  };

  Attempt attempt(const Smbus::TransactionRequest& request, unsigned number);
  AccessResult runEntry(const Smbus::Request& request, Attempt& attempt);
  // Applies the fault acting on `device`, if any; true when the access goes on.
  bool applyFault(Device& device, AccessResult& result, Attempt& attempt);

  Board board_;
  uint32_t defaultRetries_;
  std::optional<Fault> anyDeviceFault_;
  TransactionLog* log_ = nullptr;
  uint64_t transactions_ = 0;
};

}  // namespace SmbusProxyd
