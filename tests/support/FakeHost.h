#pragma once
// A recording stand-in for the host daemon's services, linked into every unit
// test: pl_trace lines with their levels, timers that the test fires by hand,
// released descriptor watchers, and a place to keep the handles that a real
// host would hold for the life of the process.
#include <cstdint>
#include <string>
#include <vector>

#include "keldo/pl_host.h"

namespace FakeHost {

struct TraceLine {
  int level;
  std::string text;
};

struct Timer {
  pl_timer_callback callback = nullptr;
  void* context = nullptr;
  uint32_t interval = 0;
  bool armed = false;
  bool deleted = false;
};

struct TimerSet {
  pl_timer_handle timer;
  uint32_t interval;
};

// Forget all traces, timers and scripted results (timers stay valid handles).
void reset();

const std::vector<TraceLine>& traces();
// Formatted trace texts, optionally only those of one level.
std::vector<std::string> traceTexts(int level = -1);
// How many traces have exactly this text (and this level, when given).
int countTrace(const std::string& text, int level = -1);
bool hasTrace(const std::string& text, int level = -1);
// The level of the first trace with exactly this text, or -1.
int traceLevel(const std::string& text);

// Timers. pl_timer_add hands out 1, 2, 3 ... unless nextTimerAddResult is set.
Timer& timer(pl_timer_handle handle);
const std::vector<TimerSet>& timerSets();  // every pl_timer_set call, in order
// Runs the timer's callback as the host would when it expires (disarming it first).
void fire(pl_timer_handle handle);
void failNextTimerAdd();          // next pl_timer_add returns 0
void failTimerSet(bool fail);     // pl_timer_set returns 1 while set

const std::vector<pl_fd_watcher_handle>& deletedWatchers();

// Keeps a handle alive for the life of the test process, as the host would.
template <typename T>
T* keep(T* handle) {
  void keepPointer(void*);
  keepPointer(handle);
  return handle;
}
void keepPointer(void* handle);

}  // namespace FakeHost
