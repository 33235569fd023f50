// Every call that the platform may refuse, refused in turn, through the whole life of a driver with
// hooks and traffic.
#include "tests/packet/pending_rig.h"

namespace netsieve::host {
namespace {

/// What the frames of a sweep ask of the hook, in their seventh byte.
enum Wish : std::uint8_t { kPass = 1, kWithhold, kTake };

class FailureSweep : public testing::TestWithParam<bool> {
  protected:
    /// The run in which the nth call fails; how many calls were made to fail.
    std::uint64_t RunWith(std::uint64_t nth) {
        std::uint64_t injected = 0;
        RunClean({}, [&](Machine& machine) {
            machine.faults().Arm({.nth = nth, .persistent = GetParam()});
            {
                Scene scene(machine, Scene::Load::kMayFail);
                std::vector<NIRP*> taken;
                // Nothing that imports from a driver that is not there gets loaded.
                const bool loaded = machine.FindDriver("NETSIEVE") != nullptr;
                Client client(u"judge");
                client.detach = false;
                client.handler = [&](NIRP* nirp) { return Judge(nirp, taken); };
                if (loaded && client.Register() == STATUS_SUCCESS) {
                    ITarnHKFlowControl(client.hook, HOOK_STATE_ACTIVE);
                } else {
                    EXPECT_EQ(client.hook, nullptr);
                }
                Live(scene, taken, loaded);
                injected = machine.faults().Injected();
                machine.faults().Disarm();
                ExpectSettled(scene, taken);
            }
            machine.UnloadDriver("NETSIEVE");
        });
        return injected;
    }

  private:
    static LONG Judge(NIRP* nirp, std::vector<NIRP*>& taken) {
        switch (ITarnHKGetBuffer(nirp)[6]) {
            case kWithhold:
                return HOOK_VERDICT_WITHHOLD;
            case kTake:
                if (ITarnHKMarkPending(nirp) == STATUS_SUCCESS) {
                    taken.push_back(nirp);
                    return HOOK_VERDICT_PENDING;
                }
                return HOOK_VERDICT_PASS;
            default:
                return HOOK_VERDICT_PASS;
        }
    }

    /// Traffic both ways in buffers that have to be mapped, completions, injections and a pause.
    static void Live(Scene& scene, std::vector<NIRP*>& taken, bool loaded) {
        const std::vector<Frame> frames = {MakeFrame(kPass),       MakeFrame(kWithhold),
                                           MakeFrame(kTake),       MakeFrame(kTake, 9000),
                                           MakeFrame(kPass, 9000), MakeFrame(kTake)};
        scene.Pass(true, frames, {.mdlSizes = {20, 30}, .mapped = false});
        scene.Pass(false, frames, {.mdlSizes = {20, 30}, .mapped = false});
        for (std::size_t at = 0; at + 1 < taken.size(); ++at) {
            ITarnHKCompleteRequest(taken[at], at % 3 == 0 ? -1 : 0);
        }
        for (const KIRQL irql : {PASSIVE_LEVEL, DISPATCH_LEVEL}) {
            if (!loaded) {
                break;
            }
            AtIrql(scene.machine_, irql, [] { Inject(FromAdapter(1)); });
        }
        scene.stack.Pause();
        scene.stack.Restart();
        if (!taken.empty()) {
            ITarnHKCompleteRequest(taken.back(), 0);
        }
        taken.clear();
        scene.Pass(true, frames);
    }

    /// Every NBL is back unchanged, the records are in the pool, and the next frame goes through.
    static void ExpectSettled(Scene& scene, const std::vector<NIRP*>& taken) {
        if (scene.module != nullptr) {
            // The frames that the latest call took over go with the pause.
            scene.stack.Pause();
            scene.stack.Restart();
        }
        for (NIRP* nirp : taken) {
            ITarnHKCompleteRequest(nirp, 0);
        }
        EXPECT_EQ(scene.completed.size(), 12u);
        EXPECT_EQ(scene.returned.size(), 6u);
        scene.Pass(true, {MakeFrame(kPass)});
        scene.Pass(false, {MakeFrame(kPass)});
        EXPECT_EQ(scene.completed.size(), 13u);
        EXPECT_EQ(scene.returned.size(), 7u);
        EXPECT_EQ(scene.wire.back(), MakeFrame(kPass));
        EXPECT_EQ(scene.up.back(), MakeFrame(kPass));
    }
};

TEST_P(FailureSweep, NothingIsLostWhateverFails) {
    std::uint64_t nth = 1;
    while (RunWith(nth) != 0 && !HasFailure()) {
        ++nth;
    }
    EXPECT_FALSE(HasFailure()) << "when call " << nth << " failed";
    fmt::print("{} calls failed in turn\n", nth - 1);
    EXPECT_GT(nth, 100u);
}

INSTANTIATE_TEST_SUITE_P(OnceAndForGood, FailureSweep, testing::Bool());

}  // namespace
}  // namespace netsieve::host
