// NBLs that cross the hooks: whatever is withheld of them, their owner gets them back as they
// were.
#include <map>
#include <numeric>
#include <optional>

#include "host/ndis/intermediate_driver.h"
#include "host/sched/random.h"
#include "packet/copy_net_buffer.h"
#include "packet/nbl_context.h"
#include "tests/packet/pending_rig.h"

namespace netsieve::host {
namespace {

constexpr std::size_t kSizes[] = {1, 5, 6, 14, 60, 256, 1514, 1515, 9000, 65535, 65536};

using Buffers = std::vector<std::pair<NET_BUFFER*, Frame>>;

Buffers BuffersOf(PNET_BUFFER_LIST nbl) {
    Buffers buffers;
    for (NET_BUFFER* at = nbl->FirstNetBuffer; at != nullptr; at = at->Next) {
        buffers.push_back({at, NblFactory::BytesOf(*at)});
    }
    return buffers;
}

/// How often each shape of a frame occurred in all the traffic.
struct ShapeCounts {
    int roomBehind, roomBefore, roomOverFirstMdl, emptyFirst, emptyInside, emptyLast, manyMdls,
        unmapped, manyBuffers, unlikeNeighbour, cut;

    void Add(const NET_BUFFER_LIST& nbl) {
        std::vector<std::vector<ULONG>> sizes;
        for (const NET_BUFFER* at = nbl.FirstNetBuffer; at != nullptr; at = at->Next) {
            sizes.push_back(Add(*at));
        }
        manyBuffers += sizes.size() > 1 ? 1 : 0;
        unlikeNeighbour += sizes.size() > 1 && sizes[0].size() != sizes[1].size() ? 1 : 0;
    }
    std::vector<ULONG> Add(const NET_BUFFER& buffer) {
        std::vector<ULONG> sizes;
        ULONG room = 0;
        for (const MDL* mdl = buffer.MdlChain; mdl != nullptr; mdl = mdl->Next) {
            sizes.push_back(mdl->ByteCount);
            room += mdl->ByteCount;
        }
        unmapped += (buffer.MdlChain->MdlFlags & MDL_HAS_SYSTEM_ADDRESS) == 0 ? 1 : 0;
        roomBefore += buffer.DataOffset != 0 ? 1 : 0;
        roomOverFirstMdl += sizes[0] != 0 && buffer.DataOffset > sizes[0] ? 1 : 0;
        roomBehind += room > buffer.DataOffset + buffer.DataLength ? 1 : 0;
        emptyFirst += sizes.front() == 0 ? 1 : 0;
        emptyLast += sizes.back() == 0 ? 1 : 0;
        emptyInside += sizes.size() > 2 && std::count(sizes.begin() + 1, sizes.end() - 1, 0u) != 0;
        manyMdls += sizes.size() > 4 ? 1 : 0;
        return sizes;
    }
    int Fewest() const {
        return std::min({roomBehind, roomBefore, roomOverFirstMdl, emptyFirst, emptyInside,
                         emptyLast, manyMdls, unmapped, manyBuffers, unlikeNeighbour, cut});
    }
};
ShapeCounts g_shapes;

/// Traffic of random NBLs from `top` to `bottom`, or up, of which a hook withholds at random.
/// Every frame starts with the broadcast address and its own number, as far as it reaches.
class RandomTraffic {
  public:
    RandomTraffic(Machine& machine, Stack& top, Stack& bottom, std::uint64_t seed, bool send)
        : protocol_(top.protocol()),
          adapter_(bottom.adapter()),
          random_(seed),
          send_(send),
          nbls_(machine, send ? protocol_.pool() : adapter_.pool()) {
        nbls_.DrawLayouts(random_.Next());
        const auto arrived = [this](PNET_BUFFER_LIST chain) { Arrived(chain); };
        const auto back = [this](PNET_BUFFER_LIST chain) { TakeBack(chain); };
        adapter_.onSend = [arrived](PNET_BUFFER_LIST chain, NDIS_PORT_NUMBER, ULONG) {
            arrived(chain);
        };
        protocol_.onReceive = [arrived](PNET_BUFFER_LIST chain, NDIS_PORT_NUMBER, ULONG, ULONG) {
            arrived(chain);
        };
        protocol_.onSendComplete = [back](PNET_BUFFER_LIST chain, ULONG) { back(chain); };
        adapter_.onReturned = [back](PNET_BUFFER_LIST chain, ULONG) { back(chain); };
        adapter_.queue().SetMode(ReleaseMode::kMixed);
        protocol_.queue().SetMode(ReleaseMode::kMixed);
    }

    /// The hook's verdict; the frame's record must show the frame and nothing else.
    LONG Judge(NIRP* nirp) {
        const HostLock lock(mutex_);
        const std::uint8_t* bytes = ITarnHKGetBuffer(nirp);
        const std::string shown(bytes, bytes + ITarnHKGetBufferLength(nirp));
        if (mayBeCut_ && frames_.count(shown) == 0 && IsCut(shown)) {
            ++g_shapes.cut;
            return HOOK_VERDICT_PASS;
        }
        EXPECT_TRUE(shown.size() <= 65535 && frames_.count(shown) != 0);
        constexpr LONG verdicts[] = {0, 0, 0, 1, 3, -1, 77};
        const LONG verdict = verdicts[random_.Below(std::size(verdicts))];
        if (verdict != 0) {
            ++withheld_[shown];
        }
        return verdict;
    }

    void Call(bool resources, bool mayBeCut) {
        mayBeCut_ = mayBeCut;
        PNET_BUFFER_LIST chain = nullptr;
        for (std::uint64_t count = 1 + random_.Below(4); count > 0; --count) {
            PNET_BUFFER_LIST const nbl = MakeNbl();
            nbl->Next = chain;
            chain = nbl;
        }
        std::vector<PNET_BUFFER_LIST> const nbls = NblsOf(chain);
        if (send_) {
            protocol_.Send(chain);
        } else if (adapter_.Indicate(chain, 0, resources ? NDIS_RECEIVE_FLAGS_RESOURCES : 0) &&
                   resources) {
            // One chain again, which starts with the adapter's first NBL.
            EXPECT_THAT(NblsOf(nbls[0]), testing::UnorderedElementsAreArray(nbls));
            TakeBack(nbls[0]);
        }
    }

    /// No NBL is outstanding, and every frame either arrived or was withheld, once.
    void ExpectSettled() {
        EXPECT_EQ(back_, made_.size());
        std::map<std::string, int> seen = withheld_;
        for (const auto& [frame, count] : arrived_) {
            seen[frame] += count;
        }
        EXPECT_TRUE(seen == frames_);
    }

  private:
    PNET_BUFFER_LIST MakeNbl() {
        const HostLock lock(mutex_);
        std::vector<Frame> frames;
        for (std::uint64_t count = 1 + random_.Below(5); count > 0; --count) {
            Frame frame(kSizes[random_.Below(std::size(kSizes))],
                        static_cast<std::uint8_t>(number_));
            std::fill_n(frame.begin(), std::min<std::size_t>(6, frame.size()), 0xFF);
            ++number_;
            if (frame.size() > 8) {
                frame[7] = static_cast<std::uint8_t>(number_ >> 8);
            }
            ++frames_[std::string(frame.begin(), frame.end())];
            frames.push_back(std::move(frame));
        }
        std::vector<std::span<const std::uint8_t>> spans(frames.begin(), frames.end());
        PNET_BUFFER_LIST const nbl = nbls_.Make(spans);
        g_shapes.Add(*nbl);
        made_[nbl] = BuffersOf(nbl);
        return nbl;
    }

    /// Whether a frame was copied up to an MDL without a mapping, and is zero from there.
    bool IsCut(const std::string& shown) const {
        return std::ranges::any_of(frames_, [&](const auto& entry) {
            const std::string& frame = entry.first;
            const auto end = std::ranges::mismatch(frame, shown).in2;
            return frame.size() == shown.size() &&
                   std::all_of(end, shown.end(), [](char byte) { return byte == 0; });
        });
    }

    void Arrived(PNET_BUFFER_LIST chain) {
        const HostLock lock(mutex_);
        for (; chain != nullptr; chain = chain->Next) {
            std::size_t at = 0;
            const auto& made = made_.at(chain);
            for (const auto& [buffer, frame] : BuffersOf(chain)) {
                while (at < made.size() && made[at].first != buffer) {
                    ++at;
                }
                ASSERT_LT(at, made.size()) << "a frame passed out of its order";
                ++arrived_[std::string(frame.begin(), frame.end())];
            }
        }
    }

    void TakeBack(PNET_BUFFER_LIST chain) {
        const HostLock lock(mutex_);
        for (; chain != nullptr; chain = chain->Next) {
            EXPECT_TRUE(BuffersOf(chain) == made_.at(chain))
                << "an NBL was completed or returned changed";
            ++back_;
        }
    }

    Protocol& protocol_;
    Adapter& adapter_;
    Random random_;
    bool send_;
    std::atomic<bool> mayBeCut_ = false;
    NblFactory nbls_;
    HostMutex mutex_;
    std::uint64_t number_ = 0;
    std::atomic<std::size_t> back_ = 0;
    std::map<PNET_BUFFER_LIST, Buffers> made_;
    std::map<std::string, int> frames_, withheld_, arrived_;
};

class InterceptionTest : public BothSchedulers {};

void CarryAtRandom(Machine& machine,
                   Stack& top,
                   Stack& bottom,
                   std::uint64_t seed,
                   bool send,
                   bool resources) {
    std::vector<FILTER_MODULE*> modules = {DriverModuleOf(machine, top),
                                           DriverModuleOf(machine, bottom)};
    const ULONG records = FreeRecordsOf(modules[0]);
    {
        RandomTraffic traffic(machine, top, bottom, seed, send);
        const TestHook hook([&](NIRP* nirp) { return traffic.Judge(nirp); });
        constexpr FaultKind kinds[] = {FaultKind::kNblContext, FaultKind::kPool, FaultKind::kMdl,
                                       FaultKind::kMapping};
        for (std::uint64_t call = 0; call < 12; ++call) {
            machine.faults().Arm(
                {.kind = kinds[call % 4], .probability = 0.2, .seed = seed + call});
            traffic.Call(resources, kinds[call % 4] == FaultKind::kMapping);
            machine.faults().Disarm();
        }
        top.Pause();
        bottom.Pause();
        traffic.ExpectSettled();
    }
    for (FILTER_MODULE* const module : modules) {
        EXPECT_EQ(FreeRecordsOf(module), records);
        EXPECT_EQ(module->FreeNirpCount, records);
    }
}

// Through one adapter or, in the same NBLs, through two; every second run has contexts of others
// over and under the driver's.
TEST_P(InterceptionTest, EveryNblReturnsUnchanged) {
    for (std::uint64_t seed = 1; seed <= (Simulated() ? 64 : 16); ++seed) {
        MachineOptions options = Options();
        options.seed = seed;
        RunClean(options, [&](Machine& machine) {
            for (const bool above : {true, false}) {
                if (seed % 4 < 2) {
                    ASSERT_EQ(machine.LoadDriver(OtherFilter(above)), STATUS_SUCCESS);
                }
            }
            ASSERT_EQ(machine.LoadDriver(DriverUnderTest()), STATUS_SUCCESS);
            for (const bool send : {true, false}) {
                Stack& bottom = machine.ndis().AddAdapter({.ifIndex = send ? 1u : 2u});
                Stack* top = &bottom;
                std::optional<IntermediateDriver> between;
                if (seed % 8 < 4) {
                    top = &machine.ndis().AddAdapter({.ifIndex = send ? 3u : 4u});
                    between.emplace(*top, bottom);
                }
                CarryAtRandom(machine, *top, bottom, seed, send, seed % 2 == 0);
            }
            for (const char* driver : {"NETSIEVE", "OTHERUP", "OTHERLO"}) {
                if (machine.FindDriver(driver) != nullptr) {
                    machine.UnloadDriver(driver);
                }
            }
        });
    }
    EXPECT_GT(g_shapes.Fewest(), 0) << "a shape of frames never occurred";
}

INSTANTIATE_TEST_SUITE_P(Schedulers,
                         InterceptionTest,
                         testing::Values(SchedulerKind::kSimulated, SchedulerKind::kThreaded));

// A short copy shows zeroes behind what was copied, whatever the record held before.
TEST(InterceptionEdges, AShortCopyShowsNothingOfAnEarlierFrame) {
    OnScene([](Scene& scene) {
        std::vector<Frame> shown;
        TestHook hook([&](NIRP* nirp) -> LONG {
            const std::uint8_t* bytes = ITarnHKGetBuffer(nirp);
            shown.emplace_back(bytes, bytes + ITarnHKGetBufferLength(nirp));
            return HOOK_VERDICT_PASS;
        });
        for (int i = 0; i < 20; ++i) {
            scene.Pass(true, {MakeFrame(0xAA, 200)});
        }
        const Frame frame = MakeFrame(0xBB, 200);
        scene.machine_.faults().Arm({.kind = FaultKind::kMapping, .nth = 2, .persistent = true});
        scene.stack.protocol().Send(scene.sends.Make(std::span<const std::uint8_t>(frame),
                                                     {.mdlSizes = {50}, .mapped = false}));
        scene.machine_.faults().Disarm();
        Frame expected = frame;
        std::fill(expected.begin() + 50, expected.end(), 0);
        EXPECT_EQ(shown.back(), expected);
        EXPECT_EQ(scene.wire.size(), 21u);
    });
}

// On the way up only what is for the adapter or for everybody is offered.
TEST(InterceptionEdges, OffersReceivedFramesByTheirDestination) {
    OnScene([](Scene& scene) {
        int offered = 0;
        TestHook hook([&](NIRP*) -> LONG {
            ++offered;
            return HOOK_VERDICT_WITHHOLD;
        });
        Frame own = MakeFrame(1);
        const std::uint8_t mac[] = {2, 0, 0, 0, 0, 1};
        std::copy(std::begin(mac), std::end(mac), own.begin());
        Frame other = own;
        other[5] = 2;
        Frame multicast = MakeFrame(1);
        multicast[0] = 0x33;
        const std::vector<Frame> frames = {own, other, multicast, MakeFrame(1, 5), MakeFrame(1, 6)};
        scene.Pass(false, frames);
        EXPECT_EQ(offered, 2);
        EXPECT_EQ(scene.up, (std::vector<Frame>{other, multicast, MakeFrame(1, 5)}));
        EXPECT_EQ(scene.returned, frames);
    });
}

// An NBL without context space is sent on at once; NBLs with the resources flag come back in two
// parts.
TEST(InterceptionEdges, KeepsTheOrderThatTheAdapterAndTheSenderMayExpect) {
    OnScene([](Scene& scene) {
        TestHook hook([](NIRP* nirp) -> LONG { return ITarnHKGetBuffer(nirp)[6] == 2; });
        const auto chain = [](NblFactory& from, std::initializer_list<Frame> frames) {
            std::vector<PNET_BUFFER_LIST> nbls;
            for (const Frame& frame : frames) {
                nbls.push_back(from.Make(std::span<const std::uint8_t>(frame)));
                if (nbls.size() > 1) {
                    nbls[nbls.size() - 2]->Next = nbls.back();
                }
            }
            return nbls;
        };
        auto sent = chain(scene.sends, {MakeFrame(1), MakeFrame(3), MakeFrame(4)});
        const FaultPlan secondContext = {
            .kind = FaultKind::kNblContext, .tag = NBL_CONTEXT_TAG, .nth = 2};
        scene.machine_.faults().Arm(secondContext);
        scene.stack.protocol().Send(sent[0]);
        scene.machine_.faults().Disarm();
        EXPECT_EQ(scene.wire, (std::vector<Frame>{MakeFrame(3), MakeFrame(1), MakeFrame(4)}));

        using Nbls = std::vector<PNET_BUFFER_LIST>;
        auto middle = chain(scene.receives, {MakeFrame(1), MakeFrame(2), MakeFrame(3)});
        scene.stack.adapter().Indicate(middle[0], 0, NDIS_RECEIVE_FLAGS_RESOURCES);
        EXPECT_EQ(NblsOf(middle[0]), (Nbls{middle[0], middle[2], middle[1]}));
        scene.machine_.faults().Arm(secondContext);
        scene.stack.adapter().Indicate(chain(scene.receives, {MakeFrame(1), MakeFrame(2)})[0], 0,
                                       NDIS_RECEIVE_FLAGS_RESOURCES);
        scene.machine_.faults().Disarm();
        EXPECT_EQ(scene.up.back(), MakeFrame(2));
        EXPECT_EQ(TracesOf(scene.module), "[0 NSVFSendNBLs->1517]\n[1 NSVFReceiveNBLs->1818]\n");
        auto first = chain(scene.receives, {MakeFrame(2), MakeFrame(2), MakeFrame(3)});
        scene.stack.adapter().Indicate(first[0], 0, NDIS_RECEIVE_FLAGS_RESOURCES);
        EXPECT_EQ(NblsOf(first[0]), (Nbls{first[0], first[1], first[2]}));
    });
}

// Whoever removed the predecessor below, the buffers behind it come back as they came.
TEST(InterceptionEdges, BuffersWithoutTheirPredecessorKeepTheirOrder) {
    OnScene([](Scene& scene) {
        std::vector<NIRP*> withheld;
        TestHook hook([&](NIRP* nirp) -> LONG {
            if (ITarnHKGetBuffer(nirp)[6] == 1) {
                return HOOK_VERDICT_PASS;
            }
            withheld.push_back(nirp);
            return HOOK_VERDICT_WITHHOLD;
        });
        const std::vector<Frame> frames = {MakeFrame(1), MakeFrame(1, 61), MakeFrame(2),
                                           MakeFrame(3), MakeFrame(4)};
        scene.stack.adapter().queue().SetMode(ReleaseMode::kHold);
        scene.Pass(true, frames);
        NET_BUFFER gone{};
        for (NIRP* nirp : withheld) {
            nirp->PrevNetBuffer = &gone;
        }
        scene.stack.adapter().queue().ReleaseAll();
        EXPECT_EQ(scene.completed, frames);
        EXPECT_EQ(TracesOf(scene.module),
                  "[0 RestoreNetBuffers->298]\n[1 RestoreNetBuffers->298]\n"
                  "[2 RestoreNetBuffers->298]\n");
    });
}

// What is sent or indicated from inside the completion of an empty NBL needs the only record.
TEST(InterceptionEdges, NoRecordIsKeptWhileAnNblLeaves) {
    for (const bool send : {true, false}) {
        OnScene([&](Scene& scene) {
            std::vector<NIRP*> others;
            while (others.size() + 1 < scene.records) {
                others.push_back(GetNirp(scene.module, 60, FALSE));
            }
            int offered = 0;
            TestHook hook([&](NIRP*) -> LONG {
                ++offered;
                return HOOK_VERDICT_PASS;
            });
            NblFactory& nbls = send ? scene.sends : scene.receives;
            PNET_BUFFER_LIST const first = nbls.Make(MakeFrame(1));
            PNET_BUFFER_LIST const empty = nbls.Make(MakeFrame(1));
            PNET_BUFFER const buffer = std::exchange(empty->FirstNetBuffer, nullptr);
            first->Next = empty;
            bool nested = false;
            const auto nest = [&](PNET_BUFFER_LIST chain, ULONG) {
                if (chain == empty) {
                    nested = true;
                    empty->FirstNetBuffer = buffer;
                    scene.Pass(send, {MakeFrame(2)});
                }
            };
            scene.stack.protocol().onSendComplete = scene.stack.adapter().onReturned = nest;
            scene.Pass(send, first);
            EXPECT_TRUE(nested);
            EXPECT_EQ(offered, 2);
            for (NIRP* nirp : others) {
                ReturnNirp(scene.module, nirp, FALSE);
            }
        });
    }
}

// Records move between the two free lists with the buffers they are given; one whose buffer could
// not be had is not lost.
TEST(NirpPoolTest, BorrowsBothWaysAndSurvivesWhatItCannotGet) {
    OnScene([](Scene& scene) {
        FILTER_MODULE* const module = scene.module;
        EXPECT_EQ(GetNirp(module, 65536, FALSE), nullptr);
        for (const ULONG size : {60u, 1514u, 1515u, 65535u}) {
            std::vector<NIRP*> taken;
            FaultPlan plan = {.tag = NIRP_REALLOCATED_BUFFER_TAG, .nth = 1};
            if (size % 2 != 0) {
                plan = {.kind = FaultKind::kMdl, .nth = 1};
            }
            scene.machine_.faults().Arm(plan);
            // The one refusal costs a call, not a record.
            for (int refusals = 0; refusals < 2;) {
                NIRP* const nirp = GetNirp(module, size, FALSE);
                refusals += nirp == nullptr ? 1 : 0;
                if (nirp != nullptr) {
                    EXPECT_EQ(nirp->BufferCapacity, size > 1514 ? 65535u : 1514u);
                    EXPECT_EQ(nirp->Mdl->ByteCount, nirp->BufferCapacity);
                    taken.push_back(nirp);
                }
            }
            scene.machine_.faults().Disarm();
            EXPECT_EQ(taken.size(), scene.records);
            EXPECT_EQ(module->FreeNirpCount, 0u);
            for (NIRP* nirp : taken) {
                ReturnNirp(module, nirp, FALSE);
            }
            EXPECT_EQ(IsListEmpty(&module->SmallNirpList), size > 1514);
            EXPECT_EQ(IsListEmpty(&module->LargeNirpList), size <= 1514);
            scene.ExpectPoolWhole();
        }
        EXPECT_EQ(TracesOf(module),
                  "[0 ReAllocateNirpBuffer->398]\n[1 ReAllocateNirpBuffer->406]\n");
    });
}

// As many records as the machine can spare, or as many as could be made before one was refused.
TEST(NirpPoolTest, HasTheSizeThatTheMachineAllows) {
    struct Case {
        MM_SYSTEMSIZE system;
        ULONG small;
        ULONG large;
    };
    for (const Case& c :
         {Case{MmSmallSystem, 16, 3}, {MmMediumSystem, 21, 5}, {MmLargeSystem, 32, 16}}) {
        OnScene(
            [&](Scene& scene) {
                EXPECT_EQ(LengthOf(scene.module->SmallNirpList), c.small);
                EXPECT_EQ(LengthOf(scene.module->LargeNirpList), c.large);
            },
            {.systemSize = c.system});
    }
    RunClean({}, [](Machine& machine) {
        machine.faults().Arm({.kind = FaultKind::kMdl, .nth = 9, .persistent = true});
        Scene scene(machine);
        machine.faults().Disarm();
        EXPECT_EQ(scene.records, 8u);
        scene.ExpectPoolWhole();
        machine.UnloadDriver("NETSIEVE");
    });
}

// What goes on goes on with the flags of its call, those that the driver has no use for included.
TEST(InterceptionTest, PassesTheFlagsOfACallOn) {
    OnScene([](Scene& scene) {
        TestHook hook([](NIRP*) { return HOOK_VERDICT_PASS; });
        constexpr ULONG kFlags = 0xFF00 | NDIS_RECEIVE_FLAGS_RESOURCES;
        std::vector<ULONG> seen;
        scene.stack.adapter().onSend = [&](PNET_BUFFER_LIST, NDIS_PORT_NUMBER, ULONG flags) {
            seen.push_back(flags);
        };
        scene.stack.protocol().onReceive = [&](PNET_BUFFER_LIST, NDIS_PORT_NUMBER, ULONG,
                                               ULONG flags) { seen.push_back(flags); };
        scene.stack.protocol().Send(scene.sends.Make(MakeFrame(1)), 0, kFlags);
        scene.stack.adapter().Indicate(scene.receives.Make(MakeFrame(2)), 0, kFlags);
        EXPECT_THAT(seen, testing::ElementsAre(kFlags, kFlags));
    });
}

// Whoever completes a large-send request answers it: nothing sent for version 1, the type alone for
// version 2. What goes on is answered by the adapter, which finds no TCP in it.
TEST(InterceptionTest, AnswersALargeSendThatIsWithheld) {
    constexpr std::uintptr_t kRequest = 1460 | 34 << 20, kVersion2 = 1u << 30, kIpv6 = 1u << 31;
    struct Case {
        std::uintptr_t request;
        std::uintptr_t answer;
    };
    const Case cases[] = {{0, 0}, {kRequest, 0}, {kRequest | kVersion2 | kIpv6, kVersion2 | kIpv6}};
    for (const Case& c : cases) {
        for (const LONG verdict : {HOOK_VERDICT_WITHHOLD, HOOK_VERDICT_PASS}) {
            OnScene([&](Scene& scene) {
                TestHook hook([&](NIRP*) { return verdict; });
                PVOID completed = &scene;
                scene.stack.protocol().onSendComplete = [&](PNET_BUFFER_LIST chain, ULONG) {
                    completed = NET_BUFFER_LIST_INFO(chain, TcpLargeSendNetBufferListInfo);
                    EXPECT_EQ(chain->Status, NDIS_STATUS_SUCCESS);
                };
                PNET_BUFFER_LIST const nbl = scene.sends.Make(MakeFrame(1, 4000));
                NET_BUFFER_LIST_INFO(nbl, TcpLargeSendNetBufferListInfo) =
                    reinterpret_cast<PVOID>(c.request);
                nbl->Status =
                    verdict == HOOK_VERDICT_PASS ? NDIS_STATUS_SUCCESS : NDIS_STATUS_FAILURE;
                scene.stack.protocol().Send(nbl);
                EXPECT_EQ(reinterpret_cast<std::uintptr_t>(completed),
                          verdict == HOOK_VERDICT_PASS ? c.request & kVersion2 : c.answer);
            });
        }
    }
}

// As dumps show them.
static_assert(NIRP_STATE_IDLE == 0 && NIRP_STATE_SEND == 1 && NIRP_STATE_RECEIVE == 3 &&
              NIRP_STATE_PENDING == 4 && NIRP_STATE_COMPLETED == 5 && NIRP_STATE_RELEASED == 6);
static_assert(NBL_TYPE_SEND == 0x1000 && NBL_TYPE_INJECTED == 0x1001 &&
              NBL_TYPE_SEND_CLONE == 0x1002 && NBL_TYPE_RECEIVE == 0x1003 &&
              NBL_TYPE_RECEIVE_CLONE == 0x1004 && NBL_TYPE_UNINSPECTED == 0x1005);

// The NIRP of a frame that passed is taken for the next one only if that is of its size.
TEST(NirpPoolTest, EachFrameHasANirpOfItsSize) {
    OnScene([](Scene& scene) {
        std::vector<ULONG> capacities;
        TestHook hook([&](NIRP* nirp) -> LONG {
            capacities.push_back(nirp->BufferCapacity);
            return HOOK_VERDICT_PASS;
        });
        scene.Pass(true,
                   {MakeFrame(1, 9000), MakeFrame(1), MakeFrame(1, 1514), MakeFrame(1, 1515)});
        EXPECT_EQ(capacities, (std::vector<ULONG>{65535, 1514, 1514, 65535}));
    });
}

// An offset that lies behind the first MDLs of the chain.
TEST(NirpPoolTest, CopiesFromWhereverTheFrameBegins) {
    OnScene([](Scene& scene) {
        std::vector<UCHAR> bytes(60);
        std::iota(bytes.begin(), bytes.end(), UCHAR{1});
        MDL mdls[3];
        for (std::size_t i = 0; i < 3; ++i) {
            DescribeBuffer(mdls[i], bytes.data() + 20 * i, 20, true);
            mdls[i].Next = i < 2 ? &mdls[i + 1] : nullptr;
        }
        for (const ULONG offset : {0u, 19u, 20u, 25u, 40u, 59u}) {
            NET_BUFFER netBuffer{};
            netBuffer.CurrentMdl = mdls;
            netBuffer.CurrentMdlOffset = offset;
            netBuffer.DataLength = 60 - offset;
            NIRP* const nirp = GetNirp(scene.module, 60, false);
            EXPECT_EQ(CopyNetBufferToNirp(&netBuffer, nirp), 60 - offset);
            EXPECT_EQ(std::vector<UCHAR>(nirp->Buffer, nirp->Buffer + 60 - offset),
                      std::vector<UCHAR>(bytes.begin() + offset, bytes.end()));
            ReturnNirp(scene.module, nirp, false);
        }
    });
}

}  // namespace
}  // namespace netsieve::host
