// Cost of one SMBus transaction through the whole client path (KeldoSmbusHam
// request building, PLSocket framing, the reference proxy daemon, answer
// matching) against the floor any socket transport pays: a 16-byte message
// echoed over a Unix stream socket; and a PSU reading of two operations
// (Pmbus::get_output_voltage) against the one-register read. All run in the
// same process run, and the ratios are printed at the end.
//
//   bench_smbus_roundtrip [--benchmark_min_time=2]
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <memory>
#include <stdexcept>
#include <string>
#include <thread>

#include "Drivers/Pmbus.h"
#include "Ham/KeldoSmbusHam.h"
#include "ProxyBench.h"

// The host's trace service. A host filters by level before formatting, and
// the per-request line of the transport is level 4, below what a production
// host shows; the stand-in drops everything.
extern "C" void pl_trace(int, const char*, ...) {}

namespace {

sockaddr_un unixAddress(const std::string& path) {
  sockaddr_un addr{};
  addr.sun_family = AF_UNIX;
  std::snprintf(addr.sun_path, sizeof addr.sun_path, "%s", path.c_str());
  return addr;
}

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

}  // namespace

// The daemon plays the integration tests' board (an I2C bus 3 with a device
// at 0x48).
int main(int argc, char** argv) {
  bench::initialize(argc, argv);
  int status = 0;
  {
    bench::ProxyDaemon daemon(KELDO_SOURCE_DIR "/tests/data/smbus/board.json");
    EchoServer echo(daemon.dir() + "/echo.sock");
    echoServer = &echo;
    if (!daemon.connected()) {
      status = 1;
    } else {
      bench::MedianReporter reporter;
      benchmark::RunSpecifiedBenchmarks(&reporter);
      const double raw = reporter.median("BM_RawUnixEcho16"), ham = reporter.median("BM_Read8ThroughProxyDaemon"),
                   socketOnly = reporter.median("BM_SameRequestThroughPLSocketOnly"),
                   vout = reporter.median("BM_PsuOutputVoltageThroughProxyDaemon");
      if (raw > 0 && ham > 0) {
        std::printf("read8 through the proxy daemon: %.2f us; raw 16-byte echo: %.2f us; ratio %.2f (target <= 1.5)\n",
                    ham / 1000, raw / 1000, ham / raw);
        std::printf("of which PLSocket and the daemon: %.2f us\n", socketOnly / 1000);
      }
      const double hamMin = reporter.fastest("BM_Read8ThroughProxyDaemon"),
                   voutMin = reporter.fastest("BM_PsuOutputVoltageThroughProxyDaemon");
      if (ham > 0 && vout > 0 && hamMin > 0) {
        std::printf("get_output_voltage (2 operations): %.2f us; read8: %.2f us; ratio %.2f (target <= 1.2)\n",
                    vout / 1000, ham / 1000, vout / ham);
        std::printf("fastest repetitions: %.2f us and %.2f us; ratio %.2f\n", voutMin / 1000, hamMin / 1000,
                    voutMin / hamMin);
      }
    }
    echoServer = nullptr;
  }
  benchmark::Shutdown();
  return status;
}
