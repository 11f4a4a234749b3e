#pragma once
// One line per executed request entry, flushed after every transaction so
// that a test or an engineer can follow the traffic while the daemon runs:
//   txn=3 attempt=1 entry=0 master=I2C pci=0x00000000 accel=0 bus=3 addr=0x70
//   type=WRITE reg=0x1 len=0 data=- result=ok answer=-
// (one line in the file). Data and answers are hex bytes, "-" when empty; a
// failed entry ends in result=failed error="<why>". reg is word 0 of the
// address exactly as received.
#include <cstdint>
#include <cstdio>
#include <string>

namespace Smbus {
class Request;
}

namespace SmbusProxyd {

struct LogEntry {
  uint64_t transaction = 0;
  unsigned attempt = 0;
  int entry = 0;
  const Smbus::Request* request = nullptr;
  bool ok = true;
  std::string answer;  // when ok
  std::string error;   // when not
};

std::string formatLogEntry(const LogEntry& entry);

class TransactionLog {
 public:
  TransactionLog() = default;
  ~TransactionLog();
  TransactionLog(const TransactionLog&) = delete;
  TransactionLog& operator=(const TransactionLog&) = delete;

  // Appends to `path`; false (errno set) when it cannot be opened. A file
  // that would grow past `maxBytes` is renamed to `path`.1 (replacing the
  // previous one) and a new one is started, so the log never takes more than
  // twice `maxBytes` on disk.
  bool open(const std::string& path, uint64_t maxBytes = kDefaultMaxBytes);
  bool isOpen() const { return file_ != nullptr; }
  void write(const LogEntry& entry);
  void flush();

  static constexpr uint64_t kDefaultMaxBytes = 64 * 1024 * 1024;

 private:
  void rotate();

  std::FILE* file_ = nullptr;
  std::string path_;
  uint64_t maxBytes_ = kDefaultMaxBytes;
  uint64_t size_ = 0;
};

}  // namespace SmbusProxyd
