// What the reference proxy daemon survives, each fault tried on the real
// daemon over its socket, with small limits set on its command line: running
// out of descriptors, more clients than its cap, frames sent half-way,
// transactions too long to run, a log that would fill the disk, a stop signal
// in a long transaction, and emulation files it must refuse.
#include <gtest/gtest.h>
#include <rapidjson/document.h>
#include <signal.h>
#include <sys/stat.h>
#include <sys/wait.h>

#include <map>
#include <sstream>
#include <thread>

#include "Protocol.h"
#include "ProxydProcess.h"

namespace {

// The LM75 behind mux 0x70 channel 0; it answers "\x27\x80".
Smbus::TransactionRequest readLm75() {
  return transaction({select(kMux70, 0x01), entry(kLm75, Smbus::READ, 0x00, 2)}, 0u);
}

// Reads that succeed, then a write to the device that never answers: every
// attempt runs all `entries`.
Smbus::TransactionRequest failingAtTheEnd(int entries, uint32_t retries) {
  std::vector<Smbus::Request> e(entries - 1, entry(kCpld, Smbus::READ, 0x59, 1));
  e.push_back(entry(kDead, Smbus::WRITE, 0x02));
  return transaction(e, retries);
}

long cpuTicks(pid_t pid) {
  const std::string stat = readFile("/proc/" + std::to_string(pid) + "/stat");
  std::istringstream in(stat.substr(stat.rfind(')') + 2));
  std::string skipped;
  for (int field = 3; field < 14; ++field) in >> skipped;
  long user = 0, system = 0;
  in >> user >> system;
  return user + system;
}

long residentKiB(pid_t pid) {
  const std::string status = readFile("/proc/" + std::to_string(pid) + "/status");
  return std::stol(status.substr(status.find("VmRSS:") + 6));
}

std::vector<std::unique_ptr<RawClient>> connectClients(const ProxydProcess& daemon, int count) {
  std::vector<std::unique_ptr<RawClient>> clients;
  for (int i = 0; i < count; ++i) clients.push_back(std::make_unique<RawClient>(daemon.socket()));
  return clients;
}

TEST(ProxydLimits, OutOfDescriptorsItIdlesAndServesWaitingClientsOnceOthersLeave) {
  ProxydProcess daemon(kBoardFile, {"--max-connections", "50"}, 24);
  auto clients = connectClients(daemon, 40);
  EXPECT_TRUE(daemon.waitForOutput("cannot accept clients: Too many open files; trying again in 100 ms"));
  const long before = cpuTicks(daemon.pid());
  std::this_thread::sleep_for(std::chrono::milliseconds(500));
  EXPECT_LT(cpuTicks(daemon.pid()) - before, sysconf(_SC_CLK_TCK) / 10) << "below 20 % of a CPU, not spinning";
  EXPECT_EQ(clients.front()->exchange(readLm75()), "\x27\x80") << "clients accepted before are served";
  clients.erase(clients.begin(), clients.end() - 1);
  EXPECT_EQ(clients.back()->exchange(readLm75()), "\x27\x80") << "the client left waiting is served";
}

TEST(ProxydLimits, ClientsBeyondTheCapAreClosedWhileTheOthersAreServed) {
  ProxydProcess daemon(kBoardFile, {"--max-connections", "8"});
  auto clients = connectClients(daemon, 50);
  std::map<std::string, int> answers;
  for (auto& client : clients) ++answers[client->exchange(readLm75(), 200)];
  EXPECT_EQ(answers, (std::map<std::string, int>{{"\x27\x80", 8}, {"closed", 42}}));
  EXPECT_TRUE(daemon.waitForOutput("refused a client: 8 connections open (--max-connections)"));
  clients.clear();
  EXPECT_EQ(RawClient(daemon.socket()).exchange(readLm75()), "\x27\x80") << "served again once clients leave";
}

TEST(ProxydLimits, FramesSentHalfWayAreBoundedInMemoryAndTime) {
  ProxydProcess daemon(kBoardFile, {"--memory-budget", "4MiB", "--frame-timeout", "1000"});
  const long before = residentKiB(daemon.pid());
  const std::string allButTheLastByte = frameHeader(1 << 20) + std::string((1 << 20) - 1, 'x');
  auto hogs = connectClients(daemon, 50);
  for (auto& hog : hogs) hog->send(allButTheLastByte, 200);
  EXPECT_LT(residentKiB(daemon.pid()) - before, 16 * 1024) << "4 MiB of frames held, not 50";
  EXPECT_TRUE(daemon.waitForOutput("does not fit in the memory budget (--memory-budget 4194304 bytes"));
  EXPECT_EQ(RawClient(daemon.socket()).exchange(readLm75()), "\x27\x80") << "small requests are still served";
  EXPECT_EQ(RawClient(daemon.socket()).exchange(transaction({entry(kCpld, Smbus::READ, 0, 8192)}, 0u)),
            "the answer of 8202 bytes does not fit in the proxy's memory budget");
  EXPECT_TRUE(daemon.waitForOutput("1048579 bytes of a frame and no more for 1000 ms (--frame-timeout)"));
  int closed = 0;
  for (auto& hog : hogs) closed += hog->answer(100) == "closed";
  EXPECT_EQ(closed, 50);
}

TEST(ProxydLimits, LongTransactionsAreCutShortAndNeitherStallOthersNorFillTheDisk) {
  ProxydProcess daemon(kBoardFile, {"--log-size", "256KiB"});
  RawClient huge(daemon.socket()), cut(daemon.socket()), other(daemon.socket());
  EXPECT_EQ(huge.exchange(failingAtTheEnd(55000, 1000)),
            "transaction 1: 55000 entries exceed the limit of 10000 entry runs (--max-entry-runs)");
  const std::string frame = frameOf(failingAtTheEnd(1000, 1000));
  ASSERT_EQ(cut.send(frame, 2000), frame.size());
  EXPECT_EQ(other.exchange(readLm75(), 1000), "\x27\x80") << "answered within a second";
  EXPECT_EQ(cut.answer(1000),
            "entry 999 (WRITE): no acknowledge; device 0x3c on bus I2C pci 0x00000000 accel 0 bus 3; 10 attempts");
  EXPECT_TRUE(daemon.waitForOutput(
      ": 1000 entries x 1001 attempts exceed the limit of 10000 entry runs (--max-entry-runs); retries cut to 9"));
  EXPECT_LE(readFile(daemon.log()).size(), 256u * 1024);
  EXPECT_GT(readFile(daemon.log() + ".1").size(), 255u * 1024) << "the full log was renamed";
}

TEST(ProxydLimits, SigtermStopsALongTransactionBetweenTwoAttempts) {
  ProxydProcess daemon(kBoardFile, {"--max-entry-runs", "100000000"});
  RawClient client(daemon.socket());
  const std::string frame = frameOf(failingAtTheEnd(1000, 1000));
  ASSERT_EQ(client.send(frame, 2000), frame.size());
  std::this_thread::sleep_for(std::chrono::milliseconds(100));
  EXPECT_EQ(daemon.stop(SIGTERM, 1000), 0) << "exit status 0 within a second, not after a million entries";
  EXPECT_EQ(client.answer(100), "closed");
}

TEST(ProxydLimits, BadEmulationFilesStopTheStartWithTheirPlace) {
  TempDir dir;
  ::mkdir(dir.file("dir").c_str(), 0755);
  ::mkfifo(dir.file("fifo").c_str(), 0644);
  writeFile(dir.file("empty.bin"), "");
  writeFile(dir.file("big.bin"), std::string(65537, 'x'));
  rapidjson::Document table;
  table.Parse(readFile(KELDO_SOURCE_DIR "/tests/integration/proxyd/bad-emulation.json").c_str());
  for (const auto& c : table["cases"].GetArray()) {
    const size_t nest = c.HasMember("nest") ? c["nest"].GetUint() : 0;
    writeFile(dir.file("emulation.json"), std::string(nest, '[') + c["json"].GetString() + std::string(nest, ']'));
    std::string error = c["error"].GetString();
    if (error.find("DIR") != std::string::npos) error.replace(error.find("DIR"), 3, dir.path());
    writeFile(dir.file("out"), "");
    ChildProcess daemon({KELDO_PROXYD, "-e", dir.file("emulation.json"), "-s", dir.file("s")}, {}, dir.file("out"));
    for (int waited = 0; waited < 5000 && daemon.running(); waited += 10) {
      std::this_thread::sleep_for(std::chrono::milliseconds(10));
    }
    const int status = daemon.stop(SIGKILL);
    EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 1) << error << ": wait status " << status;
    EXPECT_EQ(readFile(dir.file("out")), "keldo-smbus-proxyd: " + dir.file("emulation.json: ") + error + "\n");
  }
}

}  // namespace
