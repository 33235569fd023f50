// What it costs to mark a frame pending, complete it and re-inject it, and to inject a frame.

#include <benchmark/benchmark.h>

#include <algorithm>
#include <atomic>
#include <vector>

#include "bench/hooks.h"
#include "bench/ideal_loop.h"
#include "bench/traffic.h"
#include "driver/driver_entry.h"
#include "module/driver_globals.h"

namespace netsieve::bench {

namespace {

using namespace netsieve::host;

LONG NTAPI Pass(PVOID, NIRP*) {
    return HOOK_VERDICT_PASS;
}

LONG NTAPI MarkAndComplete(PVOID, NIRP* nirp) {
    if (ITarnHKMarkPending(nirp) != STATUS_SUCCESS) {
        return HOOK_VERDICT_PASS;
    }
    ITarnHKCompleteRequest(nirp, STATUS_SUCCESS);
    return HOOK_VERDICT_PENDING;
}

/// What was allocated since the last call: blocks of memory, which a path must do without, and
/// NBLs with their contexts, of which each frame of the driver's own has one.
class Allocated {
  public:
    explicit Allocated(Machine& machine) : machine_(machine) {}
    void Start() {
        blocks_ = machine_.pool().allocations();
        nbls_ = machine_.ndis().nblPools().allocations();
    }
    void Report(benchmark::State& state, double frames) const {
        if (machine_.pool().allocations() != blocks_) {
            state.SkipWithError("the path allocated memory");
        }
        const std::uint64_t nbls = machine_.ndis().nblPools().allocations() - nbls_;
        state.counters["new_nbls_per_frame"] = static_cast<double>(nbls) / frames;
    }

  private:
    Machine& machine_;
    std::uint64_t blocks_ = 0;
    std::uint64_t nbls_ = 0;
};

void ReportTime(benchmark::State& state, double took, double frames, double ideal) {
    state.counters["ns_per_frame"] = took / frames;
    state.counters["x_ideal"] = took / frames / ideal;
}

// range(0): bytes of a frame; range(1): NBLs in a call; range(2): whether the hook marks each
// frame pending. The row beside it, where the hook passes the frame, is interception alone.
void MeasurePending(benchmark::State& state, Path path) {
    const auto size = static_cast<std::size_t>(state.range(0));
    const double ideal = IdealNanoseconds(size);
    Machine machine({.scheduler = SchedulerKind::kThreaded, .verify = false});
    machine.Run([&] {
        machine.LoadDriver({.name = "NETSIEVE", .entry = &DriverEntry});
        {
            Traffic traffic(machine, machine.ndis().AddAdapter({.largeSends = false}), path, size,
                            state.range(1));
            Hooks hooks;
            hooks.Add(state.range(2) != 0 ? MarkAndComplete : Pass);
            traffic.Go();  // allocates the context space and the protocol's name
            Allocated allocated(machine);
            allocated.Start();
            const double start = ThreadNanoseconds();
            for (auto _ : state) {
                traffic.Go();
            }
            const double took = ThreadNanoseconds() - start;
            const double frames =
                static_cast<double>(state.iterations()) * static_cast<double>(state.range(1));
            allocated.Report(state, frames);
            ReportTime(state, took, frames, ideal);
        }
        machine.UnloadDriver("NETSIEVE");
    });
}

void BM_PendingSent(benchmark::State& state) {
    MeasurePending(state, Path::kSend);
}
void BM_PendingReceived(benchmark::State& state) {
    MeasurePending(state, Path::kReceive);
}

void EveryShape(benchmark::internal::Benchmark* benchmark) {
    benchmark->ArgNames({"bytes", "nbls", "pending"})
        ->ArgsProduct({{60, 1514}, {1, 64}, {0, 1}})
        ->MinTime(0.1);
}
BENCHMARK(BM_PendingSent)->Apply(EveryShape);
BENCHMARK(BM_PendingReceived)->Apply(EveryShape);

enum InjectFrom { kPassive, kDispatch, kBareWorkItem };

VOID NTAPI FreeOwnWorkItem(PDEVICE_OBJECT, PVOID item) {
    IoFreeWorkItem(static_cast<PIO_WORKITEM>(item));
}

void QueueBareWorkItem() {
    PIO_WORKITEM const item = IoAllocateWorkItem(g_DriverGlobals.DeviceObject);
    IoQueueWorkItem(item, FreeOwnWorkItem, CriticalWorkQueue, item);
}

// range(0): bytes of a frame; range(1): an InjectFrom. At DISPATCH_LEVEL the caller's share is
// measured, and a thread of the host's for each work item is most of it; the last row is that work
// item alone. A batch is no more than the pool holds, so that every frame is sent.
void BM_Inject(benchmark::State& state) {
    constexpr int kBatch = 8;
    const auto size = static_cast<std::size_t>(state.range(0));
    const std::int64_t from = state.range(1);
    const double ideal = IdealNanoseconds(size);
    std::vector<std::uint8_t> frame(size);
    Machine machine({.scheduler = SchedulerKind::kThreaded, .verify = false});
    machine.Run([&] {
        machine.LoadDriver({.name = "NETSIEVE", .entry = &DriverEntry});
        {
            const AdapterOptions options;
            Stack& stack = machine.ndis().AddAdapter(options);
            std::copy(options.mac.begin(), options.mac.end(), frame.begin() + 6);
            std::atomic<std::int64_t> sent = 0;
            stack.adapter().onSend = [&](PNET_BUFFER_LIST, NDIS_PORT_NUMBER, ULONG) { ++sent; };
            double took = 0;
            const auto batch = [&] {
                const double start = ThreadNanoseconds();
                for (int i = 0; i < kBatch; ++i) {
                    if (from == kBareWorkItem) {
                        QueueBareWorkItem();
                    } else {
                        ITarnHKSendPacket(nullptr, frame.data(), static_cast<ULONG>(size));
                    }
                }
                took += ThreadNanoseconds() - start;
            };
            Allocated allocated(machine);
            allocated.Start();
            for (auto _ : state) {
                if (from == kPassive) {
                    batch();
                } else {
                    machine.scheduler().Start({.name = "injector", .kind = ContextKind::kDpc},
                                              batch);
                    machine.scheduler().WaitUntilIdle();
                }
            }
            const double frames = static_cast<double>(state.iterations()) * kBatch;
            if (from != kBareWorkItem && sent != static_cast<std::int64_t>(frames)) {
                state.SkipWithError("a frame was not sent");
            }
            allocated.Report(state, frames);
            ReportTime(state, took, frames, ideal);
        }
        machine.UnloadDriver("NETSIEVE");
    });
}
BENCHMARK(BM_Inject)
    ->ArgNames({"bytes", "from"})
    ->ArgsProduct({{60, 1514}, {kPassive, kDispatch, kBareWorkItem}})
    ->MinTime(0.1);

}  // namespace

}  // namespace netsieve::bench
