// The driver between filters that originate, clone, queue, drop, split and pend their pauses, with
// hooks that withhold and take frames over, while the stack pauses, restarts and goes.
#include "host/ndis/busy_filter.h"
#include "tests/driver/schedule_scenarios.h"
#include "tests/packet/pending_rig.h"

namespace netsieve::host {
namespace {

class BusyNeighbours final : public Scenario {
  public:
    void Run(Machine& machine) override {
        verdict_.clear();
        Scheduler& scheduler = machine.scheduler();
        Stack& stack = machine.ndis().AddAdapter();
        Demand(machine.LoadDriver(BusyFilter(true)) == STATUS_SUCCESS &&
                   machine.LoadDriver(DriverUnderTest()) == STATUS_SUCCESS &&
                   machine.LoadDriver(BusyFilter(false, {.failsRestart = 16})) == STATUS_SUCCESS,
               "not loaded");
        Traffic traffic(machine, stack);
        SetRelease(stack, ReleaseMode::kMixed);
        const PNET_BUFFER_LIST sends[] = {traffic.MakeSends(3), traffic.MakeSends(2)};
        const PNET_BUFFER_LIST receives[] = {traffic.MakeReceives(3), traffic.MakeReceives(1)};
        int given = 0;
        int resources = 0;
        {
            std::atomic<unsigned> offers = 0;
            TestHook hook([&](NIRP* nirp) -> LONG {
                switch (offers++ % 4) {
                    case 0:
                        return HOOK_VERDICT_WITHHOLD;
                    case 1:
                        if (ITarnHKMarkPending(nirp) == STATUS_SUCCESS) {
                            ITarnHKCompleteRequest(nirp, STATUS_SUCCESS);
                            return HOOK_VERDICT_PENDING;
                        }
                        return HOOK_VERDICT_PASS;
                    default:
                        return HOOK_VERDICT_PASS;
                }
            });
            const std::uint32_t contexts[] = {
                scheduler.Start({.name = "sender", .processor = 1},
                                [&] {
                                    traffic.SendAndCancel(sends[0]);
                                    stack.protocol().Send(sends[1]);
                                }),
                scheduler.Start(
                    {.name = "receiver", .kind = ContextKind::kDpc, .processor = 2}, [&] {
                        given = stack.adapter().Indicate(receives[0]) ? 3 : 0;
                        resources =
                            stack.adapter().Indicate(receives[1], 0, NDIS_RECEIVE_FLAGS_RESOURCES);
                    })};
            stack.Pause();
            stack.Restart();
            scheduler.JoinAll(contexts);
            stack.Pause();
        }
        // Filters may drop frames and send their own; but each NBL comes back, once.
        Demand(traffic.completed + traffic.refused == 5 && traffic.returned == given,
               fmt::format("{} sends completed, {} refused, {} of {} receives returned",
                           traffic.completed.load(), traffic.refused.load(),
                           traffic.returned.load(), given));
        Demand(traffic.changed == 0, "a frame arrived changed");
        meetings_ += traffic.refused != 0 ? 1 : 0;
        for (const char* const driver : {"BUSYUP", "NETSIEVE", "BUSYLO"}) {
            machine.UnloadDriver(driver);
        }
    }
};

TEST(BusyNeighbours, AreServedInEverySchedule) {
    bool enough = true;
    for (const StrategyKind strategy : {StrategyKind::kPct, StrategyKind::kUniform}) {
        const std::uint64_t schedules =
            RunSearch({"busy neighbours", [] { return std::make_unique<BusyNeighbours>(); },
                       strategy, 3'000 / kShare});
        enough = enough && schedules >= kEnoughForAll;
    }
    if (!enough) {
        return;
    }
    for (const bool above : {false, true}) {
        const BusyFilterCounts& counts = CountsOfBusyFilter(above);
        EXPECT_TRUE(counts.queued != 0 && counts.cloned != 0 && counts.dropped != 0 &&
                    counts.originated != 0 && counts.split != 0 && counts.pausesPended != 0);
    }
}

}  // namespace
}  // namespace netsieve::host
