// keldo-smbus-proxyd: the reference SMBus proxy. Serves the proxy protocol on
// a Unix socket and carries transactions out on an emulated board.
#include <signal.h>
#include <sys/signalfd.h>
#include <unistd.h>

#include <CLI/CLI.hpp>
#include <cstdio>
#include <cstdlib>
#include <exception>

#include "ControlCommands.h"
#include "EmulationFile.h"
#include "Emulator.h"
#include "Server.h"
#include "TransactionLog.h"

namespace {

std::string defaultSocketPath() {
  const char* path = std::getenv("KELDO_SMBUS_SOCKET");
  return path ? path : "/run/keldo/smbus-proxy.sock";
}

// SIGTERM and SIGINT arrive as a readable descriptor, so the loop stops
// between two transactions and the destructors remove the sockets.
int stopSignals() {
  sigset_t set;
  sigemptyset(&set);
  sigaddset(&set, SIGTERM);
  sigaddset(&set, SIGINT);
  sigprocmask(SIG_BLOCK, &set, nullptr);
  signal(SIGPIPE, SIG_IGN);
  return signalfd(-1, &set, SFD_CLOEXEC);
}

}  // namespace

int main(int argc, char** argv) {
  CLI::App app{"Reference SMBus proxy: serves the proxy protocol on a Unix socket and carries the "
               "transactions out on an emulated board."};
  std::string emulationPath;
  std::string logPath;
  SmbusProxyd::ServerOptions server{defaultSocketPath(), ""};
  SmbusProxyd::EmulatorLimits limits;
  uint64_t logSize = SmbusProxyd::TransactionLog::kDefaultMaxBytes;
  app.add_option("-e,--emulation", emulationPath, "Emulation file (JSON) describing the board");
  app.add_option("-s,--socket", server.socketPath, "Socket to serve (default: $KELDO_SMBUS_SOCKET or "
                                                   "/run/keldo/smbus-proxy.sock)");
  app.add_option("-c,--control", server.controlPath, "Control socket for fault injection (default: SOCKET.ctl)");
  app.add_option("-l,--log", logPath, "Append one line per executed request entry to this file");
  app.add_option("--log-size", logSize, "Size at which the log is renamed to FILE.1 and a new one started")
      ->capture_default_str()
      ->transform(CLI::AsSizeValue(false))
      ->check(CLI::Range(uint64_t{64 * 1024}, uint64_t{1} << 40));
  app.add_option("-r,--retries", limits.defaultRetries, "Retries of a failed transaction that carries no retry count")
      ->capture_default_str()
      ->check(CLI::Range(0u, SmbusProxyd::Emulator::kMaxRetries));
  app.add_option("--max-entry-runs", limits.maxEntryRuns,
                 "Entries x attempts one transaction may run; its retries are cut to fit")
      ->capture_default_str()
      ->check(CLI::Range(uint64_t{1}, uint64_t{1} << 40));
  app.add_option("--max-connections", server.maxConnections, "Clients served at once on each socket")
      ->capture_default_str()
      ->check(CLI::Range(1u, 1000000u));
  app.add_option("--memory-budget", server.memoryBudget, "Bytes of requests and answers held at once")
      ->capture_default_str()
      ->transform(CLI::AsSizeValue(false))
      ->check(CLI::Range(uint64_t{2} << 20, uint64_t{1} << 40));
  app.add_option("--frame-timeout", server.frameTimeoutMs, "Milliseconds a client may take to send one frame")
      ->capture_default_str()
      ->check(CLI::Range(1u, 3600000u));
  CLI11_PARSE(app, argc, argv);
  if (server.controlPath.empty()) server.controlPath = server.socketPath + ".ctl";

  try {
    SmbusProxyd::Board board =
        emulationPath.empty() ? SmbusProxyd::Board{} : SmbusProxyd::loadEmulationFile(emulationPath);
    SmbusProxyd::Emulator emulator(std::move(board), limits);
    SmbusProxyd::TransactionLog log;
    if (!logPath.empty()) {
      if (!log.open(logPath, logSize)) {
        std::perror(logPath.c_str());
        return 1;
      }
      emulator.setLog(&log);
    }
    SmbusProxyd::ControlCommands control(emulator);
    int stopFd = stopSignals();
    if (stopFd < 0) {
      std::perror("signalfd");
      return 1;
    }
    SmbusProxyd::Server proxy(emulator, control, server);
    proxy.start();
    std::printf("keldo-smbus-proxyd: ready on %s (control %s)\n", server.socketPath.c_str(),
                server.controlPath.c_str());
    std::fflush(stdout);
    proxy.run(stopFd);
    close(stopFd);
  } catch (const std::exception& e) {
    std::fprintf(stderr, "keldo-smbus-proxyd: %s\n", e.what());
    return 1;
  }
  return 0;
}
