#include "PlatformLibrary/PLSocket.h"

#include <fcntl.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/time.h>
#include <sys/un.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <limits>
#include <memory>

#include "KeldoUtil/Smbus.pb.h"

namespace PlatformLibrary {

namespace {

constexpr const char* kDefaultSocketPath = "/run/keldo/smbus-proxy.sock";
constexpr unsigned int kDefaultTimeoutMs = 5000;
constexpr size_t kHeaderBytes = 4;
// Room for the header and any usual answer, so that one read takes it whole.
constexpr size_t kReceiveChunk = 4096;
// Shortest time limit for which an answer is awaited in a blocking recv().
constexpr unsigned int kBlockingWaitMinMs = 64;

// KELDO_SMBUS_TIMEOUT_MS when it holds a positive decimal number that poll()
// can take, else the default.
unsigned int timeoutFromEnvironment() {
  const char* text = std::getenv("KELDO_SMBUS_TIMEOUT_MS");
  if (!text || !*text) return kDefaultTimeoutMs;
  char* end = nullptr;
  errno = 0;
  unsigned long value = std::strtoul(text, &end, 10);
  if (errno != 0 || *end != '\0' || value == 0 ||
      value > static_cast<unsigned long>(std::numeric_limits<int>::max())) {
    return kDefaultTimeoutMs;
  }
  return static_cast<unsigned int>(value);
}

std::string frameHeader(uint32_t length) {
  std::string header(kHeaderBytes, '\0');
  header[0] = static_cast<char>((length >> 24) & 0xFF);
  header[1] = static_cast<char>((length >> 16) & 0xFF);
  header[2] = static_cast<char>((length >> 8) & 0xFF);
  header[3] = static_cast<char>(length & 0xFF);
  return header;
}

uint32_t frameLength(const uint8_t* header) {
  return (uint32_t{header[0]} << 24) | (uint32_t{header[1]} << 16) | (uint32_t{header[2]} << 8) |
         uint32_t{header[3]};
}

timeval toTimeval(std::chrono::milliseconds t) {
  timeval tv{};
  tv.tv_sec = static_cast<time_t>(t.count() / 1000);
  tv.tv_usec = static_cast<suseconds_t>((t.count() % 1000) * 1000);
  return tv;
}

// Closes a descriptor that did not become the connection, keeping the errno
// that explains why.
int closeAfterSetupError(int fd) {
  int error = errno;
  ::close(fd);
  errno = error;
  return -1;
}

}  // namespace

PLSocket::PLSocket() : timeoutMs_(timeoutFromEnvironment()), fd_(-1), watcher_(0), rxBuffer_(kHeaderBytes) {}

PLSocket::~PLSocket() { closeConnection(); }

std::string PLSocket::socketPath() {
  const char* path = std::getenv("KELDO_SMBUS_SOCKET");
  return path ? std::string(path) : std::string(kDefaultSocketPath);
}

int PLSocket::setup() { return connectOnce(); }

int PLSocket::connectOnce() {
  closeConnection();
  path_ = socketPath();
  sockaddr_un address{};
  address.sun_family = AF_UNIX;
  if (path_.empty() || path_.size() >= sizeof(address.sun_path)) {
    errno = path_.empty() ? ENOENT : ENAMETOOLONG;
    return -1;
  }
  std::memcpy(address.sun_path, path_.c_str(), path_.size() + 1);

  // Non-blocking from the start: a proxy whose listen queue is full makes
  // connect() fail with EAGAIN instead of stalling the host's thread.
  int fd = ::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0);
  if (fd < 0) return -1;
  if (::connect(fd, reinterpret_cast<const sockaddr*>(&address), sizeof(address)) != 0) {
    return closeAfterSetupError(fd);
  }
  // Connected, the descriptor turns blocking with a receive timeout, so that
  // waiting for an answer and taking it is one recv(): a thread asleep in
  // recv() is woken by the answer sooner than one asleep in poll(), and the
  // round trip is mostly that wake-up (measured in docs/performance.md). Sends and the idle check pass
  // MSG_DONTWAIT and stay non-blocking. The kernel runs that timeout on a
  // coarse timer that can fire an eighth of the wait plus a tick or two late,
  // so it is half the limit, and receiveFrame() waits out the rest with
  // poll(), whose timer is precise. Below kBlockingWaitMinMs that margin is
  // too thin and every wait is a poll().
  const int flags = ::fcntl(fd, F_GETFL);
  if (flags < 0 || ::fcntl(fd, F_SETFL, flags & ~O_NONBLOCK) != 0) return closeAfterSetupError(fd);
  rxTimeoutForMs_ = 0;
  if (timeoutMs_ >= kBlockingWaitMinMs) {
    const timeval half = toTimeval(std::chrono::milliseconds(timeoutMs_ / 2));
    if (::setsockopt(fd, SOL_SOCKET, SO_RCVTIMEO, &half, sizeof half) != 0) return closeAfterSetupError(fd);
    rxTimeoutForMs_ = timeoutMs_;
  }
  fd_ = fd;
  return 0;
}

void PLSocket::closeConnection() {
  if (fd_ >= 0) ::close(fd_);
  fd_ = -1;
  txQueue_.clear();
  rxBuffer_.assign(kHeaderBytes, 0);
}

// The proxy never speaks unasked, so anything readable on an idle connection
// means it has gone away (end of file, reset) or the stream is out of step.
// Either way the connection is useless, and because nothing of the next
// request has been sent yet, replacing it cannot run anything twice. One
// non-blocking peek tells all three apart from "idle and alive" (EAGAIN).
bool PLSocket::peerHasClosed() const {
  uint8_t byte;
  for (;;) {
    ssize_t n = ::recv(fd_, &byte, 1, MSG_PEEK | MSG_DONTWAIT);
    if (n >= 0) return true;
    if (errno == EINTR) continue;
    return errno != EAGAIN && errno != EWOULDBLOCK;
  }
}

int PLSocket::ensureConnected() {
  if (fd_ >= 0 && peerHasClosed()) closeConnection();
  if (fd_ >= 0) return 0;
  return connectOnce();
}

int PLSocket::fail(int error) {
  closeConnection();
  errno = error;
  return -1;
}

int PLSocket::waitFor(short events, Clock::time_point deadline) const {
  for (;;) {
    auto left = std::chrono::duration_cast<std::chrono::milliseconds>(deadline - Clock::now()).count();
    if (left <= 0) {
      errno = ETIMEDOUT;
      return -1;
    }
    pollfd p{fd_, events, 0};
    int ready = ::poll(&p, 1, static_cast<int>(left));
    if (ready < 0 && errno == EINTR) continue;
    if (ready < 0) return -1;
    if (ready == 0) continue;  // the deadline check above turns this into ETIMEDOUT
    if (p.revents & POLLNVAL) {
      errno = EBADF;
      return -1;
    }
    // Readiness, hang-up or error: the next send()/recv() tells which.
    return 0;
  }
}

int PLSocket::writeQueued(Clock::time_point deadline) {
  while (!txQueue_.empty()) {
    std::string& frame = txQueue_.front();
    ssize_t n = ::send(fd_, frame.data(), frame.size(), MSG_NOSIGNAL | MSG_DONTWAIT);
    if (n > 0) {
      frame.erase(0, static_cast<size_t>(n));
      if (frame.empty()) txQueue_.pop_front();
      continue;
    }
    if (n < 0 && errno == EINTR) continue;
    if (n < 0 && (errno == EAGAIN || errno == EWOULDBLOCK)) {
      if (waitFor(POLLOUT, deadline) != 0) return -1;
      continue;
    }
    if (n == 0) errno = EPIPE;
    return -1;
  }
  return 0;
}

// Reads one frame into rxBuffer_ and sets rxFrameBytes_ to its size. Until
// the header is in, a read asks for as much as the buffer holds, so a usual
// answer arrives in one call; after that, only for the rest of this frame.
//
// The first read blocks, bounded by the receive timeout: the answer is hardly
// ever there the moment the request has gone out. Anything after it (the
// timeout ran out, a signal interrupted the read, the frame comes in pieces)
// is a non-blocking read and, when nothing is there, poll() on the time left,
// so the limit holds for the frame as a whole.
int PLSocket::receiveFrame(Clock::time_point deadline) {
  if (rxBuffer_.size() < kReceiveChunk) rxBuffer_.resize(kReceiveChunk);
  size_t have = 0;
  size_t frameBytes = 0;  // 0 until the header is in
  for (bool first = rxTimeoutForMs_ != 0 && rxTimeoutForMs_ == timeoutMs_;; first = false) {
    const size_t want = frameBytes ? frameBytes - have : rxBuffer_.size() - have;
    ssize_t n = ::recv(fd_, rxBuffer_.data() + have, want, first ? 0 : MSG_DONTWAIT);
    if (n == 0) {
      errno = ECONNRESET;  // the proxy closed instead of answering
      return -1;
    }
    if (n < 0) {
      if (errno != EINTR && errno != EAGAIN && errno != EWOULDBLOCK) return -1;
      if (!first && errno != EINTR && waitFor(POLLIN, deadline) != 0) return -1;
      continue;
    }
    have += static_cast<size_t>(n);
    if (!frameBytes && have >= kHeaderBytes) {
      const uint32_t length = frameLength(rxBuffer_.data());
      if (length > kMaxFrameBytes) {
        errno = EPROTO;
        return -1;
      }
      frameBytes = kHeaderBytes + length;
      if (rxBuffer_.size() < frameBytes) rxBuffer_.resize(frameBytes);
    }
    if (frameBytes && have >= frameBytes) {
      rxFrameBytes_ = frameBytes;
      rxSurplus_ = have > frameBytes;
      return 0;
    }
  }
}

int PLSocket::sendRequestWait(Smbus::TransactionRequest* request, Smbus::TransactionResponse** response) {
  if (!request || !response) {
    errno = EINVAL;
    return -1;
  }
  *response = nullptr;
  auto answer = std::make_unique<Smbus::TransactionResponse>();
  if (sendRequestWait(*request, *answer) != 0) return -1;
  *response = answer.release();
  return 0;
}

int PLSocket::sendRequestWait(const Smbus::TransactionRequest& request, Smbus::TransactionResponse& response) {
  std::string body;
  if (!request.SerializeToString(&body)) {
    errno = EINVAL;
    return -1;
  }
  // Refused before anything is sent, so the connection stays usable.
  if (body.size() > kMaxFrameBytes) {
    errno = EMSGSIZE;
    return -1;
  }
  if (ensureConnected() != 0) return -1;

  // From here on the proxy may have seen the request: a failure closes the
  // connection and is reported, never retried, so no write runs twice.
  txQueue_.push_back(frameHeader(static_cast<uint32_t>(body.size())) + body);
  const auto timeout = std::chrono::milliseconds(timeoutMs_);
  if (writeQueued(Clock::now() + timeout) != 0) return fail(errno);
  if (receiveFrame(Clock::now() + timeout) != 0) return fail(errno);

  if (!response.ParseFromArray(rxBuffer_.data() + kHeaderBytes, static_cast<int>(rxFrameBytes_ - kHeaderBytes))) {
    return fail(EPROTO);
  }
  // Bytes after the answer were sent unasked: the stream is out of step. The
  // answer itself is complete and stands; the connection is replaced before
  // the next request, as the idle check would have done.
  if (rxSurplus_) closeConnection();
  // A buffer grown for a large answer is not kept for the life of the host.
  if (rxBuffer_.size() > kReceiveChunk) std::vector<uint8_t>(kReceiveChunk).swap(rxBuffer_);
  return 0;
}

}  // namespace PlatformLibrary
