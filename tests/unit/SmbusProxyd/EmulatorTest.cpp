// The emulated board in-process: multiplexer gating, request semantics,
// retries, faults and the transaction log.
#include "Emulator.h"

#include <gtest/gtest.h>

#include <optional>
#include <vector>

#include "EmulationFile.h"
#include "ProxydTestSupport.h"
#include "TempDir.h"
#include "TransactionLog.h"

using namespace ProxydTest;
using SmbusProxyd::Emulator;

namespace {

Smbus::TransactionRequest transaction(std::vector<Smbus::Request> entries, std::optional<uint32_t> retries = 0) {
  Smbus::TransactionRequest request;
  for (auto& e : entries) *request.add_request() = e;
  if (retries) request.set_retrycount(*retries);
  return request;
}

std::string bytes(std::initializer_list<int> values) {
  std::string out;
  for (int v : values) out.push_back(static_cast<char>(v));
  return out;
}

class EmulatorTest : public ::testing::Test {
 protected:
  Emulator emulator_{SmbusProxyd::loadEmulationFile(kBoardFile)};
};

TEST_F(EmulatorTest, MultiplexerChannelsConnectTheirBusesOnlyWhileSelected) {
  const struct {
    uint8_t mux70, mux71;
    Place target;
    const char* expected;  // the byte at register 0, or the error
  } cases[] = {
      {0x01, 0x00, kLm75, "\x27"},
      {0x04, 0x00, kLm75, "no acknowledge"},
      {0x00, 0x00, kLm75, "no acknowledge"},
      {0x04, 0x00, kEeprom, "T"},
      {0x05, 0x00, kLm75, "\x27"},
      {0x00, 0x02, kOther48, "\x19"},
      {0x01, 0x02, kLm75, "address conflict, 2 devices answer"},
      // The wire decides who answers: bus 10 and bus 21 share the wire of bus 3.
      {0x00, 0x02, kLm75, "\x19"},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(testing::Message() << "mux70 " << int(c.mux70) << " mux71 " << int(c.mux71) << " bus "
                                    << c.target.bus);
    auto outcome = emulator_.run(transaction(
        {select(kMux70, c.mux70), select(kMux71, c.mux71), entry(c.target, Smbus::READ, 0x00, 1)}));
    if (outcome.response.failure() == 0) {
      ASSERT_EQ(outcome.response.response_size(), 3);
      EXPECT_EQ(outcome.response.response(2).data(), c.expected);
    } else {
      EXPECT_NE(outcome.response.reason().find(c.expected), std::string::npos) << outcome.response.reason();
      EXPECT_EQ(outcome.response.response_size(), 0);
    }
  }
}

TEST_F(EmulatorTest, ForgottenSelectFailsWithAReasonNamingEntryBusAndDevice) {
  auto outcome = emulator_.run(transaction(
      {select(kMux70, 0x04), entry(kEeprom, Smbus::READ, 0, 1), entry(kLm75, Smbus::READ, 0, 1)}, std::nullopt));
  EXPECT_NE(outcome.response.failure(), 0u);
  EXPECT_EQ(outcome.response.reason(),
            "entry 2 (READ): no acknowledge; device 0x48 on bus I2C pci 0x00000000 accel 0 bus 10; 4 attempts");
  EXPECT_EQ(outcome.response.response_size(), 0);
  EXPECT_FALSE(outcome.drop);
}

TEST_F(EmulatorTest, FailedTransactionsAreRetriedWholeUpToTheRetryCount) {
  const struct {
    std::optional<uint32_t> retryCount;
    int naks;
    const char* failure;  // null: succeeds
  } cases[] = {
      {std::nullopt, 3, nullptr},  // default: 3 retries
      {std::nullopt, 4, "; 4 attempts"},
      {0u, 1, "; 1 attempts"},
      {2u, 2, nullptr},
      {2u, 3, "; 3 attempts"},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(testing::Message() << "naks " << c.naks);
    SmbusProxyd::Fault nak;
    nak.remaining = c.naks;
    emulator_.board().device({{Smbus::I2C, 0, 0, 10}, 0x48})->fault() = nak;
    auto outcome = emulator_.run(transaction({select(kMux70, 0x01), entry(kLm75, Smbus::READ, 0, 2)}, c.retryCount));
    emulator_.board().device({{Smbus::I2C, 0, 0, 10}, 0x48})->fault().reset();
    if (!c.failure) {
      EXPECT_EQ(outcome.response.failure(), 0u) << outcome.response.reason();
      ASSERT_EQ(outcome.response.response_size(), 2);
      EXPECT_EQ(outcome.response.response(1).data(), bytes({0x27, 0x80}));
    } else {
      EXPECT_NE(outcome.response.failure(), 0u);
      EXPECT_NE(outcome.response.reason().find(c.failure), std::string::npos) << outcome.response.reason();
    }
  }
}

TEST_F(EmulatorTest, EachRequestTypeAnswersAsOnTheWire) {
  const std::string eeprom = readFile(kEepromFile);
  ASSERT_EQ(eeprom.size(), 23u);
  const struct {
    const char* name;
    uint8_t mux70;
    Smbus::Request request;
    std::string answer;
  } cases[] = {
      {"receive byte", 0x01, entry(kLm75, Smbus::READ, 0x55, 0), "\x27"},
      {"read run", 0x01, entry(kLm75, Smbus::READ, 0x00, 4), bytes({0x27, 0x80, 0x4b, 0x50})},
      {"process call", 0x01, entry(kLm75, Smbus::PROCESS_CALL, 0x10, 2, "\x34\x12"), "\x34\x12"},
      {"write", 0x01, entry(kLm75, Smbus::WRITE, 0x02, 2, bytes({0x50, 0x00})), ""},
      {"block read", 0x04, entry(kPmbus, Smbus::BLOCK_READ, 0x9a), "PSU-1100"},
      {"binary block read", 0x04, entry(kPmbus, Smbus::BLOCK_READ, 0x99), bytes({1, 2, 3})},
      {"eeprom image", 0x04, entry(kEeprom, Smbus::READ, 0, 23), eeprom},
      {"two-byte register", 0, entry(kCpld, Smbus::READ, 0x0259, 1, "", 2), "\x3f"},
      {"other two-byte register", 0, entry(kCpld, Smbus::READ, 0x0359, 1, "", 2), "\x0c"},
      {"one address byte cuts the register", 0, entry(kCpld, Smbus::READ, 0x0259, 1, "", 1), "\xff"},
      {"whole-word device", 0, entry(kWide, Smbus::READ, 0xa106, 1, "", 1), "\x05"},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.name);
    auto outcome = emulator_.run(transaction({select(kMux70, c.mux70), c.request}));
    ASSERT_EQ(outcome.response.failure(), 0u) << outcome.response.reason();
    ASSERT_EQ(outcome.response.response_size(), 2);
    EXPECT_EQ(outcome.response.response(1).data(), c.answer);
  }
}

TEST_F(EmulatorTest, WritesChangeWhatLaterReadsSee) {
  auto outcome = emulator_.run(transaction({
      select(kMux70, 0x04),
      entry(kEeprom, Smbus::WRITE, 0x00, 2, "ab"),
      entry(kEeprom, Smbus::READ, 0x00, 3),
      entry(kPmbus, Smbus::BLOCK_WRITE, 0x9a, 3, "XYZ"),
      entry(kPmbus, Smbus::BLOCK_READ, 0x9a),
      entry(kEeprom, Smbus::WRITE, 0x05, 0),  // send-byte sets the address pointer
      entry(kEeprom, Smbus::READ, 0x00, 0),
  }));
  ASSERT_EQ(outcome.response.response_size(), 7) << outcome.response.reason();
  EXPECT_EQ(outcome.response.response(2).data(), "abv");
  EXPECT_EQ(outcome.response.response(4).data(), "XYZ");
  EXPECT_EQ(outcome.response.response(6).data(), "f");  // "TlvInfo"[5]
}

TEST_F(EmulatorTest, MalformedEntriesFailTheTransaction) {
  const struct {
    Smbus::Request request;
    const char* error;
  } cases[] = {
      {entry(kCpld, Smbus::WRITE, 0x10, 3, "ab"), "data does not match length"},
      {entry(kCpld, Smbus::BLOCK_READ, 0x10), "no block at this register"},
      {entry(kMux70, Smbus::READ, 0x00, 2), "multiplexer takes only send-byte and receive-byte"},
      {entry({Smbus::I2C, 0, 0, 99, 0x48}, Smbus::READ, 0, 1), "unknown bus"},
      {entry(kDead, Smbus::READ, 0, 1), "no acknowledge"},
      {entry(kCpld, Smbus::READ, 0, 70000), "read longer than 64 KiB"},
  };
  for (const auto& c : cases) {
    auto outcome = emulator_.run(transaction({c.request}));
    EXPECT_NE(outcome.response.reason().find(c.error), std::string::npos) << outcome.response.reason();
  }
}

TEST_F(EmulatorTest, InjectedFaultsDelayDropOrFailWithTheGivenReason) {
  SmbusProxyd::Fault slow{SmbusProxyd::FaultKind::Delay, 40, "", -1};
  emulator_.board().device({{Smbus::SCD, 0xff00, 1, 2}, 0x23})->fault() = slow;
  auto outcome = emulator_.run(transaction({entry(kCpld, Smbus::READ, 0, 1), entry(kCpld, Smbus::READ, 1, 1)}));
  EXPECT_EQ(outcome.response.response_size(), 2);
  EXPECT_EQ(outcome.delayMs, 80u) << "each access to a slow device adds its delay";

  // Faults on every other device; a count of 1 would pass on a retry, so a
  // failure proves that injected failures are final.
  emulator_.anyDeviceFault() = SmbusProxyd::Fault{SmbusProxyd::FaultKind::Fail, 0, "bus held low by PSU2", 1};
  outcome = emulator_.run(transaction({entry(kWide, Smbus::READ, 0, 1)}, 3u));
  EXPECT_EQ(outcome.response.reason(), "bus held low by PSU2");
  EXPECT_FALSE(emulator_.anyDeviceFault().has_value()) << "used up";

  emulator_.anyDeviceFault() = SmbusProxyd::Fault{SmbusProxyd::FaultKind::Drop, 0, "", -1};
  outcome = emulator_.run(transaction({entry(kWide, Smbus::READ, 0, 1)}));
  EXPECT_TRUE(outcome.drop);
}

TEST_F(EmulatorTest, LogHasOneLinePerExecutedEntryOfEveryAttempt) {
  TempDir dir;
  SmbusProxyd::TransactionLog log;
  ASSERT_TRUE(log.open(dir.file("proxyd.log")));
  emulator_.setLog(&log);
  emulator_.run(transaction({select(kMux70, 0x01), entry(kLm75, Smbus::WRITE, 0x02, 2, "\x4b\x01"),
                             entry(kEeprom, Smbus::READ, 0, 1)},
                            1u));
  EXPECT_EQ(readFile(dir.file("proxyd.log")),
            "txn=1 attempt=1 entry=0 master=I2C pci=0x00000000 accel=0 bus=3 addr=0x70 type=WRITE reg=0x1 len=0 "
            "data=- result=ok answer=-\n"
            "txn=1 attempt=1 entry=1 master=I2C pci=0x00000000 accel=0 bus=10 addr=0x48 type=WRITE reg=0x2 len=2 "
            "data=4b01 result=ok answer=-\n"
            "txn=1 attempt=1 entry=2 master=I2C pci=0x00000000 accel=0 bus=12 addr=0x50 type=READ reg=0x0 len=1 "
            "data=- result=failed error=\"no acknowledge\"\n"
            "txn=1 attempt=2 entry=0 master=I2C pci=0x00000000 accel=0 bus=3 addr=0x70 type=WRITE reg=0x1 len=0 "
            "data=- result=ok answer=-\n"
            "txn=1 attempt=2 entry=1 master=I2C pci=0x00000000 accel=0 bus=10 addr=0x48 type=WRITE reg=0x2 len=2 "
            "data=4b01 result=ok answer=-\n"
            "txn=1 attempt=2 entry=2 master=I2C pci=0x00000000 accel=0 bus=12 addr=0x50 type=READ reg=0x0 len=1 "
            "data=- result=failed error=\"no acknowledge\"\n");
}

}  // namespace
