// What a module without hooks costs: a send and its completion, a receive and its return, beside
// the same on a host without a filter module.

#include <benchmark/benchmark.h>

#include <memory>
#include <vector>

#include "bench/ideal_loop.h"
#include "bench/traffic.h"
#include "driver/driver_entry.h"

namespace netsieve::bench {

namespace {

using namespace netsieve::host;

constexpr std::size_t kFrameSize = 60;

void Measure(benchmark::State& state,
             Machine& machine,
             std::vector<std::unique_ptr<Traffic>>& traffic) {
    const std::uint64_t allocations = AllocationsOf(machine);
    std::size_t next = 0;
    const double start = ThreadNanoseconds();
    for (auto _ : state) {
        traffic[next]->Go();
        next = next + 1 < traffic.size() ? next + 1 : 0;
    }
    const double took = ThreadNanoseconds() - start;
    const std::uint64_t allocated = AllocationsOf(machine) - allocations;
    if (allocated != 0) {
        state.SkipWithError("the path allocated");
    }
    const double call = took / static_cast<double>(state.iterations());
    state.counters["ns_per_nbl"] = call / static_cast<double>(state.range(0));
    state.counters["allocations"] = static_cast<double>(allocated);
    state.counters["x_ideal"] = call / IdealNanoseconds(kFrameSize);
}

// range(0): NBLs in a chain; range(1): adapters, used in turn, each with a module of its own when
// range(2) says that the driver is there.
void MeasureStacks(benchmark::State& state, Path path) {
    IdealNanoseconds(kFrameSize);
    Machine machine({.scheduler = SchedulerKind::kThreaded, .verify = false});
    machine.Run([&] {
        if (state.range(2) != 0) {
            machine.LoadDriver({.name = "NETSIEVE", .entry = &DriverEntry});
        }
        std::vector<std::unique_ptr<Traffic>> traffic;
        for (std::uint32_t i = 1; i <= state.range(1); ++i) {
            Stack& stack = machine.ndis().AddAdapter({.ifIndex = i, .largeSends = false});
            traffic.push_back(
                std::make_unique<Traffic>(machine, stack, path, kFrameSize, state.range(0)));
        }
        Measure(state, machine, traffic);
        machine.UnloadDriver("NETSIEVE");
    });
}

void BM_SendAndComplete(benchmark::State& state) {
    MeasureStacks(state, Path::kSend);
}
void BM_ReceiveAndReturn(benchmark::State& state) {
    MeasureStacks(state, Path::kReceive);
}

void EveryShape(benchmark::internal::Benchmark* benchmark) {
    benchmark->ArgNames({"nbls", "modules", "driver"})
        ->ArgsProduct({{1, 8, 64}, {1, 8, 64}, {0, 1}})
        ->MinTime(0.1);
}
BENCHMARK(BM_SendAndComplete)->Apply(EveryShape);
BENCHMARK(BM_ReceiveAndReturn)->Apply(EveryShape);

}  // namespace

}  // namespace netsieve::bench
