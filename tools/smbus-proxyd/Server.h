#pragma once
// The daemon's event loop: one thread, poll(), a listening socket for
// protocol clients and one for control clients. Each protocol client has at
// most one transaction in progress; a delayed answer holds back only its own
// client. Whatever clients do, the daemon's descriptors, memory and time stay
// bounded: a cap on connections, a memory budget for frames and answers, a
// time limit on frames that stop half-way, and a pause instead of a busy loop
// when the process runs out of descriptors.
#include <sys/resource.h>

#include <chrono>
#include <cstdint>
#include <list>
#include <string>

#include "KeldoUtil/Smbus.pb.h"
#include "Notices.h"

namespace SmbusProxyd {

class ControlCommands;
class Emulator;

struct ServerOptions {
  std::string socketPath;
  std::string controlPath;
  unsigned maxConnections = 128;             // on each socket
  uint64_t memoryBudget = 32 * 1024 * 1024;  // bytes of requests and answers held at once
  unsigned frameTimeoutMs = 5000;            // from a frame's (or line's) first byte to its last
};

class Server {
 public:
  Server(Emulator& emulator, ControlCommands& control, ServerOptions options);
  ~Server();
  Server(const Server&) = delete;
  Server& operator=(const Server&) = delete;

  // Binds and listens on both sockets. Each socket file appears only once it
  // accepts, so its existence means ready. Throws std::system_error.
  void start();
  // Serves until `stopFd` becomes readable (a signalfd, an eventfd, a pipe).
  // It is also checked between the attempts of a transaction.
  void run(int stopFd);

 private:
  using Clock = std::chrono::steady_clock;

  struct Connection {
    int fd = -1;
    bool control = false;
    std::string in;             // protocol: the frame being received, header included; control: text not yet a line
    Clock::time_point inSince;  // when the first byte of `in` arrived
    uint64_t frameCharge = 0;   // the memory budget held for `in`
    uint64_t answerCharge = 0;  // and for the answer in `out` or `pending`
    std::string out;
    bool held = false;  // an answer waits in `pending` until `due`
    std::string pending;
    Clock::time_point due;
  };

  int listenOn(const std::string& path);
  void accept(int listenFd, bool control);
  bool wantsInput(const Connection& c) const;
  size_t wanted(const Connection& c) const;
  bool frameComplete(const Connection& c) const;
  void receive(Connection& c);
  void admit(Connection& c);
  void transmit(Connection& c);
  void process(Connection& c);
  void processFrame(Connection& c);
  void processLines(Connection& c);
  void answer(Connection& c, std::string answer, uint32_t delayMs);
  bool charge(uint64_t& account, uint64_t bytes);
  void release(uint64_t& account);
  bool stopRequested() const;
  void releaseDue(Clock::time_point now);
  void expireFrames(Clock::time_point now);
  int pollTimeout(Clock::time_point now) const;
  void close(Connection& c);

  Emulator& emulator_;
  ControlCommands& control_;
  ServerOptions options_;
  Notices notices_;
  int listenFd_ = -1;
  int controlFd_ = -1;
  int stopFd_ = -1;
  bool stopping_ = false;
  rlim_t descriptorLimit_ = RLIM_INFINITY;
  Clock::time_point acceptPausedUntil_;  // out of descriptors: no accept before this
  uint64_t charged_ = 0;                 // the memory budget in use, over all connections
  std::list<Connection> connections_;
  // Every frame is parsed into it, so the memory of its entries serves the next one.
  Smbus::TransactionRequest request_;
};

}  // namespace SmbusProxyd
