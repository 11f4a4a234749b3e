#pragma once
// Client of the SMBus proxy service: one Unix stream socket, length-prefixed
// protobuf frames, one request in flight. See docs/smbus-proxy-protocol.md.
#include <chrono>
#include <cstdint>
#include <deque>
#include <string>
#include <vector>

namespace Smbus {
class TransactionRequest;
class TransactionResponse;
}  // namespace Smbus

namespace PlatformLibrary {

class PLSocket {
 public:
  // Unconnected: descriptor -1, watcher 0, a four-byte receive buffer.
  PLSocket();
  ~PLSocket();
  PLSocket(const PLSocket&) = delete;
  PLSocket& operator=(const PLSocket&) = delete;

  // One connection attempt to socketPath(): 0 when connected, -1 otherwise
  // (errno set). May be called again after a failure.
  int setup();

  // Sends one request and waits for its answer. 0 with a newly allocated
  // response that the caller deletes, or -1 with errno set and no response.
  // A broken connection is re-established by the next call.
  int sendRequestWait(Smbus::TransactionRequest* request, Smbus::TransactionResponse** response);
  // The same, with the answer parsed into `response`, which keeps the memory of
  // its entries from one call to the next. On failure its contents are undefined.
  int sendRequestWait(const Smbus::TransactionRequest& request, Smbus::TransactionResponse& response);

  // KELDO_SMBUS_SOCKET when set, else /run/keldo/smbus-proxy.sock.
  static std::string socketPath();

  // Frames longer than this are a protocol error in either direction.
  static constexpr uint32_t kMaxFrameBytes = 1024 * 1024;

  // Longest wait for any one send or answer (KELDO_SMBUS_TIMEOUT_MS, default 5000).
  unsigned int timeoutMs_;

  // The owner releases these itself when it discards a socket that never connected.
  int fd_;
  uint32_t watcher_;

 private:
  using Clock = std::chrono::steady_clock;

  int connectOnce();
  void closeConnection();
  bool peerHasClosed() const;
  int ensureConnected();
  // Each returns 0, or -1 with errno set; the caller closes the connection.
  int waitFor(short events, Clock::time_point deadline) const;
  int writeQueued(Clock::time_point deadline);
  int receiveFrame(Clock::time_point deadline);
  int fail(int error);

  std::vector<uint8_t> rxBuffer_;    // frame header, then body; reused from call to call
  size_t rxFrameBytes_ = 0;          // header and body of the frame last received
  bool rxSurplus_ = false;           // that read also took bytes past the frame
  unsigned int rxTimeoutForMs_ = 0;  // the limit the receive timeout was set for; 0: none set
  std::deque<std::string> txQueue_;  // serialized frames not yet written
  std::string path_;
};

}  // namespace PlatformLibrary
