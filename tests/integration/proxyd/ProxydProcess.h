#pragma once
// The reference proxy daemon as a child process, for the tests that drive it
// over real sockets: it serves socket() (control channel socket().ctl) in a
// temporary directory, plays an emulation file, logs every executed entry to
// log() and writes its standard output and error to output().
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <memory>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

#include "ChildProcess.h"
#include "TempDir.h"

class ProxydProcess {
 public:
  // `options` are added to the command line; a `fdLimit` above 0 starts the
  // daemon with that many descriptors at most (RLIMIT_NOFILE).
  explicit ProxydProcess(const std::string& emulationFile, std::vector<std::string> options = {}, int fdLimit = 0)
      : emulation_(emulationFile), options_(std::move(options)), fdLimit_(fdLimit) {
    start();
  }

  // Starts the daemon (again); returns once its control socket accepts.
  void start() {
    ::unlink(socket_.c_str());
    ::unlink((socket_ + ".ctl").c_str());
    std::vector<std::string> argv{KELDO_PROXYD, "-e", emulation_, "-s", socket_, "-l", log_};
    argv.insert(argv.end(), options_.begin(), options_.end());
    const std::string limited = "ulimit -n " + std::to_string(fdLimit_) + " && exec \"$0\" \"$@\"";
    if (fdLimit_ > 0) argv.insert(argv.begin(), {"/bin/sh", "-c", limited});
    process_ = std::make_unique<ChildProcess>(argv, std::vector<std::string>{}, output_);
    if (!waitForPath(socket_ + ".ctl")) throw std::runtime_error("proxy daemon did not start: " + readFile(output_));
  }
  // Sends `signal`; the wait status, or -1 when the daemon had to be killed
  // after `timeoutMs`.
  int stop(int signal, int timeoutMs = 5000) { return process_->stop(signal, timeoutMs); }

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

  // True once `text` shows in the daemon's output, within `timeoutMs`.
  bool waitForOutput(const std::string& text, int timeoutMs = 2000) const {
    for (int waited = 0; waited <= timeoutMs; waited += 10) {
      if (readFile(output_).find(text) != std::string::npos) return true;
      std::this_thread::sleep_for(std::chrono::milliseconds(10));
    }
    return false;
  }

  pid_t pid() const { return process_->pid(); }
  const std::string& socket() const { return socket_; }
  const std::string& log() const { return log_; }
  const std::string& output() const { return output_; }

 private:
  TempDir dir_;
  std::string emulation_, socket_ = dir_.file("proxy.sock"), log_ = dir_.file("proxyd.log"),
                          output_ = dir_.file("proxyd.out");
  std::vector<std::string> options_;
  int fdLimit_;
  std::unique_ptr<ChildProcess> process_;
};
