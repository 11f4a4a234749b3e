#pragma once
// The daemon's event loop: one thread, poll(), a listening socket for
// protocol clients and one for control clients. Each protocol client has at
// most one transaction in progress; a delayed answer holds back only its own
// client.
#include <chrono>
#include <list>
#include <string>

namespace SmbusProxyd {

class ControlCommands;
class Emulator;

struct ServerOptions {
  std::string socketPath;
  std::string controlPath;
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
  void run(int stopFd);

 private:
  using Clock = std::chrono::steady_clock;

  struct Connection {
    int fd = -1;
    bool control = false;
    std::string in;
    std::string out;
    bool held = false;  // an answer waits in `pending` until `due`
    std::string pending;
    Clock::time_point due;
  };

  int listenOn(const std::string& path);
  void accept(int listenFd, bool control);
  void receive(Connection& c);
  void transmit(Connection& c);
  void process(Connection& c);
  void processFrame(Connection& c);
  void processLines(Connection& c);
  void releaseDue(Clock::time_point now);
  int pollTimeout(Clock::time_point now) const;
  void close(Connection& c);

  Emulator& emulator_;
  ControlCommands& control_;
  ServerOptions options_;
  int listenFd_ = -1;
  int controlFd_ = -1;
  std::list<Connection> connections_;
};

}  // namespace SmbusProxyd
