#include "host/explore.h"

#include <fmt/format.h>

#include <algorithm>
#include <charconv>
#include <cstdlib>
#include <cstring>

#include "host/ndis/ndis.h"
#include "host/verifier/run_notes.h"

namespace netsieve::host {

namespace {

struct OneRun {
    RunResult result;
    std::string what;
};

OneRun RunOnce(const MachineOptions& options,
               const std::function<void(Machine&)>& body,
               const std::function<std::string(Machine&)>& check) {
    Machine machine(options);
    OneRun run;
    run.result = machine.Run([&] { body(machine); });
    machine.ndis().ReportLostNbls();
    run.what = machine.verifier().Describe();
    if (run.what.empty() && !run.result.completed) {
        run.what = run.result.abandonReason;
    }
    if (run.what.empty() && check) {
        run.what = check(machine);
    }
    return run;
}

// How many choices a run has depends on its schedule, so several are asked. The most count: a late
// change point that falls behind the end of a short run costs less than an end that none reaches.
std::uint64_t MeasureChoices(MachineOptions options, const std::function<void(Machine&)>& body) {
    constexpr std::uint64_t kRuns = 8;
    options.strategy = StrategyKind::kPct;
    options.pctDepth = 1;
    std::uint64_t most = 0;
    for (std::uint64_t run = 0; run < kRuns; ++run, ++options.seed) {
        most = std::max(most, RunOnce(options, body, {}).result.choices);
    }
    return most;
}

std::string ReplayOf(std::uint64_t seed, const std::string& name) {
    return fmt::format("NETSIEVE_SEED={} with the scenario '{}'", seed, name);
}

// One walk of the tree, or of the schedule that it follows, cut off when `budget` is spent.
ExploreResult WalkTree(const ExploreAllOptions& options,
                       ScheduleTree& tree,
                       std::uint64_t& budget,
                       const std::function<void(Machine&, ScheduleTree&)>& body,
                       const std::function<std::string(Machine&)>& check) {
    MachineOptions machine = options.machine;
    machine.tree = &tree;
    NoteReplay(fmt::format("NETSIEVE_CHOICES=(choices) with the scenario '{}'", options.name));
    ExploreResult result;
    for (bool more = true; more && !result.finding; more = tree.Advance()) {
        if (budget == 0) {
            result.complete = false;
            break;
        }
        --budget;
        OneRun run = RunOnce(
            machine, [&](Machine& made) { body(made, tree); }, check);
        ++result.schedules;
        result.points += run.result.points;
        if (tree.diverged()) {
            run.what = "the scenario did not repeat itself; nothing but the schedule may decide";
        }
        if (!run.what.empty()) {
            result.finding = {
                .what = std::move(run.what),
                .replay = fmt::format("replay: NETSIEVE_CHOICES={} with the scenario '{}'",
                                      tree.name(), options.name)};
        }
    }
    return result;
}

}  // namespace

std::uint64_t NumberFromEnvironment(const char* name, std::uint64_t otherwise) {
    const char* const text = std::getenv(name);
    std::uint64_t value = 0;
    if (text == nullptr) {
        return otherwise;
    }
    const char* const end = text + std::strlen(text);
    const auto parsed = std::from_chars(text, end, value);
    return parsed.ec == std::errc() && parsed.ptr == end ? value : otherwise;
}

ExploreResult Explore(const ExploreOptions& options,
                      const std::function<void(Machine&)>& body,
                      const std::function<std::string(Machine&)>& check) {
    MachineOptions machine = options.machine;
    std::uint64_t first = NumberFromEnvironment("NETSIEVE_FIRST_SEED", options.firstSeed);
    machine.seed = options.firstSeed;
    machine.pctDepth =
        static_cast<unsigned>(NumberFromEnvironment("NETSIEVE_PCT_DEPTH", machine.pctDepth));
    machine.expectedChoices = MeasureChoices(machine, body);
    machine.strategy = options.strategy;
    std::uint64_t count = NumberFromEnvironment("NETSIEVE_SCHEDULES", options.schedules);
    if (const std::uint64_t seed = NumberFromEnvironment("NETSIEVE_SEED", 0); seed != 0) {
        first = seed;
        count = 1;
    }
    ExploreResult result;
    for (std::uint64_t seed = first; seed < first + count; ++seed) {
        machine.seed = seed;
        NoteReplay(ReplayOf(seed, options.name));
        OneRun run = RunOnce(machine, body, check);
        ++result.schedules;
        result.points += run.result.points;
        if (!run.what.empty()) {
            result.finding = {seed, std::move(run.what), "replay: " + ReplayOf(seed, options.name)};
            break;
        }
    }
    return result;
}

ExploreResult ExploreAll(const ExploreAllOptions& options,
                         const std::function<void(Machine&, ScheduleTree&)>& body,
                         const std::function<std::string(Machine&)>& check) {
    if (const char* const name = std::getenv("NETSIEVE_CHOICES"); name != nullptr) {
        ScheduleTree tree(0);
        tree.Follow(name);
        std::uint64_t one = 1;
        return WalkTree(options, tree, one, body, check);
    }
    const std::uint64_t most = NumberFromEnvironment("NETSIEVE_PREEMPTIONS", options.preemptions);
    std::uint64_t budget = NumberFromEnvironment("NETSIEVE_SCHEDULES", ~0ull);
    ExploreResult result;
    for (unsigned preemptions = 0; preemptions <= most && !result.finding && result.complete;
         ++preemptions) {
        if (preemptions != 0 && budget == 0) {
            result.complete = false;
            break;
        }
        ScheduleTree tree(preemptions);
        result = WalkTree(options, tree, budget, body, check);
        result.preemptions = preemptions;
    }
    return result;
}

}  // namespace netsieve::host
