#pragma once
// A stand-in for the SMBus proxy service on a temporary Unix socket, served
// by a thread of the test: it speaks the real framing, records every request
// and plays scripted answers. Sets KELDO_SMBUS_SOCKET for its lifetime.
#include <deque>
#include <functional>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "KeldoUtil/Smbus.pb.h"
#include "TempDir.h"

class FakeProxy {
 public:
  // Fills the answer to one request; false hangs up instead of answering.
  using Answer = std::function<bool(const Smbus::TransactionRequest&, Smbus::TransactionResponse&)>;

  FakeProxy();
  ~FakeProxy();

  // Answers for the next requests, in order. Once they are used up every
  // request gets one empty entry per request entry.
  void then(Answer answer);
  void thenEntries(const std::vector<std::string>& data);
  void thenFailure(const char* reason);  // null: no reason at all
  void thenHangUp();

  std::vector<Smbus::TransactionRequest> requests() const;

 private:
  void serve();
  bool serveConnection(int fd);

  TempDir dir_;
  std::string path_;
  int listenFd_ = -1;
  int stopPipe_[2] = {-1, -1};
  mutable std::mutex mutex_;
  std::deque<Answer> answers_;
  std::vector<Smbus::TransactionRequest> requests_;
  std::thread thread_;
};
