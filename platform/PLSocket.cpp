// Placeholder until the client lands: every attempt fails.
#include "PlatformLibrary/PLSocket.h"

#include <cerrno>

namespace PlatformLibrary {
PLSocket::PLSocket() : timeoutMs_(5000), fd_(-1), watcher_(0), rxBuffer_(4) {}
PLSocket::~PLSocket() = default;
int PLSocket::setup() { errno = ENOSYS; return -1; }
int PLSocket::sendRequestWait(Smbus::TransactionRequest*, Smbus::TransactionResponse**) { errno = ENOSYS; return -1; }
std::string PLSocket::socketPath() { return "/run/keldo/smbus-proxy.sock"; }
}  // namespace PlatformLibrary
