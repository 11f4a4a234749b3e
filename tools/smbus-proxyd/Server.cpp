#include "Server.h"

#include <poll.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <optional>
#include <system_error>
#include <vector>

#include "ControlCommands.h"
#include "Emulator.h"
#include "KeldoUtil/Smbus.pb.h"

namespace SmbusProxyd {

namespace {

constexpr uint32_t kMaxFrameBytes = 1024 * 1024;
constexpr size_t kHeaderBytes = 4;
constexpr size_t kMaxControlLine = 4096;
constexpr size_t kReadChunk = 64 * 1024;
constexpr uint64_t kFreeBytes = 4096;
constexpr int kListenBacklog = 64;
// Out of descriptors, accepting is tried again after this long, or as soon as
// a client leaves and frees one.
constexpr std::chrono::milliseconds kAcceptPause{100};
// Descriptors kept free for the daemon's own needs (the new log file after a
// rotation; the sanitizer runtime, which checks memory through a pipe): a
// client that would take one of them counts as descriptors running out.
constexpr rlim_t kSpareDescriptors = 8;

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

std::string failureAnswer(const std::string& reason) {
  Smbus::TransactionResponse response;
  response.set_failure(1);
  response.set_reason(reason);
  return frame(response.SerializeAsString());
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
  rlimit limit{};
  if (::getrlimit(RLIMIT_NOFILE, &limit) == 0) descriptorLimit_ = limit.rlim_cur;
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
  stopFd_ = stopFd;
  std::vector<pollfd> fds;
  std::vector<Connection*> polled;
  while (!stopping_) {
    // While accepting is paused the listening sockets are left out of the
    // poll (a negative descriptor): they stay readable and would wake it at once.
    const bool accepting = Clock::now() >= acceptPausedUntil_;
    fds.assign(
        {{stopFd, POLLIN, 0}, {accepting ? listenFd_ : -1, POLLIN, 0}, {accepting ? controlFd_ : -1, POLLIN, 0}});
    polled.clear();
    for (Connection& c : connections_) {
      short events = wantsInput(c) ? POLLIN : 0;
      if (!c.out.empty()) events |= POLLOUT;
      fds.push_back({c.fd, events, 0});
      polled.push_back(&c);
    }
    int ready = ::poll(fds.data(), fds.size(), pollTimeout(Clock::now()));
    if (ready < 0 && errno != EINTR) throwErrno("poll");
    if (ready > 0) {
      if (fds[0].revents) return;
      // Clients that left are closed before new ones are counted against the cap.
      for (size_t i = 0; i < polled.size(); ++i) {
        const short revents = fds[i + 3].revents;
        if (revents & POLLIN) receive(*polled[i]);
        if (polled[i]->fd >= 0 && (revents & POLLOUT)) transmit(*polled[i]);
        if (polled[i]->fd >= 0 && (revents & (POLLHUP | POLLERR)) && !(revents & POLLIN)) close(*polled[i]);
      }
      if (fds[1].revents & POLLIN) accept(listenFd_, false);
      if (fds[2].revents & POLLIN) accept(controlFd_, true);
    }
    releaseDue(Clock::now());
    for (Connection& c : connections_) {
      if (!stopping_) process(c);
    }
    expireFrames(Clock::now());
    connections_.remove_if([](const Connection& c) { return c.fd < 0; });
  }
}

void Server::accept(int listenFd, bool control) {
  int fd = ::accept4(listenFd, nullptr, nullptr, SOCK_CLOEXEC | SOCK_NONBLOCK);
  if (fd >= 0 && static_cast<rlim_t>(fd) + kSpareDescriptors >= descriptorLimit_) {
    ::close(fd);
    fd = -1;
    errno = EMFILE;
  }
  if (fd < 0) {
    if (errno == EMFILE || errno == ENFILE || errno == ENOBUFS || errno == ENOMEM) {
      acceptPausedUntil_ = Clock::now() + kAcceptPause;
      notices_.say(std::string("cannot accept clients: ") + std::strerror(errno) +
                   "; trying again in 100 ms or when a client leaves");
    }
    return;  // otherwise the client gave up already
  }
  const auto open = std::count_if(connections_.begin(), connections_.end(),
                                  [&](const Connection& c) { return c.fd >= 0 && c.control == control; });
  if (static_cast<unsigned>(open) >= options_.maxConnections) {
    ::close(fd);
    notices_.say(std::string("refused a ") + (control ? "control " : "") + "client: " + std::to_string(open) +
                 " connections open (--max-connections)");
    return;
  }
  Connection c;
  c.fd = fd;
  c.control = control;
  connections_.push_back(std::move(c));
}

// A client is read only when nothing of its own waits to go out: one
// transaction (or one batch of control lines) at a time, and a client that
// does not read its answers cannot make the daemon buffer more.
bool Server::wantsInput(const Connection& c) const { return !c.held && c.out.empty() && wanted(c) > 0; }

// A protocol client is read up to the end of its current frame and no
// further, so its buffer holds the one frame admitted. Before the header,
// one read takes up to 4 KiB, which is free: header and a small request
// arrive in one system call.
size_t Server::wanted(const Connection& c) const {
  if (c.control) return kReadChunk;
  if (c.in.size() < kHeaderBytes) return kFreeBytes - c.in.size();
  return frameComplete(c) ? 0 : kHeaderBytes + frameLength(c.in) - c.in.size();
}

bool Server::frameComplete(const Connection& c) const {
  return !c.control && c.in.size() >= kHeaderBytes && c.in.size() >= kHeaderBytes + frameLength(c.in);
}

void Server::receive(Connection& c) {
  char buffer[kReadChunk];
  ssize_t n = ::recv(c.fd, buffer, std::min(sizeof(buffer), wanted(c)), MSG_DONTWAIT);
  if (n < 0 && (errno == EAGAIN || errno == EWOULDBLOCK || errno == EINTR)) return;
  if (n <= 0) return close(c);
  if (c.in.empty()) c.inSince = Clock::now();
  const bool headerBefore = c.in.size() >= kHeaderBytes;
  c.in.append(buffer, static_cast<size_t>(n));
  if (!c.control && !headerBefore && c.in.size() >= kHeaderBytes) admit(c);
}

// A frame is taken in only when its whole length fits in what is left of
// the memory budget; otherwise the client is closed, since the protocol has
// no way to refuse a request but to answer it, which needs all of it read.
// A frame longer than 1 MiB leaves the stream out of step for good.
void Server::admit(Connection& c) {
  const uint32_t length = frameLength(c.in);
  if (length > kMaxFrameBytes) {
    notices_.say("closed a client: it announced a frame of " + std::to_string(length) + " bytes (at most 1 MiB)");
    return close(c);
  }
  if (!charge(c.frameCharge, length)) {
    notices_.say("closed a client: its frame of " + std::to_string(length) + " bytes does not fit in the " +
                 "memory budget (--memory-budget " + std::to_string(options_.memoryBudget) + " bytes, " +
                 std::to_string(charged_) + " in use)");
    return close(c);
  }
  c.in.reserve(kHeaderBytes + length);
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
  if (!c.held) {
    release(c.answerCharge);
    std::string().swap(c.out);
  }
}

// Handles what is complete in the input: for a protocol client each frame
// once the answer to the one before has gone out, for a control client
// every whole line.
void Server::process(Connection& c) {
  if (c.fd >= 0 && c.control) processLines(c);
  while (!stopping_ && c.fd >= 0 && !c.control && !c.held && c.out.empty() && frameComplete(c)) {
    processFrame(c);
    if (c.fd >= 0) transmit(c);
  }
  if (c.fd >= 0 && !c.out.empty()) transmit(c);
}

// A client that sent its next request before this answer (at most what
// the first read of 4 KiB took) keeps those bytes as the start of its next
// frame.
void Server::processFrame(Connection& c) {
  const size_t length = kHeaderBytes + frameLength(c.in);
  Smbus::TransactionRequest& request = request_;
  const bool parsed = request.ParseFromArray(c.in.data() + kHeaderBytes, static_cast<int>(length - kHeaderBytes));
  std::string(c.in, length).swap(c.in);
  release(c.frameCharge);
  if (!c.in.empty()) c.inSince = Clock::now();
  if (c.in.size() >= kHeaderBytes) admit(c);
  if (c.fd < 0) return;
  if (!parsed) {
    notices_.say("closed a client: its request does not parse");
    return close(c);
  }
  const Outcome& outcome = emulator_.run(request, [this] { return stopRequested(); });
  if (!outcome.notice.empty()) notices_.say(outcome.notice);
  if (outcome.stopped) {
    stopping_ = true;
    return;
  }
  if (outcome.drop) return close(c);
  answer(c, frame(outcome.response.SerializeAsString()), outcome.delayMs);
}

// An answer that does not fit in the memory budget is replaced by a short
// failure answer, which is not counted.
void Server::answer(Connection& c, std::string bytes, uint32_t delayMs) {
  if (!charge(c.answerCharge, bytes.size())) {
    const std::string reason =
        "the answer of " + std::to_string(bytes.size()) + " bytes does not fit in the proxy's memory budget";
    notices_.say("answered a failure: " + reason + " (--memory-budget " + std::to_string(options_.memoryBudget) +
                 " bytes, " + std::to_string(charged_) + " in use)");
    bytes = failureAnswer(reason);
  }
  if (delayMs == 0) {
    c.out = std::move(bytes);
    return;
  }
  c.held = true;
  c.pending = std::move(bytes);
  c.due = Clock::now() + std::chrono::milliseconds(delayMs);
}

void Server::processLines(Connection& c) {
  bool answered = false;
  for (size_t end; (end = c.in.find('\n')) != std::string::npos;) {
    std::string line = c.in.substr(0, end);
    c.in.erase(0, end + 1);
    if (!line.empty() && line.back() == '\r') line.pop_back();
    c.out += control_.execute(line) + "\n";
    answered = true;
  }
  if (answered) c.inSince = Clock::now();
  if (c.in.size() > kMaxControlLine) {
    notices_.say("closed a control client: a line longer than " + std::to_string(kMaxControlLine) + " bytes");
    close(c);
  }
}

// Requests and answers of up to 4 KiB (all that the plug-in sends and
// gets) cost nothing, so they are served whatever large frames hold the
// budget; their total is bounded by the connection cap.
bool Server::charge(uint64_t& account, uint64_t bytes) {
  if (bytes <= kFreeBytes) return true;
  if (bytes > options_.memoryBudget - charged_) return false;
  account += bytes;
  charged_ += bytes;
  return true;
}

void Server::release(uint64_t& account) {
  charged_ -= account;
  account = 0;
}

// Asked between the attempts of a transaction, so that a stop signal does
// not wait for a long run of retries.
bool Server::stopRequested() const {
  pollfd stop{stopFd_, POLLIN, 0};
  return ::poll(&stop, 1, 0) > 0;
}

void Server::releaseDue(Clock::time_point now) {
  for (Connection& c : connections_) {
    if (c.fd < 0 || !c.held || c.due > now) continue;
    c.held = false;
    c.out = std::move(c.pending);
    c.pending.clear();
  }
}

// A client that stops half-way through a frame (or a control line) would
// hold its connection and its share of the budget for ever.
void Server::expireFrames(Clock::time_point now) {
  const std::chrono::milliseconds limit{options_.frameTimeoutMs};
  for (Connection& c : connections_) {
    if (c.fd < 0 || c.in.empty() || frameComplete(c) || now - c.inSince < limit) continue;
    notices_.say(std::string("closed a ") + (c.control ? "control " : "") + "client: " + std::to_string(c.in.size()) +
                 " bytes of a " + (c.control ? "line" : "frame") + " and no more for " +
                 std::to_string(options_.frameTimeoutMs) + " ms (--frame-timeout)");
    close(c);
  }
}

int Server::pollTimeout(Clock::time_point now) const {
  std::optional<Clock::time_point> first;
  auto consider = [&](Clock::time_point t) { first = first ? std::min(*first, t) : t; };
  if (acceptPausedUntil_ > now) consider(acceptPausedUntil_);
  for (const Connection& c : connections_) {
    if (c.held) consider(c.due);
    if (!c.in.empty()) consider(c.inSince + std::chrono::milliseconds(options_.frameTimeoutMs));
  }
  if (!first) return -1;
  auto left = std::chrono::duration_cast<std::chrono::milliseconds>(*first - now).count() + 1;
  return static_cast<int>(std::max<decltype(left)>(0, left));
}

// A descriptor is free again: accepting resumes at once.
void Server::close(Connection& c) {
  if (c.fd >= 0) ::close(c.fd);
  c.fd = -1;
  release(c.frameCharge);
  release(c.answerCharge);
  acceptPausedUntil_ = Clock::time_point{};
}

}  // namespace SmbusProxyd
