#pragma once
// A listening Unix socket that stands where the SMBus proxy service would be,
// for tests that need the plug-in's init to connect but send no transaction.
// Sets KELDO_SMBUS_SOCKET to its path for the life of the object.
#include <string>

#include "TempDir.h"

class ProxyStub {
 public:
  ProxyStub();
  ~ProxyStub();
  const std::string& path() const { return path_; }

 private:
  TempDir dir_;
  std::string path_;
  int fd_ = -1;
};
