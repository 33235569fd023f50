// Searches through the ways in which hooks come and go while frames are offered to them.
#include "hook/hook_notify.h"
#include "tests/driver/model.h"
#include "tests/packet/pending_rig.h"

namespace netsieve::host {
namespace {

/// Frames in both directions while hooks attach, detach, switch over and leave.
class HooksComeAndGo final : public Scenario {
  public:
    enum class Change {
        kAttachDetach,
        kDeregister,
        kRegisterTwice,
        kDetachModule,
        kInside,
        kLeaveInside
    };

    explicit HooksComeAndGo(Change change) : change_(change) {}

    void Run(Machine& machine) override {
        Scheduler& scheduler = machine.scheduler();
        Stack& stack = Begin(machine);
        Traffic traffic(machine, stack);
        stack.adapter().queue().SetMode(ReleaseMode::kMixed);
        Client steady(u"steady");
        Client changing(u"changing", 1);
        Client twin(u"changing", 1);
        Client guest(u"guest", 2);
        std::atomic<bool> gone = false;
        changing.handler = [&](NIRP*) -> LONG {
            Demand(!gone, "a handler was called after its deregistration returned");
            if (change_ == Change::kInside) {
                ITarnHKFlowControl(changing.hook, HOOK_STATE_RESUMED);
                ITarnHKAttachFilter(changing.attached[0], changing.hook);
                ITarnHKDettachFilter(changing.attached[0], changing.hook);
                ITarnHKDettachFilter(changing.attached[0], changing.hook);
            }
            // One handler at PASSIVE_LEVEL brings a hook and takes its own down, whose record stays
            // until the handler has returned.
            if (change_ == Change::kLeaveInside && CurrentContext().irql == PASSIVE_LEVEL) {
                guest.Start();
                guest.Stop();
                changing.Stop();
                gone = true;
            }
            return HOOK_VERDICT_WITHHOLD;
        };
        twin.handler = changing.handler;
        steady.Start();
        if (change_ != Change::kRegisterTwice) {
            changing.Start();
        }
        if (change_ == Change::kAttachDetach) {
            guest.Start();
        }
        PNET_BUFFER_LIST const sends[] = {traffic.MakeSends(2), traffic.MakeSends(1)};
        const int frames = Traffic::FramesIn(sends[0]) + Traffic::FramesIn(sends[1]);
        const std::uint32_t contexts[] = {
            scheduler.Start({.name = "sender", .processor = 1},
                            [&] { stack.protocol().Send(sends[0]); }),
            scheduler.Start({.name = "sender", .kind = ContextKind::kDpc, .processor = 2},
                            [&] { stack.protocol().Send(sends[1]); }),
            scheduler.Start({.name = "changer", .processor = 3}, [&] {
                if (change_ == Change::kAttachDetach) {
                    Reattach(changing);
                } else if (change_ == Change::kDetachModule) {
                    stack.Detach(*stack.FindModule(machine.FindDriver("NETSIEVE")));
                } else if (change_ == Change::kRegisterTwice) {
                    twin.Start();
                }
            })};
        if (change_ == Change::kRegisterTwice) {
            changing.Start();
        } else if (change_ == Change::kAttachDetach) {
            Reattach(guest);
        } else if (change_ == Change::kDeregister || change_ == Change::kDetachModule) {
            changing.Stop();
            gone = true;
        }
        scheduler.JoinAll(contexts);
        stack.Pause();
        meetings_ += changing.calls != 0 ? 1 : 0;
        // Nothing of the table moves under the frames of the one who stays.
        if (change_ == Change::kDeregister || change_ == Change::kRegisterTwice) {
            Demand(steady.calls == frames, "a frame missed a hook");
        }
        if (change_ == Change::kRegisterTwice) {
            twin.Stop();
        }
        if (change_ == Change::kAttachDetach) {
            Demand(DriverModuleOf(machine, stack)->HookCount == 3,
                   "the table has lost or doubled a hook");
            guest.Stop();
        }
        if (!gone) {
            changing.Stop();
        }
        Demand(guest.attached.size() == guest.detached.size(), "a guest was not told of its end");
        if (change_ != Change::kInside) {
            const std::size_t told = changing.detached.size() + twin.detached.size();
            const std::size_t pairs = changing.attached.size() + twin.attached.size();
            Demand(told == pairs,
                   fmt::format("{} of {} pairs were told of their end", told, pairs));
        }
        steady.Stop();
        machine.UnloadDriver("NETSIEVE");
        Demand(traffic.completed + traffic.refused == 3,
               fmt::format("of 3 NBLs {} came back and {} were refused", traffic.completed.load(),
                           traffic.refused.load()));
    }

  private:
    static void Reattach(const Client& client) {
        ITarnHKDettachFilter(client.attached[0], client.hook);
        ITarnHKAttachFilter(client.attached[0], client.hook);
    }

    Change change_;
};

/// Hooks leave while the driver unloads under traffic: one on its own account, two when one of them
/// is told. The one that is not told leaves without a wait when no handler of it runs.
class HooksLeaveDuringUnload final : public Scenario {
  public:
    void Run(Machine& machine) override {
        Stack& stack = Begin(machine);
        Traffic traffic(machine, stack);
        Client leaving(u"leaving");
        Client silent(u"silent");
        Client told(u"told");
        std::atomic<bool> gone = false;
        silent.handler = [&](NIRP*) -> LONG {
            Demand(!gone, "a handler was called after its deregistration returned");
            return HOOK_VERDICT_PASS;
        };
        std::uint32_t leaver = 0;
        told.unload = [&] {
            machine.scheduler().Join(leaver);
            silent.Stop();
            gone = true;
            told.Stop();
        };
        for (Client* client : {&leaving, &silent, &told}) {
            client->Start();
        }
        leaver =
            machine.scheduler().Start({.name = "leaver", .processor = 2}, [&] { leaving.Stop(); });
        PNET_BUFFER_LIST const sends = traffic.MakeSends(2);
        const int frames = Traffic::FramesIn(sends);
        const std::uint32_t sender = machine.scheduler().Start(
            {.name = "sender", .processor = 1}, [&] { stack.protocol().Send(sends); });
        machine.UnloadDriver("NETSIEVE");
        machine.scheduler().Join(sender);
        meetings_ += silent.calls != 0 && silent.calls != frames ? 1 : 0;
        Demand(traffic.completed + traffic.refused == 2, "an NBL did not come back");
    }
};

/// Four processors whose protocols send through a new module: each gets one entry.
class ProtocolsFillTheTable final : public Scenario {
  public:
    void Run(Machine& machine) override {
        Scheduler& scheduler = machine.scheduler();
        Stack& stack = Begin(machine);
        stack.AddProtocol(u"SECOND");
        Client client(u"hook");
        client.Start();
        std::vector<std::unique_ptr<NblFactory>> nbls;
        std::vector<std::uint32_t> contexts;
        const Frame frame = MakeFrame(1);
        for (unsigned i = 0; i < 4; ++i) {
            Protocol& protocol = stack.protocol(i % 2);
            nbls.push_back(std::make_unique<NblFactory>(machine, protocol.pool()));
            contexts.push_back(scheduler.Start(
                {.name = "sender", .processor = i},
                [&protocol, nbl = nbls.back()->Make(std::span<const std::uint8_t>(frame))] {
                    protocol.Send(nbl);
                }));
        }
        scheduler.JoinAll(contexts);
        FILTER_MODULE* const module = DriverModuleOf(machine, stack);
        Demand(
            module->ProtocolCount == 2 && module->ProtocolHandles[0] != module->ProtocolHandles[1],
            fmt::format("{} entries for two protocols", module->ProtocolCount));
        ++meetings_;
        client.Stop();
        machine.UnloadDriver("NETSIEVE");
    }
};

using Change = HooksComeAndGo::Change;

Search Hooks(const char* name, Change change) {
    return {.name = name, .make = [change] { return std::make_unique<HooksComeAndGo>(change); }};
}

const Search kSearches[] = {
    Hooks("dispatch against attach and detach", Change::kAttachDetach),
    Hooks("dispatch against deregistration", Change::kDeregister),
    Hooks("two registrations of one name", Change::kRegisterTwice),
    Hooks("module detach against deregistration", Change::kDetachModule),
    Hooks("changes from inside a handler", Change::kInside),
    {.name = "registrations from inside a handler",
     .make = [] { return std::make_unique<HooksComeAndGo>(Change::kLeaveInside); },
     .realRuns = 1,
     .watchHooks = false},
    {.name = "hooks that leave during the unload",
     .make = [] { return std::make_unique<HooksLeaveDuringUnload>(); },
     .realRuns = 1},
    {"protocol table from four processors",
     [] { return std::make_unique<ProtocolsFillTheTable>(); }},
};

class HookSchedules : public testing::TestWithParam<Search> {};

TEST_P(HookSchedules, FindNothing) {
    RunSearch(GetParam());
}

TEST_P(HookSchedules, HoldOnRealThreads) {
    RunOnRealThreads(GetParam());
}

INSTANTIATE_TEST_SUITE_P(Searches, HookSchedules, testing::ValuesIn(kSearches));

/// A client whose handler and notification must not be called when its registration has ended.
struct Guarded : Client {
    explicit Guarded(std::u16string hookName) : Client(std::move(hookName)) {
        handler = [this](NIRP*) -> LONG {
            calledLate = calledLate || gone;
            return HOOK_VERDICT_PASS;
        };
    }
    void Leave() {
        Stop();
        gone = true;
    }
    std::string Verdict() const {
        const std::size_t pairs = attached.size() - refused;
        return calledLate || pairs != detached.size()
                   ? fmt::format("{}{} of {} pairs were told of their end",
                                 calledLate ? "called when it was gone; " : "", detached.size(),
                                 pairs)
                   : "";
    }

    bool gone = false;
    bool calledLate = false;
};

/// A registration that meets the end of another one of its name joins it in time, or makes a hook
/// of its own.
std::string RunNameOnItsWayOut(Machine& machine, ScheduleTree& tree) {
    Model model(machine, tree);
    Guarded first(u"name");
    Guarded second(u"name");
    first.Start();
    model.Explore([&] {
        model.Start(ContextKind::kThread, 1, [&] { second.Start(); });
        first.Leave();
    });
    second.Leave();
    machine.UnloadDriver("NETSIEVE");
    return first.Verdict() + second.Verdict();
}

/// Both registrations of one hook end under a frame: neither returns while the hook is in use.
std::string RunBothEnds(Machine& machine, ScheduleTree& tree) {
    Model model(machine, tree);
    Scene scene(machine, model.stack);
    Guarded owner(u"name");
    Client joined(u"name");
    owner.Start();
    EXPECT_EQ(joined.Register(), STATUS_SUCCESS);
    model.Explore([&] {
        model.Start(ContextKind::kThread, 1, [&] { joined.Stop(); });
        model.Start(ContextKind::kThread, 2, [&] { scene.Pass(true, {MakeFrame(1)}); });
        owner.Leave();
    });
    machine.UnloadDriver("NETSIEVE");
    return owner.Verdict();
}

/// An adapter goes while a hook leaves, off the list already and at the end of its wait: one of the
/// two tells the hook of the end of their pair.
std::string RunAdapterAgainstLeaver(Machine& machine, ScheduleTree& tree) {
    Model model(machine, tree);
    Guarded client(u"name");
    client.Start();
    model.Explore([&] {
        model.Start(ContextKind::kThread, 1, [&] { client.Leave(); });
        machine.scheduler().Sleep(100 * kTicksPerMillisecond);
        model.stack.Detach(model.Filter());
    });
    machine.UnloadDriver("NETSIEVE");
    return client.Verdict();
}

/// The same, from inside the hook's unload notification.
std::string RunAdapterAgainstUnload(Machine& machine, ScheduleTree& tree) {
    Model model(machine, tree);
    Guarded client(u"name");
    client.unload = [&] {
        model.Explore([&] {
            model.Start(ContextKind::kThread, 1, [&] { model.stack.Detach(model.Filter()); });
            client.Leave();
        });
    };
    client.Start();
    machine.UnloadDriver("NETSIEVE");
    return client.Verdict();
}

/// A hook that the unload has taken in silence is made active again, and leaves under a frame
/// without waiting for its handlers to be idle.
std::string RunClaimAgainstLeaver(Machine& machine, ScheduleTree& tree) {
    Model model(machine, tree);
    Scene scene(machine, model.stack);
    Guarded silent(u"silent");
    Client told(u"told");
    told.unload = [&] {
        ITarnHKFlowControl(silent.hook, HOOK_STATE_ACTIVE);
        model.Explore([&] {
            model.Start(ContextKind::kThread, 1, [&] { scene.Pass(true, {MakeFrame(1)}); });
            model.Start(ContextKind::kThread, 2, [&] { silent.Leave(); });
        });
        told.Stop();
    };
    silent.Start();
    told.Start();
    machine.UnloadDriver("NETSIEVE");
    return silent.calledLate          ? "called when it was gone"
           : !silent.detached.empty() ? "told of its pair though it is past that"
                                      : "";
}

#if !defined(NETSIEVE_TEST_IMAGE)
/// A hook attaches itself while the table is emptied for the last time: it is told of the end, or
/// refused.
std::string RunLateAttachment(Machine& machine, ScheduleTree& tree) {
    Model model(machine, tree);
    FILTER_MODULE* const module = DriverModuleOf(machine, model.stack);
    Client client(u"late");
    client.attach = false;
    client.Start();
    NTSTATUS status = STATUS_SUCCESS;
    model.Explore([&] {
        model.Start(ContextKind::kThread, 1,
                    [&] { status = ITarnHKAttachFilter(module, client.hook); });
        NotifyHooksAdapterDetach(module);
    });
    const std::size_t attached = status == STATUS_SUCCESS ? 1 : 0;
    const bool told = client.detached.size() == attached && module->HookCount == 0;
    client.Stop();
    machine.UnloadDriver("NETSIEVE");
    return told ? "" : "attached to a module that goes, and not told";
}
#endif

/// An adapter comes while one hook registers and another leaves: each pair is announced once.
std::string RunAdapterComes(Machine& machine, ScheduleTree& tree) {
    Model model(machine, tree);
    Guarded leaving(u"leaving");
    Guarded coming(u"coming");
    leaving.Start();
    model.Explore([&] {
        model.Start(ContextKind::kThread, 1, [&] { leaving.Leave(); });
        model.Start(ContextKind::kThread, 2, [&] { coming.Start(); });
        machine.ndis().AddAdapter();
    });
    const std::size_t announced = coming.attached.size();
    coming.Leave();
    machine.UnloadDriver("NETSIEVE");
    return (announced == 2 ? "" : fmt::format("{} of 2 adapters were announced; ", announced)) +
           leaving.Verdict() + coming.Verdict();
}

const ModelCase kModels[] = {
    {"registration against deregistration", 2, RunNameOnItsWayOut},
    {"both ends of a shared name", 2, RunBothEnds},
    {"adapter that goes against leaver", 2, RunAdapterAgainstLeaver},
    {"adapter that goes against unload", 2, RunAdapterAgainstUnload},
    {"claim against leaver", 2, RunClaimAgainstLeaver},
#if !defined(NETSIEVE_TEST_IMAGE)
    {"late attachment against the end of the table", 2, RunLateAttachment},
#endif
    {"adapter that comes", 1, RunAdapterComes},
};

class HookModels : public testing::TestWithParam<ModelCase> {};

TEST_P(HookModels, EveryScheduleIsGood) {
    RunCase(GetParam());
}

INSTANTIATE_TEST_SUITE_P(Models, HookModels, testing::ValuesIn(kModels));

}  // namespace
}  // namespace netsieve::host
