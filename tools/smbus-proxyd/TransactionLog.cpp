#include "TransactionLog.h"

#include <algorithm>
#include <cerrno>
#include <cstring>

#include "KeldoUtil/Smbus.pb.h"

namespace SmbusProxyd {

namespace {

std::string hexBytes(const std::string& bytes) {
  if (bytes.empty()) return "-";
  static const char digits[] = "0123456789abcdef";
  std::string text;
  text.reserve(bytes.size() * 2);
  for (unsigned char byte : bytes) {
    text.push_back(digits[byte >> 4]);
    text.push_back(digits[byte & 0xF]);
  }
  return text;
}

std::string typeName(int type) {
  if (Smbus::RequestType_IsValid(type)) return Smbus::RequestType_Name(static_cast<Smbus::RequestType>(type));
  return "TYPE" + std::to_string(type);
}

std::string masterName(int master) {
  if (Smbus::MasterType_IsValid(master)) return Smbus::MasterType_Name(static_cast<Smbus::MasterType>(master));
  return "MASTER" + std::to_string(master);
}

}  // namespace

std::string formatLogEntry(const LogEntry& e) {
  const Smbus::Request& r = *e.request;
  const uint32_t word1 = static_cast<uint32_t>(r.address() >> 32);
  char head[256];
  std::snprintf(head, sizeof(head),
                "txn=%llu attempt=%u entry=%d master=%s pci=0x%08x accel=%u bus=%u addr=0x%02x type=%s reg=0x%x "
                "len=%u data=",
                static_cast<unsigned long long>(e.transaction), e.attempt, e.entry, masterName(r.mastertype()).c_str(),
                r.pciaddress(), (word1 >> 14) & 0x7F, (word1 >> 7) & 0x7F, word1 & 0x7F, typeName(r.type()).c_str(),
                static_cast<uint32_t>(r.address() & 0xFFFFFFFFu), r.length());
  std::string line = head + hexBytes(r.data());
  if (e.ok) return line + " result=ok answer=" + hexBytes(e.answer);
  return line + " result=failed error=\"" + e.error + "\"";
}

TransactionLog::~TransactionLog() {
  if (file_) std::fclose(file_);
}

bool TransactionLog::open(const std::string& path, uint64_t maxBytes) {
  std::FILE* file = std::fopen(path.c_str(), "ae");
  if (!file) return false;
  if (file_) std::fclose(file_);
  file_ = file;
  path_ = path;
  maxBytes_ = maxBytes;
  std::fseek(file_, 0, SEEK_END);
  size_ = static_cast<uint64_t>(std::max(0L, std::ftell(file_)));
  return true;
}

void TransactionLog::write(const LogEntry& entry) {
  if (!file_) return;
  std::string line = formatLogEntry(entry) + "\n";
  if (size_ > 0 && size_ + line.size() > maxBytes_) rotate();
  if (!file_) return;
  std::fwrite(line.data(), 1, line.size(), file_);
  size_ += line.size();
}

void TransactionLog::flush() {
  if (file_) std::fflush(file_);
}

// The daemon keeps running when the new file cannot be made; only the log
// stops, and says so once.
void TransactionLog::rotate() {
  std::fclose(file_);
  const std::string previous = path_ + ".1";
  file_ = std::rename(path_.c_str(), previous.c_str()) == 0 ? std::fopen(path_.c_str(), "we") : nullptr;
  size_ = 0;
  if (!file_) std::fprintf(stderr, "keldo-smbus-proxyd: %s: %s; the log stops\n", path_.c_str(), std::strerror(errno));
}

}  // namespace SmbusProxyd
