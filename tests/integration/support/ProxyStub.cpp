#include "ProxyStub.h"

#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <cstdlib>
#include <cstring>
#include <stdexcept>

ProxyStub::ProxyStub() : path_(dir_.file("proxy.sock")) {
  fd_ = socket(AF_UNIX, SOCK_STREAM, 0);
  sockaddr_un addr{};
  addr.sun_family = AF_UNIX;
  std::strncpy(addr.sun_path, path_.c_str(), sizeof addr.sun_path - 1);
  if (fd_ < 0 || bind(fd_, reinterpret_cast<sockaddr*>(&addr), sizeof addr) != 0 || listen(fd_, 64) != 0) {
    throw std::runtime_error("cannot listen on " + path_);
  }
  setenv("KELDO_SMBUS_SOCKET", path_.c_str(), 1);
}

ProxyStub::~ProxyStub() {
  close(fd_);
  unsetenv("KELDO_SMBUS_SOCKET");
}
