// The proxy client against a scripted proxy on a real Unix socket: framing,
// answers in pieces, and what the daemon never does (silence, garbage, early
// hang-ups). A restarted daemon is in tests/integration/proxyd/ProxydTest.cpp.
#include "PlatformLibrary/PLSocket.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <pthread.h>
#include <signal.h>

#include <atomic>
#include <cerrno>
#include <chrono>
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

Smbus::TransactionRequest sampleRequest(size_t dataBytes = 2) {
  Smbus::TransactionRequest request;
  request.add_request()->set_data(std::string(dataBytes, 'd'));
  request.set_retrycount(0);
  return request;
}

std::string answerFrame(const std::string& data) {
  Smbus::TransactionResponse response;
  response.add_response()->set_data(data);
  return ScriptedProxy::frame(response.SerializeAsString());
}

class PLSocketTest : public ::testing::Test {
 protected:
  void SetUp() override {
    setenv("KELDO_SMBUS_SOCKET", path_.c_str(), 1);
    setenv("KELDO_SMBUS_TIMEOUT_MS", "300", 1);
  }
  // Sends sampleRequest(): the answer's only entry, or the error.
  static std::string send(PLSocket& socket, size_t dataBytes = 2) {
    Smbus::TransactionRequest request = sampleRequest(dataBytes);
    Smbus::TransactionResponse* raw = nullptr;
    const int rc = socket.sendRequestWait(&request, &raw);
    std::unique_ptr<Smbus::TransactionResponse> answer(raw);
    if (rc != 0) return answer ? "an answer despite the error" : error(errno);
    return answer->response_size() == 1 ? answer->response(0).data() : "not one entry";
  }
  static std::string error(int e) { return std::string("error: ") + std::strerror(e); }

  TempDir dir_;
  std::string path_ = dir_.file("proxy.sock");
};

TEST_F(PLSocketTest, SetupAndRequestsFailWhileNothingListens) {
  PLSocket socket;
  errno = 0;
  EXPECT_EQ(socket.setup(), -1);
  EXPECT_EQ(errno, ENOENT);
  EXPECT_EQ(send(socket), error(ENOENT));
}

TEST_F(PLSocketTest, FramesCarryTheRequestAndAnswersArrivingInPiecesOrLarge) {
  const std::string big(600 * 1024, 'x');  // more than one socket buffer
  std::string seen;
  ScriptedProxy proxy(path_, [&](ScriptedProxy& p, int fd) {
    if (!p.readFrame(fd, seen)) return;
    const std::string frame = answerFrame("\x34\x12");
    for (const std::string& piece : {frame.substr(0, 2), frame.substr(2, 5), frame.substr(7)}) {
      ScriptedProxy::writeAll(fd, piece);  // split inside the header and inside the message
      std::this_thread::sleep_for(20ms);
    }
    std::string second;
    if (p.readFrame(fd, second)) ScriptedProxy::writeAll(fd, answerFrame(big));
  });
  PLSocket socket;
  ASSERT_EQ(socket.setup(), 0);
  EXPECT_EQ(send(socket), "\x34\x12");
  EXPECT_EQ(seen, sampleRequest().SerializeAsString());
  EXPECT_EQ(send(socket), big) << "on the same connection, or the script starts over";
}

TEST_F(PLSocketTest, FailuresReportErrnoCloseTheConnectionAndAreNotResent) {
  const struct {
    const char* name;
    std::function<void(int)> answer;  // null: hang up after the first byte
    int error;
    size_t requestBytes = 2;
    int orError = 0;
  } cases[] = {
      {"silent proxy", [](int) { std::this_thread::sleep_for(600ms); }, ETIMEDOUT},
      {"closed without answer", [](int) {}, ECONNRESET},
      {"unparsable message", [](int fd) { ScriptedProxy::writeAll(fd, ScriptedProxy::header(3) + "\xff\xff\xff"); },
       EPROTO},
      {"frame over 1 MiB", [](int fd) { ScriptedProxy::writeAll(fd, ScriptedProxy::header(0x100001)); }, EPROTO},
      // Closed while the request is still being written: an error, not SIGPIPE.
      {"closed mid-request", nullptr, EPIPE, 900 * 1024, ECONNRESET},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.name);
    std::atomic<int> requests{0};
    auto proxy = std::make_unique<ScriptedProxy>(path_, [&](ScriptedProxy& p, int fd) {
      std::string body;
      char byte;
      if (!c.answer) {
        (void)!::recv(fd, &byte, 1, 0);
      } else if (p.readFrame(fd, body)) {
        ++requests;
        c.answer(fd);
      }
    });
    PLSocket socket;
    ASSERT_EQ(socket.setup(), 0);
    const auto start = std::chrono::steady_clock::now();
    EXPECT_THAT(send(socket, c.requestBytes), testing::AnyOf(error(c.error), error(c.orError ? c.orError : c.error)));
    const auto took = std::chrono::steady_clock::now() - start;
    EXPECT_LT(took, 1500ms);
    EXPECT_TRUE(c.error != ETIMEDOUT || took >= 290ms);
    EXPECT_EQ(socket.fd_, -1);
    proxy.reset();
    EXPECT_EQ(requests, c.answer ? 1 : 0) << "sent once";
  }
}

TEST_F(PLSocketTest, BytesSentUnaskedAfterAnAnswerMoveTheNextRequestToANewConnection) {
  std::atomic<int> connections{0}, requestsOnFirst{0};
  ScriptedProxy proxy(path_, [&](ScriptedProxy& p, int fd) {
    std::string body;
    if (++connections == 1) {
      while (p.readFrame(fd, body)) {
        ++requestsOnFirst;
        ScriptedProxy::writeAll(fd, answerFrame("one") + std::string(2, '\0'));  // one write: answer, stray bytes
      }
      return;
    }
    while (p.readFrame(fd, body)) ScriptedProxy::writeAll(fd, answerFrame("two"));
  });
  PLSocket socket;
  ASSERT_EQ(socket.setup(), 0);
  EXPECT_EQ(send(socket), "one");
  EXPECT_EQ(send(socket), "two");
  EXPECT_EQ(send(socket), "two");
  EXPECT_EQ(requestsOnFirst, 1);
  EXPECT_EQ(connections, 2);
}

TEST_F(PLSocketTest, ShortTimeLimitsHoldForAnswersAndSilence) {
  setenv("KELDO_SMBUS_TIMEOUT_MS", "40", 1);
  std::atomic<int> requests{0};
  ScriptedProxy proxy(path_, [&](ScriptedProxy& p, int fd) {
    std::string body;
    while (p.readFrame(fd, body)) {
      if (++requests == 2) return std::this_thread::sleep_for(200ms);
      ScriptedProxy::writeAll(fd, answerFrame("\x01"));
    }
  });
  PLSocket socket;
  ASSERT_EQ(socket.setup(), 0);
  EXPECT_EQ(send(socket), "\x01");
  const auto start = std::chrono::steady_clock::now();
  EXPECT_EQ(send(socket), error(ETIMEDOUT));
  const auto took = std::chrono::steady_clock::now() - start;
  // A stretched limit would outlast the proxy's 200 ms and see it hang up
  // instead of timing out, so only the lower bound needs a clock.
  EXPECT_GE(took, 38ms);
}

// A handler installed without SA_RESTART interrupts whatever the waiting
// thread is blocked in; the wait goes on for the time that is left.
TEST_F(PLSocketTest, SignalsDuringTheWaitNeitherLoseTheAnswerNorStretchTheLimit) {
  struct sigaction quiet = {};
  struct sigaction previous = {};
  quiet.sa_handler = [](int) {};
  sigemptyset(&quiet.sa_mask);
  ASSERT_EQ(sigaction(SIGUSR1, &quiet, &previous), 0);
  std::atomic<int> requests{0};
  ScriptedProxy proxy(path_, [&](ScriptedProxy& p, int fd) {
    std::string body;
    while (p.readFrame(fd, body)) {
      std::this_thread::sleep_for(++requests == 1 ? 120ms : 600ms);
      ScriptedProxy::writeAll(fd, answerFrame("late"));
    }
  });
  PLSocket socket;
  ASSERT_EQ(socket.setup(), 0);
  std::atomic<bool> done{false};
  const pthread_t waiter = pthread_self();
  std::thread interrupter([&] {
    while (!done) {
      std::this_thread::sleep_for(25ms);
      pthread_kill(waiter, SIGUSR1);
    }
  });
  EXPECT_EQ(send(socket), "late");
  const auto start = std::chrono::steady_clock::now();
  EXPECT_EQ(send(socket), error(ETIMEDOUT));
  const auto took = std::chrono::steady_clock::now() - start;
  done = true;
  interrupter.join();
  sigaction(SIGUSR1, &previous, nullptr);
  // A limit restarted by every signal would last until the answer at 600 ms
  // and return it instead of timing out.
  EXPECT_GE(took, 290ms);
}

}  // namespace
