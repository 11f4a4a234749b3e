#include "EmulationFile.h"

#include <fcntl.h>
#include <rapidjson/document.h>
#include <rapidjson/error/en.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <initializer_list>
#include <sstream>

#include "Chips.h"
#include "KeldoUtil/Smbus.pb.h"

namespace SmbusProxyd {

namespace {

constexpr uint32_t kMaxEepromBytes = 64 * 1024;
constexpr uint32_t kMaxEmulationBytes = 16 * 1024 * 1024;
constexpr unsigned kMuxChannels = 8;  // PCA9548: one control bit per channel

// A JSON value with its place in the file, for error messages.
struct Node {
  const rapidjson::Value& value;
  std::string path;

  [[noreturn]] void fail(const std::string& what) const { throw EmulationError(path + ": " + what); }

  Node member(const char* name) const {
    if (!value.HasMember(name)) fail(std::string("missing \"") + name + "\"");
    return Node{value[name], path + "." + name};
  }
  bool has(const char* name) const { return value.HasMember(name); }

  void expectObject(std::initializer_list<const char*> keys) const {
    if (!value.IsObject()) fail("expected an object");
    for (auto it = value.MemberBegin(); it != value.MemberEnd(); ++it) {
      std::string key = it->name.GetString();
      bool known = key == "comment";
      for (const char* k : keys) known = known || key == k;
      if (!known) fail("unknown key \"" + key + "\"");
    }
  }

  template <typename Fn>
  void forEachElement(Fn fn) const {
    if (!value.IsArray()) fail("expected an array");
    for (rapidjson::SizeType i = 0; i < value.Size(); ++i) fn(Node{value[i], path + "[" + std::to_string(i) + "]"});
  }

  // Object members whose names are numbers ("0x9a"), e.g. registers.
  template <typename Fn>
  void forEachNumberedMember(uint64_t max, Fn fn) const {
    if (!value.IsObject()) fail("expected an object");
    for (auto it = value.MemberBegin(); it != value.MemberEnd(); ++it) {
      Node child{it->value, path + "." + it->name.GetString()};
      fn(parseNumber(child, it->name.GetString(), max), child);
    }
  }

  static uint64_t parseNumber(const Node& where, const std::string& text, uint64_t max) {
    char* end = nullptr;
    errno = 0;
    unsigned long long n = text.empty() || text[0] == '-' ? 0 : std::strtoull(text.c_str(), &end, 0);
    if (text.empty() || text[0] == '-' || errno != 0 || *end != '\0' || n > max) where.failRange(max);
    return n;
  }

  [[noreturn]] void failRange(uint64_t max) const {
    std::ostringstream text;
    text << "expected a number from 0 to 0x" << std::hex << max;
    fail(text.str());
  }

  // A JSON number or a string in C notation ("0x50", "80").
  uint64_t number(uint64_t max) const {
    if (value.IsUint64()) {
      if (value.GetUint64() > max) failRange(max);
      return value.GetUint64();
    }
    if (value.IsString()) return parseNumber(*this, value.GetString(), max);
    failRange(max);
  }

  std::string string() const {
    if (!value.IsString()) fail("expected a string");
    return std::string(value.GetString(), value.GetStringLength());
  }

  bool boolean() const {
    if (!value.IsBool()) fail("expected true or false");
    return value.GetBool();
  }

  // A byte string: text taken as its characters, or an array of bytes.
  std::string bytes() const {
    if (value.IsString()) return string();
    std::string out;
    forEachElement([&](const Node& b) { out.push_back(static_cast<char>(b.number(0xFF))); });
    return out;
  }
};

// Whole contents of a regular file of `minBytes` to `maxBytes`. Anything
// else is refused before a byte is read: a FIFO would block the start-up for
// ever and a device such as /dev/zero would never end. The texts name the file.
std::string readRegularFile(const std::string& path, size_t minBytes, size_t maxBytes, const char* what) {
  const int fd = ::open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK);
  if (fd < 0) throw EmulationError("cannot read " + path + ": " + std::strerror(errno));
  struct stat st {};
  std::string problem;
  if (::fstat(fd, &st) != 0 || !S_ISREG(st.st_mode)) {
    problem = path + " is not a regular file";
  } else if (static_cast<uint64_t>(st.st_size) < minBytes || static_cast<uint64_t>(st.st_size) > maxBytes) {
    problem = path + " holds " + std::to_string(st.st_size) + " bytes; " + what + " holds " + std::to_string(minBytes) +
              " to " + std::to_string(maxBytes);
  }
  std::string bytes(problem.empty() ? static_cast<size_t>(st.st_size) : 0, '\0');
  for (size_t done = 0; done < bytes.size();) {
    const ssize_t n = ::read(fd, &bytes[done], bytes.size() - done);
    if (n <= 0) {
      problem = "cannot read " + path + ": " + (n < 0 ? std::strerror(errno) : "it shrank while being read");
      break;
    }
    done += static_cast<size_t>(n);
  }
  ::close(fd);
  if (!problem.empty()) throw EmulationError(problem);
  return bytes;
}

uint32_t masterType(const Node& node) {
  if (node.value.IsString()) {
    Smbus::MasterType type;
    if (Smbus::MasterType_Parse(node.string(), &type)) return static_cast<uint32_t>(type);
  }
  uint64_t n = node.number(Smbus::MasterType_MAX);
  return static_cast<uint32_t>(n);
}

class BoardReader {
 public:
  explicit BoardReader(std::string baseDir) : baseDir_(std::move(baseDir)) {}

  Board read(const Node& root) {
    root.expectObject({"buses"});
    root.member("buses").forEachElement([&](const Node& bus) { readRootBus(bus); });
    return std::move(board_);
  }

 private:
  void readRootBus(const Node& node) {
    node.expectObject({"master", "pci", "accelerator", "bus", "devices"});
    BusKey key;
    key.masterType = node.has("master") ? masterType(node.member("master")) : uint32_t{Smbus::I2C};
    key.pciAddress = node.has("pci") ? static_cast<uint32_t>(node.member("pci").number(0xFFFFFFFFu)) : 0;
    key.accelerator = node.has("accelerator") ? static_cast<uint32_t>(node.member("accelerator").number(0x7F)) : 0;
    key.busId = static_cast<uint32_t>(node.member("bus").number(0x7F));
    addSegment(node, key, key);
  }

  void addSegment(const Node& node, const BusKey& key, const BusKey& root) {
    try {
      board_.addSegment(key, root);
    } catch (const std::invalid_argument& e) {
      node.fail(e.what());
    }
    if (node.has("devices")) {
      node.member("devices").forEachElement([&](const Node& device) { readDevice(device, key, root); });
    }
  }

  void readDevice(const Node& node, const BusKey& bus, const BusKey& root) {
    node.expectObject({"address", "registers", "fill", "blocks", "eeprom", "fullRegister", "fault", "mux", "chip"});
    uint8_t address = static_cast<uint8_t>(node.member("address").number(0x7F));
    auto [it, added] = board_.segment(bus)->devices.emplace(address, Device(address));
    if (!added) node.member("address").fail("address used twice on this bus");
    Device& device = it->second;
    if (node.has("mux")) {
      if (node.has("registers") || node.has("blocks") || node.has("eeprom")) {
        node.fail("a multiplexer has no registers, blocks or EEPROM");
      }
      readMux(node.member("mux"), device, bus, root);
    }
    if (node.has("chip")) readChip(node, device);
    if (node.has("fullRegister")) device.setFullRegister(node.member("fullRegister").boolean());
    const uint64_t regMax = device.fullRegister() ? 0xFFFFFFFFu : 0xFFFFu;
    if (node.has("fill")) device.setFill(static_cast<uint8_t>(node.member("fill").number(0xFF)));
    if (node.has("eeprom")) readEeprom(node.member("eeprom"), device);
    if (node.has("registers") && device.chip()) {
      readChipRegisters(node.member("registers"), device);
    } else if (node.has("registers")) {
      readRegisters(node.member("registers"), device, regMax);
    }
    if (node.has("blocks")) {
      node.member("blocks").forEachNumberedMember(regMax, [&](uint64_t reg, const Node& block) {
        std::string bytes = block.bytes();
        if (bytes.size() > 255) block.fail("a block holds at most 255 bytes");
        device.setBlock(static_cast<uint32_t>(reg), std::move(bytes));
      });
    }
    if (node.has("fault")) device.fault() = readFault(node.member("fault"));
  }

  // Values are one byte, or an array of bytes for consecutive registers.
  void readRegisters(const Node& node, Device& device, uint64_t regMax) {
    node.forEachNumberedMember(regMax, [&](uint64_t reg, const Node& value) {
      std::string run = value.value.IsArray() ? value.bytes() : std::string(1, static_cast<char>(value.number(0xFF)));
      for (size_t i = 0; i < run.size(); ++i) {
        device.setRegister(static_cast<uint32_t>(reg + i), static_cast<uint8_t>(run[i]));
      }
    });
  }

  void readChip(const Node& node, Device& device) {
    if (node.has("mux") || node.has("eeprom") || node.has("fullRegister")) {
      node.fail("a chip has no multiplexer, EEPROM image or full register word");
    }
    const Node name = node.member("chip");
    const Chip* chip = chipNamed(name.string());
    if (!chip) name.fail("unknown chip \"" + name.string() + "\" (" + chipNames() + ")");
    device.makeChip(chip);
  }

  // A value is the register's raw contents (one byte or a word), or an object
  // that states it in one engineering unit: {"celsius": 32.5}. Raw values go
  // first, so that a unit may depend on them (READ_VOUT on VOUT_MODE).
  void readChipRegisters(const Node& node, Device& device) {
    const Chip& chip = *device.chip();
    for (bool inUnits : {false, true}) {
      node.forEachNumberedMember(chip.pointerMask, [&](uint64_t number, const Node& value) {
        const auto reg = static_cast<uint32_t>(number);
        if (value.value.IsObject() != inUnits) return;
        const uint64_t max = device.width(reg) == 2 ? 0xFFFF : 0xFF;
        device.setRegister(reg, static_cast<uint16_t>(inUnits ? unitValue(value, device, reg) : value.number(max)));
      });
    }
  }

  static uint16_t unitValue(const Node& node, const Device& device, uint32_t reg) {
    if (device.width(reg) != 2) node.fail("a byte register takes a raw value");
    if (node.value.MemberCount() != 1) node.fail("expected one unit and its value, e.g. {\"celsius\": 32.5}");
    const auto& unit = *node.value.MemberBegin();
    const Node value{unit.value, node.path + "." + unit.name.GetString()};
    if (!value.value.IsNumber()) value.fail("expected a number");
    try {
      return encodeUnit(device, unit.name.GetString(), value.value.GetDouble());
    } catch (const std::invalid_argument& e) {
      value.fail(e.what());
    }
  }

  void readEeprom(const Node& node, Device& device) {
    std::string path = node.string();
    if (!path.empty() && path[0] != '/') path = baseDir_ + "/" + path;
    std::string image;
    try {
      image = readRegularFile(path, 1, kMaxEepromBytes, "an EEPROM image");
    } catch (const EmulationError& e) {
      node.fail(e.what());
    }
    for (size_t i = 0; i < image.size(); ++i) {
      device.setRegister(static_cast<uint32_t>(i), static_cast<uint8_t>(image[i]));
    }
  }

  void readMux(const Node& node, Device& mux, const BusKey& bus, const BusKey& root) {
    std::vector<MuxChannel> channels;
    node.forEachElement([&](const Node& channelNode) {
      channelNode.expectObject({"channel", "bus", "devices"});
      MuxChannel channel;
      channel.channel = static_cast<unsigned>(channelNode.member("channel").number(kMuxChannels - 1));
      for (const MuxChannel& other : channels) {
        if (other.channel == channel.channel) channelNode.member("channel").fail("channel used twice");
      }
      channel.bus = bus;
      channel.bus.busId = static_cast<uint32_t>(channelNode.member("bus").number(0x7F));
      channels.push_back(channel);
      addSegment(channelNode, channel.bus, root);
    });
    mux.makeMux(std::move(channels));
  }

  Fault readFault(const Node& node) {
    node.expectObject({"type", "ms", "reason", "count"});
    Fault fault;
    try {
      fault.kind = faultKindFromName(node.member("type").string());
    } catch (const EmulationError& e) {
      node.member("type").fail(e.what());
    }
    if (node.has("count")) fault.remaining = static_cast<int64_t>(node.member("count").number(0x7FFFFFFF));
    if (fault.remaining == 0) node.member("count").fail("a fault acts at least once");
    if (fault.kind == FaultKind::Delay) fault.delayMs = static_cast<uint32_t>(node.member("ms").number(600000));
    if (fault.kind == FaultKind::Fail) fault.reason = node.member("reason").string();
    return fault;
  }

  std::string baseDir_;
  Board board_;
};

}  // namespace

FaultKind faultKindFromName(const std::string& name) {
  static const std::pair<const char*, FaultKind> kinds[] = {
      {"nak", FaultKind::Nak}, {"delay", FaultKind::Delay}, {"drop", FaultKind::Drop}, {"fail", FaultKind::Fail}};
  for (const auto& [text, kind] : kinds) {
    if (name == text) return kind;
  }
  throw EmulationError("unknown fault \"" + name + "\" (nak, delay, drop, fail)");
}

Board parseEmulation(const std::string& json, const std::string& baseDir) {
  // Iterative: a file nested 100,000 levels deep is an error like any other,
  // not the end of the stack.
  rapidjson::Document document;
  document.Parse<rapidjson::kParseIterativeFlag>(json.c_str(), json.size());
  if (document.HasParseError()) {
    throw EmulationError("offset " + std::to_string(document.GetErrorOffset()) + ": " +
                         rapidjson::GetParseError_En(document.GetParseError()));
  }
  return BoardReader(baseDir).read(Node{document, "emulation"});
}

Board loadEmulationFile(const std::string& path) {
  const std::string json = readRegularFile(path, 0, kMaxEmulationBytes, "an emulation file");
  auto slash = path.find_last_of('/');
  std::string baseDir = slash == std::string::npos ? "." : path.substr(0, slash == 0 ? 1 : slash);
  try {
    return parseEmulation(json, baseDir);
  } catch (const EmulationError& e) {
    throw EmulationError(path + ": " + e.what());
  }
}

}  // namespace SmbusProxyd
