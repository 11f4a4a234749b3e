// Whole-chassis operations. Power-off and power-cycle go through the board
// management controller with ipmitool, bounded by a time limit so a hung BMC
// cannot hold the host's thread forever.
#include "ZantySystem.h"

#include <string>

#include "Drivers/Helpers.h"

namespace {

struct ChassisCommand {
  const char* command;
  const char* failure;
};

constexpr ChassisCommand kPowerOff{"ipmitool chassis power off", "ipmitool chassis power off error"};
constexpr ChassisCommand kPowerCycle{"ipmitool chassis power cycle", "ipmitool chassis power cycle error"};
constexpr unsigned int kCommandTimeoutSeconds = 30;

pl_status runChassisCommand(const ChassisCommand& chassis) {
  std::string output;  // ipmitool's chatter is of no use to the host
  pl_status status = Drivers::runCmd(chassis.command, output, kCommandTimeoutSeconds);
  if (status != PL_STATUS_OK) {
    pl_trace(0, "%s", chassis.failure);
  }
  return status;
}

}  // namespace

namespace ZantySystem {
const pl_system_ops ops_ = {sizeof(pl_system_ops), pl_system_poweroff, pl_system_powercycle,
                            pl_system_get_reload_cause, nullptr};
}  // namespace ZantySystem

extern "C" pl_system* pl_system_add(const char* objectJson) {
  pl_trace(0, "ZantYSystem::pl_system_add( '%s' )", objectJson);
  return new pl_system{nullptr, &ZantySystem::ops_};
}

pl_status pl_system_poweroff(pl_system*) { return runChassisCommand(kPowerOff); }

pl_status pl_system_powercycle(pl_system*) { return runChassisCommand(kPowerCycle); }

pl_status pl_system_get_reload_cause(pl_system*, char (*)[100], long*, char (*)[500]) {
  return PL_STATUS_NOT_PROVIDED;
}
