#pragma once
// What the IPMI cache file holds, beyond the "key value" lines of SharedMap.
// The collector writes it and Ham::IpmiToolHam reads it; both include this
// file, so the two sides cannot drift apart.
//
//   PSU1_TEMP_1 38.000             a sensor reading, under its folded name
//   FRU:3 01000000010007f7... PSU1 a FRU image in hex, then its BMC name
//
// Standalone (standard library only), like SharedMap.
#include <cctype>
#include <cstddef>
#include <string>

namespace Ham {
namespace IpmiCache {

constexpr char kFruPrefix[] = "FRU:";
// Larger FRU images do not exist; a longer line is not one.
constexpr size_t kMaxFruBytes = 64u << 10;

// A sensor name as the BMC reports it ("PSU1 Temp 1") as its cache key
// ("PSU1_TEMP_1"): upper case, each run of other characters than letters and
// digits one underscore, none at either end. Keys never hold ':', so no
// sensor can pass for a FRU.
inline std::string sensorKey(const std::string& name) {
  std::string key;
  bool gap = false;
  for (unsigned char c : name) {
    if (!std::isalnum(c)) {
      gap = !key.empty();
      continue;
    }
    if (gap) key.push_back('_');
    gap = false;
    key.push_back(static_cast<char>(std::toupper(c)));
  }
  return key;
}

inline std::string fruKey(const std::string& id) { return kFruPrefix + id; }

inline bool isFruKey(const std::string& key) { return key.compare(0, sizeof kFruPrefix - 1, kFruPrefix) == 0; }

inline std::string fruValue(const std::string& image, const std::string& name) {
  static const char digits[] = "0123456789abcdef";
  std::string value;
  for (unsigned char byte : image) {
    value.push_back(digits[byte >> 4]);
    value.push_back(digits[byte & 0xF]);
  }
  return name.empty() ? value : value + " " + name;
}

// False (outputs unspecified) unless the value starts with an even, non-zero
// number of hex digits that is followed by nothing or by a blank.
inline bool parseFruValue(const std::string& value, std::string& image, std::string& name) {
  const size_t end = value.find(' ');
  const size_t digits = end == std::string::npos ? value.size() : end;
  if (digits == 0 || digits % 2 != 0 || digits / 2 > kMaxFruBytes) return false;
  image.clear();
  for (size_t i = 0; i < digits; i += 2) {
    const std::string pair = value.substr(i, 2);
    if (!std::isxdigit(static_cast<unsigned char>(pair[0])) || !std::isxdigit(static_cast<unsigned char>(pair[1]))) {
      return false;
    }
    image.push_back(static_cast<char>(std::stoul(pair, nullptr, 16)));
  }
  name = end == std::string::npos ? std::string() : value.substr(end + 1);
  return true;
}

}  // namespace IpmiCache
}  // namespace Ham
