#include "Ham/IpmiHam.h"

#include "Ham/SharedMap.h"
#include "KeldoUtil/NotImplementedException.h"
#include "Zanty.h"

namespace Ham {

namespace {

std::string upper(const std::string& name) {
  std::string key;
  keyToUpper(name, key);
  return key;
}

// The entry of `map` under the upper-cased name, or null.
template <typename Map>
const typename Map::mapped_type* lookUp(const Map& map, const std::string& name) {
  const auto it = map.find(upper(name));
  return it == map.end() ? nullptr : &it->second;
}

}  // namespace

void IpmiHam::fanId(const std::string&) { throw NotImplementedException("fanId"); }
void IpmiHam::psuId(const std::string&) { throw NotImplementedException("psuId"); }
void IpmiHam::airflowId(const std::string&) { throw NotImplementedException("airflowId"); }

pl_status IpmiHam::getSensorVal(const std::string& name, std::string& value) const {
  const std::string* found = lookUp(sensors, name);
  if (found == nullptr) return PL_STATUS_UNAVAILABLE;
  value = *found;
  return status;
}

pl_status IpmiHam::getSensorVal(const std::string& name, int* value) const {
  const std::string* found = lookUp(sensors, name);
  if (found == nullptr) return PL_STATUS_UNAVAILABLE;
  *value = std::stoi(*found);
  return status;
}

pl_status IpmiHam::getSensorVal(const std::string& name, float* value) const {
  const std::string* found = lookUp(sensors, name);
  if (found == nullptr) return PL_STATUS_UNAVAILABLE;
  *value = std::stof(*found);
  return status;
}

pl_status IpmiHam::getFruVal(const std::string& name, FruData& fru) const {
  const FruData* found = lookUp(frus, name);
  if (found == nullptr) return PL_STATUS_UNAVAILABLE;
  fru = *found;
  return status;
}

pl_status IpmiHam::fanPresence(const std::string& name, bool* present) const {
  std::string value;
  const pl_status result = getSensorVal(name, value);
  *present = result == PL_STATUS_OK;
  pl_trace(6, "IpmiHam::fanPresence  '%s' %d %d", name.c_str(), result, *present ? 1 : 0);
  return result;
}

pl_status IpmiHam::psuPresence(const std::string& name, std::string& image, std::string& fruName) const {
  FruData fru;
  const pl_status result = getFruVal(name, fru);
  if (result == PL_STATUS_OK) {
    image = fru.image;
    fruName = fru.name;
  }
  return result;
}

std::shared_ptr<IpmiHam> createIpmiHam(const std::string& name) {
  pl_trace(3, "looking for ham %s", name.c_str());
  const auto row = ipmiHams.find(name);
  if (row == ipmiHams.end()) {
    pl_trace(0, "ham not found %s", name.c_str());
    return nullptr;
  }
  pl_trace(3, "creating  %s factory function", name.c_str());
  std::shared_ptr<IpmiHam> ham = row->second();
  if (!ham) pl_trace(0, "Failed to create ham %s", name.c_str());
  return ham;
}

std::shared_ptr<IpmiHam> sharedIpmiHam(const std::string& name) {
  static auto* made = new std::map<std::string, std::shared_ptr<IpmiHam>>;  // outlives static destruction
  std::shared_ptr<IpmiHam>& ham = (*made)[name];
  if (!ham) ham = createIpmiHam(name);
  return ham;
}

}  // namespace Ham
