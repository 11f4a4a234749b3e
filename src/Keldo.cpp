// Library frame: the initialisation shared by every pl_<kind>_init, the one
// connection to the SMBus proxy service, and the simulation switch.
#include "Keldo.h"

#include <unistd.h>

#include <cstdlib>

#include "PlatformLibrary/PLSocket.h"
#include "Topology.h"

PlatformLibrary::PLSocket* _plSock = nullptr;

namespace Keldo {

int (*socketSetup)(PlatformLibrary::PLSocket* socket) = [](PlatformLibrary::PLSocket* socket) {
  return socket->setup();
};
unsigned int (*pauseSeconds)(unsigned int seconds) = ::sleep;

namespace {

// A socket that never connected still owns a descriptor slot and possibly a
// host watcher; release both before dropping it so a later init starts clean.
void discardSocket() {
  if (_plSock->watcher_ != 0 && pl_fd_watcher_delete != nullptr) {
    pl_fd_watcher_delete(_plSock->watcher_);
  }
  close(_plSock->fd_);
  _plSock->fd_ = -1;
  delete _plSock;
  _plSock = nullptr;
}

}  // namespace
}  // namespace Keldo

pl_status plSockInit(const char* name, int tries) {
  if (_plSock != nullptr) {
    return PL_STATUS_OK;
  }
  _plSock = new PlatformLibrary::PLSocket();
  // The proxy service may still be starting with the host: keep trying, one
  // attempt a second, before giving up on this init.
  for (int attempt = 0; attempt < tries; ++attempt) {
    if (Keldo::socketSetup(_plSock) == 0) {
      return PL_STATUS_OK;
    }
    Keldo::pauseSeconds(1);
  }
  pl_trace(0, "%s: socket Setup failed!", name);
  Keldo::discardSocket();
  return PL_STATUS_UNAVAILABLE;
}

pl_status keldoLibraryInit(const char* name, const char* topologyJson, int tries) {
  // A null text is treated as empty, so it fails to parse instead of crashing.
  const char* json = topologyJson != nullptr ? topologyJson : "";
  pl_trace(0, "%s", name);
  pl_trace(5, "%s: json = %s", name, json);
  pl_status status = plSockInit(name, tries);
  if (status != PL_STATUS_OK) {
    return status;
  }
  return Topology::loadTopology(json);
}

namespace {
constexpr int kSocketAttempts = 30;
}

extern "C" {

pl_status pl_system_init(const char* json) { return keldoLibraryInit("pl_system_init", json, kSocketAttempts); }
pl_status pl_slot_init(const char* json) { return keldoLibraryInit("pl_slot_init", json, kSocketAttempts); }
pl_status pl_led_init(const char* json) { return keldoLibraryInit("pl_led_init", json, kSocketAttempts); }
pl_status pl_temp_sensor_init(const char* json) {
  return keldoLibraryInit("pl_temp_sensor_init", json, kSocketAttempts);
}
pl_status pl_fan_init(const char* json) { return keldoLibraryInit("pl_fan_init", json, kSocketAttempts); }
pl_status pl_xcvr_init(const char* json) { return keldoLibraryInit("pl_xcvr_init", json, kSocketAttempts); }
pl_status pl_psu_init(const char* json) { return keldoLibraryInit("pl_psu_init", json, kSocketAttempts); }
pl_status pl_gpio_init(const char* json) { return keldoLibraryInit("pl_gpio_init", json, kSocketAttempts); }
pl_status pl_smbus_init(const char* json) {
  pl_trace(7, "%s\n", "pl_smbus_init");
  return keldoLibraryInit("pl_smbus_init", json, kSocketAttempts);
}

}  // extern "C"

namespace Utils {

int32_t simulationMode = -1;

bool isInSimulation() {
  if (simulationMode == -1) {
    simulationMode = std::getenv("SIMULATION_VMID") != nullptr ? 1 : 0;
  }
  return simulationMode == 1;
}

}  // namespace Utils
