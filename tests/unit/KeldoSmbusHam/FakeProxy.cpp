#include "FakeProxy.h"

#include <poll.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <cstdlib>
#include <cstring>
#include <stdexcept>

namespace {

// Waits for `fd` or the stop pipe; false when stopping or on error.
bool waitReadable(int fd, int stopFd) {
  pollfd fds[2] = {{fd, POLLIN, 0}, {stopFd, POLLIN, 0}};
  return poll(fds, 2, -1) > 0 && !(fds[1].revents & POLLIN);
}

bool readAll(int fd, int stopFd, char* into, size_t count) {
  while (count > 0) {
    if (!waitReadable(fd, stopFd)) return false;
    ssize_t n = read(fd, into, count);
    if (n <= 0) return false;
    into += n;
    count -= static_cast<size_t>(n);
  }
  return true;
}

}  // namespace

FakeProxy::FakeProxy() : path_(dir_.file("proxy.sock")) {
  sockaddr_un addr{};
  addr.sun_family = AF_UNIX;
  std::strncpy(addr.sun_path, path_.c_str(), sizeof addr.sun_path - 1);
  listenFd_ = socket(AF_UNIX, SOCK_STREAM, 0);
  if (listenFd_ < 0 || bind(listenFd_, reinterpret_cast<sockaddr*>(&addr), sizeof addr) != 0 ||
      listen(listenFd_, 4) != 0 || pipe(stopPipe_) != 0) {
    throw std::runtime_error("FakeProxy cannot listen on " + path_);
  }
  setenv("KELDO_SMBUS_SOCKET", path_.c_str(), 1);
  thread_ = std::thread(&FakeProxy::serve, this);
}

FakeProxy::~FakeProxy() {
  (void)!write(stopPipe_[1], "x", 1);
  thread_.join();
  close(listenFd_);
  close(stopPipe_[0]);
  close(stopPipe_[1]);
  unsetenv("KELDO_SMBUS_SOCKET");
}

void FakeProxy::then(Answer answer) {
  std::lock_guard<std::mutex> lock(mutex_);
  answers_.push_back(std::move(answer));
}

void FakeProxy::thenEntries(const std::vector<std::string>& data) {
  then([data](const Smbus::TransactionRequest&, Smbus::TransactionResponse& out) {
    for (const auto& d : data) out.add_response()->set_data(d);
    return true;
  });
}

void FakeProxy::thenFailure(const char* reason) {
  std::string text = reason ? reason : "";
  bool hasReason = reason != nullptr;
  then([text, hasReason](const Smbus::TransactionRequest&, Smbus::TransactionResponse& out) {
    out.set_failure(1);
    if (hasReason) out.set_reason(text);
    return true;
  });
}

void FakeProxy::thenHangUp() {
  then([](const Smbus::TransactionRequest&, Smbus::TransactionResponse&) { return false; });
}

std::vector<Smbus::TransactionRequest> FakeProxy::requests() const {
  std::lock_guard<std::mutex> lock(mutex_);
  return requests_;
}

void FakeProxy::serve() {
  while (waitReadable(listenFd_, stopPipe_[0])) {
    int fd = accept(listenFd_, nullptr, nullptr);
    if (fd < 0) continue;
    bool stop = !serveConnection(fd);
    close(fd);
    if (stop) return;
  }
}

// False when the proxy is stopping; true when the client went away or the
// script hung up.
bool FakeProxy::serveConnection(int fd) {
  for (;;) {
    unsigned char header[4];
    if (!readAll(fd, stopPipe_[0], reinterpret_cast<char*>(header), 4)) {
      pollfd stop = {stopPipe_[0], POLLIN, 0};
      return poll(&stop, 1, 0) == 0;
    }
    uint32_t length = uint32_t{header[0]} << 24 | uint32_t{header[1]} << 16 | uint32_t{header[2]} << 8 | header[3];
    std::string body(length, '\0');
    Smbus::TransactionRequest request;
    if (!readAll(fd, stopPipe_[0], &body[0], length) || !request.ParseFromString(body)) return true;

    Smbus::TransactionResponse response;
    bool answer = true;
    {
      std::lock_guard<std::mutex> lock(mutex_);
      requests_.push_back(request);
      if (answers_.empty()) {
        for (int i = 0; i < request.request_size(); ++i) response.add_response();
      } else {
        answer = answers_.front()(request, response);
        answers_.pop_front();
      }
    }
    if (!answer) return true;
    std::string out = response.SerializeAsString();
    uint32_t n = static_cast<uint32_t>(out.size());
    std::string frame = {char(n >> 24), char(n >> 16), char(n >> 8), char(n)};
    frame += out;
    if (write(fd, frame.data(), frame.size()) != static_cast<ssize_t>(frame.size())) return true;
  }
}
