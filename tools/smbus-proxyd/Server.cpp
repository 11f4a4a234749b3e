#include "Server.h"

#include <poll.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <system_error>
#include <vector>

#include "ControlCommands.h"
#include "Emulator.h"

namespace SmbusProxyd {

namespace {

constexpr uint32_t kMaxFrameBytes = 1024 * 1024;
constexpr size_t kHeaderBytes = 4;
constexpr size_t kMaxControlLine = 4096;
constexpr int kListenBacklog = 64;

[[noreturn]] void throwErrno(const std::string& what) { throw std::system_error(errno, std::generic_category(), what); }

sockaddr_un unixAddress(const std::string& path) {
  sockaddr_un address{};
  address.sun_family = AF_UNIX;
  if (path.empty() || path.size() >= sizeof(address.sun_path)) {
    errno = ENAMETOOLONG;
    throwErrno("socket path \"" + path + "\"");
  }
  std::memcpy(address.sun_path, path.c_str(), path.size() + 1);
  return address;
}

// True when something accepts connections on `path`.
bool isServed(const std::string& path) {
  sockaddr_un address = unixAddress(path);
  int fd = ::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
  if (fd < 0) return false;
  bool served = ::connect(fd, reinterpret_cast<const sockaddr*>(&address), sizeof(address)) == 0;
  ::close(fd);
  return served;
}

std::string frame(const std::string& body) {
  const uint32_t n = static_cast<uint32_t>(body.size());
  std::string out{static_cast<char>(n >> 24), static_cast<char>(n >> 16), static_cast<char>(n >> 8),
                  static_cast<char>(n)};
  return out + body;
}

uint32_t frameLength(const std::string& in) {
  auto byte = [&](size_t i) { return uint32_t{static_cast<uint8_t>(in[i])}; };
  return (byte(0) << 24) | (byte(1) << 16) | (byte(2) << 8) | byte(3);
}

}  // namespace

Server::Server(Emulator& emulator, ControlCommands& control, ServerOptions options)
    : emulator_(emulator), control_(control), options_(std::move(options)) {}

Server::~Server() {
  for (Connection& c : connections_) close(c);
  if (listenFd_ >= 0) {
    ::close(listenFd_);
    ::unlink(options_.socketPath.c_str());
  }
  if (controlFd_ >= 0) {
    ::close(controlFd_);
    ::unlink(options_.controlPath.c_str());
  }
}

void Server::start() {
  listenFd_ = listenOn(options_.socketPath);
  controlFd_ = listenOn(options_.controlPath);
}

// Listens under a temporary name and renames the socket into place, so the
// final path never names a socket that is not yet accepting. A stale socket
// file left by a killed daemon is replaced; a live one is not.
int Server::listenOn(const std::string& path) {
  const std::string temporary = path + ".new";
  sockaddr_un address = unixAddress(temporary);
  if (::access(path.c_str(), F_OK) == 0 && isServed(path)) {
    errno = EADDRINUSE;
    throwErrno("another process serves " + path);
  }
  std::string dir = path.substr(0, path.find_last_of('/'));
  if (path.find('/') != std::string::npos && !dir.empty()) ::mkdir(dir.c_str(), 0755);
  ::unlink(temporary.c_str());
  int fd = ::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0);
  if (fd < 0) throwErrno("socket");
  if (::bind(fd, reinterpret_cast<const sockaddr*>(&address), sizeof(address)) != 0 ||
      ::listen(fd, kListenBacklog) != 0 || ::rename(temporary.c_str(), path.c_str()) != 0) {
    int error = errno;
    ::close(fd);
    ::unlink(temporary.c_str());
    errno = error;
    throwErrno("listening on " + path);
  }
  return fd;
}

void Server::run(int stopFd) {
  std::vector<pollfd> fds;
  std::vector<Connection*> polled;
  for (;;) {
    fds.assign({{stopFd, POLLIN, 0}, {listenFd_, POLLIN, 0}, {controlFd_, POLLIN, 0}});
    polled.clear();
    for (Connection& c : connections_) {
      // One transaction at a time: the next request is read only once the
      // answer to the last one has gone out.
      short events = (!c.held && c.out.empty()) ? POLLIN : 0;
      if (!c.out.empty()) events |= POLLOUT;
      fds.push_back({c.fd, events, 0});
      polled.push_back(&c);
    }
    int ready = ::poll(fds.data(), fds.size(), pollTimeout(Clock::now()));
    if (ready < 0 && errno != EINTR) throwErrno("poll");
    if (ready > 0) {
      if (fds[0].revents) return;
      if (fds[1].revents & POLLIN) accept(listenFd_, false);
      if (fds[2].revents & POLLIN) accept(controlFd_, true);
      for (size_t i = 0; i < polled.size(); ++i) {
        const short revents = fds[i + 3].revents;
        if (revents & POLLIN) receive(*polled[i]);
        if (polled[i]->fd >= 0 && (revents & POLLOUT)) transmit(*polled[i]);
        if (polled[i]->fd >= 0 && (revents & (POLLHUP | POLLERR)) && !(revents & POLLIN)) close(*polled[i]);
      }
    }
    releaseDue(Clock::now());
    for (Connection& c : connections_) process(c);
    connections_.remove_if([](const Connection& c) { return c.fd < 0; });
  }
}

void Server::accept(int listenFd, bool control) {
  int fd = ::accept4(listenFd, nullptr, nullptr, SOCK_CLOEXEC | SOCK_NONBLOCK);
  if (fd < 0) return;  // the client gave up already, or descriptors ran out
  Connection c;
  c.fd = fd;
  c.control = control;
  connections_.push_back(std::move(c));
}

void Server::receive(Connection& c) {
  char buffer[64 * 1024];
  ssize_t n = ::recv(c.fd, buffer, sizeof(buffer), MSG_DONTWAIT);
  if (n > 0) {
    c.in.append(buffer, static_cast<size_t>(n));
  } else if (n == 0 || (errno != EAGAIN && errno != EWOULDBLOCK && errno != EINTR)) {
    close(c);
  }
}

void Server::transmit(Connection& c) {
  while (!c.out.empty()) {
    ssize_t n = ::send(c.fd, c.out.data(), c.out.size(), MSG_NOSIGNAL | MSG_DONTWAIT);
    if (n > 0) {
      c.out.erase(0, static_cast<size_t>(n));
    } else if (n < 0 && errno == EINTR) {
      continue;
    } else if (n < 0 && (errno == EAGAIN || errno == EWOULDBLOCK)) {
      return;
    } else {
      close(c);
      return;
    }
  }
}

// Handles everything complete in the input; for a protocol client that is
// one request at a time, the next only once the answer has been written.
void Server::process(Connection& c) {
  if (c.fd < 0) return;
  if (c.control) {
    processLines(c);
    if (c.fd >= 0) transmit(c);
    return;
  }
  if (!c.out.empty()) transmit(c);
  while (c.fd >= 0 && !c.held && c.out.empty()) {
    const size_t before = c.in.size();
    processFrame(c);
    if (c.fd >= 0) transmit(c);
    if (c.in.size() == before) break;  // no complete frame yet
  }
}

// A frame longer than 1 MiB or a body that does not parse leaves the stream
// out of step for good: the connection is closed.
void Server::processFrame(Connection& c) {
  if (c.in.size() < kHeaderBytes) return;
  const uint32_t length = frameLength(c.in);
  if (length > kMaxFrameBytes) return close(c);
  if (c.in.size() < kHeaderBytes + length) return;
  Smbus::TransactionRequest request;
  bool parsed = request.ParseFromArray(c.in.data() + kHeaderBytes, static_cast<int>(length));
  c.in.erase(0, kHeaderBytes + length);
  if (!parsed) return close(c);

  Outcome outcome = emulator_.run(request);
  if (outcome.drop) return close(c);
  std::string answer = frame(outcome.response.SerializeAsString());
  if (outcome.delayMs == 0) {
    c.out += answer;
    return;
  }
  c.held = true;
  c.pending = std::move(answer);
  c.due = Clock::now() + std::chrono::milliseconds(outcome.delayMs);
}

void Server::processLines(Connection& c) {
  for (size_t end; (end = c.in.find('\n')) != std::string::npos;) {
    std::string line = c.in.substr(0, end);
    c.in.erase(0, end + 1);
    if (!line.empty() && line.back() == '\r') line.pop_back();
    c.out += control_.execute(line) + "\n";
  }
  if (c.in.size() > kMaxControlLine) close(c);
}

void Server::releaseDue(Clock::time_point now) {
  for (Connection& c : connections_) {
    if (c.fd < 0 || !c.held || c.due > now) continue;
    c.held = false;
    c.out += c.pending;
    c.pending.clear();
  }
}

int Server::pollTimeout(Clock::time_point now) const {
  int timeout = -1;
  for (const Connection& c : connections_) {
    if (!c.held) continue;
    auto left = std::chrono::duration_cast<std::chrono::milliseconds>(c.due - now).count() + 1;
    int ms = static_cast<int>(std::max<decltype(left)>(0, left));
    timeout = timeout < 0 ? ms : std::min(timeout, ms);
  }
  return timeout;
}

void Server::close(Connection& c) {
  if (c.fd >= 0) ::close(c.fd);
  c.fd = -1;
}

}  // namespace SmbusProxyd
