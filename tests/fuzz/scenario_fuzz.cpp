// Any bytes as a scenario (tests/packet/generated_scenario.h) in the schedule that the first of
// them names: each frame fares as the model says, and no rule is broken.

#include <gtest/gtest.h>

#include <algorithm>
#include <cstdlib>

#include "tests/packet/generated_scenario.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    using namespace netsieve::host;
    static const bool stops = [] {
        GTEST_FLAG_SET(break_on_failure,
                       true);  // what the scenario expects of the driver's answers
        return true;
    }();
    constexpr std::size_t kMostBytes = 80;
    if (!stops || size == 0) {
        return 0;
    }
    const ScenarioBytes bytes(data + 1, data + std::min(size, kMostBytes));
    GeneratedScenario scenario(bytes);
    const ExploreResult result = Explore(
        {.name = "fuzzed", .machine = {.processors = 4}, .schedules = 1, .firstSeed = data[0]},
        [&](Machine& machine) { scenario.Run(machine); },
        [&](Machine& machine) { return scenario.Verdict(machine); });
    if (result.finding) {
        fmt::print(stderr, "{}{}\nschedule {}\n", DescribeScenario(bytes), result.finding->what,
                   data[0]);
        std::abort();
    }
    return 0;
}
