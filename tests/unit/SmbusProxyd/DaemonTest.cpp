// The real daemon process over real sockets, driven by the platform client
// and the control channel.
#include <gtest/gtest.h>
#include <poll.h>
#include <signal.h>
#include <spawn.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <memory>
#include <sstream>
#include <vector>

#include "PlatformLibrary/PLSocket.h"
#include "ProxydTestSupport.h"
#include "TempDir.h"

extern char** environ;

using namespace ProxydTest;

namespace {

class Daemon {
 public:
  Daemon(const std::string& socket, const std::string& log) {
    std::vector<std::string> args = {KELDO_PROXYD, "--emulation", kBoardFile, "--socket", socket, "--log", log};
    std::vector<char*> argv;
    for (auto& a : args) argv.push_back(a.data());
    argv.push_back(nullptr);
    int out[2];
    if (pipe(out) != 0) return;
    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    posix_spawn_file_actions_adddup2(&actions, out[1], STDOUT_FILENO);
    posix_spawn_file_actions_addclose(&actions, out[0]);
    if (posix_spawn(&pid_, argv[0], &actions, nullptr, argv.data(), environ) != 0) pid_ = -1;
    posix_spawn_file_actions_destroy(&actions);
    close(out[1]);
    stdout_ = out[0];
  }
  ~Daemon() {
    if (pid_ > 0) stop();
    if (stdout_ >= 0) close(stdout_);
  }

  // The first line the daemon prints ("" when none comes within 10 s).
  std::string readyLine() {
    std::string line;
    char c;
    pollfd p{stdout_, POLLIN, 0};
    while (poll(&p, 1, 10000) > 0 && read(stdout_, &c, 1) == 1 && c != '\n') line.push_back(c);
    return line;
  }

  // SIGTERM, then the exit status.
  int stop() {
    kill(pid_, SIGTERM);
    int status = 0;
    waitpid(pid_, &status, 0);
    pid_ = -1;
    return WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
  }

 private:
  pid_t pid_ = -1;
  int stdout_ = -1;
};

// One command line to the control socket, its reply line back.
std::string control(const std::string& path, const std::string& line) {
  int fd = socket(AF_UNIX, SOCK_STREAM, 0);
  sockaddr_un a{};
  a.sun_family = AF_UNIX;
  std::snprintf(a.sun_path, sizeof(a.sun_path), "%s", path.c_str());
  if (connect(fd, reinterpret_cast<sockaddr*>(&a), sizeof(a)) != 0) {
    close(fd);
    return "connect failed";
  }
  std::string out = line + "\n";
  if (write(fd, out.data(), out.size()) != static_cast<ssize_t>(out.size())) out.clear();
  std::string reply;
  char c;
  while (read(fd, &c, 1) == 1 && c != '\n') reply.push_back(c);
  close(fd);
  return reply;
}

// Connects, sends `bytes`, and tells whether the daemon then closed the connection.
bool closedAfter(const std::string& path, const std::string& bytes) {
  int fd = socket(AF_UNIX, SOCK_STREAM, 0);
  sockaddr_un a{};
  a.sun_family = AF_UNIX;
  std::snprintf(a.sun_path, sizeof(a.sun_path), "%s", path.c_str());
  bool closed = false;
  if (connect(fd, reinterpret_cast<sockaddr*>(&a), sizeof(a)) == 0 &&
      send(fd, bytes.data(), bytes.size(), MSG_NOSIGNAL) == static_cast<ssize_t>(bytes.size())) {
    pollfd p{fd, POLLIN, 0};
    char c;
    closed = poll(&p, 1, 2000) == 1 && read(fd, &c, 1) == 0;
  }
  close(fd);
  return closed;
}

// The LM75 behind mux 0x70 channel 0: select, read the temperature, reset.
Smbus::TransactionRequest lm75Read() {
  Smbus::TransactionRequest request;
  *request.add_request() = select(kMux70, 0x01);
  *request.add_request() = entry(kLm75, Smbus::READ, 0x00, 2);
  *request.add_request() = select(kMux70, 0x00);
  request.set_retrycount(0);
  return request;
}

class DaemonTest : public ::testing::Test {
 protected:
  void SetUp() override {
    socket_ = dir_.file("proxy.sock");
    log_ = dir_.file("proxyd.log");
    setenv("KELDO_SMBUS_SOCKET", socket_.c_str(), 1);
    setenv("KELDO_SMBUS_TIMEOUT_MS", "300", 1);
  }
  void TearDown() override {
    unsetenv("KELDO_SMBUS_SOCKET");
    unsetenv("KELDO_SMBUS_TIMEOUT_MS");
  }

  // 0 and the answer, or -1 and errno.
  int transact(PlatformLibrary::PLSocket& client, std::unique_ptr<Smbus::TransactionResponse>& answer) {
    Smbus::TransactionRequest request = lm75Read();
    Smbus::TransactionResponse* raw = nullptr;
    int rc = client.sendRequestWait(&request, &raw);
    answer.reset(raw);
    return rc;
  }

  std::vector<std::string> logLines() {
    std::vector<std::string> lines;
    std::istringstream in(readFile(log_));
    for (std::string line; std::getline(in, line);) lines.push_back(line);
    return lines;
  }

  TempDir dir_;
  std::string socket_, log_;
};

TEST_F(DaemonTest, AnswersThroughThePlatformClientAndLogsEntriesInOrder) {
  Daemon daemon(socket_, log_);
  ASSERT_EQ(daemon.readyLine(), "keldo-smbus-proxyd: ready on " + socket_ + " (control " + socket_ + ".ctl)");
  PlatformLibrary::PLSocket client;
  ASSERT_EQ(client.setup(), 0);
  std::unique_ptr<Smbus::TransactionResponse> answer;
  ASSERT_EQ(transact(client, answer), 0) << std::strerror(errno);
  ASSERT_EQ(answer->response_size(), 3);
  EXPECT_EQ(answer->response(1).data(), "\x27\x80");

  auto lines = logLines();
  ASSERT_EQ(lines.size(), 3u);
  EXPECT_NE(lines[0].find("bus=3 addr=0x70 type=WRITE reg=0x1 len=0"), std::string::npos) << lines[0];
  EXPECT_NE(lines[1].find("bus=10 addr=0x48 type=READ reg=0x0 len=2 data=- result=ok answer=2780"), std::string::npos)
      << lines[1];
  EXPECT_NE(lines[2].find("bus=3 addr=0x70 type=WRITE reg=0x0 len=0"), std::string::npos) << lines[2];
  EXPECT_EQ(daemon.stop(), 0);
}

TEST_F(DaemonTest, FaultsInjectedAtRunTimeReachTheClient) {
  Daemon daemon(socket_, log_);
  ASSERT_FALSE(daemon.readyLine().empty());
  const std::string ctl = socket_ + ".ctl";
  PlatformLibrary::PLSocket client;
  ASSERT_EQ(client.setup(), 0);
  std::unique_ptr<Smbus::TransactionResponse> answer;

  ASSERT_EQ(control(ctl, "fault I2C/0/0/10/0x48 nak count 1"), "ok");
  ASSERT_EQ(transact(client, answer), 0);
  EXPECT_EQ(answer->reason(),
            "entry 1 (READ): no acknowledge; device 0x48 on bus I2C pci 0x00000000 accel 0 bus 10; 1 attempts");
  EXPECT_EQ(answer->response_size(), 0);

  ASSERT_EQ(control(ctl, "fault I2C/0/0/10/0x48 drop count 1"), "ok");
  EXPECT_EQ(transact(client, answer), -1);
  EXPECT_EQ(errno, ECONNRESET);
  EXPECT_EQ(transact(client, answer), 0) << "the next call reconnects";

  ASSERT_EQ(control(ctl, "fault I2C/0/0/10/0x48 delay 600 count 1"), "ok");
  EXPECT_EQ(transact(client, answer), -1);
  EXPECT_EQ(errno, ETIMEDOUT);
  usleep(400 * 1000);  // the late answer goes to a closed connection
  EXPECT_EQ(transact(client, answer), 0);

  ASSERT_EQ(control(ctl, "fault any fail count 1 maintenance window"), "ok");
  ASSERT_EQ(transact(client, answer), 0);
  EXPECT_EQ(answer->reason(), "maintenance window");
  EXPECT_EQ(control(ctl, "transactions"), "ok 6");
  EXPECT_EQ(daemon.stop(), 0);

  // The mux select entry ran before the device failed to answer.
  auto lines = logLines();
  ASSERT_GE(lines.size(), 2u);
  EXPECT_NE(lines[0].find("txn=1 attempt=1 entry=0 "), std::string::npos);
  EXPECT_NE(lines[1].find("txn=1 attempt=1 entry=1 "), std::string::npos);
  EXPECT_NE(lines[1].find("result=failed error=\"no acknowledge\""), std::string::npos) << lines[1];
}

TEST_F(DaemonTest, BrokenClientsAreDisconnectedWhileOthersAreServed) {
  Daemon daemon(socket_, log_);
  ASSERT_FALSE(daemon.readyLine().empty());
  PlatformLibrary::PLSocket client;
  ASSERT_EQ(client.setup(), 0);
  EXPECT_TRUE(closedAfter(socket_, std::string("\x00\x10\x00\x01", 4))) << "frame over 1 MiB";
  EXPECT_TRUE(closedAfter(socket_, std::string("\x00\x00\x00\x03\xff\xff\xff", 7))) << "unparsable body";
  EXPECT_TRUE(closedAfter(socket_ + ".ctl", std::string(5000, 'x'))) << "endless control line";
  std::unique_ptr<Smbus::TransactionResponse> answer;
  EXPECT_EQ(transact(client, answer), 0);
  EXPECT_EQ(daemon.stop(), 0);
}

TEST_F(DaemonTest, SigtermRemovesTheSocketsAndARestartIsPickedUpByTheNextCall) {
  PlatformLibrary::PLSocket client;
  std::unique_ptr<Smbus::TransactionResponse> answer;
  {
    Daemon daemon(socket_, log_);
    ASSERT_FALSE(daemon.readyLine().empty());
    ASSERT_EQ(client.setup(), 0);
    ASSERT_EQ(transact(client, answer), 0);
    EXPECT_EQ(daemon.stop(), 0);
  }
  EXPECT_NE(access(socket_.c_str(), F_OK), 0);
  EXPECT_NE(access((socket_ + ".ctl").c_str(), F_OK), 0);

  Daemon restarted(socket_, log_);
  ASSERT_FALSE(restarted.readyLine().empty());
  EXPECT_EQ(transact(client, answer), 0) << std::strerror(errno);
}

}  // namespace
