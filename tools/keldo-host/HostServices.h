#pragma once
// The services a host gives the plug-in: trace output with a level filter,
// and one-shot timers run by a small event loop on the calling thread.
#include <cstdint>

namespace HostServices {

// Traces at or below this level are printed to stderr (default 0).
void setTraceLevel(int level);
int traceCount();

// Runs expired timers until `seconds` have passed (0: just the ones due now).
void runFor(double seconds);
// Timers currently armed.
int armedTimers();

}  // namespace HostServices
