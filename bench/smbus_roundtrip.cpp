// Cost of one SMBus transaction through the whole client path (KeldoSmbusHam
// request building, PLSocket framing, the reference proxy daemon, answer
// matching) against the floor any socket transport pays: a 16-byte message
// echoed over a Unix stream socket. Both run in the same process run, and the
// ratio of the two is printed at the end.
//
//   bench_smbus_roundtrip [--benchmark_min_time=2]
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <cstdio>
#include <memory>
#include <stdexcept>
#include <string>
#include <thread>

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

// The sensor at 0x48 on plain I2C bus 3 of the board the daemon plays.
std::unique_ptr<Ham::KeldoSmbusHam> sensorHam() {
  Topology::AhamAddress address;
  address.setAddress(0x48);
  address.setBus(3);
  address.setAddrSize(1);
  return std::unique_ptr<Ham::KeldoSmbusHam>(Ham::KeldoSmbusHam::createFromAddress(address, nullptr));
}

// A device on a plain I2C bus, one register: the shortest transaction.
void BM_Read8ThroughProxyDaemon(benchmark::State& state) {
  std::unique_ptr<Ham::KeldoSmbusHam> ham = sensorHam();
  uint8_t value = 0;
  for (auto _ : state) {
    if (ham->read8(0x00, &value) != PL_STATUS_OK) state.SkipWithError("read8 failed");
  }
  if (value != 0x19) state.SkipWithError("unexpected register value");
}

// The same request prebuilt and sent with PLSocket alone: the share of the
// access method is the difference to the benchmark above.
void BM_SameRequestThroughPLSocketOnly(benchmark::State& state) {
  std::unique_ptr<Ham::KeldoSmbusHam> ham = sensorHam();
  ham->prepare();
  ham->addRead8(0x00);
  for (auto _ : state) {
    Smbus::TransactionResponse* response = nullptr;
    if (_plSock->sendRequestWait(&ham->request, &response) != 0) state.SkipWithError("send failed");
    delete response;
  }
}

BENCHMARK(BM_RawUnixEcho16)->UseRealTime();
BENCHMARK(BM_SameRequestThroughPLSocketOnly)->UseRealTime();
BENCHMARK(BM_Read8ThroughProxyDaemon)->UseRealTime();

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
                   socketOnly = reporter.median("BM_SameRequestThroughPLSocketOnly");
      if (raw > 0 && ham > 0) {
        std::printf("read8 through the proxy daemon: %.2f us; raw 16-byte echo: %.2f us; ratio %.2f (target <= 1.5)\n",
                    ham / 1000, raw / 1000, ham / raw);
        std::printf("of which PLSocket and the daemon: %.2f us\n", socketOnly / 1000);
      }
    }
    echoServer = nullptr;
  }
  benchmark::Shutdown();
  return status;
}
