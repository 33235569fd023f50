// Scheduling points per second of the simulated scheduler with the verifier on: what a schedule
// search can afford.

#include <benchmark/benchmark.h>

#include <cstdint>
#include <vector>

#include "host/machine.h"
#include "host/ndis/nbl_factory.h"
#include "host/ndis/ndis.h"

extern "C" NTSTATUS NTAPI DriverEntry(PDRIVER_OBJECT DriverObject, PUNICODE_STRING RegistryPath);

namespace {

using namespace netsieve::host;

constexpr int kCalls = 2000;

/// Bare points: contexts that take one spin lock in turn.
void LockPoints(benchmark::State& state) {
    std::uint64_t points = 0;
    for (auto _ : state) {
        Machine machine({.processors = 4});
        const RunResult result = machine.Run([&] {
            KSPIN_LOCK lock;
            KeInitializeSpinLock(&lock);
            std::vector<std::uint32_t> threads;
            for (unsigned i = 0; i < 4; ++i) {
                threads.push_back(
                    machine.scheduler().Start({.name = "locker", .processor = i}, [&] {
                        for (int call = 0; call < kCalls; ++call) {
                            const KIRQL irql = KeAcquireSpinLockRaiseToDpc(&lock);
                            KeReleaseSpinLock(&lock, irql);
                        }
                    }));
            }
            machine.scheduler().JoinAll(threads);
            machine.ForgetRange(&lock, sizeof(lock));
        });
        points += result.points;
    }
    state.SetItemsProcessed(static_cast<std::int64_t>(points));
}
BENCHMARK(LockPoints)->Unit(benchmark::kMillisecond);

/// The driver's data path, on four processors.
void DataPathPoints(benchmark::State& state) {
    std::uint64_t points = 0;
    for (auto _ : state) {
        Machine machine({.processors = 4});
        const RunResult result = machine.Run([&] {
            Stack& stack = machine.ndis().AddAdapter();
            machine.LoadDriver({.name = "NETSIEVE", .entry = &DriverEntry});
            std::vector<std::uint32_t> threads;
            for (unsigned i = 0; i < 4; ++i) {
                threads.push_back(
                    machine.scheduler().Start({.name = "sender", .processor = i}, [&] {
                        NblFactory nbls(machine, stack.protocol().pool());
                        const std::vector<std::uint8_t> frame(60, 0x5A);
                        PNET_BUFFER_LIST const nbl = nbls.Make(frame);
                        for (int call = 0; call < kCalls / 4; ++call) {
                            stack.protocol().Send(nbl);
                        }
                        nbls.Free(nbl);
                    }));
            }
            machine.scheduler().JoinAll(threads);
            machine.UnloadDriver("NETSIEVE");
        });
        points += result.points;
        if (!machine.verifier().Silent()) {
            state.SkipWithError("a rule was broken");
        }
    }
    state.SetItemsProcessed(static_cast<std::int64_t>(points));
}
BENCHMARK(DataPathPoints)->Unit(benchmark::kMillisecond);

}  // namespace
