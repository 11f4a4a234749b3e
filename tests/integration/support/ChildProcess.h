#pragma once
// A real child process for integration tests (the reference proxy daemon,
// the reference host). Stopped with SIGTERM when the object goes away.
#include <sys/types.h>

#include <string>
#include <vector>

class ChildProcess {
 public:
  // Starts argv[0] with the given arguments; `env` entries ("NAME=value") are
  // added to the test's own environment. stdout/stderr go to `logPath` when
  // it is not empty.
  ChildProcess(const std::vector<std::string>& argv, const std::vector<std::string>& env = {},
               const std::string& logPath = "");
  ~ChildProcess();
  ChildProcess(const ChildProcess&) = delete;
  ChildProcess& operator=(const ChildProcess&) = delete;

  pid_t pid() const { return pid_; }
  bool running();
  // Sends `signal` and waits up to timeoutMs; returns the wait status, or -1
  // when the child had to be killed.
  int stop(int signal, int timeoutMs = 5000);

 private:
  pid_t pid_ = -1;
  int status_ = -1;
};

// Polls until the file exists (a socket or a ready file); false on time-out.
bool waitForPath(const std::string& path, int timeoutMs = 5000);
