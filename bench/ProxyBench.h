#pragma once
// What the benchmark programs that talk to the reference proxy daemon share:
// the daemon as a child process on a socket in a temporary directory, the
// plug-in's connection to it, the common defaults of a run and a console
// reporter that keeps the median time of every benchmark.
#include <benchmark/benchmark.h>
#include <fcntl.h>
#include <signal.h>
#include <spawn.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <map>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

#include "Keldo.h"
#include "PlatformLibrary/PLSocket.h"

namespace bench {

inline bool waitForPath(const std::string& path) {
  struct stat st;
  for (int i = 0; i < 500; ++i) {
    if (stat(path.c_str(), &st) == 0) return true;
    std::this_thread::sleep_for(std::chrono::milliseconds(10));
  }
  return false;
}

// The reference daemon playing an emulation file, without its transaction
// log, and the plug-in's proxy connection (_plSock) to it, for as long as the
// object lives. dir() is a fresh directory that goes away with it.
class ProxyDaemon {
 public:
  explicit ProxyDaemon(const std::string& emulation) {
    std::string pattern = "/tmp/keldo-bench-XXXXXX";
    if (!mkdtemp(pattern.data())) throw std::runtime_error("mkdtemp failed");
    dir_ = pattern;
    socket_ = dir_ + "/proxy.sock";
    std::vector<std::string> args = {KELDO_PROXYD, "-e", emulation, "-s", socket_};
    std::vector<char*> argv;
    for (auto& a : args) argv.push_back(a.data());
    argv.push_back(nullptr);
    posix_spawn_file_actions_t quiet;  // its "ready" line would interleave with the results
    posix_spawn_file_actions_init(&quiet);
    posix_spawn_file_actions_addopen(&quiet, 1, "/dev/null", O_WRONLY, 0);
    const int spawned = posix_spawn(&pid_, argv[0], &quiet, nullptr, argv.data(), environ);
    posix_spawn_file_actions_destroy(&quiet);
    if (spawned != 0 || !waitForPath(socket_ + ".ctl")) {
      throw std::runtime_error("cannot start " KELDO_PROXYD);
    }
    setenv("KELDO_SMBUS_SOCKET", socket_.c_str(), 1);
    _plSock = new PlatformLibrary::PLSocket;
    if (_plSock->setup() != 0) {
      std::perror("proxy connection");
      delete _plSock;
      _plSock = nullptr;
    }
  }
  ~ProxyDaemon() {
    delete _plSock;
    _plSock = nullptr;
    kill(pid_, SIGTERM);
    waitpid(pid_, nullptr, 0);
    unlink((socket_ + ".ctl").c_str());
    unlink(socket_.c_str());
    rmdir(dir_.c_str());
  }
  bool connected() const { return _plSock != nullptr; }
  const std::string& dir() const { return dir_; }
  // Nanoseconds the daemon has run on a CPU so far (the scheduler's own count).
  uint64_t cpuNanoseconds() const {
    std::ifstream in("/proc/" + std::to_string(pid_) + "/schedstat");
    uint64_t ns = 0;
    in >> ns;
    return ns;
  }
  // Adds to a benchmark the daemon's CPU time per iteration, as "daemon_cpu"
  // (nanoseconds), measured from now to the end of the benchmark's loop.
  class CpuCounter {
   public:
    CpuCounter(const ProxyDaemon& daemon, benchmark::State& state)
        : daemon_(daemon), state_(state), start_(daemon.cpuNanoseconds()) {}
    ~CpuCounter() {
      state_.counters["daemon_cpu"] = benchmark::Counter(static_cast<double>(daemon_.cpuNanoseconds() - start_),
                                                          benchmark::Counter::kAvgIterations);
    }

   private:
    const ProxyDaemon& daemon_;
    benchmark::State& state_;
    uint64_t start_;
  };

 private:
  std::string dir_, socket_;
  pid_t pid_ = -1;
};

// Every benchmark is repeated and the repetitions interleaved at random, so
// that a load change on the machine hits all of them alike; ratios are those
// of the medians. Flags given on the command line override these defaults.
inline void initialize(int argc, char** argv) {
  std::vector<char*> args = {argv[0]};
  static char repetitions[] = "--benchmark_repetitions=15";
  static char interleave[] = "--benchmark_enable_random_interleaving=true";
  static char aggregates[] = "--benchmark_report_aggregates_only=true";
  static char minTime[] = "--benchmark_min_time=0.5";
  args.insert(args.end(), {repetitions, interleave, aggregates, minTime});
  args.insert(args.end(), argv + 1, argv + argc);
  int count = static_cast<int>(args.size());
  benchmark::Initialize(&count, args.data());
}

// Console output as usual, plus the times per iteration of every run and
// aggregate (nanoseconds), by name: wall-clock, and the CPU time of the
// benchmark's thread together with the daemon's ("daemon_cpu", when counted).
class MedianReporter : public benchmark::ConsoleReporter {
 public:
  MedianReporter() : ConsoleReporter(isatty(STDOUT_FILENO) ? OO_ColorTabular : OO_Tabular) {}
  void ReportRuns(const std::vector<Run>& runs) override {
    for (const Run& run : runs) {
      if (!run.error_occurred && run.iterations > 0) {
        auto daemon = run.counters.find("daemon_cpu");
        perIteration_[run.benchmark_name()] = {
            run.GetAdjustedRealTime(),
            run.GetAdjustedCPUTime() + (daemon != run.counters.end() ? daemon->second.value : 0.0)};
      }
    }
    ConsoleReporter::ReportRuns(runs);
  }
  // The medians of a repeated real-time benchmark (its only run otherwise):
  // wall-clock, and CPU time of both ends; 0 when it did not run.
  double median(const std::string& name) const { return find(name).first; }
  double cpuMedian(const std::string& name) const { return find(name).second; }
  // The fastest repetition of a benchmark that computes the "min" statistic; 0 otherwise.
  double fastest(const std::string& name) const {
    auto it = perIteration_.find(name + "/real_time_min");
    return it != perIteration_.end() ? it->second.first : 0.0;
  }

 private:
  std::pair<double, double> find(const std::string& name) const {
    for (const char* suffix : {"/real_time_median", "/real_time"}) {
      auto it = perIteration_.find(name + suffix);
      if (it != perIteration_.end()) return it->second;
    }
    return {0.0, 0.0};
  }
  std::map<std::string, std::pair<double, double>> perIteration_;
};

}  // namespace bench
