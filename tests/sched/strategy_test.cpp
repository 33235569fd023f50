#include "host/sched/strategy.h"

#include <gtest/gtest.h>

#include "host/sched/simulated_scheduler.h"

namespace netsieve::host {
namespace {

constexpr unsigned kThreads = 2;
constexpr int kSteps = 10;

/// Two threads add 1 to a counter without a lock, each at a moment of its own in `kSteps` points.
/// False when an addition was lost, which takes one preemption at the right point.
bool CountsRight(std::unique_ptr<Strategy> strategy, std::uint64_t* points) {
    SimulatedScheduler scheduler({.processors = kThreads, .strategy = std::move(strategy)});
    int counter = 0;
    const auto add = [&](int moment) {
        for (int step = 0; step < kSteps; ++step) {
            const int seen = counter;
            scheduler.Point(PointKind::kMemory);
            counter = step == moment ? seen + 1 : counter;
        }
    };
    *points = scheduler
                  .Run([&] {
                      scheduler.Start({.name = "a", .processor = 0}, [&] { add(3); });
                      scheduler.Start({.name = "b", .processor = 1}, [&] { add(6); });
                  })
                  .points;
    return counter == 2;
}

TEST(PctStrategy, FindsABugOfItsDepthWithinItsBoundAndNoDeeperOne) {
    std::uint64_t points = 0;
    CountsRight(std::make_unique<UniformStrategy>(1), &points);
    constexpr std::uint64_t kSeeds = 4000;
    std::uint64_t lost[3] = {};
    for (std::uint64_t seed = 1; seed <= kSeeds; ++seed) {
        for (const unsigned depth : {1u, 2u}) {
            std::uint64_t unused = 0;
            auto strategy = std::make_unique<PctStrategy>(seed, depth, points);
            lost[depth] += CountsRight(std::move(strategy), &unused) ? 0 : 1;
        }
    }
    EXPECT_EQ(lost[1], 0u);
    // The bound's n counts every context that can run, the first thread included.
    EXPECT_GE(lost[2], kSeeds / ((kThreads + 1) * points)) << points << " points";
}

}  // namespace
}  // namespace netsieve::host
