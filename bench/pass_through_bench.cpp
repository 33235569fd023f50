// What a module without hooks costs: a send and its completion, a receive and its return, beside
// the same trip through a host with no filter bound.

#include <benchmark/benchmark.h>

#include <array>
#include <memory>
#include <vector>

#include "bench/ideal_loop.h"
#include "driver/driver_entry.h"
#include "host/machine.h"
#include "host/ndis/frame_lists.h"
#include "host/ndis/ndis.h"

namespace netsieve::bench {

namespace {

using namespace netsieve::host;

constexpr std::size_t kFrameSize = 60;

enum class Way { kSend, kReceive };

/// A chain that crosses its stack again and again. The ends give it back before the call returns,
/// linked as it was.
struct Trip {
    Stack* stack;
    PNET_BUFFER_LIST chain;

    void Go(Way way) const {
        if (way == Way::kSend) {
            stack->protocol().Send(chain);
        } else {
            stack->adapter().Indicate(chain);
        }
    }
};

PNET_BUFFER_LIST MakeChain(FrameLists& lists, std::int64_t length) {
    const std::array<std::uint8_t, kFrameSize> frame{};
    PNET_BUFFER_LIST chain = nullptr;
    for (; length > 0; --length) {
        PNET_BUFFER_LIST const list = lists.Make(std::span<const std::uint8_t>(frame));
        list->Next = chain;
        chain = list;
    }
    return chain;
}

std::uint64_t AllocationsOf(Machine& machine) {
    return machine.pool().Allocations() + machine.ndis().lists().Allocations();
}

void Measure(benchmark::State& state, Machine& machine, Way way, const std::vector<Trip>& trips) {
    const std::uint64_t allocations = AllocationsOf(machine);
    std::size_t next = 0;
    const double start = ThreadNanoseconds();
    for (auto _ : state) {
        trips[next].Go(way);
        next = next + 1 < trips.size() ? next + 1 : 0;
    }
    const double took = ThreadNanoseconds() - start;
    const std::uint64_t allocated = AllocationsOf(machine) - allocations;
    if (allocated != 0) {
        state.SkipWithError("the path allocated");
    }
    const double trip = took / static_cast<double>(state.iterations());
    state.counters["ns_per_list"] = trip / static_cast<double>(state.range(0));
    state.counters["allocations"] = static_cast<double>(allocated);
    state.counters["x_ideal"] = trip / IdealNanoseconds(kFrameSize);
}

// range(0): lists in a chain; range(1): adapters, used in turn, each with a module of its own when
// range(2) says that the driver is there.
void CrossStacks(benchmark::State& state, Way way) {
    IdealNanoseconds(kFrameSize);
    Machine machine({.scheduler = SchedulerKind::kThreaded, .verify = false});
    machine.Run([&] {
        if (state.range(2) != 0) {
            machine.LoadDriver({.name = "NETSIEVE", .entry = &DriverEntry});
        }
        std::vector<std::unique_ptr<FrameLists>> lists;
        std::vector<Trip> trips;
        for (std::uint32_t i = 1; i <= state.range(1); ++i) {
            Stack& stack = machine.ndis().AddAdapter({.ifIndex = i});
            lists.push_back(std::make_unique<FrameLists>(
                machine, way == Way::kSend ? stack.protocol().pool() : stack.adapter().pool()));
            trips.push_back({&stack, MakeChain(*lists.back(), state.range(0))});
        }
        Measure(state, machine, way, trips);
        machine.UnloadDriver("NETSIEVE");
    });
}

void BM_SendAndComplete(benchmark::State& state) {
    CrossStacks(state, Way::kSend);
}
void BM_ReceiveAndReturn(benchmark::State& state) {
    CrossStacks(state, Way::kReceive);
}

void EveryShape(benchmark::internal::Benchmark* benchmark) {
    benchmark->ArgNames({"lists", "modules", "driver"})
        ->ArgsProduct({{1, 8, 64}, {1, 8, 64}, {0, 1}})
        ->MinTime(0.1);
}
BENCHMARK(BM_SendAndComplete)->Apply(EveryShape);
BENCHMARK(BM_ReceiveAndReturn)->Apply(EveryShape);

}  // namespace

}  // namespace netsieve::bench
