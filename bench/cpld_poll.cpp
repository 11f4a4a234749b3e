// Cost of the Zant-Y CPLD's poll, which reads its 36 transceiver registers in
// one transaction, against a one-register transaction to the same device over
// the same reference proxy daemon (playing the example board); and the cost of
// a presence getter through the host's callback table, which answers from the
// polled cache. The ratio of the two transactions is printed at the end.
//
//   taskset -c 0 bench_cpld_poll        # client and daemon on one CPU
//   valgrind --tool=callgrind --collect-systime=nsec --toggle-collect='*getPresenceCallback*'
//            bench_cpld_poll --benchmark_filter=BM_CachedPresence --benchmark_repetitions=1
#include <cstdio>
#include <memory>
#include <string>

#include "Components/Xcvr.h"
#include "Drivers/Zant/ZantCPLDs.h"
#include "Ham/KeldoSmbusHam.h"
#include "ProxyBench.h"

// The host services. A host filters traces by level before formatting (the
// getter's callback traces at level 4, below what a production host shows),
// and this program runs no timer: the benchmarks poll by hand.
extern "C" {
void pl_trace(int, const char*, ...) {}
pl_timer_handle pl_timer_add(pl_timer_callback, void*) { return 1; }
int pl_timer_set(pl_timer_handle, uint32_t) { return 0; }
void pl_timer_delete(pl_timer_handle) {}
}

namespace {

// Set up once by main(): the daemon; the CPLD of the example board (SCD
// 0xff00, accelerator 1, bus 2, address 0x23), polling, with SFP port 1 on it.
const bench::ProxyDaemon* proxyDaemon = nullptr;
Drivers::CelXcvrCPLD* cpld = nullptr;
pl_xcvr* sfp1 = nullptr;

void BM_ZantYCPLDPoll(benchmark::State& state) {
  bench::ProxyDaemon::CpuCounter counter(*proxyDaemon, state);
  for (auto _ : state) {
    if (!cpld->updateRegisterCache()) state.SkipWithError("poll failed");
  }
}

void BM_OneRegisterTransaction(benchmark::State& state) {
  bench::ProxyDaemon::CpuCounter counter(*proxyDaemon, state);
  uint8_t value = 0;
  for (auto _ : state) {
    if (cpld->ham()->read8(Drivers::ZantYCPLD::SYSTEM_LED_REGISTER, &value) != PL_STATUS_OK) {
      state.SkipWithError("read8 failed");
    }
  }
}

void BM_CachedPresence(benchmark::State& state) {
  const pl_sfp_ops& ops = sfp1->ops->u.sfp;
  for (auto _ : state) {
    benchmark::DoNotOptimize(ops.get_presence(sfp1));
  }
}

BENCHMARK(BM_ZantYCPLDPoll)->UseRealTime();
BENCHMARK(BM_OneRegisterTransaction)->UseRealTime();
BENCHMARK(BM_CachedPresence)->UseRealTime();

}  // namespace

int main(int argc, char** argv) {
  bench::initialize(argc, argv);
  int status = 0;
  {
    bench::ProxyDaemon proxy(KELDO_SOURCE_DIR "/boards/zant-y/emulation.json");
    proxyDaemon = &proxy;
    Topology::AhamAddress address;
    address.setAddress(0x23);
    address.setBus(2);
    address.setAccel(1);
    address.setAddrSize(1);
    const Topology::PCIAddress scd{0xff00};
    std::unique_ptr<Ham::KeldoSmbusHam> ham(Ham::KeldoSmbusHam::createFromAddress(address, &scd));
    Drivers::DriverArgs args;
    args.driverArgs = {{"xcvrPoll", ""}};
    std::unique_ptr<Component::HardwareDevice> device(Drivers::ZantYCPLD::create(args, ham.get()));
    cpld = static_cast<Drivers::CelXcvrCPLD*>(device.get());
    cpld->init();
    std::unique_ptr<Component::LogicalDevice::SfpXcvr> sfp(cpld->newSfpXcvr(1, args));
    sfp1 = sfp->handle();
    if (!proxy.connected() || !cpld->updateRegisterCache()) {
      status = 1;
    } else {
      bench::MedianReporter reporter;
      benchmark::RunSpecifiedBenchmarks(&reporter);
      const char* const poll = "BM_ZantYCPLDPoll";
      const char* const one = "BM_OneRegisterTransaction";
      if (reporter.median(poll) > 0 && reporter.median(one) > 0) {
        std::printf("wall-clock: poll of 36 registers %.2f us, one-register transaction %.2f us, ratio %.2f\n",
                    reporter.median(poll) / 1000, reporter.median(one) / 1000, reporter.median(poll) / reporter.median(one));
        std::printf("CPU time of both ends: poll %.2f us, one-register transaction %.2f us, ratio %.2f (target <= 1.5)\n",
                    reporter.cpuMedian(poll) / 1000, reporter.cpuMedian(one) / 1000,
                    reporter.cpuMedian(poll) / reporter.cpuMedian(one));
      }
    }
  }
  benchmark::Shutdown();
  return status;
}
