// Runs as a 32-bit process: the layouts the host relies on and the pieces of
// the library that link without protobuf. Prints "N passed, M failed".
#include <cstddef>
#include <cstdarg>
#include <cstdio>
#include <string>

#include "Drivers/Drivers.h"
#include "Topology.h"
#include "keldo/pl_host.h"

extern "C" void pl_trace(int, const char*, ...) {}

namespace {

int passed = 0;
int failed = 0;

void check(bool ok, const char* what) {
  if (ok) {
    ++passed;
  } else {
    ++failed;
    std::printf("FAILED: %s\n", what);
  }
}

void layout() {
  check(sizeof(void*) == 4, "32-bit process");
  check(offsetof(pl_led, ops) == 4 && offsetof(pl_led, owner) == 8, "object: ops at 4, owner at 8");
  check(sizeof(pl_system) == 8, "system object is two words");
  check(sizeof(pl_system_ops) == 20, "system table 20");
  check(sizeof(pl_slot_ops) == 8, "slot table 8");
  check(sizeof(pl_led_ops) == 8, "led table 8");
  check(sizeof(pl_temp_sensor_ops) == 12, "temp sensor table 12");
  check(sizeof(pl_fan_ops) == 16, "fan table 16");
  check(sizeof(pl_xcvr_ops) == 44, "xcvr table 44");
  check(offsetof(pl_xcvr_ops, u) == 8, "xcvr family part at 8");
  check(sizeof(pl_sfp_ops) == 24 && sizeof(pl_qsfp_ops) == 36, "family parts 24/36");
  check(sizeof(pl_psu_ops) == 36, "psu table 36");
  check(sizeof(pl_gpio_ops) == 16, "gpio table 16");
  check(sizeof(pl_smbus_ops) == 56, "smbus table 56");
  check(sizeof(long) == 4, "reload-cause time is a 4-byte long");
}

void topology() {
  const char* json = R"([{"type": "SCD", "ham": "KeldoSmbus", "pci": 4026531840, "accelerators": [
      {"id": 3, "busses": [{"id": 9, "devices": [{"did": 7, "label": "dev7", "driver": "Dummy",
        "uid": 4294967294, "address": {"address": 80, "addrSize": 6, "readDelay": 3}}]}]}]}])";
  check(Topology::loadTopology(json) == 0, "topology loads");
  Topology::Device* dev = Topology::getDeviceByLabel("dev7");
  check(dev != nullptr && dev->args != nullptr, "labelled device with driver arguments");
  if (dev == nullptr || dev->args == nullptr) return;
  const Topology::AhamAddress& a = dev->args->address;
  check(a.address() == 80 && a.addrSize() == 2 && a.readDelay() == 3, "address fields");
  check(a.word1 == (80u | (2u << 25) | (3u << 30)), "address word packing");
  check(dev->args->uid == 4294967294u, "uid keeps all 32 bits");
  const auto* scd = dynamic_cast<const Topology::SCD*>(Topology::_topology->media.at(0).get());
  check(scd != nullptr && scd->pci == 4026531840u, "pci keeps all 32 bits");
}

}  // namespace

int main() {
  layout();
  topology();
  std::printf("%d passed, %d failed\n", passed, failed);
  return failed == 0 ? 0 : 1;
}
