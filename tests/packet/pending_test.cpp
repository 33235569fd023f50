// Frames that a hook takes over: what it makes of them, and what becomes of the records.
#include "tests/packet/pending_rig.h"

namespace netsieve::host {
namespace {

constexpr NTSTATUS kRefused = STATUS_INSUFFICIENT_RESOURCES;
constexpr ULONG kFailure = 0xC0000001;

// Of three frames the middle one is taken over. Whatever comes first, the NBL's return or the
// completion, the NBL goes back unchanged, and the frame goes on if every completion says so.
TEST(PendingTest, AFrameGoesOnAsItsCompletionsSay) {
    struct Case {
        bool send;
        int marks;
        ULONG statuses[2];
        bool nblFirst;
        bool inHandler;
        bool passes = false;  ///< the verdict does not say that the frame is taken over
    };
    const Case cases[] = {
        {true, 1, {0}, false, false},          {true, 1, {0}, true, false},
        {true, 1, {0}, false, true},           {true, 1, {kFailure}, false, false},
        {true, 1, {kFailure}, true, false},    {true, 2, {0, 0}, true, false},
        {true, 2, {kFailure, 0}, true, false}, {true, 2, {kFailure, 0}, false, false},
        {false, 1, {0}, false, false},         {false, 1, {0}, true, false},
        {false, 1, {kFailure}, true, false},   {false, 2, {0, kFailure}, false, false},
        {false, 2, {0, 0}, true, true},        {true, 1, {0}, false, false, true},
        {false, 1, {0}, true, false, true},
    };
    const std::vector<Frame> frames = {MakeFrame(1), MakeFrame(2, 1999), MakeFrame(3)};
    for (const Case& c : cases) {
        SCOPED_TRACE(testing::Message() << "case " << &c - cases);
        OnScene([&](Scene& scene) {
            NIRP* taken = nullptr;
            const auto complete = [&] {
                for (int i = 0; i < c.marks; ++i) {
                    EXPECT_EQ(ITarnHKCompleteRequest(taken, c.statuses[i]), STATUS_SUCCESS);
                }
            };
            TestHook hook([&](NIRP* nirp) -> LONG {
                if (ITarnHKGetBuffer(nirp)[6] != 2) {
                    return HOOK_VERDICT_PASS;
                }
                // In numbers, as dumps show them.
                EXPECT_EQ(nirp->Direction, c.send ? 1u : 2u);
                EXPECT_EQ(ReadAcquire(&nirp->State), c.send ? 1u : 3u);
                for (int i = 0; i < c.marks; ++i) {
                    EXPECT_EQ(ITarnHKMarkPending(nirp), STATUS_SUCCESS);
                }
                taken = nirp;
                if (c.inHandler) {
                    complete();
                }
                // A verdict that lets the frame pass must not send it twice.
                return c.inHandler || c.passes ? HOOK_VERDICT_PASS : HOOK_VERDICT_PENDING;
            });
            NblQueue& queue =
                c.send ? scene.stack.adapter().queue() : scene.stack.protocol().queue();
            queue.SetMode(c.nblFirst ? ReleaseMode::kInline : ReleaseMode::kHold);
            scene.Pass(c.send, frames);
            if (!c.inHandler) {
                EXPECT_EQ(ReadAcquire(&taken->State), c.nblFirst ? 6u : 4u);
                EXPECT_EQ(taken->OnList, c.send ? 1u : 2u);
                complete();
            }
            queue.ReleaseAll();

            const bool goesOn = c.statuses[0] == 0 && c.statuses[1] == 0;
            std::vector<Frame> expected = {frames[0], frames[2]};
            if (goesOn) {
                expected.insert(c.inHandler ? expected.begin() : expected.end(), frames[1]);
                EXPECT_EQ(scene.wirePort, c.send && !c.inHandler ? 0u : scene.wirePort);
            }
            EXPECT_EQ(c.send ? scene.wire : scene.up, expected);
            EXPECT_EQ(c.send ? scene.completed : scene.returned, frames);
            EXPECT_EQ(TracesOf(scene.module), "");
        });
    }
}

// What the NBL asks of the adapter, or says of the frame, goes with the clone, also when the NBL is
// back before: all but the pointer into its owner's memory.
TEST(PendingTest, ACloneCarriesTheOutOfBandData) {
    constexpr unsigned kSent = 0b101'1000'1011'0111, kReceived = 0b101'1011'1001'0111;
    for (const bool send : {true, false}) {
        OnScene([&](Scene& scene) {
            std::vector<NIRP*> taken;
            TestHook hook(TakeInto(taken));
            unsigned copied = 0;
            const auto look = [&](PNET_BUFFER_LIST chain) {
                for (unsigned id = 0; id <= NetBufferListFilteringInfo; ++id) {
                    PVOID const value = NET_BUFFER_LIST_INFO(chain, id);
                    EXPECT_TRUE(value == nullptr || value == &scene + 1 + id);
                    copied |= value == nullptr ? 0 : 1u << id;
                }
            };
            scene.stack.adapter().onSend = [&](PNET_BUFFER_LIST chain, NDIS_PORT_NUMBER, ULONG) {
                look(chain);
            };
            scene.stack.protocol().onReceive = [&](PNET_BUFFER_LIST chain, NDIS_PORT_NUMBER, ULONG,
                                                   ULONG) { look(chain); };
            PNET_BUFFER_LIST const nbl = (send ? scene.sends : scene.receives).Make(MakeFrame(1));
            for (unsigned id = 0; id <= NetBufferListFilteringInfo; ++id) {
                NET_BUFFER_LIST_INFO(nbl, id) = &scene + 1 + id;
            }
            scene.Pass(send, nbl);
            EXPECT_EQ(scene.completed.size() + scene.returned.size(), 1u);
            ITarnHKCompleteRequest(taken.front(), 0);
            EXPECT_EQ(copied, send ? kSent : kReceived);
        });
    }
}

TEST(PendingTest, APauseDropsWhatIsPendingAndLateCompletionsArePaid) {
    for (const bool nblFirst : {false, true}) {
        OnScene([&](Scene& scene) {
            std::vector<NIRP*> taken;
            TestHook hook([&](NIRP* nirp) -> LONG {
                EXPECT_EQ(ITarnHKMarkPending(nirp), STATUS_SUCCESS);
                EXPECT_EQ(ITarnHKMarkPending(nirp), STATUS_SUCCESS);
                taken.push_back(nirp);
                return HOOK_VERDICT_PENDING;
            });
            scene.Pass(true, {MakeFrame(1)});
            scene.Pass(false, {MakeFrame(2)});
            scene.stack.Pause();
            EXPECT_TRUE(IsListEmpty(&scene.module->PendingSendList));
            EXPECT_TRUE(IsListEmpty(&scene.module->PendingReceiveList));
            EXPECT_EQ(FreeRecordsOf(scene.module), scene.records - 2);
            scene.stack.Restart();
            // The records stay out of the pool until all four marks are completed.
            for (NIRP* nirp : taken) {
                ITarnHKCompleteRequest(nirp, nblFirst ? kFailure : 0);
                EXPECT_EQ(FreeRecordsOf(scene.module), scene.records - (nirp == taken[0] ? 2 : 1));
                ITarnHKCompleteRequest(nirp, 0);
            }
            EXPECT_EQ(scene.wire.size() + scene.up.size(), 0u);
            EXPECT_EQ(
                TracesOf(scene.module),
                "[0 NSVFSendPendingComplete->2116]\n[1 NSVFSendPendingComplete->2116]\n"
                "[2 NSVFReceivePendingComplete->2199]\n[3 NSVFReceivePendingComplete->2199]\n");
        });
    }
}

// Between the pause's change of the state and its flush.
TEST(PendingTest, ACompletionAheadOfTheFlushSendsNothing) {
    for (const bool send : {true, false}) {
        OnScene([&](Scene& scene) {
            std::vector<NIRP*> taken;
            TestHook hook(TakeInto(taken));
            scene.Pass(send, {MakeFrame(1)});
            WriteRelease(&scene.module->State, FILTER_STATE_PAUSED);
            ITarnHKCompleteRequest(taken.front(), 0);
            WriteRelease(&scene.module->State, FILTER_STATE_RUNNING);
            EXPECT_EQ(scene.wire.size() + scene.up.size(), 0u);
            EXPECT_EQ(TracesOf(scene.module), "");
        });
    }
}

// Marks that nobody completes are void when the module goes: its records go with it.
TEST(PendingTest, UnpaidRecordsAreFreedWithTheirModule) {
    RunClean({}, [](Machine& machine) {
        {
            Scene scene(machine);
            TestHook hook([](NIRP* nirp) -> LONG {
                ITarnHKMarkPending(nirp);
                return HOOK_VERDICT_WITHHOLD;
            });
            scene.Pass(true, {MakeFrame(1), MakeFrame(2)});
            scene.Pass(false, {MakeFrame(3)});
            scene.stack.Detach(*scene.stack.FindModule(machine.FindDriver("NETSIEVE")));
            EXPECT_EQ(scene.completed.size(), 2u);
        }
        machine.UnloadDriver("NETSIEVE");
    });
}

TEST(PendingTest, MisuseIsHarmless) {
    EXPECT_EQ(ITarnHKMarkPending(nullptr), STATUS_INVALID_PARAMETER);
    EXPECT_EQ(ITarnHKCompleteRequest(nullptr, 0), STATUS_INVALID_PARAMETER);
    const auto misuse = [](Scene& scene) {
        NIRP* taken = nullptr;
        TestHook hook([&](NIRP* nirp) -> LONG {
            taken = nirp;
            switch (ITarnHKGetBuffer(nirp)[6]) {
                case 1:  // never marked
                    ITarnHKCompleteRequest(nirp, 0);
                    return HOOK_VERDICT_PASS;
                case 2:  // one completion too many
                    ITarnHKMarkPending(nirp);
                    ITarnHKCompleteRequest(nirp, 0);
                    ITarnHKCompleteRequest(nirp, kFailure);
                    EXPECT_EQ(ITarnHKMarkPending(nirp), kRefused);
                    return HOOK_VERDICT_PENDING;
                default:
                    return HOOK_VERDICT_PASS;
            }
        });
        scene.Pass(true, {MakeFrame(1), MakeFrame(2), MakeFrame(3)});
        // The handler's turn is over.
        EXPECT_EQ(ITarnHKMarkPending(taken), kRefused);
        ITarnHKCompleteRequest(taken, 0);
        EXPECT_EQ(scene.wire, (std::vector<Frame>{MakeFrame(2), MakeFrame(1), MakeFrame(3)}));
        EXPECT_EQ(TracesOf(scene.module),
                  "[0 NSVFSendPendingComplete->2116]\n[1 NSVFSendPendingComplete->2116]\n"
                  "[2 NSVFSendPendingComplete->2116]\n");
    };
    OnScene(misuse, {.watchHooks = false});
}

// A frame whose NBL also carries what no hook may see is no different from any other.
TEST(PendingTest, TakesFramesOfAnNblThatIsPartlyUninspected) {
    OnScene([](Scene& scene) {
        std::vector<NIRP*> taken;
        TestHook hook(TakeInto(taken));
        Frame multicast = MakeFrame(1);
        multicast[0] = 1;
        scene.Pass(false, {multicast, MakeFrame(2)});
        ITarnHKCompleteRequest(taken.front(), 0);
        EXPECT_EQ(scene.up, (std::vector<Frame>{multicast, MakeFrame(2)}));
    });
}

// Each failable call of a mark in turn: it is refused, the frame passes, and the next one is taken.
TEST(PendingTest, AMarkThatFailsLeavesNothingBehind) {
    for (const FaultKind kind : {FaultKind::kNbl, FaultKind::kNblContext}) {
        OnScene([&](Scene& scene) {
            NTSTATUS marked = STATUS_SUCCESS;
            std::vector<NIRP*> taken;
            TestHook hook([&](NIRP* nirp) -> LONG {
                scene.machine_.faults().Arm({.kind = kind, .nth = taken.empty() ? 1u : 0u});
                marked = ITarnHKMarkPending(nirp);
                scene.machine_.faults().Disarm();
                taken.push_back(nirp);
                return marked == STATUS_SUCCESS ? HOOK_VERDICT_PENDING : HOOK_VERDICT_PASS;
            });
            scene.Pass(true, {MakeFrame(1)});
            EXPECT_EQ(marked, kRefused);
            EXPECT_EQ(scene.wire.size(), 1u);
            scene.ExpectPoolWhole();
            scene.Pass(true, {MakeFrame(2)});
            EXPECT_EQ(marked, STATUS_SUCCESS);
            ITarnHKCompleteRequest(taken.back(), 0);
            EXPECT_EQ(scene.wire.size(), 2u);
            EXPECT_EQ(TracesOf(scene.module), kind == FaultKind::kNbl
                                                  ? "[0 CreateCloneNBL->582]\n"
                                                  : "[0 CreateCloneNBL->590]\n");
        });
    }
}

// Two records a frame, and the pool does not grow: what is beyond it passes.
TEST(PendingTest, TakesNoMoreThanThePoolHolds) {
    OnScene([](Scene& scene) {
        std::vector<NIRP*> taken;
        TestHook hook([&](NIRP* nirp) -> LONG {
            if (ITarnHKMarkPending(nirp) != STATUS_SUCCESS) {
                return HOOK_VERDICT_PASS;
            }
            taken.push_back(nirp);
            return HOOK_VERDICT_PENDING;
        });
        constexpr std::size_t kFrames = 60;
        scene.Pass(true, std::vector<Frame>(kFrames, MakeFrame(9)));
        EXPECT_EQ(taken.size(), scene.records / 2);
        EXPECT_EQ(scene.wire.size(), kFrames - taken.size());
        for (NIRP* nirp : taken) {
            ITarnHKCompleteRequest(nirp, 0);
        }
        EXPECT_EQ(scene.wire.size(), kFrames);
        scene.stack.Pause();
        scene.stack.Restart();
    });
}

}  // namespace
}  // namespace netsieve::host
