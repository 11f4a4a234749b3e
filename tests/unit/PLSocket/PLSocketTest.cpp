// The proxy client against a scripted proxy on a real Unix socket: what the
// reference daemon never does (garbled or split frames, early hang-ups).
// Time-outs, dropped connections and restarts against the daemon itself are
// in tests/unit/SmbusProxyd/DaemonTest.cpp.
#include "PlatformLibrary/PLSocket.h"

#include <gtest/gtest.h>
#include <sys/socket.h>
#include <sys/un.h>

#include <atomic>
#include <cerrno>
#include <chrono>
#include <cstdlib>
#include <cstring>
#include <functional>
#include <memory>
#include <thread>

#include "KeldoUtil/Smbus.pb.h"
#include "ScriptedProxy.h"
#include "TempDir.h"

using PlatformLibrary::PLSocket;
using namespace std::chrono_literals;

namespace {

Smbus::TransactionRequest sampleRequest() {
  Smbus::TransactionRequest request;
  Smbus::Request* select = request.add_request();
  select->set_address((uint64_t{0x02000000 | (3 << 7) | 0x70} << 32) | 0x01);
  select->set_type(Smbus::WRITE);
  Smbus::Request* write = request.add_request();
  write->set_address((uint64_t{0x02000000 | (10 << 7) | 0x48} << 32) | 0x02);
  write->set_type(Smbus::WRITE);
  write->set_length(2);
  write->set_writeflag(true);
  write->set_pciaddress(0xff00);
  write->set_mastertype(Smbus::SCD);
  write->set_data(std::string("\x4b\x00", 2));
  request.set_retrycount(0);
  return request;
}

std::string answerBody(std::initializer_list<std::string> entries) {
  Smbus::TransactionResponse response;
  for (const std::string& data : entries) response.add_response()->set_data(data);
  return response.SerializeAsString();
}

class PLSocketTest : public ::testing::Test {
 protected:
  void SetUp() override {
    path_ = dir_.file("proxy.sock");
    setenv("KELDO_SMBUS_SOCKET", path_.c_str(), 1);
    setenv("KELDO_SMBUS_TIMEOUT_MS", "300", 1);
  }
  void TearDown() override {
    unsetenv("KELDO_SMBUS_SOCKET");
    unsetenv("KELDO_SMBUS_TIMEOUT_MS");
  }

  // Sends sampleRequest(); the response is owned by the test.
  int send(PLSocket& socket, std::unique_ptr<Smbus::TransactionResponse>& response) {
    Smbus::TransactionRequest request = sampleRequest();
    Smbus::TransactionResponse* raw = nullptr;
    int rc = socket.sendRequestWait(&request, &raw);
    response.reset(raw);
    return rc;
  }

  TempDir dir_;
  std::string path_;
};

TEST_F(PLSocketTest, SetupFailsWhileNothingListens) {
  PLSocket socket;
  errno = 0;
  EXPECT_NE(socket.setup(), 0);
  EXPECT_EQ(errno, ENOENT) << "no socket file";

  // A socket file that nobody serves, as a crashed proxy leaves behind.
  int stale = ::socket(AF_UNIX, SOCK_STREAM, 0);
  sockaddr_un a{};
  a.sun_family = AF_UNIX;
  std::snprintf(a.sun_path, sizeof(a.sun_path), "%s", path_.c_str());
  ASSERT_EQ(::bind(stale, reinterpret_cast<sockaddr*>(&a), sizeof(a)), 0);
  ::close(stale);
  errno = 0;
  EXPECT_NE(socket.setup(), 0);
  EXPECT_EQ(errno, ECONNREFUSED);
  EXPECT_EQ(socket.fd_, -1);

  std::unique_ptr<Smbus::TransactionResponse> response;
  EXPECT_EQ(send(socket, response), -1);
  EXPECT_EQ(errno, ECONNREFUSED);
  EXPECT_EQ(response, nullptr);
}

TEST_F(PLSocketTest, FramesCarryTheRequestAndAnAnswerArrivingInPieces) {
  ScriptedProxy::Server proxy(path_);
  ASSERT_TRUE(proxy.listening());
  std::string seenHeader, seenBody;
  const std::string big(600 * 1024, 'x');  // larger than one socket buffer
  proxy.serve(1, [&](int fd) {
    seenHeader.assign(4, '\0');
    ScriptedProxy::readAll(fd, seenHeader.data(), 4);
    uint32_t n = (uint32_t{uint8_t(seenHeader[0])} << 24) | (uint32_t{uint8_t(seenHeader[1])} << 16) |
                 (uint32_t{uint8_t(seenHeader[2])} << 8) | uint8_t(seenHeader[3]);
    seenBody.assign(n, '\0');
    ScriptedProxy::readAll(fd, seenBody.data(), n);
    std::string body = answerBody({"", std::string("\x34\x12", 2)});
    ScriptedProxy::writeAll(fd, ScriptedProxy::header(static_cast<uint32_t>(body.size())));
    std::this_thread::sleep_for(20ms);
    ScriptedProxy::writeAll(fd, body.substr(0, 3));
    std::this_thread::sleep_for(20ms);
    ScriptedProxy::writeAll(fd, body.substr(3));
    // Second transaction on the same connection, with a large answer.
    std::string ignored;
    ScriptedProxy::readFrame(fd, ignored);
    body = answerBody({big});
    ScriptedProxy::writeAll(fd, ScriptedProxy::header(static_cast<uint32_t>(body.size())) + body);
  });

  PLSocket socket;
  ASSERT_EQ(socket.setup(), 0);
  std::unique_ptr<Smbus::TransactionResponse> response;
  ASSERT_EQ(send(socket, response), 0);
  ASSERT_EQ(response->response_size(), 2);
  EXPECT_EQ(response->response(0).data(), "");
  EXPECT_EQ(response->response(1).data(), std::string("\x34\x12", 2));
  EXPECT_EQ(response->failure(), 0u);

  ASSERT_EQ(send(socket, response), 0);
  ASSERT_EQ(response->response_size(), 1);
  EXPECT_EQ(response->response(0).data(), big);
  proxy.stop();

  const std::string expectedBody = sampleRequest().SerializeAsString();
  EXPECT_EQ(seenHeader, ScriptedProxy::header(static_cast<uint32_t>(expectedBody.size())));
  EXPECT_EQ(seenBody, expectedBody);
  EXPECT_EQ(proxy.accepted(), 1) << "the connection is kept between transactions";
}

TEST_F(PLSocketTest, FailuresReportErrnoCloseTheConnectionAndAreNotRetried) {
  const struct {
    const char* name;
    std::function<void(int)> answer;
    int expected;
  } cases[] = {
      {"silent proxy", [](int) { std::this_thread::sleep_for(600ms); }, ETIMEDOUT},
      {"closed without answer", [](int) {}, ECONNRESET},
      {"unparsable body",
       [](int fd) { ScriptedProxy::writeAll(fd, ScriptedProxy::header(3) + "\xff\xff\xff"); }, EPROTO},
      {"frame over 1 MiB", [](int fd) { ScriptedProxy::writeAll(fd, ScriptedProxy::header(0x100001)); }, EPROTO},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.name);
    ScriptedProxy::Server proxy(path_);
    std::atomic<int> requests{0};
    proxy.serve(1, [&](int fd) {
      std::string body;
      if (!ScriptedProxy::readFrame(fd, body)) return;
      ++requests;
      c.answer(fd);
    });
    PLSocket socket;
    ASSERT_EQ(socket.setup(), 0);
    std::unique_ptr<Smbus::TransactionResponse> response;
    auto start = std::chrono::steady_clock::now();
    errno = 0;
    EXPECT_EQ(send(socket, response), -1);
    EXPECT_EQ(errno, c.expected);
    auto took = std::chrono::steady_clock::now() - start;
    EXPECT_EQ(response, nullptr);
    EXPECT_EQ(socket.fd_, -1);
    EXPECT_LT(took, 1500ms);
    if (c.expected == ETIMEDOUT) {
      EXPECT_GE(took, 290ms);
    }
    proxy.stop();
    EXPECT_EQ(requests, 1);
  }
}

TEST_F(PLSocketTest, PeerClosingMidRequestIsAnErrorNotASignal) {
  ScriptedProxy::Server proxy(path_);
  proxy.serve(1, [](int fd) {
    char header[4];
    ScriptedProxy::readAll(fd, header, 4);  // then hang up with the body unread
  });
  PLSocket socket;
  ASSERT_EQ(socket.setup(), 0);
  Smbus::TransactionRequest request = sampleRequest();
  request.mutable_request(1)->set_data(std::string(900 * 1024, 'd'));
  Smbus::TransactionResponse* response = nullptr;
  errno = 0;
  EXPECT_EQ(socket.sendRequestWait(&request, &response), -1);
  EXPECT_TRUE(errno == EPIPE || errno == ECONNRESET) << std::strerror(errno);
  EXPECT_EQ(response, nullptr);
}

}  // namespace
