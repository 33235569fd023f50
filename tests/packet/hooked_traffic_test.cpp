// Traffic as a network makes it, with hooks attached: indications until the adapter itself pauses,
// calls at DISPATCH_LEVEL with and without the flag, sends that fail and sends that are cancelled,
// pages that cannot be mapped.
#include <map>

#include "tests/driver/schedule_scenarios.h"
#include "tests/packet/pending_rig.h"

namespace netsieve::host {
namespace {

/// What happened, over all runs.
std::map<std::string, std::atomic<int>> g_seen;

class HookedTraffic final : public Scenario {
  public:
    void Run(Machine& machine) override {
        Stack& stack = Begin(machine);
        Traffic traffic(machine, stack);
        SetRelease(stack, ReleaseMode::kMixed);
        Watch(machine, stack);
        {
            std::atomic<unsigned> offers = machine.options().seed % 4;
            TestHook hook([&](NIRP* nirp) { return Judge(nirp, offers++); });
            RunCallers(machine, stack, traffic);
        }
        Demand(traffic.completed + traffic.refused == 5 && traffic.returned == given_,
               fmt::format("{} sends completed, {} refused, {} of {} receives returned",
                           traffic.completed.load(), traffic.refused.load(),
                           traffic.returned.load(), given_));
        // A frame whose pages could not be mapped passes whole: the hooks alone see it cut.
        Demand(traffic.changed == 0, "a frame arrived changed");
        Note("cancelled", traffic.cancelled != 0);
        meetings_ += traffic.refused != 0 ? 1 : 0;
        machine.UnloadDriver("NETSIEVE");
    }

  private:
    static void Note(const char* what, bool happened) { g_seen[what] += happened ? 1 : 0; }

    static void NoteFlag(const char* call, ULONG flags) {
        if (CurrentContext().irql == DISPATCH_LEVEL) {
            Note((std::string(call) + ((flags & 1) != 0 ? " with" : " without")).c_str(), true);
        }
    }

    /// Looks at what arrives before the traffic counts it.
    static void Watch(Machine& machine, Stack& stack) {
        FilterModule* const module = stack.FindModule(machine.FindDriver("NETSIEVE"));
        stack.adapter().onSend = [count = stack.adapter().onSend](auto* chain, auto port,
                                                                  ULONG flags) {
            NoteFlag("sends", flags);
            count(chain, port, flags);
        };
        stack.protocol().onReceive = [=, count = stack.protocol().onReceive](
                                         auto* chain, auto port, ULONG nbls, ULONG flags) {
            NoteFlag("indications", flags);
            Note("indicated while pausing", module->state == ModuleState::kPausing);
            Note("indicated while paused", module->state == ModuleState::kPaused);
            Note("indicated while restarting", module->state == ModuleState::kRestarting);
            count(chain, port, nbls, flags);
        };
        stack.protocol().onSendComplete = [count = stack.protocol().onSendComplete](auto* chain,
                                                                                    ULONG flags) {
            NoteFlag("completions", flags);
            for (PNET_BUFFER_LIST nbl : NblsOf(chain)) {
                Note("failed", nbl->Status == NDIS_STATUS_FAILURE);
            }
            count(chain, flags);
        };
        stack.adapter().onReturned = [count = stack.adapter().onReturned](auto* chain,
                                                                          ULONG flags) {
            NoteFlag("returns", flags);
            count(chain, flags);
        };
    }

    /// A frame that is shown cut is left alone: a copy of it would be what the hook was shown.
    static LONG Judge(NIRP* nirp, unsigned offer) {
        const std::uint8_t* const bytes = ITarnHKGetBuffer(nirp);
        const Frame shown(bytes, bytes + ITarnHKGetBufferLength(nirp));
        const bool whole = shown == Traffic::FrameNumbered(shown[6], shown.size());
        Note("shown cut", !whole);
        if (whole && offer % 4 == 0) {
            return HOOK_VERDICT_WITHHOLD;
        }
        if (whole && offer % 4 == 1 && ITarnHKMarkPending(nirp) == STATUS_SUCCESS) {
            ITarnHKCompleteRequest(nirp, STATUS_SUCCESS);
            return HOOK_VERDICT_PENDING;
        }
        return HOOK_VERDICT_PASS;
    }

    void RunCallers(Machine& machine, Stack& stack, Traffic& traffic) {
        PNET_BUFFER_LIST const sends[] = {traffic.MakeSends(3), traffic.MakeSends(2)};
        PNET_BUFFER_LIST const receives[] = {traffic.MakeReceives(2), traffic.MakeReceives(1),
                                             traffic.MakeReceives(1)};
        given_ = 0;
        Scheduler& scheduler = machine.scheduler();
        machine.faults().Arm(
            {.kind = FaultKind::kMapping, .probability = 0.1, .seed = machine.options().seed});
        const std::uint32_t contexts[] = {
            scheduler.Start({.name = "sender", .processor = 1},
                            [&] { traffic.SendAndCancel(sends[0]); }),
            scheduler.Start({.name = "sender", .kind = ContextKind::kDpc, .processor = 3},
                            [&] { traffic.SendAndCancel(sends[1]); }),
            scheduler.Start({.name = "receiver", .kind = ContextKind::kDpc, .processor = 2}, [&] {
                given_ += stack.adapter().Indicate(receives[0]) ? 2 : 0;
                stack.adapter().Indicate(receives[1], 0, NDIS_RECEIVE_FLAGS_RESOURCES);
                given_ += stack.adapter().Indicate(receives[2]) ? 1 : 0;
            })};
        stack.Pause();
        stack.Restart();
        scheduler.JoinAll(contexts);
        stack.Pause();
        machine.faults().Disarm();
    }

    int given_ = 0;
};

TEST(HookedTraffic, PassesInEverySchedule) {
    bool enough = true;
    for (const StrategyKind strategy : {StrategyKind::kPct, StrategyKind::kUniform}) {
        const std::uint64_t schedules =
            RunSearch({"hooked traffic", [] { return std::make_unique<HookedTraffic>(); }, strategy,
                       3'000 / kShare});
        enough = enough && schedules >= kEnoughForAll;
    }
    if (!enough) {
        return;
    }
    for (const char* const what : {"sends with", "sends without", "indications with",
                                   "indications without", "completions with", "completions without",
                                   "returns with", "returns without", "indicated while pausing",
                                   "indicated while paused", "failed", "cancelled", "shown cut"}) {
        EXPECT_GT(g_seen[what], 0) << what;
    }
    // The image's restart hardly calls out: an indication meets it there in one run of thousands.
    EXPECT_TRUE(kShare != 1 || g_seen["indicated while restarting"] != 0);
}

}  // namespace
}  // namespace netsieve::host
