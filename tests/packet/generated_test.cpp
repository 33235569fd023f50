// What generated scenarios show, shrunk. NETSIEVE_SCENARIO, hexadecimal bytes, runs that one alone.
#include <cstdlib>

#include "tests/packet/generated_scenario.h"

namespace netsieve::host {
namespace {

constexpr std::uint64_t kSchedulesEach = 10;

std::string Hex(const ScenarioBytes& bytes) {
    std::string text;
    for (const std::uint8_t byte : bytes) {
        text += fmt::format("{:02x}", byte);
    }
    return text;
}

std::optional<Finding> Try(const ScenarioBytes& bytes, std::uint64_t schedules) {
    GeneratedScenario scenario(bytes);
    const Search search{.name = "generated", .make = nullptr, .schedules = schedules};
    return SearchSchedules(search, scenario).finding;
}

struct Shrunk {
    ScenarioBytes bytes;
    std::string report;
};

/// The first scenario of `count` that fails, as small as it gets.
std::optional<Shrunk> FindInScenarios(std::uint64_t first, std::uint64_t count) {
    for (std::uint64_t seed = first; seed < first + count; ++seed) {
        if (!Try(DrawScenario(seed), kSchedulesEach)) {
            continue;
        }
        const ScenarioBytes bytes =
            ShrinkScenario(DrawScenario(seed),
                           [](const ScenarioBytes& less) { return Try(less, 100).has_value(); });
        const std::optional<Finding> finding = Try(bytes, 100);
        return Shrunk{bytes, fmt::format("scenario {}, shrunk:\n{}{}\nrun it alone with "
                                         "NETSIEVE_SCENARIO={} NETSIEVE_SEED={}",
                                         seed, DescribeScenario(bytes), finding->what, Hex(bytes),
                                         finding->seed)};
    }
    return std::nullopt;
}

#if !defined(NETSIEVE_BROKEN)

ScenarioBytes FromHex(const std::string& text) {
    ScenarioBytes bytes;
    for (std::size_t at = 0; at + 1 < text.size(); at += 2) {
        bytes.push_back(static_cast<std::uint8_t>(std::stoul(text.substr(at, 2), nullptr, 16)));
    }
    return bytes;
}

TEST(GeneratedScenarios, AreServedAsTheModelSays) {
    if (const char* const one = std::getenv("NETSIEVE_SCENARIO")) {
        const std::optional<Finding> finding = Try(FromHex(one), 1000);
        ASSERT_FALSE(finding) << DescribeScenario(FromHex(one)) << finding->what;
        return;
    }
    const std::uint64_t schedules = NumberFromEnvironment("NETSIEVE_SCHEDULES", 20'000 / kShare);
    const std::uint64_t first = NumberFromEnvironment("NETSIEVE_FIRST_SEED", 1);
    unsetenv("NETSIEVE_SCHEDULES");  // which would be the schedules of each scenario
    const auto found = FindInScenarios(first, schedules / kSchedulesEach);
    EXPECT_FALSE(found) << found->report;
}

#else

// With a fault in the driver, which ends what it does to a frame too early or too late.
TEST(GeneratedScenarios, ShrinkWhatTheyFind) {
    unsetenv("NETSIEVE_SCHEDULES");
    unsetenv("NETSIEVE_FIRST_SEED");
    const auto found = FindInScenarios(1, 300);
    ASSERT_TRUE(found);
    EXPECT_LE(found->bytes.size(), 14u) << found->report;  // two steps
    EXPECT_TRUE(Try(found->bytes, 100)) << "the shrunk scenario is a replay";
    fmt::print("{}\n", found->report);
}

#endif

}  // namespace
}  // namespace netsieve::host
