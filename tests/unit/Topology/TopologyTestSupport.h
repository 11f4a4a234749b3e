#pragma once
// Helpers shared by the topology and driver-argument tests.
#include <fstream>
#include <sstream>
#include <string>

#include "KeldoUtil/Json.h"

namespace TopologyTest {

// A death-test pattern for glibc's report of a failed check with this text.
inline std::string assertion(const std::string& text) {
  std::string pattern = "Assertion `";
  for (char c : text) {
    if (std::string("\\^$.|?*+()[]{}").find(c) != std::string::npos) pattern += '\\';
    pattern += c;
  }
  return pattern + "' failed";
}

inline std::string readFile(const std::string& path) {
  std::ifstream in(path);
  std::stringstream text;
  text << in.rdbuf();
  return text.str();
}

inline std::string boardJson() { return readFile(KELDO_SOURCE_DIR "/tests/data/topology/board.json"); }

}  // namespace TopologyTest
