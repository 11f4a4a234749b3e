#pragma once
// One collection pass of the reference IPMI collector: read what the plug-in
// asked for in the configuration file, run ipmitool for the sensor readings
// and the FRU records, and replace the cache file the plug-in polls.
#include <functional>
#include <map>
#include <string>
#include <vector>

namespace IpmiCollector {

struct Options {
  std::string config = "/var/run/ipmiConfig";
  std::string cache = "/var/run/ipmiCache";
  std::string ipmitool = "ipmitool";
  double periodSeconds = 5;
  double timeoutSeconds = 10;  // per ipmitool run
};

// "sensor list" output: each line "name | reading | unit | status | ..." with
// a numeric reading becomes cache key and reading; lines that are not such
// a line, and sensors without a reading ("na"), are left out.
std::map<std::string, std::string> parseSensorList(const std::string& output);

// "fru print" output: the FRU ids and names of its "FRU Device Description :
// NAME (ID n)" lines, by id.
std::map<std::string, std::string> parseFruList(const std::string& output);

class Collector {
 public:
  // `report` receives one line for every part of a pass that failed.
  Collector(Options options, std::function<void(const std::string&)> report);

  // False when the cache file could not be replaced. What ipmitool could not
  // deliver in this pass keeps the entries the cache file holds, so a
  // collector that restarts while the controller is away loses nothing.
  bool pass();

 private:
  using Entries = std::map<std::string, std::string>;

  void collectSensors(Entries& sensors);
  void collectFrus(Entries& frus);
  bool readFru(const std::string& id, std::string& image);
  bool run(const std::vector<std::string>& arguments, std::string& output, bool needSuccess);

  Options options_;
  std::function<void(const std::string&)> report_;
};

}  // namespace IpmiCollector
