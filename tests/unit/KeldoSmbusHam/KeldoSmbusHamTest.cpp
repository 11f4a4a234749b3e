// The SMBus transport against an in-test proxy over a real socket: what each
// operation puts on the wire, multiplexer splicing, and the failure paths.
#include <gtest/gtest.h>

#include <cerrno>
#include <cstring>
#include <memory>
#include <regex>

#include "Drivers/GenericSmbusMux.h"
#include "FakeHost.h"
#include "FakeProxy.h"
#include "Ham/KeldoSmbusHam.h"
#include "Keldo.h"
#include "KeldoUtil/NotImplementedException.h"
#include "PlatformLibrary/PLSocket.h"

using Ham::KeldoSmbusHam;

namespace {

// Device 0x50 on bus 9 of accelerator 3, register addresses of one byte.
Topology::AhamAddress deviceAddress(uint32_t address = 0x50) {
  Topology::AhamAddress a;
  a.setAddress(address);
  a.setBus(9);
  a.setAccel(3);
  a.setAddrSize(1);
  return a;
}
constexpr uint32_t kWord1 = 0x0200C4D0;  // the address above, written out by hand
const Topology::PCIAddress kPci{0xAB0100};

std::unique_ptr<KeldoSmbusHam> scdHam(uint32_t address = 0x50) {
  return std::unique_ptr<KeldoSmbusHam>(KeldoSmbusHam::createFromAddress(deviceAddress(address), &kPci));
}

class KeldoSmbusHamTest : public ::testing::Test {
 protected:
  void SetUp() override {
    FakeHost::reset();
    _plSock = new PlatformLibrary::PLSocket;
    ASSERT_EQ(_plSock->setup(), 0);
  }
  void TearDown() override {
    delete _plSock;
    _plSock = nullptr;
  }
  FakeProxy proxy;
};

struct EntryCase {
  const char* name;
  std::function<Ham::Ham::ResponseId(KeldoSmbusHam&)> queue;
  Smbus::RequestType type;
  uint32_t reg, length;
  std::string data;
  bool writeFlag;
  uint32_t readFlag;
};

TEST_F(KeldoSmbusHamTest, EveryOperationBuildsItsEntry) {
  const EntryCase cases[] = {
      {"recvByte", [](KeldoSmbusHam& h) { return h.addRecvByte(); }, Smbus::READ, 0, 0, "", false, 0},
      {"read8", [](KeldoSmbusHam& h) { return h.addRead8(0x12); }, Smbus::READ, 0x12, 1, "", false, 0},
      {"read16", [](KeldoSmbusHam& h) { return h.addRead16(0x1234); }, Smbus::READ, 0x1234, 2, "", false, 0},
      {"read flagged", [](KeldoSmbusHam& h) { return h.addRead(0x20, 7, true); }, Smbus::READ, 0x20, 7, "", false, 1},
      {"read", [](KeldoSmbusHam& h) { return h.addRead(0x21, 3, false); }, Smbus::READ, 0x21, 3, "", false, 0},
      {"readBlock", [](KeldoSmbusHam& h) { return h.addReadBlock(0x30); }, Smbus::BLOCK_READ, 0x30, 0, "", false, 0},
      {"sendByte", [](KeldoSmbusHam& h) { return h.addSendByte(0xA5, true); }, Smbus::WRITE, 0xA5, 0, "", true, 0},
      {"write8", [](KeldoSmbusHam& h) { return h.addWrite8(0x40, 0x7E, true); }, Smbus::WRITE, 0x40, 1, "\x7E", true, 0},
      {"write16", [](KeldoSmbusHam& h) { return h.addWrite16(0x41, 0xBEEF, false); }, Smbus::WRITE, 0x41, 2,
       "\xEF\xBE", false, 0},
      {"write", [](KeldoSmbusHam& h) { return h.addWrite(0x42, "abc", 3, true); }, Smbus::WRITE, 0x42, 3, "abc", true, 0},
      {"writeBlock", [](KeldoSmbusHam& h) { return h.addWriteBlock(0x43, "\x01\x02", 2, false); }, Smbus::BLOCK_WRITE,
       0x43, 2, "\x01\x02", false, 0},
      {"processCall", [](KeldoSmbusHam& h) { return h.addProcessCall(0x44, 0x1234); }, Smbus::PROCESS_CALL, 0x44, 2,
       "\x34\x12", false, 0},
  };
  auto ham = scdHam();
  ham->prepare();
  Ham::Ham::ResponseId expectedId = 0;
  for (const auto& c : cases) EXPECT_EQ(c.queue(*ham), expectedId++) << c.name;
  ASSERT_EQ(ham->execute(), PL_STATUS_OK);

  ASSERT_EQ(proxy.requests().size(), 1u);
  const Smbus::TransactionRequest sent = proxy.requests()[0];
  ASSERT_EQ(sent.request_size(), static_cast<int>(std::size(cases)));
  for (size_t i = 0; i < std::size(cases); ++i) {
    const EntryCase& c = cases[i];
    const Smbus::Request& e = sent.request(static_cast<int>(i));
    EXPECT_EQ(e.type(), c.type) << c.name;
    EXPECT_EQ(e.address(), uint64_t{kWord1 | c.readFlag << 21} << 32 | c.reg) << c.name;
    EXPECT_EQ(e.length(), c.length) << c.name;
    EXPECT_EQ(e.data(), c.data) << c.name;
    EXPECT_EQ(e.writeflag(), c.writeFlag) << c.name;
    EXPECT_EQ(e.mastertype(), Smbus::SCD) << c.name;
    EXPECT_EQ(e.pciaddress(), 0xAB0100u) << c.name;
  }
}

// Two multiplexers, outer chip 0x70 on channel 4, inner chip 0x71 on channel 8.
TEST_F(KeldoSmbusHamTest, MuxChainSelectsOutermostFirstAndResetsInnermostFirst) {
  auto outerHam = scdHam(0x70), innerHam = scdHam(0x71);
  Drivers::GenericSmbusMux outerChip(outerHam.get()), innerChip(innerHam.get());
  auto ham = scdHam();
  ham->muxes = {outerChip.newMux({}, 4), innerChip.newMux({}, 8)};
  ham->init();
  EXPECT_EQ(ham->prepareRequestCount_, 2);

  for (int round = 0; round < 2; ++round) {  // the selections survive prepare()
    proxy.thenEntries({"", "", "\x99", "", "", ""});
    ham->prepare();
    EXPECT_EQ(ham->addRead8(0x10), 0u);
    EXPECT_EQ(ham->addWrite8(0x11, 5, false), 1u);
    ASSERT_EQ(ham->execute(), PL_STATUS_OK);
    EXPECT_EQ(ham->get8(0), 0x99);  // entry 2: after the two selections
  }
  ASSERT_EQ(proxy.requests().size(), 2u);
  const Smbus::TransactionRequest sent = proxy.requests()[1];
  const std::pair<uint32_t, uint32_t> expected[] = {  // (device address, register)
      {0x70, 4}, {0x71, 8}, {0x50, 0x10}, {0x50, 0x11}, {0x71, 0}, {0x70, 0}};
  ASSERT_EQ(sent.request_size(), 6);
  for (int i = 0; i < 6; ++i) {
    EXPECT_EQ(sent.request(i).address() >> 32 & 0x7F, expected[i].first) << i;
    EXPECT_EQ(sent.request(i).address() & 0xFFFFFFFF, expected[i].second) << i;
  }
  EXPECT_EQ(sent.request(0).type(), Smbus::WRITE);
  EXPECT_EQ(sent.request(0).length(), 0u);
}

TEST_F(KeldoSmbusHamTest, RetryCountIsSentOnlyAfterRetryCountIs) {
  auto ham = scdHam();
  EXPECT_EQ(ham->write8(1, 2, false), PL_STATUS_OK);
  ham->retryCountIs(0);
  EXPECT_EQ(ham->write8(1, 2, false), PL_STATUS_OK);
  ham->retryCountIs(3);
  EXPECT_EQ(ham->write8(1, 2, false), PL_STATUS_OK);
  auto sent = proxy.requests();
  ASSERT_EQ(sent.size(), 3u);
  EXPECT_FALSE(sent[0].has_retrycount());
  EXPECT_TRUE(sent[1].has_retrycount());
  EXPECT_EQ(sent[1].retrycount(), 0u);
  EXPECT_EQ(sent[2].retrycount(), 3u);
}

TEST_F(KeldoSmbusHamTest, FailedAnswersGiveStatusSixWithTheirReason) {
  auto ham = scdHam();
  proxy.thenFailure("entry 0: no acknowledge from 0x50 on bus 9");
  proxy.thenFailure(nullptr);
  proxy.thenEntries({"", ""});
  uint8_t value = 0x5A;
  EXPECT_EQ(ham->read8(1, &value), PL_STATUS_INTERNAL);
  EXPECT_EQ(ham->read8(1, &value), PL_STATUS_INTERNAL);
  EXPECT_EQ(ham->read8(1, &value), PL_STATUS_INTERNAL);
  EXPECT_EQ(value, 0x5A);
  EXPECT_EQ(FakeHost::traceTexts(3), (std::vector<std::string>{
                                         "execute: failure in response entry 0: no acknowledge from 0x50 on bus 9",
                                         "execute: failure in response unknown reason",
                                         "execute: invalid number of response entries; expected 1, got 2"}));
}

TEST_F(KeldoSmbusHamTest, SocketErrorGivesStatusFourAndTheNextTransactionReconnects) {
  auto ham = scdHam();
  proxy.thenHangUp();
  EXPECT_EQ(ham->write8(1, 2, false), PL_STATUS_UNAVAILABLE);
  EXPECT_EQ(ham->write8(1, 2, false), PL_STATUS_OK);

  PlatformLibrary::PLSocket* socket = _plSock;
  _plSock = nullptr;  // never connected
  EXPECT_EQ(ham->write8(1, 2, false), PL_STATUS_UNAVAILABLE);
  _plSock = socket;

  auto lines = FakeHost::traceTexts(3);
  ASSERT_EQ(lines.size(), 2u);
  std::smatch m;
  ASSERT_TRUE(std::regex_match(lines[0], m, std::regex("execute: error\\. (\\d+), (.*)")));
  EXPECT_EQ(m[2].str(), std::strerror(std::stoi(m[1].str())));
  EXPECT_EQ(lines[1], "execute: error. " + std::to_string(ENOTCONN) + ", " + std::strerror(ENOTCONN));
}

// Fetches read the answer held by the access method; no proxy needed.
KeldoSmbusHam& answered(KeldoSmbusHam& ham, std::initializer_list<const char*> data) {
  ham.response.Clear();
  for (const char* d : data) ham.response.add_response()->set_data(d);
  return ham;
}

TEST(KeldoSmbusHamFetch, DecodesLittleEndianWordsAndWholeBlocks) {
  auto ham = scdHam();
  answered(*ham, {"\x34\x12", "\x7f", "abcdef"});
  EXPECT_EQ(ham->get16(0), 0x1234);
  EXPECT_EQ(ham->get8(1), 0x7F);
  EXPECT_EQ(ham->getBlock(2, 2), "abcdef");
  EXPECT_THROW(ham->addRead32(0), NotImplementedException);
  EXPECT_THROW(ham->addWrite32(0, 0, false), NotImplementedException);
  EXPECT_THROW(ham->get32(0), NotImplementedException);
}

TEST(KeldoSmbusHamFetchDeathTest, MisuseStopsTheProcess) {
  auto ham = scdHam();
  answered(*ham, {"\x34\x12", "\x7f"});
  EXPECT_DEATH(ham->get8(0), "data.size\\(\\) == 1");
  EXPECT_DEATH(ham->get16(1), "data.size\\(\\) == 2");
  EXPECT_DEATH(ham->get8(Ham::Ham::INVALID_RESPONSE_ID), "idx != INVALID_RESPONSE_ID");
  EXPECT_DEATH(ham->getBlock(2, 0),
               "\\( uint32_t \\)response_.response_size\\(\\) > prepareRequestCount_ \\+ idx");
}

}  // namespace
