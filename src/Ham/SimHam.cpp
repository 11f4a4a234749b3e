// Simulated registers in one text file per driver.
//
// Every access opens the file by name, takes a whole-file fcntl record lock
// (shared to read, exclusive to write), copies the register's characters
// with pread/pwrite and unlocks. Opening per access keeps each process's view
// current without any cache to invalidate when another process, or someone
// with an editor, changes or replaces the file.
#include "Ham/SimHam.h"

#include <dirent.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <optional>

#include "KeldoUtil/Assert.h"

namespace Ham {
namespace {

const char* const DEFAULT_SIM_DIR = "/tmp/KeldoSimulationDevices";

std::optional<std::string>& cachedDirectory() {
  static std::optional<std::string> directory;
  return directory;
}

// Lower-case hexadecimal, exactly 2 x size digits (two per byte).
std::string hexText(uint32_t value, uint32_t size) {
  static const char digits[] = "0123456789abcdef";
  const uint32_t width = 2 * size;
  std::string text(width, '0');
  for (uint32_t i = 0; i < width && i < 8; ++i) {
    text[width - 1 - i] = digits[(value >> (4 * i)) & 0xF];
  }
  return text;
}

std::string bytes(const void* data, uint32_t length) {
  return length == 0 ? std::string() : std::string(static_cast<const char*>(data), length);
}

// An open simulation file holding a whole-file record lock for as long as
// the object lives. fcntl locks are per process, so this serialises against
// other processes (and hand-written tools that lock the same way), not
// against other access methods of this process, which run on one thread.
//
// Only a regular file is accepted. Someone may leave a FIFO, a device or a
// directory under the name: opening a FIFO would block the host until a
// writer appears, so the open never blocks, and whatever is not a regular
// file counts as a missing file.
class LockedFile {
 public:
  LockedFile(const std::string& path, bool forWriting) {
    fd_ = ::open(path.c_str(), (forWriting ? O_RDWR : O_RDONLY) | O_CLOEXEC | O_NONBLOCK);
    if (fd_ < 0) {
      reason_ = std::strerror(errno);
      return;
    }
    struct stat st;
    if (fstat(fd_, &st) != 0 || !S_ISREG(st.st_mode)) {
      reason_ = "not a regular file";
      return;
    }
    fcntl(fd_, F_SETFL, fcntl(fd_, F_GETFL) & ~O_NONBLOCK);  // plain blocking I/O from here on
    struct flock lock = {};
    lock.l_type = forWriting ? F_WRLCK : F_RDLCK;
    lock.l_whence = SEEK_SET;
    lock.l_start = 0;
    lock.l_len = 0;  // to the end of the file, however long it gets
    lock.l_pid = getpid();
    int rc;
    do {
      rc = fcntl(fd_, F_SETLKW, &lock);
    } while (rc != 0 && errno == EINTR);
    if (rc != 0) {
      reason_ = std::strerror(errno);
      return;
    }
    locked_ = true;
  }

  ~LockedFile() {
    if (locked_) {
      struct flock unlock = {};
      unlock.l_type = F_UNLCK;
      unlock.l_whence = SEEK_SET;
      unlock.l_pid = getpid();
      fcntl(fd_, F_SETLK, &unlock);
    }
    if (fd_ >= 0) {
      close(fd_);
    }
  }

  LockedFile(const LockedFile&) = delete;
  LockedFile& operator=(const LockedFile&) = delete;

  bool locked() const { return locked_; }
  const char* reason() const { return reason_; }

  // The file's length now; -1 when it cannot be told.
  long long size() const {
    struct stat st;
    return fstat(fd_, &st) == 0 ? static_cast<long long>(st.st_size) : -1;
  }

  // The whole of `text` from or to `offset`; a regular file transfers less
  // only at its end, so false means the file is shorter than the caller thought.
  bool readAt(uint32_t offset, std::string& text) const {
    return transfer([&] { return ::pread(fd_, &text[0], text.size(), offset); }, text.size());
  }
  bool writeAt(uint32_t offset, const char* data, size_t count) const {
    return transfer([&] { return ::pwrite(fd_, data, count, offset); }, count);
  }

 private:
  template <typename Io>
  static bool transfer(Io io, size_t count) {
    ssize_t n;
    do {
      n = io();
    } while (n < 0 && errno == EINTR);
    return n >= 0 && static_cast<size_t>(n) == count;
  }

  int fd_ = -1;
  const char* reason_ = "";
  bool locked_ = false;
};

}  // namespace

Ham* SimHam::create(const Topology::Topology&, const Drivers::DriverArgs&) { return new SimHam(); }

const std::string& SimHam::simulationDirectory() {
  std::optional<std::string>& directory = cachedDirectory();
  if (!directory) {
    const char* fromEnv = std::getenv("KELDOLIB_SIMDIR");
    directory = fromEnv != nullptr ? std::string(fromEnv) : std::string(DEFAULT_SIM_DIR);
  }
  return *directory;
}

void SimHam::forgetSimulationDirectory() { cachedDirectory().reset(); }

void SimHam::init() {}

void SimHam::prepare() { queued_.clear(); }

pl_status SimHam::execute() {
  if (queued_.empty() || !simFileExists_) {
    return PL_STATUS_OK;
  }
  if (expected == nullptr || expected->count(register_) == 0) {
    return PL_STATUS_UNAVAILABLE;
  }
  return PL_STATUS_OK;
}

SimHam::ResponseId SimHam::queueRegister(uint32_t reg) {
  queued_.push_back(reg);
  return static_cast<ResponseId>(queued_.size() - 1);
}

// A fetch answers for the register of the operation its id names; an id that
// names nothing (INVALID_RESPONSE_ID included) falls back to the last one.
uint32_t SimHam::fetchRegister(ResponseId id) const { return id < queued_.size() ? queued_[id] : register_; }

// The receive/send byte operations carry no register; they keep the current one.
SimHam::ResponseId SimHam::addRecvByte() { return queueRegister(register_); }
SimHam::ResponseId SimHam::addSendByte(uint8_t, bool) { return queueRegister(register_); }

SimHam::ResponseId SimHam::addRead8(uint32_t reg) {
  register_ = reg;
  return queueRegister(reg);
}
SimHam::ResponseId SimHam::addRead16(uint32_t reg) { return addRead8(reg); }
SimHam::ResponseId SimHam::addReadBlock(uint32_t reg) { return addRead8(reg); }
SimHam::ResponseId SimHam::addRead(uint32_t reg, uint32_t, bool) { return addRead8(reg); }
SimHam::ResponseId SimHam::addProcessCall(uint32_t reg, uint16_t) { return addRead8(reg); }

// Writes reach the file as they are queued; execute() only reports on them.
SimHam::ResponseId SimHam::addWrite8(uint32_t reg, uint8_t value, bool) {
  register_ = reg;
  writeText(reg, hexText(value, 1));
  return queueRegister(reg);
}

SimHam::ResponseId SimHam::addWrite16(uint32_t reg, uint16_t value, bool) {
  register_ = reg;
  writeText(reg, hexText(value, 2));
  return queueRegister(reg);
}

SimHam::ResponseId SimHam::addWrite(uint32_t reg, const void* data, uint32_t length, bool) {
  register_ = reg;
  writeText(reg, bytes(data, length));
  return queueRegister(reg);
}

SimHam::ResponseId SimHam::addWriteBlock(uint32_t reg, const void* data, uint32_t length, bool flag) {
  return addWrite(reg, data, length, flag);
}

bool SimHam::isListed(uint32_t reg) const {
  return expected != nullptr && expected->count(reg) != 0 && offsets.count(reg) != 0;
}

// Characters of the register's own slot: two per byte for a number, one per
// byte for a text. Never reaches past the end of the file's line.
uint32_t SimHam::textLength(uint32_t reg) const {
  const Utils::ExpectedVal& val = expected->at(reg);
  uint32_t length = val.isNumeric() ? 2 * val.size() : val.size();
  uint32_t offset = offsets.at(reg);
  return offset >= simFileSize ? 0 : std::min(length, simFileSize - offset);
}

void SimHam::warnNotSimulated(uint32_t reg) const {
  pl_trace(0, "WARNING: Simulated Driver %s doesn't yet have expectedVal set for register 0x%x using SIMULATION_HAM()\n",
           driverName_.c_str(), reg);
}

uint32_t SimHam::readNumber(ResponseId id, uint32_t width) {
  uint32_t reg = fetchRegister(id);
  if (!simFileExists_ || !isListed(reg)) {
    warnNotSimulated(reg);
    return 0;
  }
  // Leading hexadecimal digits; a slot edited into something else reads 0.
  std::string text = readText(reg, std::min(width, textLength(reg)));
  return static_cast<uint32_t>(std::strtoul(text.c_str(), nullptr, 16));
}

uint8_t SimHam::get8(ResponseId id) { return static_cast<uint8_t>(readNumber(id, 2)); }

uint16_t SimHam::get16(ResponseId id) { return static_cast<uint16_t>(readNumber(id, 4)); }

std::string SimHam::getBlock(ResponseId id, uint32_t length) {
  uint32_t reg = fetchRegister(id);
  auto isAddrSimulated = [&] { return isListed(reg); };
  KELDO_ASSERT(simFileExists_);
  KELDO_ASSERT(isAddrSimulated());
  // Length 0 lets the device decide: the whole slot. The text comes back as
  // stored (hexadecimal digits stay digits).
  uint32_t slot = textLength(reg);
  return readText(reg, length == 0 ? slot : std::min(length, slot));
}

// Reads and writes copy with pread/pwrite under the lock and never map the
// file: a mapping faults (SIGBUS) when another process shortens the file
// between our length check and the copy, and every mapping counts against
// the host's limit of mappings.
std::string SimHam::readText(uint32_t reg, uint32_t count) {
  if (count == 0) {
    return std::string();
  }
  LockedFile file(simFileName_, false);
  if (!file.locked()) {
    pl_trace(0, "WARNING: Simulated Driver %s cannot read %s: %s; register 0x%x reads as 0", driverName_.c_str(),
             simFileName_.c_str(), file.reason(), reg);
    return std::string();
  }
  std::string text(count, '\0');
  if (file.size() < simFileSize || !file.readAt(offsets.at(reg), text)) {
    pl_trace(0, "WARNING: Simulated Driver %s: %s holds %lld bytes, expected %u; register 0x%x reads as 0",
             driverName_.c_str(), simFileName_.c_str(), file.size(), simFileSize, reg);
    return std::string();
  }
  pl_trace(5, "%s - Read %s from register 0x%x", simFileName_.c_str(), text.c_str(), reg);
  return text;
}

void SimHam::writeText(uint32_t reg, const std::string& text) {
  if (!simFileExists_ || !isListed(reg)) {
    warnNotSimulated(reg);
    return;
  }
  // A text longer than the register's slot runs on into the registers after
  // it, as a multi-byte write on a real device would, but stops at the end
  // of the line: the newline is never overwritten and the file never grows.
  uint32_t offset = offsets.at(reg);
  uint32_t count = offset >= simFileSize ? 0 : std::min<uint32_t>(static_cast<uint32_t>(text.size()), simFileSize - offset);
  if (count == 0) {
    return;
  }
  LockedFile file(simFileName_, true);
  if (!file.locked()) {
    pl_trace(0, "WARNING: Simulated Driver %s cannot write %s: %s; write to register 0x%x dropped",
             driverName_.c_str(), simFileName_.c_str(), file.reason(), reg);
    return;
  }
  // Writing into a short file would lengthen it with a hole of zero bytes.
  if (file.size() < simFileSize || !file.writeAt(offset, text.data(), count)) {
    pl_trace(0, "WARNING: Simulated Driver %s: %s holds %lld bytes, expected %u; write to register 0x%x dropped",
             driverName_.c_str(), simFileName_.c_str(), file.size(), simFileSize, reg);
    return;
  }
  pl_trace(5, "%s - Wrote %s to register 0x%x", simFileName_.c_str(), text.c_str(), reg);
}

void SimHam::setDriverName(std::string driverName, std::string nameSuffix) {
  driverName_ = std::move(driverName);
  suffix = std::move(nameSuffix);
  simFileName_ = simulationDirectory() + "/" + driverName_;
  if (!suffix.empty()) {
    simFileName_ += "-" + suffix;
  }
}

void SimHam::setExpected(Utils::ExpectedValues* map) {
  expected = map;
  if (map != nullptr && !map->empty()) {
    writeSimulationFile();
  }
}

// Each start of a driver resets its registers to the expected values. The
// new image is written to a temporary file beside the old one and renamed
// over it, so a process already using the file sees either the old image or
// the new one, never an empty or half-written file, and a FIFO or other
// special file left under the name is simply replaced.
void SimHam::writeSimulationFile() {
  KELDO_ASSERT(!simFileName_.empty());

  std::string directory = simFileName_.substr(0, simFileName_.rfind('/'));
  if (DIR* dir = opendir(directory.c_str())) {
    closedir(dir);
  } else {
    mkdir(directory.c_str(), 0755);
  }

  offsets.clear();
  std::string text;
  for (const auto& [reg, val] : *expected) {
    offsets[reg] = static_cast<uint32_t>(text.size());
    if (val.isNumeric()) {
      text += hexText(val.value(), val.size());
    } else {
      const uint32_t size = val.size();
      KELDO_ASSERT(size == val.valStr().length());
      text += val.valStr();
    }
  }
  const uint32_t length = static_cast<uint32_t>(text.size());
  text += '\n';

  simFileExists_ = false;
  std::string temporary = simFileName_ + ".XXXXXX";
  int fd = mkostemp(&temporary[0], O_CLOEXEC);
  if (fd < 0) {
    pl_trace(0, "Could not create simulation file %s: %s", simFileName_.c_str(), std::strerror(errno));
    return;
  }
  fchmod(fd, 0644);  // readable by every process that shares the board, like any new file
  size_t done = 0;
  while (done < text.size()) {
    ssize_t n = ::write(fd, text.data() + done, text.size() - done);
    if (n < 0 && errno == EINTR) {
      continue;
    }
    if (n <= 0) {
      pl_trace(0, "Could not write simulation file %s: %s", simFileName_.c_str(), std::strerror(errno));
      close(fd);
      unlink(temporary.c_str());
      return;
    }
    done += static_cast<size_t>(n);
  }
  close(fd);
  if (rename(temporary.c_str(), simFileName_.c_str()) != 0) {
    pl_trace(0, "Could not create simulation file %s: %s", simFileName_.c_str(), std::strerror(errno));
    unlink(temporary.c_str());
    return;
  }
  simFileSize = length;
  simFileExists_ = true;
  pl_trace(5, "Created %s", simFileName_.c_str());
}

}  // namespace Ham
