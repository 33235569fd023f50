// Searches through schedules that must find nothing. A failure names the seed to run alone.
#include "module/module_reference.h"
#include "tests/driver/schedule_scenarios.h"

namespace netsieve::host {
namespace {

template <typename Kind>
std::unique_ptr<Scenario> Make() {
    return std::make_unique<Kind>();
}

const Search kSearches[] = {
    {"life under traffic", Make<LifeUnderTraffic>, StrategyKind::kPct, 25'000 / kShare},
    {"life under traffic, uniform", Make<LifeUnderTraffic>, StrategyKind::kUniform, 5'000 / kShare},
    {"calls during detach", Make<CallsDuringDetach>, StrategyKind::kPct, 5'000 / kShare},
    {"calls during detach, uniform", Make<CallsDuringDetach>, StrategyKind::kUniform,
     5'000 / kShare},
#if !defined(NETSIEVE_TEST_IMAGE)
    {"concurrent traces", Make<ConcurrentTraces>, StrategyKind::kPct, 2'000},
    {"concurrent traces, uniform", Make<ConcurrentTraces>, StrategyKind::kUniform, 2'000},
#endif
};

class ScheduleTest : public testing::TestWithParam<Search> {};

TEST_P(ScheduleTest, FindsNothing) {
    RunSearch(GetParam());
}

INSTANTIATE_TEST_SUITE_P(Searches, ScheduleTest, testing::ValuesIn(kSearches));

#if !defined(NETSIEVE_TEST_IMAGE)
// A call that comes at any moment of a detach is waited for, or finds nothing.
TEST(DetachModel, WaitsForEveryCall) {
    RunModel({.name = "reference against detach"}, [](Machine& machine, ScheduleTree& tree) {
        tree.SetOpen(false);
        Stack& stack = machine.ndis().AddAdapter();
        machine.LoadDriver(DriverUnderTest());
        FILTER_MODULE* const module = DriverModuleOf(machine, stack);
        tree.SetOpen(true);
        machine.scheduler().Start({.name = "caller", .processor = 1},
                                  [module] { ModuleReference reference(module); });
        stack.Detach(*stack.FindModule(machine.FindDriver("NETSIEVE")));
        machine.scheduler().WaitUntilIdle();
        tree.SetOpen(false);
        machine.UnloadDriver("NETSIEVE");
    });
}
#endif

// Nothing that decides a run may come from outside its seed.
TEST(DeterminismTest, OneSeedIsOneRun) {
    for (const StrategyKind strategy : {StrategyKind::kUniform, StrategyKind::kPct}) {
        std::uint64_t previous = 0;
        for (std::uint64_t seed = 1; seed <= 25; ++seed) {
            const MachineOptions options{
                .strategy = strategy, .seed = seed * 977, .expectedChoices = 400, .processors = 4};
            RunResult runs[2];
            for (RunResult& run : runs) {
                Machine machine(options);
                LifeUnderTraffic scenario;
                run = machine.Run([&] { scenario.Run(machine); });
            }
            EXPECT_EQ(runs[0].traceHash, runs[1].traceHash) << "seed " << options.seed;
            EXPECT_EQ(runs[0].points, runs[1].points) << "seed " << options.seed;
            EXPECT_NE(runs[0].traceHash, previous) << "the seed decides nothing";
            previous = runs[0].traceHash;
        }
    }
}

// The same overlap of calls and detach on real threads, for ThreadSanitizer to watch.
TEST(ThreadedLifeTest, EndsClean) {
    RunOnRealThreads({"life under traffic", Make<LifeUnderTraffic>});
    RunOnRealThreads({"calls during detach", Make<CallsDuringDetach>});
}

}  // namespace
}  // namespace netsieve::host
