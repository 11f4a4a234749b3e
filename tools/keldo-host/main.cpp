// keldo-host: a reference host. Loads the plug-in with dlopen, runs every
// init entry with the board's topology, adds the board's objects and prints
// what each one reports through its callback table.
#include <dlfcn.h>

#include <cstdio>
#include <string>

#include <CLI/CLI.hpp>

#include "BoardConfig.h"
#include "HostServices.h"
#include "ObjectReport.h"
#include "keldo/pl_host.h"

namespace {

const char* const kInitEntries[] = {"pl_system_init", "pl_slot_init", "pl_led_init",  "pl_temp_sensor_init",
                                    "pl_fan_init",    "pl_xcvr_init", "pl_psu_init",  "pl_gpio_init",
                                    "pl_smbus_init"};

}  // namespace

int main(int argc, char** argv) {
  CLI::App app{"Reference host for the Keldo platform-driver plug-in"};
  std::string pluginPath = KELDO_DEFAULT_PLUGIN;
  std::string boardPath;
  int traceLevel = 0;
  double runSeconds = 0;
  app.add_option("--plugin", pluginPath, "plug-in shared library to load")->capture_default_str();
  app.add_option("--board", boardPath, "board file: topology and objects to add")->required();
  app.add_option("--trace-level", traceLevel, "print plug-in traces up to this level")->capture_default_str();
  app.add_option("--run", runSeconds, "keep serving the plug-in's timers for this many seconds before exiting");
  CLI11_PARSE(app, argc, argv);

  BoardConfig board;
  try {
    board = loadBoardConfig(boardPath);
  } catch (const std::exception& e) {
    std::fprintf(stderr, "keldo-host: %s\n", e.what());
    return 2;
  }
  HostServices::setTraceLevel(traceLevel);

  void* plugin = dlopen(pluginPath.c_str(), RTLD_NOW | RTLD_LOCAL);
  if (plugin == nullptr) {
    std::fprintf(stderr, "keldo-host: cannot load %s: %s\n", pluginPath.c_str(), dlerror());
    return 2;
  }
  auto lookup = [plugin](const char* name) { return dlsym(plugin, name); };

  std::printf("board: %s\nplugin: %s\n\ninit entries:\n", board.name.c_str(), pluginPath.c_str());
  int failures = 0;
  for (const char* entry : kInitEntries) {
    auto init = reinterpret_cast<pl_status (*)(const char*)>(lookup(entry));
    pl_status status = init != nullptr ? init(board.topology.c_str()) : -1;
    std::printf("  %-20s %d\n", entry, status);
    failures += status != PL_STATUS_OK;
  }

  std::printf("\nobjects:\n");
  for (const HostObject& object : board.objects) {
    ObjectReport r = addAndReport(object, lookup);
    failures += !r.added;
    std::printf("  %-12s %-24s %s\n", object.kind.c_str(), object.name.c_str(), r.state.c_str());
  }

  if (runSeconds > 0) {
    HostServices::runFor(runSeconds);
    std::printf("\nserved timers for %.1f s; %d armed\n", runSeconds, HostServices::armedTimers());
  }
  std::printf("\n%d failure(s)\n", failures);
  return failures == 0 ? 0 : 1;
}
