#pragma once
// The value a simulated register shows at start-up: a number of `size` bytes,
// or a text of exactly `size` characters.
#include <cstdint>
#include <map>
#include <string>

namespace Utils {

class ExpectedVal {
 public:
  ExpectedVal() = default;
  ExpectedVal(uint32_t value, uint32_t size) : value_(value), size_(size), isNumeric_(true) {}
  ExpectedVal(std::string text, uint32_t size) : valStr_(std::move(text)), size_(size), isNumeric_(false) {}
  virtual ~ExpectedVal() = default;

  // Copies keep size and kind, then only the member that the kind selects.
  ExpectedVal(const ExpectedVal& other) { *this = other; }
  ExpectedVal& operator=(const ExpectedVal& other) {
    size_ = other.size_;
    isNumeric_ = other.isNumeric_;
    if (isNumeric_) {
      value_ = other.value_;
    } else {
      valStr_ = other.valStr_;
    }
    return *this;
  }

  uint32_t value() const { return value_; }
  const std::string& valStr() const { return valStr_; }
  uint32_t size() const { return size_; }
  bool isNumeric() const { return isNumeric_; }

 private:
  uint32_t value_ = 0;
  std::string valStr_;
  uint32_t size_ = 0;
  bool isNumeric_ = true;
};

using ExpectedValues = std::map<uint32_t, ExpectedVal>;

}  // namespace Utils
