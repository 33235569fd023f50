// Searching the schedules of a scenario for a fault.
#pragma once

#include <cstdint>
#include <functional>
#include <optional>
#include <string>

#include "host/machine.h"

namespace netsieve::host {

/// How to search. The budget may be set from outside: NETSIEVE_SCHEDULES overrides `schedules`,
/// NETSIEVE_FIRST_SEED `firstSeed`, NETSIEVE_PCT_DEPTH the machine's `pctDepth`, and NETSIEVE_SEED
/// runs the one schedule of that seed.
struct ExploreOptions {
    std::string name;          ///< of the scenario, for the replay line
    MachineOptions machine{};  ///< seed, strategy and expected choices are set by the search
    StrategyKind strategy = StrategyKind::kPct;
    std::uint64_t schedules = 1000;
    std::uint64_t firstSeed = 1;
};

/// A schedule that went wrong.
struct Finding {
    std::uint64_t seed = 0;  ///< of Explore
    std::string what;        ///< the verifier's reports, or what `check` said
    std::string replay;      ///< how to run just this schedule again
};

struct ExploreResult {
    std::uint64_t schedules = 0;  ///< that were run
    std::uint64_t points = 0;     ///< in all of them
    unsigned preemptions = 0;     ///< of ExploreAll: the most that were tried
    bool complete = true;         ///< of ExploreAll: with all schedules that have no more
    std::optional<Finding> finding;
};

/// Runs `body` as the first thread of a new machine for each seed, until one of them breaks a rule,
/// loses an NBL, does not end, or makes `check` return a text (which is asked when the run is over;
/// empty is good). The first finding ends the search.
ExploreResult Explore(const ExploreOptions& options,
                      const std::function<void(Machine&)>& body,
                      const std::function<std::string(Machine&)>& check = {});

/// What to run of a small scenario. NETSIEVE_PREEMPTIONS overrides `preemptions`;
/// NETSIEVE_SCHEDULES cuts the exploration off after so many runs, and NETSIEVE_CHOICES runs the
/// one schedule of that name.
struct ExploreAllOptions {
    std::string name;
    MachineOptions machine{};  ///< a simulated one with an idle clock; the tree is set
    unsigned preemptions = 2;
};

/// As Explore, for every schedule with at most so many preemptions. They are tried in order of
/// their preemptions, so that a finding has the fewest possible. `schedules` counts each once. The
/// tree is for `body` to say when the part to explore begins and ends.
ExploreResult ExploreAll(const ExploreAllOptions& options,
                         const std::function<void(Machine&, ScheduleTree&)>& body,
                         const std::function<std::string(Machine&)>& check = {});

/// The number in an environment variable, or `otherwise` when it is unset or no number.
std::uint64_t NumberFromEnvironment(const char* name, std::uint64_t otherwise);

}  // namespace netsieve::host
