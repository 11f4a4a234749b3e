// A proxy that answers a one- or two-byte read with another number of bytes
// fails the transaction (status 6, one level-3 trace) instead of stopping the
// host in get8/get16; reads whose length the caller or the device decides
// pass through, and the next transaction is served normally. Cases in
// answer-widths.json, run in order on one access method.
#include <gtest/gtest.h>

#include <functional>
#include <map>
#include <memory>

#include "../PLSocket/ScriptedProxy.h"
#include "FakeHost.h"
#include "Ham/KeldoSmbusHam.h"
#include "Keldo.h"
#include "KeldoUtil/Json.h"
#include "PlatformLibrary/PLSocket.h"
#include "TempDir.h"

namespace {

using Ham::KeldoSmbusHam;

const std::map<std::string, std::function<void(KeldoSmbusHam&)>> kQueue = {
    {"read8", [](KeldoSmbusHam& h) { h.addRead8(0x10); }},
    {"read16", [](KeldoSmbusHam& h) { h.addRead16(0x20); }},
    {"recvByte", [](KeldoSmbusHam& h) { h.addRecvByte(); }},
    {"processCall", [](KeldoSmbusHam& h) { h.addProcessCall(0x30, 0x1234); }},
    {"read", [](KeldoSmbusHam& h) { h.addRead(0x40, 1, false); }},
    {"readBlock", [](KeldoSmbusHam& h) { h.addReadBlock(0x50); }},
};

TEST(KeldoSmbusHamAnswerWidth, AWrongWidthIsAMalformedAnswerAndTheNextTransactionIsServed) {
  rapidjson::Document cases;
  cases.Parse(readFile(KELDO_SOURCE_DIR "/tests/unit/KeldoSmbusHam/answer-widths.json").c_str());
  ASSERT_TRUE(cases.IsArray());
  // Every entry's answer data, in the order the cases send them, then those
  // of the one-shot reads below: a byte answered with two, then a good word.
  std::vector<std::string> data;
  for (const auto& c : cases.GetArray()) {
    for (const auto& d : c["answer"].GetArray()) data.emplace_back(d.GetString());
  }
  data.insert(data.end(), {"ab", "\x34\x12"});
  size_t next = 0;  // touched by the proxy thread only
  TempDir dir;
  ScriptedProxy proxy(dir.file("proxy.sock"), [&](ScriptedProxy& p, int fd) {
    for (std::string body; p.readFrame(fd, body);) {
      Smbus::TransactionRequest request;
      request.ParseFromString(body);
      Smbus::TransactionResponse answer;
      for (int i = 0; i < request.request_size(); ++i) answer.add_response()->set_data(data.at(next++));
      ScriptedProxy::writeAll(fd, ScriptedProxy::frame(answer.SerializeAsString()));
    }
  });
  setenv("KELDO_SMBUS_SOCKET", dir.file("proxy.sock").c_str(), 1);
  std::unique_ptr<PlatformLibrary::PLSocket> socket(_plSock = new PlatformLibrary::PLSocket);
  ASSERT_EQ(_plSock->setup(), 0);
  Topology::AhamAddress address;
  std::unique_ptr<KeldoSmbusHam> ham(KeldoSmbusHam::createFromAddress(address, nullptr));

  for (const auto& c : cases.GetArray()) {
    FakeHost::reset();
    ham->prepare();
    for (const auto& op : c["queue"].GetArray()) kQueue.at(op.GetString())(*ham);
    const std::string trace = c["trace"].GetString();
    EXPECT_EQ(ham->execute(), c["status"].GetInt()) << trace;
    EXPECT_EQ(FakeHost::traceTexts(3), trace.empty() ? std::vector<std::string>{} : std::vector<std::string>{trace});
  }
  uint8_t byte = 0x5A;
  EXPECT_EQ(ham->read8(0x10, &byte), PL_STATUS_INTERNAL);
  EXPECT_EQ(byte, 0x5A);  // untouched
  uint16_t word = 0;
  EXPECT_EQ(ham->read16(0x20, &word), PL_STATUS_OK);
  EXPECT_EQ(word, 0x1234);
  _plSock = nullptr;
  unsetenv("KELDO_SMBUS_SOCKET");
}

}  // namespace
