#include "ChildProcess.h"

#include <fcntl.h>
#include <signal.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <cstdlib>
#include <stdexcept>
#include <thread>

ChildProcess::ChildProcess(const std::vector<std::string>& argv, const std::vector<std::string>& env,
                           const std::string& logPath) {
  pid_ = fork();
  if (pid_ < 0) {
    throw std::runtime_error("fork failed");
  }
  if (pid_ == 0) {
    for (const auto& e : env) {
      putenv(const_cast<char*>(e.c_str()));
    }
    if (!logPath.empty()) {
      int fd = open(logPath.c_str(), O_WRONLY | O_CREAT | O_APPEND, 0644);
      if (fd >= 0) {
        dup2(fd, 1);
        dup2(fd, 2);
        close(fd);
      }
    }
    std::vector<char*> args;
    for (const auto& a : argv) args.push_back(const_cast<char*>(a.c_str()));
    args.push_back(nullptr);
    execv(args[0], args.data());
    _exit(127);
  }
}

ChildProcess::~ChildProcess() {
  if (pid_ > 0 && status_ == -1) stop(SIGTERM);
}

bool ChildProcess::running() {
  if (status_ != -1) return false;
  int st = 0;
  if (waitpid(pid_, &st, WNOHANG) == pid_) {
    status_ = st;
    return false;
  }
  return true;
}

int ChildProcess::stop(int signal, int timeoutMs) {
  if (!running()) return status_;
  kill(pid_, signal);
  for (int waited = 0; waited < timeoutMs; waited += 10) {
    if (!running()) return status_;
    std::this_thread::sleep_for(std::chrono::milliseconds(10));
  }
  kill(pid_, SIGKILL);
  waitpid(pid_, &status_, 0);
  return -1;
}

bool waitForPath(const std::string& path, int timeoutMs) {
  struct stat st;
  for (int waited = 0; waited <= timeoutMs; waited += 10) {
    if (stat(path.c_str(), &st) == 0) return true;
    std::this_thread::sleep_for(std::chrono::milliseconds(10));
  }
  return false;
}
