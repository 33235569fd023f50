// Searches through the ways in which completions, flushes, NBL returns and injections meet.
#include "tests/driver/schedule_scenarios.h"
#include "tests/packet/pending_rig.h"

namespace netsieve::host {
namespace {

/// Each seed has a call of its own refused, alone or with every later one.
void RefuseACall(Machine& machine) {
    const std::uint64_t seed = machine.options().seed;
    machine.faults().Arm({.nth = 1 + seed % 8, .persistent = seed % 16 < 8});
}

/// Lets the others come a part of their way that each seed sets anew. A pause begun at once would
/// be over before a frame is offered in nearly every schedule of random turns.
void LetOthersGoAhead(Machine& machine) {
    const std::uint64_t most = machine.options().expectedChoices / 4 | 1;
    for (std::uint64_t turns = machine.options().seed % most; turns > 0; --turns) {
        machine.scheduler().Point(PointKind::kMemory);
    }
}

/// What takes part beside the frame's own NBL.
struct Actors {
    int marks = 1;            ///< in the handler
    bool secondHook = false;  ///< marks too, behind the first one and its completion
    bool pause = false;
    bool detach = false;
    bool late = false;  ///< one mark, from elsewhere, though the handler may have returned
    bool receive = false;
    bool fail = false;      ///< the first completion drops the frame
    bool refusals = false;  ///< of the calls that the driver makes for the frame
};

/// One frame is taken over beside one that passes. Its completions start as soon as it is marked.
class TakenFrame final : public Scenario {
  public:
    explicit TakenFrame(Actors actors) : actors_(actors) {}

    void Run(Machine& machine) override {
        Stack& stack = Begin(machine);
        arrived_ = 0;
        marked_ = false;
        gone_ = false;
        KeInitializeSpinLock(&completing_);
        contexts_.clear();
        const ULONG records = FreeRecordsOf(DriverModuleOf(machine, stack));
        NblFactory sends(machine, stack.protocol().pool());
        NblFactory receives(machine, stack.adapter().pool());
        sends.DrawLayouts(machine.options().seed);
        receives.DrawLayouts(machine.options().seed);
        SetRelease(stack, ReleaseMode::kMixed);
        stack.adapter().onSend = [this](PNET_BUFFER_LIST chain, NDIS_PORT_NUMBER, ULONG) {
            Count(chain);
        };
        stack.protocol().onReceive = [this](PNET_BUFFER_LIST chain, NDIS_PORT_NUMBER, ULONG,
                                            ULONG) { Count(chain); };
        {
            TestHook first([&](NIRP* nirp) { return Take(machine, nirp, actors_.marks); });
            // From the end of this on, its marks are void.
            first.onDetach = [&] { AtCompletion([this] { gone_ = true; }); };
            std::optional<TestHook> second;
            if (actors_.secondHook) {
                second.emplace([&](NIRP* nirp) { return Take(machine, nirp, 1); }, u"second");
            }
            const Frame frames[] = {MakeFrame(1), MakeFrame(2)};
            const std::span<const std::uint8_t> spans[] = {frames[0], frames[1]};
            if (actors_.refusals) {
                RefuseACall(machine);
            }
            Start(machine, 0, [&] {
                if (actors_.receive) {
                    PNET_BUFFER_LIST const nbl = receives.Make(spans);
                    if (!stack.adapter().Indicate(nbl)) {
                        receives.Free(nbl);
                    }
                } else {
                    stack.protocol().Send(sends.Make(spans));
                }
            });
            if (actors_.pause) {
                Start(machine, 3, [&] {
                    LetOthersGoAhead(machine);
                    stack.Pause();
                    stack.Restart();
                });
            }
            if (actors_.detach) {
                Start(machine, 3, [&] {
                    LetOthersGoAhead(machine);
                    stack.Detach(*stack.FindModule(machine.FindDriver("NETSIEVE")));
                });
            }
            JoinAll(machine);
            machine.faults().Disarm();
            stack.Pause();
            if (!actors_.detach) {
                FILTER_MODULE* const module = DriverModuleOf(machine, stack);
                Demand(FreeRecordsOf(module) == module->FreeNirpCount &&
                           module->FreeNirpCount == records,
                       fmt::format("{} of {} records are in the pool", module->FreeNirpCount,
                                   records));
            }
        }
        const bool mayArrive = !actors_.fail;
        const bool mayBeDropped =
            actors_.fail || actors_.pause || actors_.detach || actors_.refusals || actors_.late;
        Demand(arrived_ <= (mayArrive ? 1 : 0) && (arrived_ == 1 || mayBeDropped),
               fmt::format("the frame arrived {} times", arrived_.load()));
        // Against a pause, which a detach begins with, it is the flush that has to meet a pending
        // frame. A late mark is rare enough by itself.
        const bool flushes = (actors_.pause || actors_.detach) && !actors_.late;
        meetings_ += marked_ && (!flushes || arrived_ == 0) ? 1 : 0;
        machine.UnloadDriver("NETSIEVE");
    }

  private:
    void Start(Machine& machine, unsigned processor, std::function<void()> body) {
        const std::uint32_t id =
            machine.scheduler().Start({.name = "actor", .processor = processor}, std::move(body));
        HostLock lock(mutex_);
        contexts_.push_back(id);
    }

    void JoinAll(Machine& machine) {
        for (std::size_t i = 0;; ++i) {
            std::uint32_t id = 0;
            {
                HostLock lock(mutex_);
                if (i == contexts_.size()) {
                    return;
                }
                id = contexts_[i];
            }
            machine.scheduler().Join(id);
        }
    }

    /// Marks the frame, and lets each mark be completed on another processor.
    LONG Take(Machine& machine, NIRP* nirp, int marks) {
        if (ITarnHKGetBuffer(nirp)[6] != 2) {
            return HOOK_VERDICT_PASS;
        }
        if (actors_.late) {
            Start(machine, 2, [this, nirp] {
                if (ITarnHKMarkPending(nirp) == STATUS_SUCCESS) {
                    marked_ = true;
                    ITarnHKCompleteRequest(nirp, 0);
                }
            });
            LetOthersGoAhead(machine);
            return HOOK_VERDICT_WITHHOLD;
        }
        for (int i = 0; i < marks; ++i) {
            if (ITarnHKMarkPending(nirp) != STATUS_SUCCESS) {
                // Only where the module may be paused, or an earlier mark be completed by now.
                Demand(actors_.pause || actors_.detach || actors_.secondHook || actors_.refusals ||
                           i > 0,
                       "a mark was refused");
                return HOOK_VERDICT_WITHHOLD;
            }
            marked_ = true;
            const ULONG status = actors_.fail && i == 0 ? 0xC0000001 : 0;
            Start(machine, 1 + static_cast<unsigned>(i) % 2, [this, nirp, status] {
                if (!actors_.detach) {
                    ITarnHKCompleteRequest(nirp, status);
                    return;
                }
                AtCompletion([&] {
                    if (!gone_) {
                        ITarnHKCompleteRequest(nirp, status);
                    }
                });
            });
        }
        return HOOK_VERDICT_PENDING;
    }

    /// Completions of a module that may go meanwhile, and the word that it goes, one at a time.
    void AtCompletion(const std::function<void()>& body) {
        const KIRQL irql = KeAcquireSpinLockRaiseToDpc(&completing_);
        body();
        KeReleaseSpinLock(&completing_, irql);
    }

    void Count(PNET_BUFFER_LIST chain) {
        for (; chain != nullptr; chain = chain->Next) {
            for (NET_BUFFER* at = chain->FirstNetBuffer; at != nullptr; at = at->Next) {
                arrived_ += NblFactory::BytesOf(*at)[6] == 2 ? 1 : 0;
            }
        }
    }

    Actors actors_;
    std::atomic<int> arrived_ = 0;
    std::atomic<bool> marked_ = false;
    KSPIN_LOCK completing_{};
    bool gone_ = false;  ///< guarded by `completing_`
    HostMutex mutex_;
    std::vector<std::uint32_t> contexts_;
};

enum class Against { kPause, kDetach, kUnload };

/// Frames injected from passive level and from dispatch level while the adapter is paused, detached
/// or the driver unloaded.
class Injections final : public Scenario {
  public:
    explicit Injections(Against against, bool refusals = false)
        : against_(against), refusals_(refusals) {}

    void Run(Machine& machine) override {
        Scheduler& scheduler = machine.scheduler();
        Stack& stack = Begin(machine);
        stack.adapter().queue().SetMode(ReleaseMode::kMixed);
        std::atomic<int> sent = 0;
        stack.adapter().onSend = [&](PNET_BUFFER_LIST chain, NDIS_PORT_NUMBER, ULONG) {
            sent += static_cast<int>(NblsOf(chain).size());
        };
        const auto inject = [] { Inject(FromAdapter(1)); };
        if (refusals_) {
            RefuseACall(machine);
        }
        const std::uint32_t injectors[] = {
            scheduler.Start({.name = "injector", .processor = 1}, inject),
            scheduler.Start({.name = "injector", .kind = ContextKind::kDpc, .processor = 2},
                            inject)};
        switch (against_) {
            case Against::kPause:
                stack.Pause();
                stack.Restart();
                break;
            case Against::kDetach:
                stack.Detach(*stack.FindModule(machine.FindDriver("NETSIEVE")));
                break;
            case Against::kUnload:
                // A client's calls end before the driver that it calls is unloaded; what they began
                // need not have.
                break;
        }
        scheduler.JoinAll(injectors);
        machine.faults().Disarm();
        machine.UnloadDriver("NETSIEVE");
        stack.Pause();
        Demand(sent <= 2, "a frame was sent twice");
        meetings_ += sent != 0 ? 1 : 0;
    }

  private:
    Against against_;
    bool refusals_;
};

Search Taken(const char* name, Actors actors) {
    return {.name = name,
            .make = [actors] { return std::make_unique<TakenFrame>(actors); },
            .watchHooks = !actors.late};
}

Search Injected(const char* name, Against against, bool refusals = false) {
    return {name, [=] { return std::make_unique<Injections>(against, refusals); }};
}

const Search kSearches[] = {
    Taken("completion against restore", {}),
    Taken("failed completion against restore", {.fail = true}),
    Taken("receive completion against restore", {.receive = true}),
    Taken("completion against flush", {.pause = true}),
    Taken("receive completion against flush", {.pause = true, .receive = true}),
    Taken("two completions against restore", {.marks = 2}),
    Taken("second mark against first completion", {.secondHook = true}),
    Taken("marks against pause", {.marks = 2, .secondHook = true, .pause = true}),
    Taken("completions against detach", {.marks = 2, .detach = true}),
    Taken("late mark against restore", {.late = true}),
    Taken("late mark against flush", {.pause = true, .late = true}),
    Taken("refused calls against pause", {.marks = 2, .pause = true, .refusals = true}),
    Taken("refused calls on the way up", {.secondHook = true, .receive = true, .refusals = true}),
    Taken("refused calls against detach", {.detach = true, .refusals = true}),
    Injected("injection against pause", Against::kPause),
    Injected("injection against detach", Against::kDetach),
    Injected("work items against unload", Against::kUnload),
    Injected("refused injection against pause", Against::kPause, true),
    Injected("refused injection against detach", Against::kDetach, true),
};

class PendingSchedules : public testing::TestWithParam<std::tuple<Search, StrategyKind>> {};

TEST_P(PendingSchedules, FindNothing) {
    auto [search, strategy] = GetParam();
    search.strategy = strategy;
    RunSearch(search);
}

INSTANTIATE_TEST_SUITE_P(Searches,
                         PendingSchedules,
                         testing::Combine(testing::ValuesIn(kSearches),
                                          testing::Values(StrategyKind::kPct,
                                                          StrategyKind::kUniform)));

}  // namespace
}  // namespace netsieve::host
