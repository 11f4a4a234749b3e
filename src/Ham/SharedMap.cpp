#include "Ham/SharedMap.h"

#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cctype>
#include <cerrno>
#include <chrono>
#include <sstream>
#include <thread>
#include <utility>

namespace Ham {

namespace {

constexpr char kBlanks[] = " \t";
// A file renamed over ours between open() and the lock is opened again; a
// path that keeps changing this often is given up on.
constexpr int kReopenAttempts = 8;

// The first of equal keys, as a lookup must answer (find() may give any).
template <typename Map>
auto firstOf(Map& entries, const std::string& key) -> decltype(entries.begin()) {
  auto it = entries.lower_bound(key);
  return it != entries.end() && it->first == key ? it : entries.end();
}

bool sameFile(const struct stat& a, const struct stat& b) { return a.st_dev == b.st_dev && a.st_ino == b.st_ino; }

// Polls a non-blocking flock: a blocking one would wait for ever on a holder
// that was stopped.
bool lockWithin(int fd, int waitMs) {
  const auto deadline = std::chrono::steady_clock::now() + std::chrono::milliseconds(waitMs);
  while (::flock(fd, LOCK_EX | LOCK_NB) != 0) {
    if ((errno != EWOULDBLOCK && errno != EINTR) || std::chrono::steady_clock::now() >= deadline) return false;
    std::this_thread::sleep_for(std::chrono::milliseconds(1));
  }
  return true;
}

bool writeAll(int fd, const std::string& text) {
  size_t done = 0;
  while (done < text.size()) {
    const ssize_t n = ::write(fd, text.data() + done, text.size() - done);
    if (n < 0 && errno == EINTR) continue;
    if (n <= 0) return false;
    done += static_cast<size_t>(n);
  }
  return true;
}

}  // namespace

void keyToUpper(const std::string& in, std::string& out) {
  for (char c : in) out.push_back(static_cast<char>(std::toupper(static_cast<unsigned char>(c))));
}

std::string trimWhitespace(const std::string& s) {
  const std::string::size_type first = s.find_first_not_of(kBlanks);
  if (first == std::string::npos) return std::string();
  return s.substr(first, s.find_last_not_of(kBlanks) - first + 1);
}

bool readFromFd(int fd, std::string& out) {
  char buffer[4096];
  for (;;) {
    const ssize_t n = ::read(fd, buffer, sizeof buffer);
    if (n < 0 && errno == EINTR) continue;
    if (n < 0) return false;
    if (n == 0) return true;
    if (out.size() + static_cast<size_t>(n) > SharedMap::kMaxFileBytes) return false;
    out.append(buffer, static_cast<size_t>(n));
  }
}

SharedMap::SharedMap(std::string path, bool readOnly, bool upperCaseKeys)
    : path_(std::move(path)), readOnly_(readOnly), upperCaseKeys_(upperCaseKeys) {}

SharedMap::~SharedMap() { close(); }

std::string SharedMap::folded(const std::string& key) const {
  if (!upperCaseKeys_) return key;
  std::string upper;
  keyToUpper(key, upper);
  return upper;
}

// Only a regular file is used: a FIFO under the name would block open() for
// ever, a directory is no map. A writer uses only the file that is under the
// name once the lock is held (one that replaced it meanwhile held the lock of
// the old one); a reader may read the old one, which is whole too.
bool SharedMap::open(bool writing) {
  const int flags = (readOnly_ ? O_RDONLY : O_RDWR) | O_CREAT | O_CLOEXEC | O_NONBLOCK;
  for (int attempt = 0; attempt < kReopenAttempts; ++attempt) {
    const int fd = ::open(path_.c_str(), flags, 0644);
    if (fd < 0) return false;
    struct stat opened {}, named {};
    if (::fstat(fd, &opened) != 0 || !S_ISREG(opened.st_mode) || ::fcntl(fd, F_SETFL, flags & ~O_NONBLOCK) != 0 ||
        !lockWithin(fd, kLockWaitMs)) {
      ::close(fd);
      return false;
    }
    if (!writing || (::stat(path_.c_str(), &named) == 0 && sameFile(opened, named))) {
      fd_ = fd;
      return true;
    }
    ::close(fd);
  }
  return false;
}

bool SharedMap::close() {
  if (fd_ < 0) return true;
  const int result = ::close(fd_);  // releases the lock
  fd_ = -1;
  return result == 0;
}

// Lines are "key value": the key is the first word, the value the rest of the
// line without blanks at either end. A line without a key is skipped.
bool SharedMap::readOpenFile() {
  std::string contents;
  if (!readFromFd(fd_, contents)) return false;
  entries_.clear();
  std::istringstream lines(contents);
  for (std::string line; std::getline(lines, line);) {
    std::istringstream words(line);
    std::string key;
    if (!(words >> key)) continue;
    std::string rest;
    std::getline(words, rest);
    entries_.emplace(folded(key), trimWhitespace(rest));
  }
  return true;
}

std::string SharedMap::text() const {
  std::string out;
  for (const auto& entry : entries_) out += entry.first + " " + entry.second + "\n";
  return out;
}

bool SharedMap::rewriteOpenFile() {
  return ::ftruncate(fd_, 0) == 0 && ::lseek(fd_, 0, SEEK_SET) == 0 && writeAll(fd_, text());
}

bool SharedMap::readFromFile() {
  if (!open(false)) return false;
  const bool read = readOpenFile();
  return close() && read;
}

bool SharedMap::writeToFile() {
  if (!open(true)) return false;
  const bool written = rewriteOpenFile();
  return close() && written;
}

bool SharedMap::replaceFile() {
  if (!open(true)) return false;
  std::string temporary = path_ + ".XXXXXX";
  const int fd = ::mkostemp(&temporary[0], O_CLOEXEC);
  bool written = fd >= 0;
  if (written) {
    written = ::fchmod(fd, 0644) == 0 && writeAll(fd, text()) && ::fsync(fd) == 0;
    written = ::close(fd) == 0 && written && ::rename(temporary.c_str(), path_.c_str()) == 0;
    if (!written) ::unlink(temporary.c_str());
  }
  return close() && written;
}

std::string SharedMap::get(const std::string& key) const {
  const auto it = firstOf(entries_, folded(key));
  return it == entries_.end() ? std::string() : it->second;
}

void SharedMap::insert(const std::string& key, const std::string& value) { entries_.emplace(folded(key), value); }

void SharedMap::erase(const std::string& key) { entries_.erase(folded(key)); }

bool SharedMap::setAndSave(const std::string& key, const std::string& value, bool keyFolded) {
  const std::string trimmedKey = trimWhitespace(key);
  const std::string trimmedValue = trimWhitespace(value);
  if (trimmedKey.empty() || trimmedKey.find_first_of(" \t\r\n") != std::string::npos ||
      trimmedValue.find('\n') != std::string::npos || !open(true)) {
    return false;
  }
  if (!readOpenFile()) {
    close();
    return false;
  }
  const std::string stored = keyFolded ? trimmedKey : folded(trimmedKey);
  const auto it = firstOf(entries_, stored);
  if (it == entries_.end()) {
    entries_.emplace(stored, trimmedValue);
  } else {
    it->second = trimmedValue;
  }
  const bool written = rewriteOpenFile();
  return close() && written;
}

bool SharedMap::multiSetAndSave(const std::vector<std::string>& keys, const std::vector<std::string>& values) {
  bool result = true;
  for (size_t i = 0; i < keys.size() && i < values.size(); ++i) {
    result = setAndSave(folded(keys[i]), values[i], true);
  }
  return result;
}

std::map<std::string, std::string> SharedMap::toMap() const {
  std::map<std::string, std::string> map;
  for (const auto& entry : entries_) map.emplace(entry.first, entry.second);  // keeps the first
  return map;
}

}  // namespace Ham
