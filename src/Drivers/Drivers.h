#pragma once
// The parsed form of one device's object JSON: which driver runs it, which
// device and component it is, its bus address, and the driver's settings.
#include <cstdint>
#include <map>
#include <memory>
#include <string>

#include "AhamAddress.h"
#include "KeldoUtil/Json.h"

namespace Drivers {

struct DriverArgs {
  static constexpr uint32_t NO_COMPONENT = 0xFFFFFFFF;

  std::string driver;
  uint32_t uid = NO_COMPONENT;
  uint32_t did = 0;
  Topology::AhamAddress address;                  // not read for multi-devices
  std::map<std::string, std::string> driverArgs;  // every value as text
  bool isMultiDevice = false;
  std::map<std::string, std::string> multiDeviceArgs;
  bool provideHam = true;
  // The object's JSON text as the host passed it; empty when the arguments
  // came from a parsed value (a topology device). Simulation reads the
  // object's "name" from it.
  std::string json;

  static std::shared_ptr<DriverArgs> fromJSON(const rapidjson::Value& json);
  void parseJSON(const rapidjson::Value& json);
  // False (and nothing filled) when the text does not parse.
  bool parseJSON(const char* text);
};

// The name under which drivers receive their arguments.
using FactoryArgs = DriverArgs;

// Adds one text setting to the "driverArgs" object of an object JSON and hands
// back the new compact text in a malloc'ed buffer that the caller frees.
bool insertDriverArg(const char* json, char** out, const char* key, const char* value);

}  // namespace Drivers
