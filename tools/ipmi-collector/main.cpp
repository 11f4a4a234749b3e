// keldo-ipmi-collector: the reference IPMI collector. Runs ipmitool for what
// the plug-in asks for in its configuration file and keeps the answers in the
// cache file that the plug-in polls. See docs/ipmi.md.
#include <signal.h>

#include <chrono>
#include <cstdio>
#include <thread>

#include <CLI/CLI.hpp>

#include "Collector.h"

namespace {

volatile sig_atomic_t stopRequested = 0;

void requestStop(int) { stopRequested = 1; }

void report(const std::string& line) { std::fprintf(stderr, "keldo-ipmi-collector: %s\n", line.c_str()); }

// Sleeps in short steps, so that a stop request is served within 100 ms.
void pause(double seconds) {
  const auto until = std::chrono::steady_clock::now() + std::chrono::duration<double>(seconds);
  while (!stopRequested && std::chrono::steady_clock::now() < until) {
    std::this_thread::sleep_for(std::chrono::milliseconds(100));
  }
}

}  // namespace

int main(int argc, char** argv) {
  IpmiCollector::Options options;
  bool once = false;
  CLI::App app{"Reference IPMI collector for the Keldo platform-driver plug-in"};
  app.add_option("--config", options.config, "the plug-in's requests")->capture_default_str();
  app.add_option("--cache", options.cache, "the cache file the plug-in reads")->capture_default_str();
  app.add_option("--ipmitool", options.ipmitool, "ipmitool program (looked up on PATH)")->capture_default_str();
  app.add_option("--period", options.periodSeconds, "seconds between passes")
      ->check(CLI::Range(0.1, 3600.0))->capture_default_str();
  app.add_option("--timeout", options.timeoutSeconds, "seconds one ipmitool run may take")
      ->check(CLI::Range(0.1, 600.0))->capture_default_str();
  app.add_flag("--once", once, "one pass, then exit (status 1 when the cache could not be written)");
  CLI11_PARSE(app, argc, argv);

  struct sigaction action {};
  action.sa_handler = requestStop;
  sigaction(SIGTERM, &action, nullptr);
  sigaction(SIGINT, &action, nullptr);

  IpmiCollector::Collector collector(options, report);
  if (once) return collector.pass() ? 0 : 1;
  while (!stopRequested) {
    collector.pass();
    pause(options.periodSeconds);
  }
  return 0;
}
