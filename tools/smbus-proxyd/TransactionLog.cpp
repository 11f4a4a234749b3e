#include "TransactionLog.h"

#include <cerrno>

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

bool TransactionLog::open(const std::string& path) {
  std::FILE* file = std::fopen(path.c_str(), "ae");
  if (!file) return false;
  if (file_) std::fclose(file_);
  file_ = file;
  return true;
}

void TransactionLog::write(const LogEntry& entry) {
  if (!file_) return;
  std::string line = formatLogEntry(entry) + "\n";
  std::fwrite(line.data(), 1, line.size(), file_);
  std::fflush(file_);
}

}  // namespace SmbusProxyd
