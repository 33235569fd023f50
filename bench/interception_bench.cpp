// What interception costs: a send and its completion, or an indication and its return, by the
// frame's size, the NBLs in a call, the number of hooks, and whether one of them withholds.

#include <benchmark/benchmark.h>
#include <fmt/format.h>

#include <array>
#include <atomic>
#include <memory>
#include <vector>

#include "bench/hooks.h"
#include "bench/ideal_loop.h"
#include "bench/traffic.h"
#include "client/exports.h"
#include "driver/driver_entry.h"

namespace netsieve::bench {

namespace {

using namespace netsieve::host;

LONG NTAPI Pass(PVOID, NIRP*) {
    return HOOK_VERDICT_PASS;
}
LONG NTAPI Withhold(PVOID, NIRP*) {
    return HOOK_VERDICT_WITHHOLD;
}

void FillHooks(Hooks& hooks, std::int64_t passing, bool withholding) {
    for (; passing > 0; --passing) {
        hooks.Add(Pass);
    }
    if (withholding) {
        hooks.Add(Withhold);
    }
}

// range(0): bytes of a frame; range(1): NBLs in a call; range(2): hooks that pass; range(3): one
// more that withholds.
void MeasureHooks(benchmark::State& state, Path path) {
    const auto size = static_cast<std::size_t>(state.range(0));
    const double ideal = IdealNanoseconds(size);
    Machine machine({.scheduler = SchedulerKind::kThreaded, .verify = false});
    machine.Run([&] {
        machine.LoadDriver({.name = "NETSIEVE", .entry = &DriverEntry});
        {
            Traffic traffic(machine, machine.ndis().AddAdapter({.largeSends = false}), path, size,
                            state.range(1));
            Hooks hooks;
            FillHooks(hooks, state.range(2), state.range(3) != 0);
            // The first call allocates the context space and the protocol's name.
            traffic.Go();
            const std::uint64_t allocations = AllocationsOf(machine);
            const double start = ThreadNanoseconds();
            for (auto _ : state) {
                traffic.Go();
            }
            const double took = ThreadNanoseconds() - start;
            if (AllocationsOf(machine) != allocations) {
                state.SkipWithError("the path allocated");
            }
            const double frames =
                static_cast<double>(state.iterations()) * static_cast<double>(state.range(1));
            state.counters["ns_per_frame"] = took / frames;
            state.counters["x_ideal"] = took / frames / ideal;
        }
        machine.UnloadDriver("NETSIEVE");
    });
}

void BM_SendPastHooks(benchmark::State& state) {
    MeasureHooks(state, Path::kSend);
}
void BM_ReceivePastHooks(benchmark::State& state) {
    MeasureHooks(state, Path::kReceive);
}

void EveryHookCount(benchmark::internal::Benchmark* benchmark) {
    benchmark->ArgNames({"bytes", "nbls", "hooks", "withhold"})->MinTime(0.1);
    benchmark->ArgsProduct({{60, 512, 1514}, {1, 64}, {0, 1, 4, 8, 16}, {0}});
    benchmark->ArgsProduct({{60, 512, 1514}, {1, 64}, {0}, {1}});
}
BENCHMARK(BM_SendPastHooks)->Apply(EveryHookCount);
BENCHMARK(BM_ReceivePastHooks)->Apply(EveryHookCount);

// range(0): NBLs in a call; range(1): adapters, each with a thread of its own; range(2): whether
// one hook watches them all, so that its count of running handlers is what the threads share, or
// each has a hook of its own. What two adapters carry beside one is items_per_second of the one row
// over the other.
void BM_SendOnSeveralAdapters(benchmark::State& state) {
    constexpr std::size_t kFrameSize = 60;
    constexpr std::int64_t kFramesOfARound = 64 * 2'000;
    Machine machine({.scheduler = SchedulerKind::kThreaded, .processors = 2, .verify = false});
    const std::int64_t rounds = kFramesOfARound / state.range(0);
    machine.Run([&] {
        machine.LoadDriver({.name = "NETSIEVE", .entry = &DriverEntry});
        {
            std::vector<std::unique_ptr<Traffic>> traffic;
            for (std::uint32_t i = 1; i <= state.range(1); ++i) {
                traffic.push_back(std::make_unique<Traffic>(
                    machine, machine.ndis().AddAdapter({.ifIndex = i, .largeSends = false}),
                    Path::kSend, kFrameSize, state.range(0)));
            }
            Hooks hooks;
            if (state.range(2) != 0) {
                hooks.Add(Pass);
            } else {
                for (int i = 0; i < state.range(1); ++i) {
                    hooks.Add(Pass, i);
                }
            }
            for (auto _ : state) {
                std::vector<std::uint32_t> threads;
                for (unsigned i = 0; i < traffic.size(); ++i) {
                    threads.push_back(machine.scheduler().Start(
                        {.name = fmt::format("adapter {}", i), .processor = i},
                        [&nbls = *traffic[i], rounds] {
                            for (std::int64_t round = 0; round < rounds; ++round) {
                                nbls.Go();
                            }
                        }));
                }
                machine.scheduler().JoinAll(threads);
            }
            state.SetItemsProcessed(state.iterations() * rounds * state.range(0) * state.range(1));
        }
        machine.UnloadDriver("NETSIEVE");
    });
}
BENCHMARK(BM_SendOnSeveralAdapters)
    ->ArgNames({"nbls", "adapters", "shared_hook"})
    ->ArgsProduct({{1, 64}, {1, 2}, {0, 1}})
    ->UseRealTime()
    ->MinTime(0.5);

}  // namespace

}  // namespace netsieve::bench
