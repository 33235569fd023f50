// Searches through the ways in which hooks come and go while frames are offered to them.
#include "tests/driver/schedule_scenarios.h"
#include "tests/hook/hook_rig.h"

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
        verdict_.clear();
        Scheduler& scheduler = machine.scheduler();
        Stack& stack = machine.ndis().AddAdapter();
        Demand(machine.LoadDriver(DriverUnderTest()) == STATUS_SUCCESS, "not loaded");
        Traffic traffic(machine, stack);
        stack.adapter().pace().Set(Pace::kMixed);
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
        const std::uint32_t contexts[] = {
            scheduler.Start({.name = "sender", .processor = 1},
                            [&] { stack.protocol().Send(sends[0]); }),
            scheduler.Start({.name = "sender", .kind = ContextKind::kDpc, .processor = 2},
                            [&] { stack.protocol().Send(sends[1]); }),
            scheduler.Start({.name = "changer", .processor = 3}, [&] {
                switch (change_) {
                    case Change::kAttachDetach:
                        ITarnHKDettachFilter(changing.attached[0], changing.hook);
                        ITarnHKAttachFilter(changing.attached[0], changing.hook);
                        break;
                    case Change::kDetachModule:
                        stack.Detach(*stack.FindModule(machine.FindDriver("NETSIEVE")));
                        break;
                    case Change::kRegisterTwice:
                        twin.Start();
                        break;
                    default:
                        break;
                }
            })};
        switch (change_) {
            case Change::kRegisterTwice:
                changing.Start();
                break;
            case Change::kAttachDetach:
                ITarnHKDettachFilter(guest.attached[0], guest.hook);
                ITarnHKAttachFilter(guest.attached[0], guest.hook);
                break;
            case Change::kDeregister:
            case Change::kDetachModule:
                changing.Stop();
                gone = true;
                break;
            default:
                break;
        }
        scheduler.JoinAll(contexts);
        stack.Pause();
        meetings_ += changing.calls != 0 ? 1 : 0;
        // Nothing of the table moves under the frames of the one who stays.
        if (change_ == Change::kDeregister || change_ == Change::kRegisterTwice) {
            Demand(steady.calls == 3, "a frame missed a hook");
        }
        if (change_ == Change::kRegisterTwice) {
            twin.Stop();
        }
        if (change_ == Change::kAttachDetach) {
            Demand(RecordOf(machine, stack)->HookCount == 3,
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
               fmt::format("of 3 lists {} came back and {} were refused", traffic.completed.load(),
                           traffic.refused.load()));
    }

  private:
    Change change_;
};

/// Hooks leave while the driver unloads under traffic: one on its own account, two when one of them
/// is told. The one that is not told leaves without a wait when no handler of it runs.
class HooksLeaveDuringUnload final : public Scenario {
  public:
    void Run(Machine& machine) override {
        verdict_.clear();
        Stack& stack = machine.ndis().AddAdapter();
        Demand(machine.LoadDriver(DriverUnderTest()) == STATUS_SUCCESS, "not loaded");
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
        const std::uint32_t sender = machine.scheduler().Start(
            {.name = "sender", .processor = 1},
            [&, chain = traffic.MakeSends(2)] { stack.protocol().Send(chain); });
        machine.UnloadDriver("NETSIEVE");
        machine.scheduler().Join(sender);
        meetings_ += silent.calls == 1 ? 1 : 0;
        Demand(traffic.completed + traffic.refused == 2, "a list did not come back");
    }
};

/// Four processors whose protocols send through a new module: each gets one entry.
class ProtocolsFillTheTable final : public Scenario {
  public:
    void Run(Machine& machine) override {
        verdict_.clear();
        Scheduler& scheduler = machine.scheduler();
        Stack& stack = machine.ndis().AddAdapter();
        stack.AddProtocol(u"SECOND");
        Demand(machine.LoadDriver(DriverUnderTest()) == STATUS_SUCCESS, "not loaded");
        Client client(u"hook");
        client.Start();
        std::vector<std::unique_ptr<FrameLists>> lists;
        std::vector<std::uint32_t> contexts;
        const Frame frame = MakeFrame(1);
        for (unsigned i = 0; i < 4; ++i) {
            Protocol& protocol = stack.protocol(i % 2);
            lists.push_back(std::make_unique<FrameLists>(machine, protocol.pool()));
            contexts.push_back(scheduler.Start(
                {.name = "sender", .processor = i},
                [&protocol, list = lists.back()->Make(std::span<const std::uint8_t>(frame))] {
                    protocol.Send(list);
                }));
        }
        scheduler.JoinAll(contexts);
        FILTER_MODULE* const module = RecordOf(machine, stack);
        Demand(
            module->ProtocolCount == 2 && module->ProtocolHandles[0] != module->ProtocolHandles[1],
            fmt::format("{} entries for two protocols", module->ProtocolCount));
        ++meetings_;
        client.Stop();
        machine.UnloadDriver("NETSIEVE");
    }
};

using Change = HooksComeAndGo::Change;

Search Hooks(const char* name, Change change, std::uint64_t realRuns = 20) {
    return {.name = name,
            .make = [change] { return std::make_unique<HooksComeAndGo>(change); },
            .realRuns = realRuns};
}

const Search kSearches[] = {
    Hooks("dispatch against attach and detach", Change::kAttachDetach),
    Hooks("dispatch against deregistration", Change::kDeregister),
    Hooks("two registrations of one name", Change::kRegisterTwice),
    Hooks("module detach against deregistration", Change::kDetachModule),
    Hooks("changes from inside a handler", Change::kInside),
    Hooks("registrations from inside a handler", Change::kLeaveInside, 1),
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

// A registration that meets the end of the last one of its name joins it in time, or makes a hook
// of its own.
TEST(HookModels, ANameIsNotJoinedOnItsWayOut) {
    RunModel(
        {.name = "registration against deregistration"}, [](Machine& machine, ScheduleTree& tree) {
            tree.SetOpen(false);
            machine.ndis().AddAdapter();
            machine.LoadDriver(DriverUnderTest());
            Client first(u"name");
            Client second(u"name");
            first.Start();
            tree.SetOpen(true);
            machine.scheduler().Start({.name = "client", .processor = 1}, [&] { second.Start(); });
            first.Stop();
            machine.scheduler().WaitUntilIdle();
            tree.SetOpen(false);
            second.Stop();
            machine.UnloadDriver("NETSIEVE");
        });
}

}  // namespace
}  // namespace netsieve::host
