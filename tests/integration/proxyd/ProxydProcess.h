#pragma once
// The reference proxy daemon as a child process, for the tests that drive it
// over real sockets: it serves socket() (control channel socket().ctl) in a
// temporary directory, plays an emulation file and logs every executed entry
// to log().
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <cstdio>
#include <memory>
#include <stdexcept>
#include <string>
#include <vector>

#include "ChildProcess.h"
#include "TempDir.h"

class ProxydProcess {
 public:
  explicit ProxydProcess(const std::string& emulationFile) : emulation_(emulationFile) { start(); }

  // Starts the daemon (again); returns once its control socket accepts.
  void start() {
    ::unlink(socket_.c_str());
    ::unlink((socket_ + ".ctl").c_str());
    process_ = std::make_unique<ChildProcess>(
        std::vector<std::string>{KELDO_PROXYD, "-e", emulation_, "-s", socket_, "-l", log_},
        std::vector<std::string>{}, dir_.file("proxyd.out"));
    if (!waitForPath(socket_ + ".ctl")) throw std::runtime_error("proxy daemon did not start");
  }
  // Sends `signal`; the wait status.
  int stop(int signal) { return process_->stop(signal); }

  // One control command, e.g. "fault I2C/0/0/3/0x48 nak"; its one-line reply.
  std::string control(const std::string& command) const {
    sockaddr_un a{};
    a.sun_family = AF_UNIX;
    std::snprintf(a.sun_path, sizeof a.sun_path, "%s.ctl", socket_.c_str());
    const int fd = ::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    const std::string line = command + "\n";
    std::string reply;
    if (::connect(fd, reinterpret_cast<sockaddr*>(&a), sizeof a) == 0 &&
        ::write(fd, line.data(), line.size()) == static_cast<ssize_t>(line.size())) {
      for (char c; ::read(fd, &c, 1) == 1 && c != '\n';) reply += c;
    }
    ::close(fd);
    return reply;
  }

  const std::string& socket() const { return socket_; }
  const std::string& log() const { return log_; }

 private:
  TempDir dir_;
  std::string emulation_, socket_ = dir_.file("proxy.sock"), log_ = dir_.file("proxyd.log");
  std::unique_ptr<ChildProcess> process_;
};
