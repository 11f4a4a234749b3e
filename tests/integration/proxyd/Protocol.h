#pragma once
// The proxy protocol as the tests speak it: request entries packed the way
// the plug-in packs them, and a client on a bare socket for the tests that
// need many clients or a frame sent only half-way.
#include <poll.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <optional>
#include <string>
#include <vector>

#include "KeldoUtil/Smbus.pb.h"

// Places on tests/data/proxyd/board.json, and request entries packed the way
// the plug-in packs them.
const std::string kBoardFile = KELDO_SOURCE_DIR "/tests/data/proxyd/board.json";
const std::string kEepromFile = KELDO_SOURCE_DIR "/tests/data/proxyd/psu-eeprom.bin";

struct Place {
  Smbus::MasterType master;
  uint32_t pci, accel, bus, address;
};

constexpr Place kMux70{Smbus::I2C, 0, 0, 3, 0x70};
constexpr Place kMux71{Smbus::I2C, 0, 0, 3, 0x71};
constexpr Place kLm75{Smbus::I2C, 0, 0, 10, 0x48};      // mux 0x70 channel 0
constexpr Place kLm75Chip{Smbus::I2C, 0, 0, 10, 0x49};  // mux 0x70 channel 0
constexpr Place kEeprom{Smbus::I2C, 0, 0, 12, 0x50};    // mux 0x70 channel 2
constexpr Place kPmbus{Smbus::I2C, 0, 0, 12, 0x58};     // mux 0x70 channel 2
constexpr Place kPmbusChip{Smbus::I2C, 0, 0, 12, 0x59}; // mux 0x70 channel 2
constexpr Place kOther48{Smbus::I2C, 0, 0, 21, 0x48};   // mux 0x71 channel 1
constexpr Place kDead{Smbus::I2C, 0, 0, 3, 0x3c};       // NAKs by the file's fault
constexpr Place kCpld{Smbus::SCD, 0xff00, 1, 2, 0x23};  // 16-bit registers, the rest reads 0xff

inline Smbus::Request entry(const Place& p, Smbus::RequestType type, uint32_t reg, uint32_t length = 0,
                            const std::string& data = "", uint32_t addrSize = 1) {
  const uint32_t word1 = (addrSize << 25) | (p.accel << 14) | (p.bus << 7) | p.address;
  Smbus::Request r;
  r.set_address((uint64_t{word1} << 32) | reg);
  r.set_type(type);
  r.set_length(length);
  r.set_pciaddress(p.pci);
  r.set_mastertype(p.master);
  if (!data.empty()) r.set_data(data);
  return r;
}

// Send-byte of the control byte: bit n connects channel n.
inline Smbus::Request select(const Place& mux, uint8_t channels) { return entry(mux, Smbus::WRITE, channels); }

inline Smbus::TransactionRequest transaction(const std::vector<Smbus::Request>& entries,
                                             std::optional<uint32_t> retries) {
  Smbus::TransactionRequest request;
  for (const auto& e : entries) *request.add_request() = e;
  if (retries) request.set_retrycount(*retries);
  return request;
}

// The 4-byte big-endian length that starts every frame.
inline std::string frameHeader(uint32_t n) {
  return {static_cast<char>(n >> 24), static_cast<char>(n >> 16), static_cast<char>(n >> 8), static_cast<char>(n)};
}

inline std::string frameOf(const Smbus::TransactionRequest& request) {
  const std::string body = request.SerializeAsString();
  return frameHeader(static_cast<uint32_t>(body.size())) + body;
}

// Every wait is bounded: a daemon that hangs fails the test in seconds.
class RawClient {
 public:
  explicit RawClient(const std::string& path) : fd_(::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0)) {
    sockaddr_un a{};
    a.sun_family = AF_UNIX;
    std::snprintf(a.sun_path, sizeof a.sun_path, "%s", path.c_str());
    if (::connect(fd_, reinterpret_cast<sockaddr*>(&a), sizeof a) != 0) {
      ::close(fd_);
      fd_ = -1;
    }
  }
  ~RawClient() { ::close(fd_); }
  RawClient(const RawClient&) = delete;
  RawClient& operator=(const RawClient&) = delete;

  // Sends what goes out of `bytes` within `timeoutMs`; how much that was.
  size_t send(const std::string& bytes, int timeoutMs) {
    size_t sent = 0;
    for (const auto end = deadline(timeoutMs); sent < bytes.size() && ready(POLLOUT, end);) {
      const ssize_t n = ::send(fd_, bytes.data() + sent, bytes.size() - sent, MSG_NOSIGNAL | MSG_DONTWAIT);
      if (n <= 0) break;
      sent += static_cast<size_t>(n);
    }
    return sent;
  }

  // The answer that arrives within `timeoutMs`: the data of its last entry
  // or its failure reason; "closed" or "no answer" when there is none.
  std::string answer(int timeoutMs) {
    std::string in;
    for (const auto end = deadline(timeoutMs); in.size() < 4 || in.size() < 4 + length(in);) {
      if (!ready(POLLIN, end)) return "no answer";
      char buffer[4096];
      const ssize_t n = ::recv(fd_, buffer, sizeof buffer, MSG_DONTWAIT);
      if (n <= 0) return "closed";
      in.append(buffer, static_cast<size_t>(n));
    }
    Smbus::TransactionResponse r;
    if (!r.ParseFromString(in.substr(4))) return "unparsable";
    if (r.failure() != 0) return r.reason();
    return r.response_size() > 0 ? r.response(r.response_size() - 1).data() : "";
  }

  std::string exchange(const Smbus::TransactionRequest& request, int timeoutMs = 2000) {
    const std::string bytes = frameOf(request);
    return send(bytes, timeoutMs) == bytes.size() ? answer(timeoutMs) : "closed";
  }

 private:
  using Clock = std::chrono::steady_clock;
  static Clock::time_point deadline(int ms) { return Clock::now() + std::chrono::milliseconds(ms); }
  static size_t length(const std::string& in) {
    size_t n = 0;
    for (int i = 0; i < 4; ++i) n = (n << 8) | static_cast<uint8_t>(in[i]);
    return n;
  }
  bool ready(short events, Clock::time_point end) const {
    const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(end - Clock::now()).count();
    pollfd p{fd_, events, 0};
    return left >= 0 && ::poll(&p, 1, static_cast<int>(left)) > 0;
  }

  int fd_;
};
