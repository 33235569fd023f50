// Registering, attaching and dispatching, one thing at a time.
#include "hook/hook_notify.h"
#include "hook/source_handle.h"
#include "tests/packet/pending_rig.h"

namespace netsieve::host {
namespace {

TEST(HookRegistryTest, ANameThatContainsARegisteredOneIsThatHook) {
    OnScene([](Scene& scene) {
        Client alpha(u"Alpha");
        Client beta(u"AlphaBeta");
        alpha.Start();
        EXPECT_EQ(beta.Register(), STATUS_SUCCESS);
        EXPECT_EQ(beta.hook, alpha.hook);
        EXPECT_TRUE(beta.attached.empty());
        beta.Stop();
        alpha.Stop();
        // The other way round they are two.
        beta.block.MinorVersion = 7;
        beta.Start();
        alpha.Start();
        EXPECT_NE(beta.hook, alpha.hook);
        EXPECT_EQ(beta.hook->MinorVersion, 7);
        EXPECT_EQ(scene.machine_.pool().Describe(beta.hook).substr(0, 12), "block 'nfot'");
        alpha.Stop();
        Client empty(u"");
        empty.Start();
        EXPECT_EQ(alpha.Register(), STATUS_SUCCESS);
        EXPECT_EQ(alpha.hook, empty.hook);
    });
}

// Its deregistration has 100 milliseconds to go when there is nothing else left to unload. Without
// the wait the rest of it runs in a driver that is gone.
TEST(HookRegistryTest, TheUnloadWaitsForAHookThatIsBeingTakenDown) {
    RunClean({.processors = 2}, [](Machine& machine) {
        machine.ndis().AddAdapter();
        ASSERT_EQ(machine.LoadDriver(DriverUnderTest()), STATUS_SUCCESS);
        Client leaving(u"leaving");
        Client told(u"told");
        std::uint32_t leaver = 0;
        told.unload = [&] {
            told.Stop();
            leaver = machine.scheduler().Start({.name = "leaver", .processor = 1},
                                               [&] { leaving.Stop(); });
            machine.scheduler().Sleep(10 * kTicksPerMillisecond);
        };
        told.Start();
        leaving.Start();  // behind the other, so that the unload has not come to it yet
        machine.UnloadDriver("NETSIEVE");
        machine.scheduler().Join(leaver);
    });
}

// Whoever of several clients goes first takes the hook down: its routines may be the leaver's. The
// handles of the others stay, and do nothing.
TEST(HookRegistryTest, TheFirstEndOfASharedNameTakesTheHookDown) {
    for (const bool ownerFirst : {true, false}) {
        OnScene([&](Scene& scene) {
            Client owner(u"shared");
            Client joined(u"shared too");
            owner.Start();
            EXPECT_EQ(joined.Register(), STATUS_SUCCESS);
            Client& left = ownerFirst ? joined : owner;
            (ownerFirst ? owner : joined).Stop();
            EXPECT_EQ(owner.detached.size(), 1u);
            EXPECT_EQ(scene.module->HookCount, 0);
            ITarnHKFlowControl(left.hook, HOOK_STATE_ACTIVE);
            EXPECT_EQ(left.hook->State, HOOK_STATE_STOPPED);
            EXPECT_EQ(ITarnHKAttachFilter(scene.module, left.hook), STATUS_INVALID_PARAMETER);
            Client next(u"shared");
            next.Start();
            EXPECT_NE(next.hook, left.hook);
            scene.Pass(true, {MakeFrame(1)});
            EXPECT_EQ(owner.calls + next.calls * 10, 10);
            left.Stop();
            EXPECT_EQ(owner.detached.size() + joined.detached.size(), 1u);
        });
    }
}

TEST(HookRegistryTest, BadBlocksAndRefusedMemoryChangeNothing) {
    OnScene([](Scene& scene) {
        Client client(u"name");
        HOOK_FILTER* out = nullptr;
        EXPECT_EQ(ITarnHKRegisterFilterEx(nullptr, nullptr, &out), STATUS_INVALID_PARAMETER);
        EXPECT_EQ(ITarnHKRegisterFilterEx(&client.block, nullptr, nullptr),
                  STATUS_INVALID_PARAMETER);
        EXPECT_EQ(ITarnHKRegisterFilter(nullptr, nullptr, 0, &out), STATUS_INVALID_PARAMETER);
        EXPECT_EQ(ITarnHKDeregisterFilter(nullptr), STATUS_INVALID_PARAMETER);
        EXPECT_EQ(ITarnHKAttachFilter(scene.module, nullptr), STATUS_INVALID_PARAMETER);
        EXPECT_EQ(ITarnHKDettachFilter(nullptr, out), STATUS_INVALID_PARAMETER);
        ITarnHKFlowControl(nullptr, HOOK_STATE_ACTIVE);

        const UNICODE_STRING good = client.block.Name;
        client.block.Name.MaximumLength = good.Length;
        EXPECT_EQ(client.Register(), STATUS_INVALID_PARAMETER);
        client.block.Name = {4, 6, good.Buffer};  // no NUL where it should be
        EXPECT_EQ(client.Register(), STATUS_INVALID_PARAMETER);
        client.block.Name = {0, 2, nullptr};
        EXPECT_EQ(client.Register(), STATUS_INVALID_PARAMETER);
        client.block.Name = good;

        for (const auto& [nth, status] :
             {std::pair(1u, STATUS_INSUFFICIENT_RESOURCES), std::pair(2u, STATUS_OPEN_FAILED)}) {
            scene.machine_.faults().Arm({.kind = FaultKind::kPool, .nth = nth});
            EXPECT_EQ(client.Register(), status);
            scene.machine_.faults().Disarm();
            EXPECT_EQ(client.hook, nullptr);
        }
        EXPECT_TRUE(client.attached.empty());
        EXPECT_EQ(g_DriverGlobals.HookList.Count, 0u);
    });
}

TEST(HookRegistryTest, TheBasicBlockGivesAPriorityAndNoFrames) {
    OnScene([](Scene& scene) {
        const std::pair<ULONG, ULONG> classes[] = {{0, 2000}, {1, 2100}, {2, 2200},
                                                   {3, 2300}, {4, 2400}, {0xFFFFFFFF, 2400}};
        for (const auto& [priorityClass, priority] : classes) {
            Client client(u"basic");
            const HOOK_FILTER_REGISTRATION block = {.Name = client.block.Name,
                                                    .AttachNotify = client.block.AttachNotify,
                                                    .DetachNotify = client.block.DetachNotify,
                                                    .UnloadNotify = nullptr,
                                                    .OpaqueData = {}};
            ASSERT_EQ(ITarnHKRegisterFilter(&block, &client, priorityClass, &client.hook), 0);
            ITarnHKFlowControl(client.hook, HOOK_STATE_ACTIVE);
            EXPECT_EQ(client.hook->Priority, priority);
            scene.Pass(true, {MakeFrame(1)});
            EXPECT_EQ(client.attached.size(), 1u);
            client.Stop();
            EXPECT_EQ(client.detached.size(), 1u);
            EXPECT_EQ(client.calls, 0);
        }
    });
}

TEST(HookRegistryTest, TheBasicBlockIsRefusedWholeAndToldOfTheUnload) {
    RunClean({}, [](Machine& machine) {
        Scene scene(machine);
        Client client(u"basic");
        int told = 0;
        client.unload = [&] {
            ++told;
            client.Stop();
        };
        const HOOK_FILTER_REGISTRATION block = {.Name = client.block.Name,
                                                .AttachNotify = client.block.AttachNotify,
                                                .DetachNotify = nullptr,
                                                .UnloadNotify = &Client::Unload,
                                                .OpaqueData = {}};
        std::uint64_t nth = 0;
        for (const NTSTATUS refusal :
             {STATUS_INSUFFICIENT_RESOURCES, STATUS_INSUFFICIENT_RESOURCES, STATUS_OPEN_FAILED}) {
            machine.faults().Arm({.kind = FaultKind::kPool, .nth = ++nth});
            EXPECT_EQ(ITarnHKRegisterFilter(&block, &client, 0, &client.hook), refusal);
            machine.faults().Disarm();
            EXPECT_EQ(client.hook, nullptr);
        }
        EXPECT_TRUE(client.attached.empty());
        EXPECT_EQ(ITarnHKRegisterFilter(&block, &client, 0, &client.hook), STATUS_SUCCESS);
        EXPECT_EQ(client.attached.size(), 1u);
        machine.UnloadDriver("NETSIEVE");
        EXPECT_EQ(told, 1);
    });
}

// Three are told of the unload. Their adapter goes while the last one is inside its notification;
// two are still registered then, and each hears of its pair once. One that has no unload
// notification is past all others.
TEST(HookRegistryTest, AnAdapterThatGoesDuringTheUnloadIsNotedOnce) {
    RunClean({}, [](Machine& machine) {
        Scene scene(machine);
        Client clients[] = {Client(u"first"), Client(u"second"), Client(u"silent"),
                            Client(u"third")};
        int told = 0;
        clients[0].unload = clients[1].unload = [&] { ++told; };
        clients[3].unload = [&] {
            // One entry or two, a pair has one end.
            EXPECT_EQ(ITarnHKAttachFilter(scene.module, clients[1].hook), STATUS_SUCCESS);
            scene.stack.Detach(*scene.stack.FindModule(machine.FindDriver("NETSIEVE")));
            for (Client& client : clients) {
                EXPECT_EQ(client.detached.size(), &client == &clients[2] ? 0u : 1u);
                EXPECT_EQ(client.hook->AttachCount, 0u);
                EXPECT_EQ(client.hook->State, HOOK_STATE_STOPPED);
                client.Stop();
            }
        };
        for (Client& client : clients) {
            client.Start();
        }
        machine.UnloadDriver("NETSIEVE");
        EXPECT_EQ(told, 2);
        for (const Client& client : clients) {
            EXPECT_EQ(client.detached.size(), &client == &clients[2] ? 0u : 1u);
        }
    });
}

TEST(HookRegistryTest, AnAdapterThatComesLaterIsAnnouncedToEachHook) {
    OnScene([](Scene& scene) {
        Client first(u"first");
        Client second(u"second");
        first.Start();
        second.Start();
        Stack& later = scene.machine_.ndis().AddAdapter();
        FILTER_MODULE* const module = DriverModuleOf(scene.machine_, later);
        for (Client* client : {&first, &second}) {
            EXPECT_EQ(client->attached, (std::vector<FILTER_MODULE*>{scene.module, module}));
            EXPECT_EQ(client->hook->AttachCount, 2u);
        }
        first.Stop();
        EXPECT_EQ(module->HookCount, 1);
        second.Stop();
        EXPECT_EQ(second.detached, second.attached);
    });
}

TEST(HookRegistryTest, OnlyTwoStatesAreShownFrames) {
    OnScene([](Scene& scene) {
        Client client(u"states");
        EXPECT_EQ(client.Register(), STATUS_SUCCESS);
        EXPECT_EQ(client.hook->State, HOOK_STATE_STOPPED);
        int expected = 0;
        for (const ULONG state : {14u, 11u, 12u, 13u, 0u}) {
            ITarnHKFlowControl(client.hook, state);
            scene.Pass(true, {MakeFrame(1)});
            expected += state == 11 || state == 13 ? 1 : 0;
            EXPECT_EQ(client.calls, expected) << state;
        }
    });
}

// An idle hook takes one turn of the timer; a running handler is waited for, but not for ever, and
// keeps the record alive.
TEST(HookRegistryTest, DeregistrationWaitsForHandlersAndTheWaitIsBounded) {
    for (const Ticks seconds : {0, 1, 30}) {
        OnScene([seconds](Scene& scene) {
            Scheduler& scheduler = scene.machine_.scheduler();
            Client client(u"slow");
            std::atomic<bool> inside = false;
            client.handler = [&](NIRP*) -> LONG {
                inside = true;
                scheduler.Sleep(seconds * kTicksPerSecond);
                inside = false;
                return HOOK_VERDICT_PASS;
            };
            client.Start();
            const std::uint32_t sender = scheduler.Start({.name = "sender", .processor = 1}, [&] {
                if (seconds != 0) {
                    scene.Pass(true, {MakeFrame(1)});
                }
            });
            Await(scene.machine_, [&] { return inside || seconds == 0; });
            const Ticks start = scheduler.Now();
            client.Stop();
            const Ticks took = scheduler.Now() - start;
            EXPECT_GE(took,
                      std::clamp<Ticks>(seconds * 1000 - 50, 90, 10'000) * kTicksPerMillisecond);
            EXPECT_LE(took, std::min<Ticks>(seconds * 1000 + 200, 10'200) * kTicksPerMillisecond);
            EXPECT_EQ(client.detached.size(), 1u);
            scheduler.Join(sender);
        });
    }
}

TEST(HookRegistryTest, TheUnloadTellsEachHookOnceAndItsModulesNoMore) {
    RunClean({}, [](Machine& machine) {
        Scene scene(machine);
        Client told(u"told");
        Client untold(u"other");
        told.unload = [&] { told.Stop(); };
        told.Start();
        untold.Start();
        untold.Stop();
        machine.UnloadDriver("NETSIEVE");
        EXPECT_EQ(told.detached.size(), 1u);
        EXPECT_EQ(untold.detached.size(), 1u);
    });
}

TEST(HookTableTest, OffersInAscendingUnsignedPriorityAndCombinesVerdicts) {
    OnScene([](Scene& scene) {
        std::vector<ULONG> order;
        std::vector<std::unique_ptr<Client>> clients;
        for (const ULONG priority : {0x80000001u, 2300u, 0u, 0x7FFFFFFFu, 0xFFFFFFFFu, 2000u}) {
            clients.push_back(std::make_unique<Client>(
                std::u16string(1, static_cast<char16_t>(u'A' + clients.size())), priority));
            Client* const client = clients.back().get();
            client->handler = [&order, client](NIRP*) -> LONG {
                order.push_back(client->block.Priority);
                return client->verdict;
            };
            client->Start();
        }
        scene.Pass(true, {MakeFrame(1)});
        EXPECT_EQ(order, (std::vector<ULONG>{0, 2000, 2300, 0x7FFFFFFF, 0x80000001, 0xFFFFFFFF}));
        EXPECT_EQ(scene.wire.size(), 1u);
        // One that withholds is enough, whoever comes behind it.
        clients[2]->verdict = HOOK_VERDICT_WITHHOLD;
        scene.Pass(true, {MakeFrame(2)});
        EXPECT_EQ(scene.wire.size(), 1u);
        EXPECT_EQ(order.size(), 12u);
        // Out of the middle, then twice in.
        clients[1]->Stop();
        EXPECT_EQ(scene.module->HookCount, 5);
        EXPECT_EQ(ITarnHKAttachFilter(scene.module, clients[0]->hook), STATUS_SUCCESS);
        order.clear();
        scene.Pass(true, {MakeFrame(3)});
        EXPECT_EQ(order,
                  (std::vector<ULONG>{0, 2000, 0x7FFFFFFF, 0x80000001, 0x80000001, 0xFFFFFFFF}));
        clients.erase(clients.begin() + 1);
        for (const auto& client : clients) {
            client->Stop();
            EXPECT_EQ(client->detached.size(), 1u);
        }
        EXPECT_EQ(scene.module->HookCount, 0);
    });
}

TEST(HookTableTest, KeepsASlotForEachEntry) {
    OnScene([](Scene& scene) {
        Client clients[] = {Client(u"a", 3), Client(u"b", 2), Client(u"c", 1)};
        HOOK_FILTER** const slots = scene.module->HookSlots;
        for (Client& client : clients) {
            EXPECT_EQ(client.Register(), STATUS_SUCCESS);
            EXPECT_EQ(client.hook->SlotIndex, static_cast<ULONG>(&client - clients));
            EXPECT_EQ(slots[&client - clients], client.hook);
        }
        HOOK_FILTER* const middle = clients[1].hook;
        for (int i = 0; i < 2; ++i) {  // attached or not
            EXPECT_EQ(ITarnHKDettachFilter(scene.module, middle), STATUS_SUCCESS);
            EXPECT_EQ(middle->SlotIndex, HOOK_SLOT_NONE);
            EXPECT_EQ(slots[1], nullptr);
            EXPECT_FALSE(IsHookAttached(scene.module, middle));
        }
        EXPECT_EQ(ITarnHKAttachFilter(scene.module, clients[2].hook), STATUS_SUCCESS);
        EXPECT_EQ(clients[2].hook->SlotIndex, 1u);
        EXPECT_EQ(slots[1], clients[2].hook);
        for (Client& client : clients) {
            client.Stop();
        }
        EXPECT_EQ(std::count(slots, slots + MAX_MODULE_HOOKS, nullptr),
                  static_cast<std::ptrdiff_t>(MAX_MODULE_HOOKS));
    });
}

TEST(HookTableTest, RefusesTheSixtyFifthAndForgetsWhoLeavesEntriesBehind) {
    OnScene([](Scene& scene) {
        Client client(u"many");
        client.detach = false;
        client.Start();
        for (int i = 1; i < 64; ++i) {
            EXPECT_EQ(ITarnHKAttachFilter(scene.module, client.hook), STATUS_SUCCESS);
        }
        EXPECT_EQ(ITarnHKAttachFilter(scene.module, client.hook), STATUS_INSUFFICIENT_RESOURCES);
        EXPECT_EQ(scene.module->HookCount, 64);
        scene.Pass(true, {MakeFrame(1)});
        EXPECT_EQ(client.calls, 64);
        client.Stop();
        EXPECT_EQ(scene.module->HookCount, 0);
        EXPECT_EQ(client.detached.size(), 1u);
    });
}

/// Two more objects behind the adapter's own. The last one has the values, each different.
struct AdapterChain {
    AdapterChain(InternalObject& head, std::size_t macAddress, bool endsInItself) {
        head.Put(16, middle.address());
        middle.Put(16, last.address());
        last.Put(16, endsInItself ? last.address() : nullptr);
        last.Put(56, std::uint64_t{0x5655545352515049});
        last.Put(120, std::uint32_t{120});
        last.Put(124, std::uint32_t{124});
        last.Put(400, address.address());
        last.Put(464, std::uint32_t{464});
        last.Put(476, std::uint32_t{476});
        if (macAddress != 0) {
            address.Put(macAddress, kMac);
        }
    }
    void ExpectIn(const HOOK_ADAPTER_INFO& info, bool macKnown) const {
        EXPECT_EQ(info.Value56, 0x5655545352515049u);
        EXPECT_THAT((std::array{info.Value120, info.Value124, info.Value464, info.Value476}),
                    testing::ElementsAre(120, 124, 464, 476));
        EXPECT_THAT(info.MacAddress, testing::ElementsAreArray(macKnown ? kMac : MacAddress{}));
    }

    static constexpr MacAddress kMac{2, 3, 5, 7, 11, 13};
    InternalObject middle{ObjectType::kAdapter}, last{ObjectType::kAdapter};
    InternalObject address{ObjectType::kAddress};
};

// What the platform says of the sender and the adapter, where each version keeps it.
TEST(PacketQueriesTest, ReadWhatEachNdisVersionKeeps) {
    struct Case {
        std::uint32_t version;
        std::size_t protocolBytes;
        std::size_t macAddress;  ///< 0 where its place is not known
    };
    const Case cases[] = {{0x60000, 48, 1376}, {0x60001, 48, 1376}, {0x60002, 48, 0},
                          {0x60014, 48, 344},  {0x6001D, 48, 0},    {0x6001E, 56, 336},
                          {0x6001F, 56, 0},    {0x60028, 56, 336},  {0x60032, 56, 0}};
    for (const Case& c : cases) {
        SCOPED_TRACE(testing::Message() << "NDIS " << std::hex << c.version);
        const auto body = [&](Scene& scene) {
            const AdapterChain chain(scene.stack.adapter().objects().adapter, c.macAddress,
                                     c.version % 2 == 0);
            InternalObject& object = scene.stack.protocol().objects().protocol;
            object.Put(24, std::uint64_t{0x2423222120191817});
            object.Put(c.protocolBytes, std::array<UCHAR, 2>{48, 49});
            Client client(u"asks");
            client.handler = [&](NIRP* nirp) -> LONG {
                const bool sent = nirp->Direction == NIRP_DIRECTION_SEND;
                PROTOCOL_ENTRY* entry = nullptr;
                EXPECT_EQ(ITarnHKGetProtocolName(nirp, &entry), STATUS_SUCCESS);
                EXPECT_EQ(entry == nullptr ? "" : std::string(entry->Buffer), sent ? "TCPIP" : "");
                WCHAR name[4] = {};
                HOOK_PROTOCOL_INFO protocol{};
                protocol.ProtocolName = {0, sizeof(name), name};
                EXPECT_EQ(ITarnHKGetProtocolInfo(nirp, &protocol),
                          sent ? STATUS_SUCCESS : STATUS_UNSUCCESSFUL);
                if (sent) {
                    EXPECT_EQ(protocol.ProtocolHandle, object.address());
                    EXPECT_EQ(protocol.ProtocolValue, 0x2423222120191817u);
                    EXPECT_EQ(protocol.ProtocolBytes[0] * 100 + protocol.ProtocolBytes[1], 4849);
                    EXPECT_EQ(std::u16string(name, protocol.ProtocolName.Length / 2), u"TCPI");
                }
                HOOK_ADAPTER_INFO info{};
                EXPECT_EQ(ITarnHKGetAdapterInfo(nirp, &info),
                          c.macAddress != 0 ? STATUS_SUCCESS : STATUS_UNSUCCESSFUL);
                chain.ExpectIn(info, c.macAddress != 0);
                EXPECT_EQ(ITarnHKQueryProtocolName(nullptr, nullptr), STATUS_SUCCESS);
                return HOOK_VERDICT_PASS;
            };
            client.Start();
            scene.Pass(true, {MakeFrame(1)});
            scene.Pass(false, {MakeFrame(1)});
            EXPECT_EQ(client.calls, 2);
            EXPECT_EQ(scene.module->ProtocolCount, 1u);
        };
        OnScene(body, {.ndisVersion = c.version});
    }
}

/// Shows a hook one sent frame and the entry of its protocol, which is there when it is `known`.
void AskOnce(Scene& scene,
             bool known,
             const std::function<void(NIRP*, const PROTOCOL_ENTRY*)>& look) {
    Client client(u"asks");
    client.handler = [&](NIRP* nirp) -> LONG {
        PROTOCOL_ENTRY* entry = nullptr;
        EXPECT_EQ(ITarnHKGetProtocolName(nirp, &entry), STATUS_SUCCESS);
        EXPECT_EQ(entry != nullptr, known);
        look(nirp, entry);
        return HOOK_VERDICT_PASS;
    };
    client.Start();
    scene.Pass(true, {MakeFrame(1)});
    EXPECT_EQ(client.calls, 1);
    EXPECT_EQ(scene.module->ProtocolCount, known ? 1u : 0u);
}

// A filter above, or an adapter, sends an NBL. Where an open object has its pointers, what it has
// here looks just like them. Or the NBL has no source.
TEST(PacketQueriesTest, DoNotFollowASourceThatIsNoOpen) {
    struct Case {
        std::optional<ObjectType> kind;
        NTSTATUS status;
    };
    for (const Case& c : {Case{ObjectType::kFilter, STATUS_UNSUCCESSFUL},
                          Case{ObjectType::kAdapter, STATUS_UNSUCCESSFUL},
                          Case{std::nullopt, STATUS_INVALID_PARAMETER},
                          Case{ObjectType::kOpen, STATUS_UNSUCCESSFUL}}) {
        OnScene([&](Scene& scene) {
            // An open that leads to objects of other kinds has nothing to tell either.
            const bool open = c.kind == ObjectType::kOpen;
            auto& adapterObject = scene.stack.adapter().objects().adapter;
            auto& protocolObject = scene.stack.protocol().objects().protocol;
            InternalObject object(c.kind.value_or(ObjectType::kFilter));
            object.Put(16, (open ? protocolObject : adapterObject).address());
            object.Put(24, (open ? adapterObject : protocolObject).address());
            const NDIS_HANDLE source = c.kind ? object.address() : nullptr;
            scene.stack.protocol().component().handle = source;
            AskOnce(scene, false, [&](NIRP* nirp, const PROTOCOL_ENTRY*) {
                EXPECT_EQ(nirp->SendSourceHandle, source);
                HOOK_PROTOCOL_INFO protocol{};
                HOOK_ADAPTER_INFO adapter{};
                EXPECT_EQ(ITarnHKGetProtocolInfo(nirp, &protocol), c.status);
                EXPECT_EQ(ITarnHKGetAdapterInfo(nirp, &adapter), c.status);
                EXPECT_EQ(ITarnHKGetAdapterInfo(nirp, nullptr), STATUS_INVALID_PARAMETER);
                EXPECT_EQ(ITarnHKGetAdapterInfo(nullptr, &adapter), STATUS_INVALID_PARAMETER);
                PROTOCOL_ENTRY* entry = nullptr;
                EXPECT_EQ(ITarnHKGetProtocolName(nullptr, &entry), STATUS_INVALID_PARAMETER);
                EXPECT_EQ(ITarnHKGetProtocolName(nirp, nullptr), STATUS_INVALID_PARAMETER);
            });
        });
    }
}

// A name ends with its length, whatever lies behind it. One byte more than the longest buffer has
// is 0 as a 16-bit number, too few for any name.
TEST(PacketQueriesTest, TheSizeOfANameIsThatOfItsBufferAndOneMore) {
    struct Case {
        USHORT length;
        USHORT maximum;
        const char* name;
    };
    for (const Case& c : {Case{4, 6, "xy"}, Case{0, 0xFFFF, nullptr}, Case{2, 0xFFFF, nullptr}}) {
        const auto body = [&](Scene& scene) {
            WCHAR text[] = u"xyz";
            scene.stack.protocol().objects().protocol.Put(
                64, UNICODE_STRING{c.length, c.maximum, text});
            AskOnce(scene, c.name != nullptr, [&](NIRP*, const PROTOCOL_ENTRY* entry) {
                if (entry != nullptr && c.name != nullptr) {
                    EXPECT_STREQ(entry->Buffer, c.name);
                    EXPECT_EQ(entry->MaximumLength, c.maximum + 1);
                }
            });
        };
        OnScene(body, {.ndisVersion = 0x60000});
    }
}

TEST(PacketQueriesTest, TheTwentyFifthProtocolHasNoName) {
    OnScene([](Scene& scene) {
        int named = 0;
        Client client(u"asks");
        client.handler = [&](NIRP* nirp) -> LONG {
            PROTOCOL_ENTRY* entry = nullptr;
            ITarnHKGetProtocolName(nirp, &entry);
            named += entry != nullptr ? 1 : 0;
            return HOOK_VERDICT_PASS;
        };
        client.Start();
        for (int i = 0; i < 26; ++i) {
            Protocol& protocol = scene.stack.AddProtocol(u"\u0141" + std::u16string(3, u'x'));
            NblFactory nbls(scene.machine_, protocol.pool());
            protocol.Send(nbls.Make(MakeFrame(1)));
            scene.stack.Pause();
            scene.stack.Restart();
        }
        EXPECT_EQ(client.calls, 26);
        EXPECT_EQ(named, 24);
        const PROTOCOL_ENTRY& first = scene.module->ProtocolNames[0];
        EXPECT_EQ(std::string(first.Buffer), "Axxx");
        EXPECT_EQ(first.Length, 4);
    });
}

TEST(HookRegistryTest, NothingIsAttachedToOrByWhoIsGoing) {
    OnScene([](Scene& scene) {
        Client loose(u"loose");
        loose.attach = false;
        loose.Start();
        EXPECT_EQ(loose.attached.size(), 1u);
        Client leaving(u"leaving");
        leaving.block.DetachNotify = [](FILTER_MODULE* module, HOOK_FILTER* hook, PVOID) NTAPI {
            EXPECT_EQ(ITarnHKAttachFilter(module, hook), STATUS_INVALID_PARAMETER);
        };
        leaving.Start();
        leaving.Stop();
        NotifyHooksAdapterDetach(scene.module);
        EXPECT_EQ(ITarnHKAttachFilter(scene.module, loose.hook), STATUS_INVALID_PARAMETER);
        loose.Stop();
        // It was attached nowhere, and is not told of an end.
        EXPECT_TRUE(loose.detached.empty());
    });
}

// A hook of the program runs inside the driver's handler, but what it allocates is not the
// driver's.
TEST(HookRegistryTest, TheBlocksOfAProgramsHookAreNotTheDrivers) {
    OnScene([](Scene& scene) {
        constexpr ULONG kTag = 0x6B6F6F68;
        PVOID block = nullptr;
        {
            TestHook hook([&](NIRP*) -> LONG {
                NdisAllocateMemoryWithTag(&block, 16, kTag);
                return HOOK_VERDICT_PASS;
            });
            scene.Pass(true, {MakeFrame(1)});
        }
        const auto blocks = Machine::Current().pool().Find(
            [](const PoolBlock& found) { return found.tag == kTag; });
        EXPECT_TRUE(blocks.size() == 1 && blocks[0].driver == nullptr);
        NdisFreeMemory(block, 16, 0);
    });
}

}  // namespace
}  // namespace netsieve::host
