// The SMBus transport against a scripted proxy over a real socket: what each
// operation puts on the wire, resolution from the topology, multiplexer
// splicing, and the failure paths.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cerrno>
#include <cstring>
#include <deque>
#include <functional>
#include <memory>
#include <mutex>
#include <optional>

#include "ScriptedProxy.h"
#include "Drivers/Drivers.h"
#include "FakeHost.h"
#include "Ham/KeldoSmbusHam.h"
#include "Keldo.h"
#include "KeldoUtil/NotImplementedException.h"
#include "PlatformLibrary/PLSocket.h"
#include "TempDir.h"
#include "Topology.h"

using Ham::KeldoSmbusHam;

namespace {

// SCD 0x1234, accelerator 2, bus 5: device 96 (component 7) on the bus and
// device 97 (component 9) behind mux 0x70 channel 4 and mux 0x71 channel 8.
// Two plain I2C buses, one flagged.
const std::string kBoard = readFile(KELDO_SOURCE_DIR "/tests/unit/Ham/keldosmbus-board.json");

// Word 1 of a resolved address: device, bus, accelerator, bits 25-26 = 1.
constexpr uint32_t word1(uint32_t address, uint32_t bus, uint32_t accel) {
  return address | bus << 7 | accel << 14 | 1u << 25;
}

// Device 0x50 on bus 9 of accelerator 3 of the SCD at PCI 0xAB0100.
constexpr uint32_t kScdWord1 = word1(0x50, 9, 3);
std::unique_ptr<KeldoSmbusHam> scdHam() {
  Topology::AhamAddress a;
  a.word1 = kScdWord1;
  const Topology::PCIAddress pci{0xAB0100};
  return std::unique_ptr<KeldoSmbusHam>(KeldoSmbusHam::createFromAddress(a, &pci));
}

Smbus::TransactionResponse entries(std::initializer_list<std::string> data) {
  Smbus::TransactionResponse response;
  for (const std::string& d : data) response.add_response()->set_data(d);
  return response;
}

Smbus::TransactionResponse failure(const char* reason) {
  Smbus::TransactionResponse response;
  response.set_failure(1);
  if (reason) response.set_reason(reason);
  return response;
}

class KeldoSmbusHamTest : public ::testing::Test {
 protected:
  void SetUp() override {
    FakeHost::reset();
    ASSERT_EQ(Topology::loadTopology(kBoard.c_str()), PL_STATUS_OK);
    setenv("KELDO_SMBUS_SOCKET", dir_.file("proxy.sock").c_str(), 1);
    _plSock = new PlatformLibrary::PLSocket;
    ASSERT_EQ(_plSock->setup(), 0);
  }
  void TearDown() override {
    delete _plSock;
    _plSock = nullptr;
    unsetenv("KELDO_SMBUS_SOCKET");
  }

  // The proxy's next answer (nullopt: it hangs up instead). Without one it
  // answers an empty entry per request entry.
  void then(std::optional<Smbus::TransactionResponse> answer) {
    std::lock_guard<std::mutex> lock(mutex_);
    answers_.push_back(std::move(answer));
  }
  std::vector<Smbus::TransactionRequest> sent() {
    std::lock_guard<std::mutex> lock(mutex_);
    return requests_;
  }
  // The access method of topology device `did`, looked up by its component
  // `uid` or by itself (NO_COMPONENT); not yet initialised.
  static KeldoSmbusHam* resolve(uint32_t did, uint32_t uid) {
    Drivers::DriverArgs args = *Topology::findDevice(did)->args;
    args.uid = uid;
    return KeldoSmbusHam::create(*Topology::_topology, args);
  }

 private:
  void serve(ScriptedProxy& proxy, int fd) {
    for (std::string body; proxy.readFrame(fd, body);) {
      std::lock_guard<std::mutex> lock(mutex_);
      requests_.emplace_back().ParseFromString(body);
      std::optional<Smbus::TransactionResponse> answer(std::in_place);
      for (int i = 0; i < requests_.back().request_size(); ++i) answer->add_response();
      if (!answers_.empty()) {
        answer = std::move(answers_.front());
        answers_.pop_front();
      }
      if (!answer) return;
      ScriptedProxy::writeAll(fd, ScriptedProxy::frame(answer->SerializeAsString()));
    }
  }

  TempDir dir_;
  std::mutex mutex_;
  std::deque<std::optional<Smbus::TransactionResponse>> answers_;
  std::vector<Smbus::TransactionRequest> requests_;
  ScriptedProxy proxy_{dir_.file("proxy.sock"), [this](ScriptedProxy& p, int fd) { serve(p, fd); }};
};

TEST_F(KeldoSmbusHamTest, EveryOperationBuildsItsEntry) {
  const struct {
    const char* name;
    std::function<Ham::Ham::ResponseId(KeldoSmbusHam&)> queue;
    Smbus::RequestType type;
    uint32_t reg, length;
    std::string data;
    bool writeFlag;
    uint32_t readFlag;
  } cases[] = {
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
  then(entries({"r", "1", "16", "", "", "", "", "", "", "", "", "pc"}));  // the widths the reads fix
  ham->prepare();
  Ham::Ham::ResponseId id = 0;
  for (const auto& c : cases) EXPECT_EQ(c.queue(*ham), id++) << c.name;
  ASSERT_EQ(ham->execute(), PL_STATUS_OK);

  ASSERT_EQ(sent().size(), 1u);
  const Smbus::TransactionRequest request = sent()[0];
  ASSERT_EQ(request.request_size(), static_cast<int>(std::size(cases)));
  for (const auto& c : cases) {
    const Smbus::Request& e = request.request(static_cast<int>(&c - cases));
    EXPECT_EQ(e.type(), c.type) << c.name;
    EXPECT_EQ(e.address(), uint64_t{kScdWord1 | c.readFlag << 21} << 32 | c.reg) << c.name;
    EXPECT_EQ(e.length(), c.length) << c.name;
    EXPECT_EQ(e.data(), c.data) << c.name;
    EXPECT_EQ(e.writeflag(), c.writeFlag) << c.name;
    EXPECT_EQ(e.mastertype(), Smbus::SCD) << c.name;
    EXPECT_EQ(e.pciaddress(), 0xAB0100u) << c.name;
  }
}

TEST_F(KeldoSmbusHamTest, ResolutionFindsTheControllerItsBusAndTheMuxes) {
  const uint32_t none = Drivers::DriverArgs::NO_COMPONENT;
  auto onBus = [](const char* label, uint8_t address) {
    return KeldoSmbusHam::createOnBus(*Topology::_topology, Topology::getBusByLabel(label), address);
  };
  Topology::AhamAddress plain;
  plain.setAddress(0x48);
  const Topology::PCIAddress pci{0x300};
  const struct {
    const char* name;
    std::function<KeldoSmbusHam*()> make;
    Smbus::MasterType master;
    uint32_t pci, word1;
    size_t muxes;
  } cases[] = {
      // JSON register size 2 and read delay 3: the size is sent as 1, the delay as written.
      {"by component", [] { return resolve(96, 7); }, Smbus::SCD, 4660, 0xC20082D0, 0},
      {"by device", [=] { return resolve(96, none); }, Smbus::SCD, 4660, 0xC20082D0, 0},
      {"behind muxes", [] { return resolve(97, 9); }, Smbus::SCD, 4660, word1(81, 5, 2), 2},
      {"flagged I2C", [=] { return resolve(200, none); }, Smbus::I2C_FLAGGED, 0, word1(32, 12, 0), 0},
      {"plain I2C", [=] { return resolve(201, none); }, Smbus::I2C, 0, word1(33, 13, 0), 0},
      {"on a bus", [&] { return onBus("i2c-13", 0xC5); }, Smbus::I2C, 0, word1(0x45, 13, 0), 0},
      {"on a bus behind muxes", [&] { return onBus("behind-muxes", 0x22); }, Smbus::SCD, 4660, word1(0x22, 5, 2), 2},
      {"address and PCI", [&] { return KeldoSmbusHam::createFromAddress(plain, &pci); }, Smbus::SCD, 0x300, 0x48, 0},
      {"address only", [&] { return KeldoSmbusHam::createFromAddress(plain, nullptr); }, Smbus::I2C, 0, 0x48, 0},
  };
  for (const auto& c : cases) {
    std::unique_ptr<KeldoSmbusHam> ham(c.make());
    ASSERT_TRUE(ham) << c.name;
    EXPECT_EQ(ham->masterType, c.master) << c.name;
    EXPECT_EQ(ham->pciAddress, c.pci) << c.name;
    EXPECT_EQ(ham->address.word1, c.word1) << c.name;
    EXPECT_EQ(ham->muxes.size(), c.muxes) << c.name;
  }
  EXPECT_EQ(std::unique_ptr<KeldoSmbusHam>(resolve(96, 12345)), nullptr) << "no such component";
  EXPECT_EQ(std::unique_ptr<KeldoSmbusHam>(onBus("behind-muxes", 0x22))->prepareRequestCount_, 2) << "initialised";
}

TEST_F(KeldoSmbusHamTest, MuxChainSelectsOutermostFirstAndResetsInnermostFirst) {
  std::unique_ptr<KeldoSmbusHam> ham(resolve(97, 9));
  ASSERT_TRUE(ham);
  ham->init();
  for (int round = 0; round < 2; ++round) {  // the selections survive prepare()
    then(entries({"\x01", "\x02", "\x99", "\x04", "\x05", "\x06"}));
    ham->prepare();
    EXPECT_EQ(ham->addRead8(0x10), 0u);
    EXPECT_EQ(ham->addWrite8(0x11, 5, false), 1u);
    ASSERT_EQ(ham->execute(), PL_STATUS_OK);
    EXPECT_EQ(ham->get8(0), 0x99);  // entry 2: after the two selections
  }
  ASSERT_EQ(sent().size(), 2u);
  const Smbus::TransactionRequest request = sent()[1];
  const std::pair<uint32_t, uint32_t> expected[] = {  // (word 1, register)
      {word1(112, 5, 2), 4},    {word1(113, 5, 2), 8}, {word1(81, 5, 2), 0x10},
      {word1(81, 5, 2), 0x11}, {word1(113, 5, 2), 0}, {word1(112, 5, 2), 0}};
  ASSERT_EQ(request.request_size(), 6);
  for (int i = 0; i < 6; ++i) {
    EXPECT_EQ(request.request(i).address(), uint64_t{expected[i].first} << 32 | expected[i].second) << i;
  }
}

TEST_F(KeldoSmbusHamTest, RetryCountIsSentOnlyAfterRetryCountIs) {
  auto ham = scdHam();
  EXPECT_EQ(ham->write8(1, 2, false), PL_STATUS_OK);
  ham->retryCountIs(0);
  EXPECT_EQ(ham->write8(1, 2, false), PL_STATUS_OK);
  const auto requests = sent();
  ASSERT_EQ(requests.size(), 2u);
  EXPECT_FALSE(requests[0].has_retrycount());
  EXPECT_TRUE(requests[1].has_retrycount());
  EXPECT_EQ(requests[1].retrycount(), 0u);
}

TEST_F(KeldoSmbusHamTest, BadAnswersGiveStatusSixAndLostConnectionsFour) {
  auto ham = scdHam();
  then(failure("entry 0: no acknowledge"));
  then(failure(nullptr));
  then(entries({"", ""}));
  then(std::nullopt);
  uint8_t value = 0x5A;
  for (int i = 0; i < 3; ++i) EXPECT_EQ(ham->read8(1, &value), PL_STATUS_INTERNAL);
  EXPECT_EQ(ham->read8(1, &value), PL_STATUS_UNAVAILABLE);
  EXPECT_EQ(value, 0x5A);
  const std::string reset = std::to_string(ECONNRESET) + ", " + std::strerror(ECONNRESET);
  EXPECT_EQ(FakeHost::traceTexts(3), (std::vector<std::string>{"execute: failure in response entry 0: no acknowledge",
                                                               "execute: failure in response unknown reason",
                                                               "execute: invalid number of response entries; "
                                                               "expected 1, got 2",
                                                               "execute: error. " + reset}));
}

// Fetches read the answer the access method holds; no proxy needed.
std::unique_ptr<KeldoSmbusHam> answered(std::initializer_list<const char*> data) {
  auto ham = scdHam();
  for (const char* d : data) ham->response.add_response()->set_data(d);
  return ham;
}

TEST(KeldoSmbusHamFetch, WordsAreLittleEndianAndThirtyTwoBitOperationsAreMissing) {
  EXPECT_EQ(answered({"\x34\x12"})->get16(0), 0x1234);
  EXPECT_THAT([] { scdHam()->addRead32(0); },
              testing::ThrowsMessage<NotImplementedException>(testing::StrEq("Not implemented addRead32")));
  EXPECT_THROW(scdHam()->addWrite32(0, 0, false), NotImplementedException);
  EXPECT_THROW(scdHam()->get32(0), NotImplementedException);
}

TEST(KeldoSmbusHamFetchDeathTest, MisuseStopsTheProcess) {
  auto ham = answered({"\x34\x12"});
  EXPECT_DEATH(ham->get8(0), "Assertion `data.size\\(\\) == 1' failed");
  EXPECT_DEATH(ham->get8(Ham::Ham::INVALID_RESPONSE_ID), "Assertion `idx != INVALID_RESPONSE_ID' failed");
}

}  // namespace
