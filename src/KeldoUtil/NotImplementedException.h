#pragma once
#include <stdexcept>
#include <string>

// Thrown by every default factory and transaction operation that a driver or
// access method does not provide. Nothing in the library catches it.
class NotImplementedException : public std::logic_error {
 public:
  explicit NotImplementedException(const std::string& operation)
      : std::logic_error("Not implemented " + operation) {}
};
