#include "Collector.h"

#include <fcntl.h>
#include <unistd.h>

#include <clocale>
#include <cstdlib>
#include <regex>
#include <sstream>

#include "BoundedCommand.h"
#include "Ham/IpmiCache.h"
#include "Ham/SharedMap.h"

namespace IpmiCollector {

namespace {

// What one ipmitool run may print; real outputs are a few KiB.
constexpr size_t kMaxOutput = 1u << 20;
// Ids a FRU listing may name; more is not a real controller.
constexpr size_t kMaxFrus = 64;
// Readings and sensor names longer than this are not ipmitool's.
constexpr size_t kMaxKey = 64, kMaxReading = 32;

std::string trimmed(const std::string& text) { return Ham::trimWhitespace(text); }

// A reading as ipmitool prints it: decimal ("38.000", "-1.5") or, for
// discrete sensors, hexadecimal ("0x0100"); nothing else on the field.
bool isNumber(const std::string& text) {
  static const locale_t cLocale = newlocale(LC_ALL_MASK, "C", static_cast<locale_t>(0));
  char* end = nullptr;
  strtod_l(text.c_str(), &end, cLocale);
  return !text.empty() && text.size() <= kMaxReading && end == text.c_str() + text.size();
}

// Printable characters only: a name goes into one line of the cache.
std::string printable(const std::string& text) {
  std::string out;
  for (char c : text) {
    if (c >= 0x20 && c <= 0x7E) out.push_back(c);
  }
  return trimmed(out);
}

}  // namespace

std::map<std::string, std::string> parseSensorList(const std::string& output) {
  std::map<std::string, std::string> readings;
  std::istringstream lines(output);
  for (std::string line; std::getline(lines, line);) {
    std::vector<std::string> fields;
    std::istringstream cells(line);
    for (std::string cell; std::getline(cells, cell, '|');) fields.push_back(trimmed(cell));
    if (fields.size() < 4) continue;
    const std::string key = Ham::IpmiCache::sensorKey(fields[0]);
    if (!key.empty() && key.size() <= kMaxKey && isNumber(fields[1])) readings.emplace(key, fields[1]);
  }
  return readings;
}

std::map<std::string, std::string> parseFruList(const std::string& output) {
  static const std::regex description(R"(^\s*FRU Device Description\s*:\s*(.*?)\s*\(ID (\d{1,3})\)\s*$)");
  std::map<std::string, std::string> frus;
  std::istringstream lines(output);
  std::smatch match;
  for (std::string line; std::getline(lines, line) && frus.size() < kMaxFrus;) {
    if (std::regex_match(line, match, description)) frus.emplace(match[2].str(), printable(match[1].str()));
  }
  return frus;
}

Collector::Collector(Options options, std::function<void(const std::string&)> report)
    : options_(std::move(options)), report_(std::move(report)) {}

bool Collector::run(const std::vector<std::string>& arguments, std::string& output, bool needSuccess) {
  std::vector<std::string> argv{options_.ipmitool};
  argv.insert(argv.end(), arguments.begin(), arguments.end());
  const CommandResult result = runBounded(argv, static_cast<int>(options_.timeoutSeconds * 1000), kMaxOutput);
  output = result.output;
  // Some controllers answer "fru print" with a failure for one record and
  // the others listed; only a command that never ended is no answer at all.
  if (result.succeeded() || (!needSuccess && result.exited)) return true;
  std::string text = options_.ipmitool;
  for (const std::string& arg : arguments) text += " " + arg;
  report_(text + ": " + result.failure);
  return false;
}

void Collector::collectSensors(Entries& sensors) {
  std::string output;
  if (!run({"sensor", "list"}, output, true)) return;
  Entries readings = parseSensorList(output);
  if (readings.empty()) {
    report_(options_.ipmitool + " sensor list: no reading in its output; keeping " + std::to_string(sensors.size()) +
            " readings");
    return;
  }
  sensors = std::move(readings);
}

// A FRU that the listing names but that cannot be read (an empty bay) is no
// failure worth a line every pass.
bool Collector::readFru(const std::string& id, std::string& image) {
  char path[] = "/tmp/keldo-fru-XXXXXX";
  const int fd = ::mkstemp(path);
  if (fd < 0) return false;
  const CommandResult result = runBounded({options_.ipmitool, "fru", "read", id, path},
                                          static_cast<int>(options_.timeoutSeconds * 1000), kMaxOutput);
  image.clear();
  const bool read = result.succeeded() && Ham::readFromFd(fd, image) && !image.empty() &&
                    image.size() <= Ham::IpmiCache::kMaxFruBytes;
  ::close(fd);
  ::unlink(path);
  return read;
}

void Collector::collectFrus(Entries& frus) {
  std::string output;
  if (!run({"fru", "print"}, output, false)) return;
  const Entries listed = parseFruList(output);
  if (listed.empty()) {
    report_(options_.ipmitool + " fru print: no FRU in its output; keeping " + std::to_string(frus.size()) + " records");
    return;
  }
  Entries records;
  for (const auto& [id, name] : listed) {
    const std::string key = Ham::IpmiCache::fruKey(id);
    std::string image;
    if (readFru(id, image)) {
      records[key] = Ham::IpmiCache::fruValue(image, name);
    } else if (frus.count(key) != 0) {
      records[key] = frus[key];  // listed, but its read failed this time
    }
  }
  frus = std::move(records);
}

bool Collector::pass() {
  Ham::SharedMap config(options_.config, true, false);
  if (!config.readFromFile()) report_("cannot read the requests in " + options_.config);
  if (config.get("hamType") != "ipmiTool") return true;  // nobody asked for anything yet

  Ham::SharedMap cache(options_.cache, false, true);
  if (!cache.readFromFile()) report_("cannot read " + options_.cache + "; starting from an empty cache");
  Entries sensors, frus;
  for (const auto& entry : cache.toMap()) (Ham::IpmiCache::isFruKey(entry.first) ? frus : sensors).insert(entry);
  if (config.get("sdr") == "True") collectSensors(sensors);
  collectFrus(frus);

  cache.clear();
  for (const Entries* part : {&sensors, &frus}) {
    for (const auto& entry : *part) cache.insert(entry.first, entry.second);
  }
  if (cache.replaceFile()) return true;
  report_("cannot replace " + options_.cache);
  return false;
}

}  // namespace IpmiCollector
