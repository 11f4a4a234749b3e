#pragma once
// Runs a program with a time limit and a limit on what it may print, so that
// a program that hangs or floods its output cannot stall the collector.
#include <cstddef>
#include <string>
#include <vector>

namespace IpmiCollector {

struct CommandResult {
  bool exited = false;   // ran to its end (any exit status)
  int exitStatus = -1;
  std::string output;    // standard output (standard error is discarded)
  std::string failure;   // why it did not succeed, for the collector's line; empty on success

  bool succeeded() const { return exited && exitStatus == 0 && failure.empty(); }
};

// Starts argv[0] (looked up on PATH) in a process group of its own. At the
// limit, or once it printed more than `maxOutput` bytes, the whole group is
// killed.
CommandResult runBounded(const std::vector<std::string>& argv, int timeoutMs, size_t maxOutput);

}  // namespace IpmiCollector
