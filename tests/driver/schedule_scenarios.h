// Small scenarios to run in many schedules. Each says what it saw wrong, or nothing.
#pragma once

#include <fmt/format.h>

#include <memory>
#include <string>

#include "host/explore.h"
#include "module/trace_log.h"
#include "tests/driver/detaching_stack.h"

namespace netsieve::host {

// The image can be interrupted only where it calls out, so that it has fewer schedules; that it
// keeps to the same calls is what there is to see.
#if defined(NETSIEVE_TEST_IMAGE)
constexpr std::uint64_t kShare = 10;
#else
constexpr std::uint64_t kShare = 1;
#endif

/// A scenario for Explore. `Run` is its body; `Verdict` is asked when the machine is at rest.
class Scenario {
  public:
    virtual ~Scenario() = default;
    virtual void Run(Machine& machine) = 0;
    virtual std::string Verdict(Machine& machine) {
        const Accounting stock = TakeStock(machine);
        return stock.Balanced() ? verdict_ : verdict_ + stock.Describe();
    }
    /// Runs in which contexts got in each other's way, as they must in some schedules: an NBL was
    /// refused, or the lines of two tracers alternate.
    std::uint64_t Meetings() const { return meetings_; }

  protected:
    /// Begins a run on a stack with the driver.
    Stack& Begin(Machine& machine) {
        verdict_.clear();
        Stack& stack = machine.ndis().AddAdapter();
        Demand(machine.LoadDriver(DriverUnderTest()) == STATUS_SUCCESS, "not loaded");
        return stack;
    }
    void Demand(bool good, std::string what) {
        if (!good && verdict_.empty()) {
            verdict_ = std::move(what);
        }
    }
    /// Every NBL came back once, and only from where it can have been.
    void DemandAllReturned(const Traffic& traffic, int sent, int given, int resources) {
        Demand(traffic.onWire == traffic.completed && traffic.completed + traffic.refused == sent &&
                   traffic.returned == given && traffic.received <= given + resources,
               fmt::format(
                   "of {} sent NBLs {} were on the wire, {} came back and {} were "
                   "refused; of {} NBLs and {} with the resources flag {} were received and {} "
                   "returned",
                   sent, traffic.onWire.load(), traffic.completed.load(), traffic.refused.load(),
                   given, resources, traffic.received.load(), traffic.returned.load()));
        Demand(traffic.changed == 0, "a frame arrived changed");
        meetings_ += traffic.refused != 0 ? 1 : 0;
    }
    std::string verdict_;
    std::uint64_t meetings_ = 0;
};

/// Attach, traffic, pause and detach, on four processors: one sender meets the attach, the others
/// the pause and the detach.
class LifeUnderTraffic final : public Scenario {
  public:
    void Run(Machine& machine) override {
        verdict_.clear();
        Stack& stack = machine.ndis().AddAdapter();
        Traffic traffic(machine, stack);
        SetRelease(stack, ReleaseMode::kMixed);
        const auto sender = [&](int nbls) {
            return [&, chain = traffic.MakeSends(nbls)] { traffic.SendAndCancel(chain); };
        };
        int given = 0;
        int resources = 0;
        const auto receiver = [&, first = traffic.MakeReceives(2),
                               second = traffic.MakeReceives(1)] {
            given = stack.adapter().Indicate(first) ? 2 : 0;
            resources = stack.adapter().Indicate(second, 0, NDIS_RECEIVE_FLAGS_RESOURCES);
        };
        const auto pause = [&] {
            stack.Pause();
            stack.Restart();
        };
        Scheduler& scheduler = machine.scheduler();
        std::vector<std::uint32_t> contexts;
        contexts.push_back(scheduler.Start({.name = "early sender", .processor = 1}, sender(1)));
        Demand(machine.LoadDriver(DriverUnderTest()) == STATUS_SUCCESS, "not loaded");
        contexts.push_back(scheduler.Start({.name = "sender", .processor = 1}, sender(2)));
        contexts.push_back(scheduler.Start(
            {.name = "receiver", .kind = ContextKind::kDpc, .processor = 2}, receiver));
        contexts.push_back(scheduler.Start({.name = "pause", .processor = 3}, pause));
        machine.UnloadDriver("NETSIEVE");
        scheduler.JoinAll(contexts);
        stack.Pause();  // waits until no NBL is outstanding
        DemandAllReturned(traffic, 3, given, resources);
    }
};

/// Sends, receives, completions and returns that meet a module which is being detached.
class CallsDuringDetach final : public Scenario {
  public:
    void Run(Machine& machine) override {
        Scheduler& scheduler = machine.scheduler();
        Stack& stack = Begin(machine);
        Traffic traffic(machine, stack);
        SetRelease(stack, ReleaseMode::kMixed);
        PNET_BUFFER_LIST const sends[] = {traffic.MakeSends(1), traffic.MakeSends(1)};
        PNET_BUFFER_LIST const given[] = {traffic.MakeReceives(1), traffic.MakeReceives(1)};
        PNET_BUFFER_LIST const resources = traffic.MakeReceives(1);
        DetachingStack detaching(machine, stack);
        detaching.Begin(traffic.MakeSends(1));
        // The first of each races with the detach. In a simulated machine nobody sleeps to the end
        // before the handler waits, so that the second surely meets a module on its way out.
        const std::uint32_t contexts[] = {
            scheduler.Start({.name = "sender", .processor = 3},
                            [&] {
                                stack.protocol().Send(sends[0]);
                                scheduler.Sleep(kTicksPerMillisecond);
                                stack.protocol().Send(sends[1]);
                            }),
            scheduler.Start({.name = "receiver", .processor = 0}, [&] {
                stack.adapter().Indicate(given[0]);
                stack.adapter().Indicate(resources, 0, NDIS_RECEIVE_FLAGS_RESOURCES);
                scheduler.Sleep(kTicksPerMillisecond);
                stack.adapter().Indicate(given[1]);
            })};
        scheduler.JoinAll(contexts);
        // What is still at the ends comes back while the module waits.
        Await(machine,
              [&] { return traffic.returned == 2 && traffic.completed + traffic.refused == 2; });
        detaching.End();
        stack.Pause();
        DemandAllReturned(traffic, 3, 2, 1);
        machine.UnloadDriver("NETSIEVE");
    }
};

#if !defined(NETSIEVE_TEST_IMAGE)

/// Four processors that trace on one module. The ring then holds their lines back to back, numbered
/// as they lie there.
class ConcurrentTraces final : public Scenario {
  public:
    void Run(Machine& machine) override {
        verdict_.clear();
        constexpr unsigned kCallers = 4;
        constexpr unsigned kLines = 3;
        FILTER_MODULE record{};
        FILTER_MODULE* const module = &record;
        InitializeTraceLog(module);
        std::uint32_t contexts[kCallers];
        for (unsigned i = 0; i < kCallers; ++i) {
            const bool atDispatch = i % 2 != 0;
            contexts[i] = machine.scheduler().Start(
                {.name = "tracer",
                 .kind = atDispatch ? ContextKind::kDpc : ContextKind::kThread,
                 .processor = i},
                [module, i, atDispatch] {
                    for (unsigned line = 0; line < kLines; ++line) {
                        TraceLog(module, "Tracer", i, atDispatch);
                    }
                });
        }
        machine.scheduler().JoinAll(contexts);
        const char* at = reinterpret_cast<const char*>(module->TraceBuffer);
        unsigned lines[kCallers] = {};
        unsigned changes = 0;
        unsigned previous = kCallers;
        for (unsigned number = 0; number < kCallers * kLines && verdict_.empty(); ++number) {
            unsigned caller = kCallers;
            const std::string line(at, strnlen(at, 64));
            std::sscanf(line.c_str(), "[%*u Tracer->%u", &caller);
            Demand(caller < kCallers && ++lines[caller] <= kLines &&
                       line == fmt::format("[{} Tracer->{}]\n", number, caller),
                   fmt::format("line {} reads '{}'", number, line));
            at += line.size() + 1;
            changes += caller != previous ? 1 : 0;
            previous = caller;
        }
        meetings_ += changes > kCallers ? 1 : 0;
        FreeTraceLog(module);
    }
};

#endif

/// A search that is to find nothing.
struct Search {
    const char* name;
    std::function<std::unique_ptr<Scenario>()> make;
    StrategyKind strategy = StrategyKind::kPct;
    std::uint64_t schedules = 25'000 / kShare;
    std::uint64_t realRuns = 20 / kShare;  ///< on real threads, where a bounded wait takes long
    bool watchHooks = true;                ///< not where hooks break their rules on purpose
};

inline void PrintTo(const Search& search, std::ostream* out) {
    *out << search.name;
}

/// Searches the schedules of `scenario` on four processors.
inline ExploreResult SearchSchedules(const Search& search, Scenario& scenario) {
    return Explore(
        {.name = search.name,
         .machine = {.pctDepth = 2, .processors = 4, .watchHooks = search.watchHooks},
         .strategy = search.strategy,
         .schedules = search.schedules},
        [&](Machine& machine) { scenario.Run(machine); },
        [&](Machine& machine) { return scenario.Verdict(machine); });
}

/// Fails with what was found and how to run it alone, or says how much was searched.
inline void ExpectNothing(const char* name, const ExploreResult& result) {
    if (result.finding) {
        FAIL() << result.finding->what << "\n" << result.finding->replay;
    }
    fmt::print("{}: {} schedules, {} points each", name, result.schedules,
               result.points / result.schedules);
}

/// Returns how many schedules were run.
inline std::uint64_t RunSearch(const Search& search) {
    const std::unique_ptr<Scenario> scenario = search.make();
    const ExploreResult result = SearchSchedules(search, *scenario);
    ExpectNothing(search.name, result);
    fmt::print(", contexts met in {}\n", scenario->Meetings());
    // A short search may miss what happens in one schedule of a hundred.
    if (result.schedules >= 1000) {
        EXPECT_GT(scenario->Meetings(), 0u) << "the search never came where it was to look";
    }
    return result.schedules;
}

/// Schedules in which everything that a scenario's seed chooses has happened.
constexpr std::uint64_t kEnoughForAll = 300;

/// The same scenario on real threads, which take no turns.
inline void RunOnRealThreads(const Search& search) {
    const std::unique_ptr<Scenario> scenario = search.make();
    for (std::uint64_t seed = 1; seed <= search.realRuns; ++seed) {
        RunClean({.scheduler = SchedulerKind::kThreaded,
                  .seed = seed,
                  .processors = 4,
                  .watchHooks = search.watchHooks},
                 [&](Machine& machine) {
                     scenario->Run(machine);
                     EXPECT_EQ(scenario->Verdict(machine), "");
                 });
    }
}

/// Runs every schedule of a small model, up to so many preemptions, and expects nothing wrong.
inline void RunModel(const ExploreAllOptions& options,
                     const std::function<void(Machine&, ScheduleTree&)>& body,
                     const std::function<std::string(Machine&)>& check = {}) {
    const ExploreResult result = ExploreAll(options, body, check);
    ExpectNothing(options.name.c_str(), result);
    EXPECT_TRUE(result.schedules > 10 || !result.complete) << "the actors never met";
    fmt::print(", {} of up to {} preemptions\n", result.complete ? "all" : "only some",
               result.preemptions);
}

}  // namespace netsieve::host
