#pragma once
// Carries out transactions on the emulated board the way the proxy does on
// real hardware: entries in order, the whole transaction retried after the
// first failing entry, failure answers that name the entry, bus and device.
#include <cstdint>
#include <functional>
#include <optional>
#include <string>
#include <vector>

#include "Board.h"
#include "KeldoUtil/Smbus.pb.h"

namespace SmbusProxyd {

class TransactionLog;

// What the server does with one transaction.
struct Outcome {
  bool drop = false;     // close the connection instead of answering
  bool stopped = false;  // the daemon is stopping: no answer at all
  uint32_t delayMs = 0;  // hold the answer back this long
  std::string notice;    // a line for the daemon's own log, when not empty
  Smbus::TransactionResponse response;
};

// The daemon serves every client from one thread, so one transaction must
// not hold the others up: the entries it may run, over all its attempts, are
// bounded.
struct EmulatorLimits {
  uint32_t defaultRetries = 3;    // when the request carries no retry count
  uint64_t maxEntryRuns = 10000;  // entries x attempts of one transaction
};

class Emulator {
 public:
  // A retry count beyond this is taken as this many, whatever the entries.
  static constexpr uint32_t kMaxRetries = 1000;
  // The longest an answer is held back by delay faults, however many
  // accesses they act on.
  static constexpr uint32_t kMaxDelayMs = 600000;

  explicit Emulator(Board board, EmulatorLimits limits = {});

  // `stopRequested` is asked between attempts; when it answers true the
  // transaction is abandoned and the outcome says `stopped`.
  // The outcome stays valid until the next run.
  const Outcome& run(const Smbus::TransactionRequest& request, const std::function<bool()>& stopRequested = {});

  Board& board() { return board_; }
  // A fault acting on every device that has none of its own.
  std::optional<Fault>& anyDeviceFault() { return anyDeviceFault_; }
  void setLog(TransactionLog* log) { log_ = log; }
  uint64_t transactions() const { return transactions_; }

 private:
  struct Attempt {
    bool ok = true;
    bool final = false;  // an injected failure: not retried
    bool drop = false;
    uint32_t delayMs = 0;
    std::string reason;
    std::vector<std::string> answers;
  };

  void runAttempts(const Smbus::TransactionRequest& request, const std::function<bool()>& stopRequested,
                   Outcome& outcome);
  // The retries this transaction gets: its own count or the default, cut to
  // what the entry-run bound leaves; nullopt when not even one attempt fits.
  std::optional<uint32_t> retriesFor(const Smbus::TransactionRequest& request, Outcome& outcome) const;
  Attempt attempt(const Smbus::TransactionRequest& request, unsigned number);
  AccessResult runEntry(const Smbus::Request& request, Attempt& attempt);
  // Applies the fault acting on `device`, if any; true when the access goes on.
  bool applyFault(Device& device, AccessResult& result, Attempt& attempt);

  Board board_;
  EmulatorLimits limits_;
  std::optional<Fault> anyDeviceFault_;
  TransactionLog* log_ = nullptr;
  uint64_t transactions_ = 0;
  Outcome outcome_;
  std::vector<Device*> heard_;  // the devices that hear the current entry; kept to spare an allocation per entry
};

}  // namespace SmbusProxyd
