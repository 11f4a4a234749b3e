// Cost of one SMBus transaction through the whole client path (KeldoSmbusHam
// request building, PLSocket framing, the reference proxy daemon, answer
// matching) against the floor any socket transport pays: a 16-byte message
// echoed over a Unix stream socket; and a PSU reading of two operations
// (Pmbus::get_output_voltage) against the one-register read. All run in the
// same process run, and the ratios are printed at the end.
//
//   bench_smbus_roundtrip [--benchmark_min_time=2]
#include <benchmark/benchmark.h>
#include <fcntl.h>
#include <signal.h>
#include <spawn.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <map>
#include <memory>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

#include "Drivers/Pmbus.h"
#include "Ham/KeldoSmbusHam.h"
#include "Keldo.h"
#include "PlatformLibrary/PLSocket.h"

// The host's trace service. A host filters by level before formatting, and
// the per-request line of the transport is level 4, below what a production
// host shows; the stand-in drops everything.
extern "C" void pl_trace(int, const char*, ...) {}

namespace {

std::string temporaryDirectory() {
  std::string pattern = "/tmp/keldo-bench-XXXXXX";
  if (!mkdtemp(pattern.data())) throw std::runtime_error("mkdtemp failed");
  return pattern;
}

sockaddr_un unixAddress(const std::string& path) {
  sockaddr_un addr{};
  addr.sun_family = AF_UNIX;
  std::snprintf(addr.sun_path, sizeof addr.sun_path, "%s", path.c_str());
  return addr;
}

bool waitForPath(const std::string& path) {
  struct stat st;
  for (int i = 0; i < 500; ++i) {
    if (stat(path.c_str(), &st) == 0) return true;
    std::this_thread::sleep_for(std::chrono::milliseconds(10));
  }
  return false;
}

// The reference daemon as a child process, playing the integration tests'
// board (an I2C bus 3 with a device at 0x48), without its transaction log.
class Daemon {
 public:
  explicit Daemon(const std::string& socket) {
    std::vector<std::string> args = {KELDO_PROXYD, "-e", KELDO_SOURCE_DIR "/tests/data/smbus/board.json", "-s",
                                     socket};
    std::vector<char*> argv;
    for (auto& a : args) argv.push_back(a.data());
    argv.push_back(nullptr);
    posix_spawn_file_actions_t quiet;  // its "ready" line would interleave with the results
    posix_spawn_file_actions_init(&quiet);
    posix_spawn_file_actions_addopen(&quiet, 1, "/dev/null", O_WRONLY, 0);
    const int spawned = posix_spawn(&pid_, argv[0], &quiet, nullptr, argv.data(), environ);
    posix_spawn_file_actions_destroy(&quiet);
    if (spawned != 0 || !waitForPath(socket + ".ctl")) {
      throw std::runtime_error("cannot start " KELDO_PROXYD);
    }
  }
  ~Daemon() {
    kill(pid_, SIGTERM);
    waitpid(pid_, nullptr, 0);
  }

 private:
  pid_t pid_ = -1;
};

// A thread that echoes whatever arrives, one connection after the other,
// until it is destroyed.
class EchoServer {
 public:
  explicit EchoServer(const std::string& path) : path_(path) {
    listenFd_ = socket(AF_UNIX, SOCK_STREAM, 0);
    sockaddr_un addr = unixAddress(path);
    if (bind(listenFd_, reinterpret_cast<sockaddr*>(&addr), sizeof addr) != 0 || listen(listenFd_, 1) != 0) {
      throw std::runtime_error("cannot listen on " + path);
    }
    thread_ = std::thread([this] {
      for (int fd; (fd = accept(listenFd_, nullptr, nullptr)) >= 0;) {
        char buffer[64];
        for (ssize_t n; (n = read(fd, buffer, sizeof buffer)) > 0;) {
          if (write(fd, buffer, static_cast<size_t>(n)) != n) break;
        }
        close(fd);
      }
    });
  }
  ~EchoServer() {
    shutdown(listenFd_, SHUT_RDWR);  // wakes accept()
    thread_.join();
    close(listenFd_);
    unlink(path_.c_str());
  }
  const std::string& path() const { return path_; }

 private:
  std::string path_;
  int listenFd_ = -1;
  std::thread thread_;
};

// Set up once by main() and shared by every repetition.
EchoServer* echoServer = nullptr;
std::string proxySocket;

void BM_RawUnixEcho16(benchmark::State& state) {
  int fd = socket(AF_UNIX, SOCK_STREAM, 0);
  sockaddr_un addr = unixAddress(echoServer->path());
  if (connect(fd, reinterpret_cast<sockaddr*>(&addr), sizeof addr) != 0) {
    state.SkipWithError("connect failed");
  }
  char message[16] = "0123456789abcde", answer[16];
  for (auto _ : state) {
    if (write(fd, message, sizeof message) != sizeof message) state.SkipWithError("write failed");
    size_t got = 0;
    while (got < sizeof answer) {
      ssize_t n = read(fd, answer + got, sizeof answer - got);
      if (n <= 0) {
        state.SkipWithError("read failed");
        break;
      }
      got += static_cast<size_t>(n);
    }
  }
  close(fd);
}

// A device on plain I2C bus 3 of the board the daemon plays: the sensor at
// 0x48 or the PMBus supply at 0x58.
std::unique_ptr<Ham::KeldoSmbusHam> hamAt(uint32_t device) {
  Topology::AhamAddress address;
  address.setAddress(device);
  address.setBus(3);
  address.setAddrSize(1);
  return std::unique_ptr<Ham::KeldoSmbusHam>(Ham::KeldoSmbusHam::createFromAddress(address, nullptr));
}

// A device on a plain I2C bus, one register: the shortest transaction.
void BM_Read8ThroughProxyDaemon(benchmark::State& state) {
  std::unique_ptr<Ham::KeldoSmbusHam> ham = hamAt(0x48);
  uint8_t value = 0;
  for (auto _ : state) {
    if (ham->read8(0x00, &value) != PL_STATUS_OK) state.SkipWithError("read8 failed");
  }
  if (value != 0x19) state.SkipWithError("unexpected register value");
}

// VOUT_MODE and READ_VOUT queued in one transaction: one round trip, like
// the read above, with one more entry each way.
void BM_PsuOutputVoltageThroughProxyDaemon(benchmark::State& state) {
  std::unique_ptr<Ham::KeldoSmbusHam> ham = hamAt(0x58);
  std::unique_ptr<Component::HardwareDevice> device(Drivers::Pmbus::create(Drivers::DriverArgs(), ham.get()));
  auto& psu = static_cast<Drivers::Pmbus&>(*device);
  float volts = 0;
  for (auto _ : state) {
    if (psu.get_output_voltage(&volts) != PL_STATUS_OK) state.SkipWithError("get_output_voltage failed");
  }
  if (volts != 12.0f) state.SkipWithError("unexpected output voltage");
}

// The same request prebuilt and sent with PLSocket alone: the share of the
// access method is the difference to the benchmark above.
void BM_SameRequestThroughPLSocketOnly(benchmark::State& state) {
  std::unique_ptr<Ham::KeldoSmbusHam> ham = hamAt(0x48);
  ham->prepare();
  ham->addRead8(0x00);
  for (auto _ : state) {
    Smbus::TransactionResponse* response = nullptr;
    if (_plSock->sendRequestWait(&ham->request, &response) != 0) state.SkipWithError("send failed");
    delete response;
  }
}

// Besides the median, the fastest repetition: load from other processes only
// ever adds time, so on a shared machine the minimums compare more steadily.
double fastest(const std::vector<double>& times) { return *std::min_element(times.begin(), times.end()); }

BENCHMARK(BM_RawUnixEcho16)->UseRealTime()->ComputeStatistics("min", fastest);
BENCHMARK(BM_SameRequestThroughPLSocketOnly)->UseRealTime()->ComputeStatistics("min", fastest);
BENCHMARK(BM_Read8ThroughProxyDaemon)->UseRealTime()->ComputeStatistics("min", fastest);
BENCHMARK(BM_PsuOutputVoltageThroughProxyDaemon)->UseRealTime()->ComputeStatistics("min", fastest);

// Console output as usual, plus the time per iteration of every run and
// aggregate (nanoseconds), by name.
class RatioReporter : public benchmark::ConsoleReporter {
 public:
  RatioReporter() : ConsoleReporter(isatty(STDOUT_FILENO) ? OO_ColorTabular : OO_Tabular) {}
  void ReportRuns(const std::vector<Run>& runs) override {
    for (const Run& run : runs) {
      if (!run.error_occurred && run.iterations > 0) {
        perIteration[run.benchmark_name()] = run.GetAdjustedRealTime();
      }
    }
    ConsoleReporter::ReportRuns(runs);
  }
  std::map<std::string, double> perIteration;
};

}  // namespace

// Both benchmarks are repeated and interleaved at random, so that a load
// change on the machine hits both alike; the ratio is that of the medians.
// Flags given on the command line override these defaults.
int main(int argc, char** argv) {
  std::vector<char*> args = {argv[0]};
  char repetitions[] = "--benchmark_repetitions=15";
  char interleave[] = "--benchmark_enable_random_interleaving=true";
  char aggregates[] = "--benchmark_report_aggregates_only=true";
  char minTime[] = "--benchmark_min_time=0.5";
  args.insert(args.end(), {repetitions, interleave, aggregates, minTime});
  args.insert(args.end(), argv + 1, argv + argc);
  int count = static_cast<int>(args.size());
  benchmark::Initialize(&count, args.data());

  const std::string dir = temporaryDirectory();
  proxySocket = dir + "/proxy.sock";
  int status = 0;
  {
    Daemon daemon(proxySocket);
    EchoServer echo(dir + "/echo.sock");
    echoServer = &echo;
    setenv("KELDO_SMBUS_SOCKET", proxySocket.c_str(), 1);
    _plSock = new PlatformLibrary::PLSocket;
    if (_plSock->setup() != 0) {
      std::perror("proxy connection");
      status = 1;
    } else {
      RatioReporter reporter;
      benchmark::RunSpecifiedBenchmarks(&reporter);
      auto find = [&](const char* name, const char* statistic = "_median") {
        for (const char* suffix : {statistic, ""}) {
          auto it = reporter.perIteration.find(std::string(name) + "/real_time" + suffix);
          if (it != reporter.perIteration.end()) return it->second;
        }
        return 0.0;
      };
      const double raw = find("BM_RawUnixEcho16"), ham = find("BM_Read8ThroughProxyDaemon"),
                   socketOnly = find("BM_SameRequestThroughPLSocketOnly"),
                   vout = find("BM_PsuOutputVoltageThroughProxyDaemon");
      if (raw > 0 && ham > 0) {
        std::printf("read8 through the proxy daemon: %.2f us; raw 16-byte echo: %.2f us; ratio %.2f (target <= 1.5)\n",
                    ham / 1000, raw / 1000, ham / raw);
        std::printf("of which PLSocket and the daemon: %.2f us\n", socketOnly / 1000);
      }
      const double hamMin = find("BM_Read8ThroughProxyDaemon", "_min"),
                   voutMin = find("BM_PsuOutputVoltageThroughProxyDaemon", "_min");
      if (ham > 0 && vout > 0 && hamMin > 0) {
        std::printf("get_output_voltage (2 operations): %.2f us; read8: %.2f us; ratio %.2f (target <= 1.2)\n",
                    vout / 1000, ham / 1000, vout / ham);
        std::printf("fastest repetitions: %.2f us and %.2f us; ratio %.2f\n", voutMin / 1000, hamMin / 1000,
                    voutMin / hamMin);
      }
    }
    delete _plSock;
    _plSock = nullptr;
    echoServer = nullptr;
  }
  unlink((proxySocket + ".ctl").c_str());
  unlink(proxySocket.c_str());
  rmdir(dir.c_str());
  benchmark::Shutdown();
  return status;
}
