#pragma once
// A proxy stand-in on a real Unix socket: a thread accepts connections one
// after another and hands each to the test's script. Frame helpers let a
// script speak (or deliberately garble) the protocol.
#include <poll.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <atomic>
#include <cstring>
#include <functional>
#include <string>
#include <thread>

namespace ScriptedProxy {

// Reads exactly n bytes within 5 s; false on end of file, error or time-out.
inline bool readAll(int fd, void* into, size_t n) {
  auto* p = static_cast<char*>(into);
  while (n > 0) {
    pollfd pfd{fd, POLLIN, 0};
    if (::poll(&pfd, 1, 5000) <= 0) return false;
    ssize_t got = ::recv(fd, p, n, 0);
    if (got <= 0) return false;
    p += got;
    n -= static_cast<size_t>(got);
  }
  return true;
}

inline void writeAll(int fd, const std::string& bytes) {
  size_t done = 0;
  while (done < bytes.size()) {
    ssize_t n = ::send(fd, bytes.data() + done, bytes.size() - done, MSG_NOSIGNAL);
    if (n <= 0) return;
    done += static_cast<size_t>(n);
  }
}

inline std::string header(uint32_t n) {
  return std::string{static_cast<char>(n >> 24), static_cast<char>(n >> 16), static_cast<char>(n >> 8),
                     static_cast<char>(n)};
}

// One frame's body; false when the client sent none.
inline bool readFrame(int fd, std::string& body) {
  unsigned char h[4];
  if (!readAll(fd, h, 4)) return false;
  uint32_t n = (uint32_t{h[0]} << 24) | (uint32_t{h[1]} << 16) | (uint32_t{h[2]} << 8) | h[3];
  body.assign(n, '\0');
  return readAll(fd, body.data(), n);
}

class Server {
 public:
  using Script = std::function<void(int fd)>;

  // Listening as soon as the constructor returns.
  explicit Server(const std::string& path) : path_(path) {
    fd_ = ::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    sockaddr_un a{};
    a.sun_family = AF_UNIX;
    std::strncpy(a.sun_path, path.c_str(), sizeof(a.sun_path) - 1);
    ::unlink(path.c_str());
    ok_ = ::bind(fd_, reinterpret_cast<sockaddr*>(&a), sizeof(a)) == 0 && ::listen(fd_, 8) == 0;
  }

  // Serves `connections` connections in turn, each with `script`; the
  // connection is closed when the script returns.
  void serve(int connections, Script script) {
    thread_ = std::thread([this, connections, script] {
      for (int i = 0; i < connections; ++i) {
        pollfd pfd{fd_, POLLIN, 0};
        if (::poll(&pfd, 1, 5000) <= 0) return;
        int client = ::accept(fd_, nullptr, nullptr);
        if (client < 0) return;
        ++accepted_;
        script(client);
        ::close(client);
      }
    });
  }

  bool listening() const { return ok_; }
  int accepted() const { return accepted_; }

  // Joins the thread, then closes and removes the socket.
  void stop() {
    if (thread_.joinable()) thread_.join();
    if (fd_ >= 0) ::close(fd_);
    fd_ = -1;
    ::unlink(path_.c_str());
  }
  ~Server() { stop(); }

 private:
  std::string path_;
  int fd_ = -1;
  bool ok_ = false;
  std::atomic<int> accepted_{0};
  std::thread thread_;
};

}  // namespace ScriptedProxy
