#pragma once
// The host's view of a board: the topology text every init entry receives and
// the objects to add, in order. See docs/reference-host.md for the format.
#include <string>
#include <vector>

struct HostObject {
  std::string kind;     // system, slot, led, temp_sensor, fan, xcvr, psu, gpio, smbus
  std::string name;     // shown in the report
  std::string json;     // the object JSON handed to pl_<kind>_add (or a bus label for smbus)
  unsigned address = 0; // smbus: device address on the bus
  float alert = 0;      // temp_sensor thresholds
  float critical = 0;
  int command = -1;     // smbus: register to read in the report (-1: receive byte)
};

struct BoardConfig {
  std::string name;
  std::string topology;
  std::vector<HostObject> objects;
};

// Throws std::runtime_error with the file and the reason on bad input.
BoardConfig loadBoardConfig(const std::string& path);
