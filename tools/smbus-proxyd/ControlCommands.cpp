#include "ControlCommands.h"

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <sstream>
#include <stdexcept>
#include <vector>

#include "EmulationFile.h"
#include "Emulator.h"

namespace SmbusProxyd {

namespace {

struct CommandError : std::runtime_error {
  using std::runtime_error::runtime_error;
};

using Words = std::vector<std::string>;

Words split(const std::string& line) {
  std::istringstream in(line);
  Words words;
  for (std::string word; in >> word;) words.push_back(word);
  return words;
}

uint64_t number(const std::string& text, uint64_t max, const char* what) {
  char* end = nullptr;
  errno = 0;
  unsigned long long n = std::strtoull(text.c_str(), &end, 0);
  if (text.empty() || text[0] == '-' || errno != 0 || *end != '\0' || n > max) {
    throw CommandError(std::string("bad ") + what + " \"" + text + "\"");
  }
  return n;
}

uint32_t masterType(const std::string& text) {
  Smbus::MasterType type;
  if (Smbus::MasterType_Parse(text, &type)) return static_cast<uint32_t>(type);
  return static_cast<uint32_t>(number(text, Smbus::MasterType_MAX, "master type"));
}

// MASTER/PCI/ACCEL/BUS/ADDRESS
DeviceKey deviceKey(const std::string& text) {
  std::vector<std::string> parts;
  std::istringstream in(text);
  for (std::string part; std::getline(in, part, '/');) parts.push_back(part);
  if (parts.size() != 5) throw CommandError("bad device \"" + text + "\" (MASTER/PCI/ACCEL/BUS/ADDRESS)");
  DeviceKey key;
  key.bus.masterType = masterType(parts[0]);
  key.bus.pciAddress = static_cast<uint32_t>(number(parts[1], 0xFFFFFFFFu, "PCI address"));
  key.bus.accelerator = static_cast<uint32_t>(number(parts[2], 0x7F, "accelerator"));
  key.bus.busId = static_cast<uint32_t>(number(parts[3], 0x7F, "bus"));
  key.address = static_cast<uint8_t>(number(parts[4], 0x7F, "address"));
  return key;
}

Device& device(Emulator& emulator, const std::string& text) {
  DeviceKey key = deviceKey(text);
  Device* found = emulator.board().device(key);
  if (!found) throw CommandError("no " + key.text());
  return *found;
}

// "any" is the fault acting on every device without one of its own.
std::optional<Fault>& faultSlot(Emulator& emulator, const std::string& target) {
  if (target == "any") return emulator.anyDeviceFault();
  return device(emulator, target).fault();
}

// fault TARGET KIND [MS] [count N] [REASON...]
std::string faultCommand(Emulator& emulator, const Words& w, const std::string& line) {
  if (w.size() < 3) throw CommandError("usage: fault TARGET nak|delay MS|drop|fail REASON [count N]");
  Fault fault;
  try {
    fault.kind = faultKindFromName(w[2]);
  } catch (const EmulationError& e) {
    throw CommandError(e.what());
  }
  size_t next = 3;
  if (fault.kind == FaultKind::Delay) {
    if (w.size() <= next) throw CommandError("delay needs milliseconds");
    fault.delayMs = static_cast<uint32_t>(number(w[next++], 600000, "delay"));
  }
  if (w.size() > next + 1 && w[next] == "count") {
    fault.remaining = static_cast<int64_t>(number(w[next + 1], 0x7FFFFFFF, "count"));
    if (fault.remaining == 0) throw CommandError("a fault acts at least once");
    next += 2;
  }
  if (fault.kind == FaultKind::Fail) {
    // The reason is the rest of the line, spacing kept.
    size_t at = 0;
    for (size_t i = 0; i < next; ++i) at = line.find(w[i], at) + w[i].size();
    at = line.find_first_not_of(" \t", at);
    if (at == std::string::npos) throw CommandError("fail needs a reason");
    fault.reason = line.substr(at);
  } else if (next != w.size()) {
    throw CommandError("unexpected \"" + w[next] + "\"");
  }
  faultSlot(emulator, w[1]) = fault;
  return "ok";
}

// clear TARGET | clear all
std::string clearCommand(Emulator& emulator, const Words& w, const std::string&) {
  if (w.size() != 2) throw CommandError("usage: clear TARGET|any|all");
  if (w[1] == "all") {
    emulator.anyDeviceFault().reset();
    emulator.board().forEachDevice([](Device& d) { d.fault().reset(); });
  } else {
    faultSlot(emulator, w[1]).reset();
  }
  return "ok";
}

// "0x3f" for a byte, "0x2080" for a chip's word register.
std::string hexValue(uint32_t value, unsigned width) {
  char text[16];
  std::snprintf(text, sizeof(text), "0x%0*x", static_cast<int>(2 * width), value);
  return text;
}

// peek DEVICE REGISTER
std::string peekCommand(Emulator& emulator, const Words& w, const std::string&) {
  if (w.size() != 3) throw CommandError("usage: peek DEVICE REGISTER");
  Device& d = device(emulator, w[1]);
  if (d.isMux()) return "ok " + hexValue(d.control(), 1);
  const auto reg = static_cast<uint32_t>(number(w[2], 0xFFFFFFFFu, "register"));
  return "ok " + hexValue(d.registerAt(reg), d.width(reg));
}

// poke DEVICE REGISTER VALUE; a value as wide as the register.
std::string pokeCommand(Emulator& emulator, const Words& w, const std::string&) {
  if (w.size() != 4) throw CommandError("usage: poke DEVICE REGISTER VALUE");
  Device& d = device(emulator, w[1]);
  if (d.isMux()) throw CommandError("a multiplexer has no registers");
  const auto reg = static_cast<uint32_t>(number(w[2], 0xFFFFFFFFu, "register"));
  d.setRegister(reg, static_cast<uint16_t>(number(w[3], d.width(reg) == 2 ? 0xFFFF : 0xFF, "value")));
  return "ok";
}

std::string transactionsCommand(Emulator& emulator, const Words& w, const std::string&) {
  if (w.size() != 1) throw CommandError("usage: transactions");
  return "ok " + std::to_string(emulator.transactions());
}

std::string pingCommand(Emulator&, const Words&, const std::string&) { return "ok"; }

struct Command {
  const char* name;
  std::string (*run)(Emulator&, const Words&, const std::string&);
};

const Command kCommands[] = {
    {"fault", faultCommand}, {"clear", clearCommand}, {"peek", peekCommand},
    {"poke", pokeCommand},   {"ping", pingCommand},   {"transactions", transactionsCommand},
};

}  // namespace

std::string ControlCommands::execute(const std::string& line) {
  Words words = split(line);
  if (words.empty()) return "error: empty command";
  for (const Command& command : kCommands) {
    if (words[0] != command.name) continue;
    try {
      return command.run(emulator_, words, line);
    } catch (const CommandError& e) {
      return std::string("error: ") + e.what();
    }
  }
  return "error: unknown command \"" + words[0] + "\"";
}

}  // namespace SmbusProxyd
