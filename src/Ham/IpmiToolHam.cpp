#include "Ham/IpmiToolHam.h"

#include "Ham/IpmiCache.h"

namespace Ham {

// The collector reads the configuration with the keys exactly as written
// here; the cache's keys are upper case, like the names the drivers look up.
IpmiToolHam::IpmiToolHam() : config_(kConfigPath, false, false), cache_(kCachePath, true, true) {
  request("sdr", "True");
  request("hamType", "ipmiTool");
  pollInterval_ = kPollIntervalMs;
  pollStart();  // a host refusing the timer leaves an access that answers 4
}

std::shared_ptr<IpmiHam> IpmiToolHam::create() { return std::make_shared<IpmiToolHam>(); }

void IpmiToolHam::request(const std::string& key, const std::string& value) {
  if (!config_.multiSetAndSave({key}, {value})) pl_trace(0, "Failed to write %s to config", key.c_str());
}

void IpmiToolHam::fanId(const std::string& id) { request("fanTray", id); }

void IpmiToolHam::airflowId(const std::string& id) { request("airflow", id); }

void IpmiToolHam::pollCallback() {
  if (!cache_.readFromFile()) {
    pl_trace(0, "Failed to read from cache");
    status = PL_STATUS_UNAVAILABLE;
    return;
  }
  sensors = cache_.toMap();
  takeFrus();
  status = PL_STATUS_OK;
}

// FRU records arrive as "FRU:<id>" lines and are kept under their id.
void IpmiToolHam::takeFrus() {
  frus.clear();
  for (const auto& entry : sensors) {
    if (!IpmiCache::isFruKey(entry.first)) continue;
    FruData fru;
    const std::string id = entry.first.substr(sizeof IpmiCache::kFruPrefix - 1);
    if (IpmiCache::parseFruValue(entry.second, fru.image, fru.name)) {
      frus[id] = fru;
    } else {
      pl_trace(3, "ignoring FRU %s: no image in the cache", id.c_str());
    }
  }
}

}  // namespace Ham
