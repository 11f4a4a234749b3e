#include "Notices.h"

#include <algorithm>
#include <iterator>

namespace SmbusProxyd {

void Notices::say(const std::string& text) {
  const Clock::time_point now = Clock::now();
  std::string kind;
  std::copy_if(text.begin(), text.end(), std::back_inserter(kind), [](char c) { return c < '0' || c > '9'; });
  auto [it, first] = kinds_.try_emplace(kind);
  Kind& k = it->second;
  if (!first && now - k.printed < std::chrono::seconds(1)) {
    ++k.heldBack;
    return;
  }
  if (k.heldBack > 0) {
    std::fprintf(out_, "keldo-smbus-proxyd: %s (%u more like this held back)\n", text.c_str(), k.heldBack);
  } else {
    std::fprintf(out_, "keldo-smbus-proxyd: %s\n", text.c_str());
  }
  std::fflush(out_);
  k.printed = now;
  k.heldBack = 0;
}

}  // namespace SmbusProxyd
