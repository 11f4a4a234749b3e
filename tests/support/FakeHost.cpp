#include "FakeHost.h"

#include <csignal>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <map>

namespace FakeHost {
namespace {

struct State {
  std::vector<TraceLine> traces;
  std::map<pl_timer_handle, Timer> timers;
  std::vector<TimerSet> timerSets;
  std::vector<pl_fd_watcher_handle> deletedWatchers;
  std::vector<void*> kept;
  pl_timer_handle nextTimer = 1;
  bool failNextAdd = false;
  bool failSet = false;
};

State& state() {
  static State* s = new State;  // outlives every static destructor
  return *s;
}

bool echo() {
  static const bool on = std::getenv("KELDO_TEST_TRACE") != nullptr;
  return on;
}

// A death-test child prints its traces when it aborts, so a pattern can demand
// what was traced before the assertion stopped it.
[[maybe_unused]] const auto echoTracesOnAbort = signal(SIGABRT, [](int) {
  for (const auto& t : state().traces) std::fprintf(stderr, "[trace %d] %s\n", t.level, t.text.c_str());
});

}  // namespace

void reset() {
  State& s = state();
  s.traces.clear();
  s.timerSets.clear();
  s.deletedWatchers.clear();
  s.failNextAdd = false;
  s.failSet = false;
}

const std::vector<TraceLine>& traces() { return state().traces; }

std::vector<std::string> traceTexts(int level) {
  std::vector<std::string> out;
  for (const auto& t : state().traces) {
    if (level < 0 || t.level == level) out.push_back(t.text);
  }
  return out;
}

int countTrace(const std::string& text, int level) {
  int n = 0;
  for (const auto& t : state().traces) {
    if (t.text == text && (level < 0 || t.level == level)) ++n;
  }
  return n;
}

bool hasTrace(const std::string& text, int level) { return countTrace(text, level) > 0; }

int traceLevel(const std::string& text) {
  for (const auto& t : state().traces) {
    if (t.text == text) return t.level;
  }
  return -1;
}

Timer& timer(pl_timer_handle handle) { return state().timers.at(handle); }
const std::vector<TimerSet>& timerSets() { return state().timerSets; }

void fire(pl_timer_handle handle) {
  Timer& t = timer(handle);
  t.armed = false;
  t.callback(t.context);
}

void failNextTimerAdd() { state().failNextAdd = true; }
void failTimerSet(bool fail) { state().failSet = fail; }
const std::vector<pl_fd_watcher_handle>& deletedWatchers() { return state().deletedWatchers; }
void keepPointer(void* handle) { state().kept.push_back(handle); }

}  // namespace FakeHost

using FakeHost::state;

extern "C" {

void pl_trace(int level, const char* format, ...) {
  char buffer[4096];
  va_list args;
  va_start(args, format);
  vsnprintf(buffer, sizeof buffer, format, args);
  va_end(args);
  state().traces.push_back({level, buffer});
  if (FakeHost::echo()) std::fprintf(stderr, "[trace %d] %s\n", level, buffer);
}

pl_timer_handle pl_timer_add(pl_timer_callback callback, void* context) {
  auto& s = state();
  if (s.failNextAdd) {
    s.failNextAdd = false;
    return 0;
  }
  pl_timer_handle h = s.nextTimer++;
  FakeHost::Timer t;
  t.callback = callback;
  t.context = context;
  s.timers[h] = t;
  return h;
}

int pl_timer_set(pl_timer_handle timer, uint32_t intervalMs) {
  auto& s = state();
  s.timerSets.push_back({timer, intervalMs});
  if (s.failSet) return 1;
  auto it = s.timers.find(timer);
  if (it == s.timers.end()) return 1;
  it->second.interval = intervalMs;
  it->second.armed = true;
  return 0;
}

void pl_timer_delete(pl_timer_handle timer) {
  auto it = state().timers.find(timer);
  if (it != state().timers.end()) it->second.deleted = true;
}

void pl_fd_watcher_delete(pl_fd_watcher_handle watcher) { state().deletedWatchers.push_back(watcher); }

}  // extern "C"
