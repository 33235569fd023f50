#include "host/sched/strategy.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <map>

#include "host/sched/simulated_scheduler.h"

namespace netsieve::host {
namespace {

constexpr unsigned kThreads = 2;
constexpr int kSteps = 10;

/// Two threads add 1 to a counter without a lock, each at a moment of its own in `kSteps` points.
/// `lost`: whether an addition was lost, which takes one preemption at the right point.
RunResult Add(std::unique_ptr<Strategy> strategy, bool& lost) {
    SimulatedScheduler scheduler({.processors = kThreads, .strategy = std::move(strategy)});
    std::atomic<int> counter = 0;  // atomic alone: an addition may be lost
    const auto add = [&](int moment) {
        for (int step = 0; step < kSteps; ++step) {
            const int seen = counter;
            scheduler.Point(PointKind::kMemory);
            counter = step == moment ? seen + 1 : counter.load();
        }
    };
    RunResult result = scheduler.Run([&] {
        scheduler.Start({.name = "a", .processor = 0}, [&] { add(3); });
        scheduler.Start({.name = "b", .processor = 1}, [&] { add(6); });
    });
    lost = counter != 2;
    return result;
}

TEST(PctStrategy, FindsABugOfItsDepthWithinItsBoundAndNoDeeperOne) {
    bool lost = false;
    const std::uint64_t choices = Add(std::make_unique<PctStrategy>(1, 1, 1), lost).choices;
    ASSERT_GE(choices, std::uint64_t{kSteps});
    constexpr std::uint64_t kSeeds = 4000;
    std::uint64_t found[3] = {};
    for (std::uint64_t seed = 1; seed <= kSeeds; ++seed) {
        for (const unsigned depth : {1u, 2u}) {
            Add(std::make_unique<PctStrategy>(seed, depth, choices), lost);
            found[depth] += lost ? 1 : 0;
        }
    }
    EXPECT_EQ(found[1], 0u);
    // The bound's n counts every context that can run, the first thread included.
    EXPECT_GE(found[2], kSeeds / ((kThreads + 1) * choices)) << choices << " choices";
}

// Between two choices the running context may be alone, or be one that cannot go on.
TEST(PctStrategy, SpreadsItsChangePointsEvenlyOverTheChoicesAndLosesNone) {
    constexpr std::uint64_t kChoices = 20;
    constexpr std::uint64_t kSeeds = 20'000;
    const std::uint32_t both[] = {1, 2};
    const std::uint32_t withClock[] = {Strategy::kClock, 1, 2};
    std::map<std::uint64_t, std::uint64_t> changes;  // by choice
    for (std::uint64_t seed = 1; seed <= kSeeds; ++seed) {
        PctStrategy strategy(seed, 2, kChoices);
        for (const std::uint32_t id : {1u, 2u}) {
            strategy.OnStart(id);
        }
        std::size_t running = strategy.Pick(both, Strategy::kNone);
        for (std::uint64_t choice = 0; choice < kChoices; ++choice) {
            strategy.Pick(both, Strategy::kNone);
            strategy.Pick(std::span(withClock).first(2), Strategy::kNone);
            const std::size_t next = strategy.Pick(both, running);
            changes[choice] += next == running ? 0 : 1;
            running = next;
        }
        EXPECT_EQ(strategy.choices(), kChoices);
    }
    // Each has a change in one seed of kChoices: 1000, with a deviation of 31.
    EXPECT_EQ(changes.size(), kChoices);
    for (const auto& [choice, count] : changes) {
        EXPECT_NEAR(static_cast<double>(count), 1000.0, 5 * 31.0) << "choice " << choice;
    }
}

}  // namespace
}  // namespace netsieve::host
