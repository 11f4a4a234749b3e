#pragma once
// Adds one host object through the plug-in's entry point and reads its state
// back through the object's callback table.
#include <functional>
#include <string>

#include "BoardConfig.h"

// Resolves an exported entry point of the loaded plug-in (null when absent).
using SymbolLookup = std::function<void*(const char*)>;

struct ObjectReport {
  bool added = false;
  std::string state;  // one line, "field=value" pairs
};

ObjectReport addAndReport(const HostObject& object, const SymbolLookup& lookup);
