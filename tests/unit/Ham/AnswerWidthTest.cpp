// A one- or two-byte read answered with another number of bytes fails the
// transaction (6 and a level-3 trace) instead of stopping the host in
// get8/get16; a caller-sized read passes; the next transaction is served.
#include <gtest/gtest.h>

#include <memory>

#include "ScriptedProxy.h"
#include "FakeHost.h"
#include "Ham/KeldoSmbusHam.h"
#include "Keldo.h"
#include "PlatformLibrary/PLSocket.h"
#include "TempDir.h"

TEST(KeldoSmbusHamAnswerWidth, AWrongWidthIsAMalformedAnswer) {
  FakeHost::reset();
  const std::string answers[] = {"ab", "a", "abc", "", "ab", "\x34\x12"};  // one per transaction below
  size_t next = 0;  // the proxy thread's
  TempDir dir;
  ScriptedProxy proxy(dir.file("proxy.sock"), [&](ScriptedProxy& p, int fd) {
    for (std::string body; next < std::size(answers) && p.readFrame(fd, body);) {
      Smbus::TransactionResponse answer;
      answer.add_response()->set_data(answers[next++]);
      ScriptedProxy::writeAll(fd, ScriptedProxy::frame(answer.SerializeAsString()));
    }
  });
  setenv("KELDO_SMBUS_SOCKET", dir.file("proxy.sock").c_str(), 1);
  PlatformLibrary::PLSocket socket;
  ASSERT_EQ(socket.setup(), 0);
  _plSock = &socket;
  std::unique_ptr<Ham::KeldoSmbusHam> ham(Ham::KeldoSmbusHam::createFromAddress({}, nullptr));
  uint8_t byte = 0x5A;
  uint16_t word = 0x5A5A;
  std::string text;
  EXPECT_EQ(ham->read8(0x10, &byte), PL_STATUS_INTERNAL);
  EXPECT_EQ(ham->read16(0x20, &word), PL_STATUS_INTERNAL);
  EXPECT_EQ(ham->processCall(0x30, 7, &word), PL_STATUS_INTERNAL);
  EXPECT_EQ(ham->recvByte(&byte), PL_STATUS_INTERNAL);
  EXPECT_EQ(byte + word, 0x5A + 0x5A5A) << "outputs untouched";
  EXPECT_EQ(ham->read(0x40, 1, &text, false) + ham->read16(0x20, &word), PL_STATUS_OK);
  EXPECT_EQ(text + std::to_string(word), "ab4660");  // 0x1234
  const std::string width = "execute: invalid width of response entry 0 (register ";
  EXPECT_EQ(FakeHost::traceTexts(3), (std::vector<std::string>{width + "0x10); expected 1 bytes, got 2",
                                                               width + "0x20); expected 2 bytes, got 1",
                                                               width + "0x30); expected 2 bytes, got 3",
                                                               width + "0x0); expected 1 bytes, got 0"}));
  _plSock = nullptr;
}
