#pragma once
// Library frame: the initialisation that every pl_<kind>_init runs, the one
// process-wide connection to the SMBus proxy service, and the simulation switch.
#include <cstdint>

#include "keldo/pl_host.h"

namespace PlatformLibrary {
class PLSocket;
}

// The one connection to the SMBus proxy service; null while not connected.
extern "C" PL_EXPORT PlatformLibrary::PLSocket* _plSock;

pl_status keldoLibraryInit(const char* name, const char* topologyJson, int tries);
pl_status plSockInit(const char* name, int tries);

namespace Keldo {
// How one connection attempt and the pause after a failed attempt are made.
// Tests replace them to count attempts without waiting thirty seconds.
extern int (*socketSetup)(PlatformLibrary::PLSocket* socket);
extern unsigned int (*pauseSeconds)(unsigned int seconds);
}  // namespace Keldo

namespace Utils {
// -1 undecided, 0 real hardware, 1 simulation. Decided on first need from
// SIMULATION_VMID (set, even empty, means simulation) and never changed after.
extern int32_t simulationMode;
bool isInSimulation();
}  // namespace Utils
