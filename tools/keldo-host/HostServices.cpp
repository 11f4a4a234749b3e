#include "HostServices.h"

#include <chrono>
#include <cstdarg>
#include <cstdio>
#include <map>
#include <thread>

#include "keldo/pl_host.h"

namespace {

using Clock = std::chrono::steady_clock;

struct Timer {
  pl_timer_callback callback;
  void* context;
  bool armed = false;
  Clock::time_point due;
};

int traceLevel = 0;
int traces = 0;
pl_timer_handle nextHandle = 1;
std::map<pl_timer_handle, Timer> timers;

}  // namespace

namespace HostServices {

void setTraceLevel(int level) { traceLevel = level; }
int traceCount() { return traces; }

int armedTimers() {
  int n = 0;
  for (const auto& t : timers) n += t.second.armed ? 1 : 0;
  return n;
}

void runFor(double seconds) {
  const auto end = Clock::now() + std::chrono::duration_cast<Clock::duration>(std::chrono::duration<double>(seconds));
  do {
    // Fire every timer that is due; a callback may re-arm its own timer.
    for (auto& [handle, timer] : timers) {
      if (timer.armed && timer.due <= Clock::now()) {
        timer.armed = false;
        timer.callback(timer.context);
      }
    }
    if (Clock::now() < end) std::this_thread::sleep_for(std::chrono::milliseconds(10));
  } while (Clock::now() < end);
}

}  // namespace HostServices

extern "C" {

void pl_trace(int level, const char* format, ...) {
  ++traces;
  if (level > traceLevel) return;
  va_list args;
  va_start(args, format);
  std::fprintf(stderr, "[plugin:%d] ", level);
  std::vfprintf(stderr, format, args);
  std::fputc('\n', stderr);
  va_end(args);
}

pl_timer_handle pl_timer_add(pl_timer_callback callback, void* context) {
  pl_timer_handle handle = nextHandle++;
  timers[handle] = Timer{callback, context};
  return handle;
}

int pl_timer_set(pl_timer_handle handle, uint32_t intervalMs) {
  auto it = timers.find(handle);
  if (it == timers.end()) return 1;
  it->second.armed = true;
  it->second.due = Clock::now() + std::chrono::milliseconds(intervalMs);
  return 0;
}

void pl_timer_delete(pl_timer_handle handle) { timers.erase(handle); }

void pl_fd_watcher_delete(pl_fd_watcher_handle) {}

}  // extern "C"
