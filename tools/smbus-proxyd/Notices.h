#pragma once
// Lines for whoever runs the daemon, on standard error, each starting with
// "keldo-smbus-proxyd: ". A client that misbehaves in a loop (reconnecting
// past the connection cap, say) would repeat the same line thousands of times
// a second, so each kind of line (the same text but for its numbers) is
// printed at most once a second; the repeats held back in between are
// counted on the next line of that kind.
#include <chrono>
#include <cstdio>
#include <map>
#include <string>

namespace SmbusProxyd {

class Notices {
 public:
  explicit Notices(std::FILE* out = stderr) : out_(out) {}
  void say(const std::string& text);

 private:
  using Clock = std::chrono::steady_clock;
  struct Kind {
    Clock::time_point printed;
    unsigned heldBack = 0;
  };

  std::FILE* out_;
  std::map<std::string, Kind> kinds_;
};

}  // namespace SmbusProxyd
