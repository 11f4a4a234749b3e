// The reference SMBus proxy: the emulated board in-process (multiplexer
// gating, request semantics, retries, the transaction log), then the daemon
// process over real sockets, driven by the platform client and the control
// channel. What it survives is in LimitsTest.cpp.
#include <gtest/gtest.h>
#include <signal.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "EmulationFile.h"
#include "Emulator.h"
#include "KeldoUtil/Smbus.pb.h"
#include "PlatformLibrary/PLSocket.h"
#include "ProxydProcess.h"
#include "Protocol.h"
#include "TempDir.h"
#include "TransactionLog.h"

namespace {

// The failure reason for the LM75 (bus 10, 0x48) as entry `index`.
std::string lm75Failure(int index, const std::string& error, int attempts) {
  return "entry " + std::to_string(index) + " (READ): " + error +
         "; device 0x48 on bus I2C pci 0x00000000 accel 0 bus 10; " + std::to_string(attempts) + " attempts";
}

class EmulatorTest : public ::testing::Test {
 protected:
  // The answer to the last entry, or the failure reason (with no answers).
  std::string run(const std::vector<Smbus::Request>& entries, std::optional<uint32_t> retries = 0) {
    const Smbus::TransactionResponse response = emulator_.run(transaction(entries, retries)).response;
    if (response.failure() != 0) {
      EXPECT_EQ(response.response_size(), 0);
      return response.reason();
    }
    EXPECT_EQ(response.response_size(), static_cast<int>(entries.size()));
    return response.response_size() > 0 ? response.response(response.response_size() - 1).data() : "";
  }

  SmbusProxyd::Emulator emulator_{SmbusProxyd::loadEmulationFile(kBoardFile)};
};

TEST_F(EmulatorTest, MuxChannelsConnectTheirBusesOnlyWhileSelected) {
  const struct {
    uint8_t mux70, mux71;
    Place target;
    std::string expected;
  } cases[] = {
      {0x01, 0x00, kLm75, "\x27"},
      {0x00, 0x00, kLm75, lm75Failure(2, "no acknowledge", 1)},
      {0x04, 0x00, kLm75, lm75Failure(2, "no acknowledge", 1)},
      {0x05, 0x00, kLm75, "\x27"},
      {0x00, 0x02, kOther48, "\x19"},
      // Buses 10 and 21 hang off the wire of bus 3: whichever is connected answers.
      {0x00, 0x02, kLm75, "\x19"},
      {0x01, 0x02, kLm75, lm75Failure(2, "address conflict, 2 devices answer", 1)},
  };
  for (const auto& c : cases) {
    EXPECT_EQ(run({select(kMux70, c.mux70), select(kMux71, c.mux71), entry(c.target, Smbus::READ, 0x00, 1)}),
              c.expected)
        << "mux70 " << int(c.mux70) << " mux71 " << int(c.mux71) << " bus " << c.target.bus;
  }
}

TEST_F(EmulatorTest, FailedTransactionsAreRetriedWholeUpToTheRetryCount) {
  const struct {
    std::optional<uint32_t> retryCount;
    int naks;
    std::string expected;
  } cases[] = {
      {std::nullopt, 3, "\x27\x80"},  // three retries by default
      {std::nullopt, 4, lm75Failure(1, "no acknowledge", 4)},
      {0u, 1, lm75Failure(1, "no acknowledge", 1)},
      {2u, 2, "\x27\x80"},
      {2u, 3, lm75Failure(1, "no acknowledge", 3)},
  };
  for (const auto& c : cases) {
    auto& fault = emulator_.board().device({{Smbus::I2C, 0, 0, 10}, 0x48})->fault();
    fault = SmbusProxyd::Fault{SmbusProxyd::FaultKind::Nak, 0, "", c.naks};
    EXPECT_EQ(run({select(kMux70, 0x01), entry(kLm75, Smbus::READ, 0, 2)}, c.retryCount), c.expected) << c.naks;
    fault.reset();
  }
}

// Rows run in order on one board, so writes show in later rows.
TEST_F(EmulatorTest, EachRequestTypeAnswersAsOnTheWire) {
  const struct {
    const char* name;
    uint8_t mux70;
    std::vector<Smbus::Request> entries;
    std::string answer;
  } cases[] = {
      {"receive byte", 0x01, {entry(kLm75, Smbus::READ, 0x55, 0)}, "\x27"},
      {"process call", 0x01, {entry(kLm75, Smbus::PROCESS_CALL, 0x10, 2, "\x34\x12")}, "\x34\x12"},
      {"block read", 0x04, {entry(kPmbus, Smbus::BLOCK_READ, 0x9a)}, "PSU-1100"},
      {"eeprom image", 0x04, {entry(kEeprom, Smbus::READ, 0, 23)}, readFile(kEepromFile)},
      {"two-byte register", 0, {entry(kCpld, Smbus::READ, 0x0259, 1, "", 2)}, "\x3f"},
      {"one address byte cuts the register", 0, {entry(kCpld, Smbus::READ, 0x0259, 1, "", 1)}, "\xff"},
      {"write", 0x04, {entry(kEeprom, Smbus::WRITE, 0x00, 2, "ab"), entry(kEeprom, Smbus::READ, 0x00, 3)}, "abv"},
      {"block write", 0x04,
       {entry(kPmbus, Smbus::BLOCK_WRITE, 0x9a, 3, "XYZ"), entry(kPmbus, Smbus::BLOCK_READ, 0x9a)}, "XYZ"},
      {"send byte sets the pointer", 0x04, {entry(kEeprom, Smbus::WRITE, 5, 0), entry(kEeprom, Smbus::READ, 0, 0)},
       "f"},  // "TlvInfo"[5]
      // Chips: each register on its own, an LM75 word most significant byte first, a PMBus word low byte first.
      {"LM75 word", 0x01, {entry(kLm75Chip, Smbus::READ, 0x00, 2)}, "\x20\x80"},
      {"LM75 word written", 0x01, {entry(kLm75Chip, Smbus::WRITE, 0x02, 2, "\x55\x80"), entry(kLm75Chip, Smbus::READ, 0x02, 2)}, "\x55\x80"},
      {"LM75 neighbour kept, pointer of two bits", 0x01, {entry(kLm75Chip, Smbus::READ, 0x07, 2)}, "\xff\x80"},
      {"PMBus word", 0x04, {entry(kPmbusChip, Smbus::READ, 0x8b, 2)}, std::string("\x00\x18", 2)},
      {"PMBus word in units", 0x04, {entry(kPmbusChip, Smbus::READ, 0x88, 2)}, "\x98\xf3"},
      {"PMBus byte, 0xff past it", 0x04, {entry(kPmbusChip, Smbus::WRITE, 0x03, 0), entry(kPmbusChip, Smbus::READ, 0x20, 2)}, "\x17\xff"},
      {"PMBus width", 0x04, {entry(kPmbusChip, Smbus::WRITE, 0x20, 2, "\x17\x00")},
       "entry 1 (WRITE): the register holds 1 byte; device 0x59 on bus I2C pci 0x00000000 accel 0 bus 12; 1 attempts"},
  };
  for (const auto& c : cases) {
    std::vector<Smbus::Request> entries = {select(kMux70, c.mux70)};
    entries.insert(entries.end(), c.entries.begin(), c.entries.end());
    EXPECT_EQ(run(entries), c.answer) << c.name;
  }
}

TEST_F(EmulatorTest, LogHasOneLinePerExecutedEntryOfEveryAttempt) {
  TempDir dir;
  SmbusProxyd::TransactionLog log;
  ASSERT_TRUE(log.open(dir.file("proxyd.log")));
  emulator_.setLog(&log);
  run({entry(kCpld, Smbus::READ, 0x59, 2), entry(kDead, Smbus::WRITE, 0x02, 2, "\x4b\x01")}, 1u);
  const std::string attempt =
      " entry=0 master=SCD pci=0x0000ff00 accel=1 bus=2 addr=0x23 type=READ reg=0x59 len=2 data=- result=ok "
      "answer=ffff\n";
  const std::string failed =
      " entry=1 master=I2C pci=0x00000000 accel=0 bus=3 addr=0x3c type=WRITE reg=0x2 len=2 data=4b01 "
      "result=failed error=\"no acknowledge\"\n";
  EXPECT_EQ(readFile(dir.file("proxyd.log")),
            "txn=1 attempt=1" + attempt + "txn=1 attempt=1" + failed + "txn=1 attempt=2" + attempt +
                "txn=1 attempt=2" + failed);
}

class DaemonTest : public ::testing::Test {
 protected:
  void SetUp() override {
    setenv("KELDO_SMBUS_SOCKET", daemon_.socket().c_str(), 1);
    setenv("KELDO_SMBUS_TIMEOUT_MS", "300", 1);
    client_ = std::make_unique<PlatformLibrary::PLSocket>();
    ASSERT_EQ(client_->setup(), 0);
  }

  // Selects mux 0x70 channel 0, reads the LM75 behind it and resets the mux,
  // without retries: the read's data, the failure reason or the client's error.
  std::string readLm75() {
    Smbus::TransactionRequest request =
        transaction({select(kMux70, 0x01), entry(kLm75, Smbus::READ, 0x00, 2), select(kMux70, 0x00)}, 0u);
    Smbus::TransactionResponse* raw = nullptr;
    if (client_->sendRequestWait(&request, &raw) != 0) return std::string("error: ") + std::strerror(errno);
    std::unique_ptr<Smbus::TransactionResponse> answer(raw);
    return answer->failure() != 0 ? answer->reason() : answer->response(1).data();
  }

  ProxydProcess daemon_{kBoardFile};
  std::unique_ptr<PlatformLibrary::PLSocket> client_;
};

TEST_F(DaemonTest, FaultsInjectedThroughTheControlChannelReachTheClientOnce) {
  const struct {
    const char* command;
    std::string result;
  } cases[] = {
      {"fault I2C/0/0/10/0x48 nak count 1",
       "entry 1 (READ): no acknowledge; device 0x48 on bus I2C pci 0x00000000 accel 0 bus 10; 1 attempts"},
      {"fault I2C/0/0/10/0x48 drop count 1", std::string("error: ") + std::strerror(ECONNRESET)},
      {"fault I2C/0/0/10/0x48 delay 600 count 1", std::string("error: ") + std::strerror(ETIMEDOUT)},
      {"fault any fail count 1 maintenance window", "maintenance window"},
  };
  for (const auto& c : cases) {
    ASSERT_EQ(daemon_.control(c.command), "ok");
    EXPECT_EQ(readLm75(), c.result) << c.command;
    EXPECT_EQ(readLm75(), "\x27\x80") << "after " << c.command;
  }
}

TEST_F(DaemonTest, SigtermRemovesTheSocketsAndTheNextCallReachesARestartedDaemon) {
  ASSERT_EQ(readLm75(), "\x27\x80");
  EXPECT_EQ(daemon_.stop(SIGTERM), 0) << "exit status 0";
  EXPECT_NE(access(daemon_.socket().c_str(), F_OK), 0);
  EXPECT_NE(access((daemon_.socket() + ".ctl").c_str(), F_OK), 0);
  daemon_.start();
  EXPECT_EQ(readLm75(), "\x27\x80") << "the connection to the stopped daemon is replaced";
}

}  // namespace
