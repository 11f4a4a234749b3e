#pragma once
// The IPMI access through a collector process: the requests go into the
// configuration file the collector reads, and a 5-second poll re-reads the
// cache file it writes. Until the first poll, and for names the cache does
// not hold, every query answers 4.
#include <memory>
#include <string>

#include "Components/PollingDevice.h"
#include "Ham/IpmiHam.h"
#include "Ham/SharedMap.h"

namespace Ham {

class IpmiToolHam : public Component::PollingDevice<IpmiHam> {
 public:
  static constexpr const char* kConfigPath = "/var/run/ipmiConfig";
  static constexpr const char* kCachePath = "/var/run/ipmiCache";
  static constexpr unsigned int kPollIntervalMs = 5000;

  IpmiToolHam();
  ~IpmiToolHam() override = default;

  // Re-reads the cache. A failed read keeps the readings of the last good
  // one but makes every lookup answer 4 until a read succeeds again.
  void pollCallback() override;
  void fanId(const std::string& id) override;
  void airflowId(const std::string& id) override;

  static std::shared_ptr<IpmiHam> create();

 private:
  void request(const std::string& key, const std::string& value);
  void takeFrus();

  SharedMap config_;
  SharedMap cache_;
};

}  // namespace Ham
