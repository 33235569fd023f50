// Frames that a hook makes itself: which adapters send them, when, and what is left when they fail.
#include "tests/packet/pending_rig.h"

namespace netsieve::host {
namespace {

TEST(InjectionTest, GoesOutOfEveryRunningAdapterWithItsAddress) {
    for (const KIRQL irql : {PASSIVE_LEVEL, DISPATCH_LEVEL}) {
        RunClean({}, [irql](Machine& machine) {
            {
                Scene first(machine);
                // Another with the same address, a paused one, and one with an address of its own.
                Stack& twin = machine.ndis().AddAdapter({.ifIndex = 2});
                Stack& paused = machine.ndis().AddAdapter({.ifIndex = 3});
                Stack& other = machine.ndis().AddAdapter({.mac = {2, 0, 0, 0, 0, 9}, .ifIndex = 4});
                paused.Pause();
                Scene second(machine, twin);
                Scene elsewhere(machine, other);
                int shown = 0;
                TestHook hook([&](NIRP*) -> LONG {
                    ++shown;
                    return HOOK_VERDICT_WITHHOLD;
                });
                const Frame frame = FromAdapter(1, 200);
                AtIrql(machine, irql, [&] {
                    Inject(frame);
                    // Else it is left to a worker, which may be as quick on another processor.
                    if (irql == PASSIVE_LEVEL) {
                        EXPECT_EQ(first.wire.size(), 1u);
                    }
                });
                EXPECT_TRUE(
                    Await(machine, [&] { return first.wire.size() + second.wire.size() == 2; }));
                EXPECT_EQ(first.wire, std::vector<Frame>{frame});
                EXPECT_EQ(second.wire, std::vector<Frame>{frame});
                EXPECT_EQ(first.wirePort, 0u);
                EXPECT_TRUE(elsewhere.wire.empty());
                EXPECT_EQ(shown, 0);
                EXPECT_EQ(TracesOf(DriverModuleOf(machine, paused)), "[0 NSVFSendPacket->2363]\n");
                machine.scheduler().WaitUntilIdle();
                first.ExpectPoolWhole();
                paused.Restart();
            }
            machine.UnloadDriver("NETSIEVE");
        });
    }
}

TEST(InjectionTest, AWorkItemSendsNothingOnceAPauseHasBegun) {
    OnScene([](Scene& scene) {
        Scheduler& scheduler = scene.machine_.scheduler();
        // The worker cannot run yet: this processor is kept.
        scheduler.SetIrql(DISPATCH_LEVEL);
        Inject(FromAdapter(1));
        WriteRelease(&scene.module->State, FILTER_STATE_PAUSED);
        scheduler.SetIrql(PASSIVE_LEVEL);
        scheduler.WaitUntilIdle();
        WriteRelease(&scene.module->State, FILTER_STATE_RUNNING);
        EXPECT_TRUE(scene.wire.empty());
    });
}

TEST(InjectionTest, FollowsThePortOfTheLatestSend) {
    OnScene([](Scene& scene) {
        scene.Pass(true, {MakeFrame(1)});
        Inject(FromAdapter(1));
        EXPECT_EQ(scene.wirePort, 7u);
        EXPECT_EQ(scene.wire.size(), 2u);
    });
}

TEST(InjectionTest, FramesThatNoAdapterCanSendGoNowhere) {
    OnScene([](Scene& scene) {
        EXPECT_EQ(ITarnHKSendPacket(nullptr, nullptr, 60), STATUS_SUCCESS);
        Inject(FromAdapter(1, 11 + 1));
        EXPECT_EQ(scene.wire.size(), 1u);
        Frame shortFrame = FromAdapter(1);
        ITarnHKSendPacket(nullptr, shortFrame.data(), 11);
        Inject(FromAdapter(1, 65536));
        Inject(FromAdapter(9));
        EXPECT_EQ(scene.wire.size(), 1u);
        Inject(FromAdapter(1, 65535));
        EXPECT_EQ(scene.wire.size(), 2u);
        EXPECT_EQ(TracesOf(scene.module), "");
    });
}

TEST(InjectionTest, EachFailureIsTracedAndLeavesNothingBehind) {
    struct Case {
        FaultKind kind;
        const char* trace;
    };
    const Case cases[] = {{FaultKind::kNbl, "[0 NSVFSendPacket->2391]\n"},
                          {FaultKind::kNblContext, "[0 NSVFSendPacket->2399]\n"},
                          {FaultKind::kWorkItem, "[0 NSVFSendPacket->2412]\n"}};
    for (const Case& c : cases) {
        OnScene([&](Scene& scene) {
            AtIrql(scene.machine_, DISPATCH_LEVEL, [&] {
                scene.machine_.faults().Arm({.kind = c.kind, .nth = 1});
                Inject(FromAdapter(1));
                scene.machine_.faults().Disarm();
            });
            EXPECT_EQ(TracesOf(scene.module), c.trace);
            scene.ExpectPoolWhole();
            Inject(FromAdapter(1));
            EXPECT_EQ(scene.wire.size(), 1u);
        });
    }
}

TEST(InjectionTest, AModuleWithoutAPoolSendsNothing) {
    RunClean({}, [](Machine& machine) {
        machine.faults().Arm({.kind = FaultKind::kNblPool, .nth = 1});
        {
            Scene scene(machine, Scene::Load::kMayFail);
            machine.faults().Disarm();
            Inject(FromAdapter(1));
            EXPECT_TRUE(scene.wire.empty());
            EXPECT_EQ(TracesOf(scene.module),
                      "[0 InitializeNBLPool->52]\n[1 NSVFSendPacket->2357]\n");
        }
        machine.UnloadDriver("NETSIEVE");
    });
}

}  // namespace
}  // namespace netsieve::host
