#pragma once
// A stand-in for the SMBus proxy on a Unix socket, for the tests of its
// clients. A thread accepts connections in turn and hands each to the test's
// script, which speaks (or garbles) the framing: a four-byte big-endian
// length, then the message. A connection closes when its script returns; the
// destructor stops the thread even while a script waits for a frame.
#include <poll.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <cstring>
#include <functional>
#include <stdexcept>
#include <string>
#include <thread>

class ScriptedProxy {
 public:
  using Script = std::function<void(ScriptedProxy& proxy, int fd)>;

  ScriptedProxy(const std::string& path, Script script) : path_(path) {
    sockaddr_un a{};
    a.sun_family = AF_UNIX;
    std::strncpy(a.sun_path, path.c_str(), sizeof a.sun_path - 1);
    ::unlink(path.c_str());
    listen_ = ::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    if (::bind(listen_, reinterpret_cast<sockaddr*>(&a), sizeof a) != 0 || ::listen(listen_, 8) != 0 ||
        ::pipe(stop_) != 0) {
      throw std::runtime_error("cannot listen on " + path);
    }
    thread_ = std::thread([this, script] {
      while (readable(listen_)) {
        int fd = ::accept(listen_, nullptr, nullptr);
        if (fd < 0) continue;
        script(*this, fd);
        ::close(fd);
      }
    });
  }
  ~ScriptedProxy() {
    (void)!::write(stop_[1], "x", 1);
    thread_.join();
    ::close(listen_);
    ::close(stop_[0]);
    ::close(stop_[1]);
    ::unlink(path_.c_str());
  }

  // The message of the next frame on `fd`; false on end of file or when stopping.
  bool readFrame(int fd, std::string& body) {
    unsigned char h[4];
    if (!readAll(fd, h, 4)) return false;
    body.assign(uint32_t{h[0]} << 24 | uint32_t{h[1]} << 16 | uint32_t{h[2]} << 8 | h[3], '\0');
    return readAll(fd, &body[0], body.size());
  }
  static std::string header(uint32_t n) { return {char(n >> 24), char(n >> 16), char(n >> 8), char(n)}; }
  static std::string frame(const std::string& body) { return header(static_cast<uint32_t>(body.size())) + body; }
  static void writeAll(int fd, const std::string& bytes) {
    for (size_t done = 0; done < bytes.size();) {
      ssize_t n = ::send(fd, bytes.data() + done, bytes.size() - done, MSG_NOSIGNAL);
      if (n <= 0) return;
      done += static_cast<size_t>(n);
    }
  }

 private:
  // Waits until `fd` has something to read; false once the proxy is stopping.
  bool readable(int fd) {
    pollfd p[2] = {{fd, POLLIN, 0}, {stop_[0], POLLIN, 0}};
    return ::poll(p, 2, -1) > 0 && !(p[1].revents & POLLIN);
  }
  bool readAll(int fd, void* into, size_t n) {
    for (auto* p = static_cast<char*>(into); n > 0;) {
      ssize_t got = readable(fd) ? ::recv(fd, p, n, 0) : -1;
      if (got <= 0) return false;
      p += got;
      n -= static_cast<size_t>(got);
    }
    return true;
  }

  std::string path_;
  int listen_ = -1;
  int stop_[2] = {-1, -1};
  std::thread thread_;
};
