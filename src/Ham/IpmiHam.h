#pragma once
// Readings that a board management controller knows, by name. The plug-in
// never speaks IPMI itself: a collector process keeps the latest readings in
// a shared cache file, and an IPMI access method turns that file into the
// maps below. Drivers build the names they look up; every lookup folds the
// name to upper case, as the keys in the cache are.
#include <map>
#include <memory>
#include <string>

#include "keldo/pl_host.h"

namespace Ham {

class IpmiHam {
 public:
  // One FRU (field-replaceable unit) record as the collector read it from
  // the controller: its raw image and the controller's name for it.
  struct FruData {
    std::string image;
    std::string name;
  };

  // Requests to the collector. The virtual-table layout that drivers built
  // apart from this library are compiled against: keep the order. Each base
  // version throws NotImplementedException.
  virtual void fanId(const std::string& id);
  virtual void psuId(const std::string& id);
  virtual void airflowId(const std::string& id);

  // `status` when the name is known (the text copied into `value`), else 4
  // with `value` untouched.
  pl_status getSensorVal(const std::string& name, std::string& value) const;
  // The same, then the text as a decimal number. Converted only when the name
  // is known; a text that is no number throws std::invalid_argument.
  pl_status getSensorVal(const std::string& name, int* value) const;
  pl_status getSensorVal(const std::string& name, float* value) const;
  pl_status getFruVal(const std::string& name, FruData& fru) const;
  // A fan is present when its sensor is in the cache.
  pl_status fanPresence(const std::string& name, bool* present) const;
  // The FRU record's image and name, when there is one.
  pl_status psuPresence(const std::string& name, std::string& image, std::string& fruName) const;

  std::map<std::string, std::string> sensors;  // the latest cache snapshot
  std::map<std::string, FruData> frus;
  pl_status status = PL_STATUS_OK;  // of the latest cache read: 0 or 4

 protected:
  // Released through the implementation's own type (shared_ptr keeps it).
  ~IpmiHam() = default;
};

// A new access built by the factory registered under `name` in Ham::ipmiHams;
// empty (with a trace) when there is none or the factory fails.
std::shared_ptr<IpmiHam> createIpmiHam(const std::string& name);

// The one access of this name in the process, built on first use: every
// driver shares one snapshot and one poll timer. An access that could not be
// built is tried again at the next call.
std::shared_ptr<IpmiHam> sharedIpmiHam(const std::string& name);

}  // namespace Ham
