// The stack itself: who stands where, who gets what, and when NBLs are taken at all.
#include <algorithm>
#include <iterator>

#include "tests/driver/driver_scenario.h"
#include "tests/verifier/small_filter.h"

namespace netsieve::host {
namespace {

std::vector<std::string> DriversOn(Stack& stack) {
    std::vector<std::string> names;
    for (const FilterModule* module : stack.modules()) {
        names.push_back(module->registration.driver->name());
    }
    return names;
}

TEST(StackTest, OrdersFiltersByAltitudeWhateverTheOrderOfLoading) {
    const std::vector<DriverSource> sources = {OtherFilter(true), OtherFilter(false),
                                               DriverUnderTest()};
    for (int first = 0; first < 3; ++first) {
        for (const int step : {1, 2}) {
            RunClean({}, [&](Machine& machine) {
                Stack& early = machine.ndis().AddAdapter();
                for (int i = 0; i < 3; ++i) {
                    ASSERT_EQ(machine.LoadDriver(sources[(first + i * step) % 3]), STATUS_SUCCESS);
                }
                Stack& late = machine.ndis().AddAdapter({.ifIndex = 2});
                for (Stack* const stack : {&early, &late}) {
                    EXPECT_THAT(DriversOn(*stack),
                                testing::ElementsAre("OTHERUP", "NETSIEVE", "OTHERLO"));
                    Traffic(machine, *stack).ExpectPassing();
                }
                // Out of the middle first: its neighbours find each other.
                machine.UnloadDriver("NETSIEVE");
                EXPECT_THAT(DriversOn(early), testing::ElementsAre("OTHERUP", "OTHERLO"));
                Traffic(machine, early).ExpectPassing();
                machine.UnloadDriver("OTHERLO");
                machine.UnloadDriver("OTHERUP");
                EXPECT_TRUE(early.modules().empty());
                Traffic(machine, early).ExpectPassing();
            });
        }
    }
}

TEST(StackTest, RoutesNblsOfOneChainToTheirProtocols) {
    RunClean({}, [](Machine& machine) {
        Stack& stack = machine.ndis().AddAdapter();
        stack.AddProtocol(u"SECOND");
        ASSERT_EQ(machine.LoadDriver(DriverUnderTest()), STATUS_SUCCESS);
        std::vector<PNET_BUFFER_LIST> completed[2], received[2], returned;
        for (std::size_t i = 0; i < 2; ++i) {
            stack.protocol(i).onSendComplete = [&, i](PNET_BUFFER_LIST chain, ULONG) {
                std::ranges::copy(NblsOf(chain), std::back_inserter(completed[i]));
            };
            stack.protocol(i).onReceive = [&, i](PNET_BUFFER_LIST chain, NDIS_PORT_NUMBER,
                                                 ULONG count, ULONG) {
                EXPECT_EQ(count, NblsOf(chain).size());
                std::ranges::copy(NblsOf(chain), std::back_inserter(received[i]));
            };
        }
        stack.adapter().onReturned = [&](PNET_BUFFER_LIST chain, ULONG) {
            std::ranges::copy(NblsOf(chain), std::back_inserter(returned));
        };

        // Held, so that the sends of both protocols come back as one chain.
        stack.adapter().queue().SetMode(ReleaseMode::kHold);
        NblFactory first(machine, stack.protocol(0).pool());
        NblFactory second(machine, stack.protocol(1).pool());
        const std::array<std::uint8_t, 60> frame{};
        const std::span<const std::uint8_t> bytes(frame);
        PNET_BUFFER_LIST const a = first.Make(bytes), b = second.Make(bytes), c = first.Make(bytes);
        stack.protocol(0).Send(a);
        stack.protocol(1).Send(b);
        stack.protocol(0).Send(c);
        EXPECT_EQ(stack.adapter().queue().Queued(), 3u);
        stack.adapter().queue().ReleaseAll();
        EXPECT_THAT(completed[0], testing::ElementsAre(a, c));
        EXPECT_THAT(completed[1], testing::ElementsAre(b));

        NblFactory frames(machine, stack.adapter().pool());
        for (const ULONG flags : {ULONG{0}, NDIS_RECEIVE_FLAGS_RESOURCES}) {
            PNET_BUFFER_LIST nbls[3];
            for (PNET_BUFFER_LIST& nbl : nbls) {
                nbl = frames.Make(bytes);
            }
            nbls[0]->Next = nbls[1];
            nbls[1]->Next = nbls[2];
            stack.chooseReceiver = [&](PNET_BUFFER_LIST nbl) { return nbl == nbls[1] ? 1 : 0; };
            EXPECT_TRUE(stack.adapter().Indicate(nbls[0], 0, flags));
            EXPECT_THAT(received[0], testing::ElementsAre(nbls[0], nbls[2]));
            EXPECT_THAT(received[1], testing::ElementsAre(nbls[1]));
            if (flags == 0) {
                EXPECT_THAT(returned, testing::UnorderedElementsAreArray(nbls));
            } else {
                EXPECT_THAT(returned, testing::IsEmpty());
                EXPECT_THAT(NblsOf(nbls[0]), testing::ElementsAreArray(nbls));
            }
            received[0].clear();
            received[1].clear();
            returned.clear();
        }
        machine.UnloadDriver("NETSIEVE");
    });
}

TEST(StackTest, TakesNoNblsWhilePausedAndWaitsForAllFirst) {
    RunClean({}, [](Machine& machine) {
        Stack& stack = machine.ndis().AddAdapter();
        Traffic traffic(machine, stack);
        SetRelease(stack, ReleaseMode::kHold);
        stack.protocol().Send(traffic.MakeSends(2));
        stack.adapter().Indicate(traffic.MakeReceives(2));
        EXPECT_EQ(traffic.completed + traffic.returned, 0);
        stack.Pause();
        EXPECT_EQ(traffic.completed, 2);
        EXPECT_EQ(traffic.returned, 2);
        stack.protocol().Send(traffic.MakeSends(2));
        EXPECT_EQ(traffic.refused, 2);
        EXPECT_FALSE(stack.adapter().Indicate(traffic.MakeReceives(1)));
        EXPECT_EQ(traffic.onWire, 2);
        SetRelease(stack, ReleaseMode::kInline);
        stack.Restart();
        traffic.ExpectPassing();
    });
}

TEST(StackTest, TakesIndicationsButNoSendsWhileAFilterPauses) {
    RunClean({}, [](Machine& machine) {
        Stack& stack = machine.ndis().AddAdapter();
        Traffic traffic(machine, stack);
        SmallFilter filter;
        filter.pause = [&] {
            EXPECT_TRUE(stack.adapter().Indicate(traffic.MakeReceives(1)));
            stack.protocol().Send(traffic.MakeSends(1));
            return NDIS_STATUS_SUCCESS;
        };
        ASSERT_EQ(machine.LoadDriver(SmallFilter::Source()), STATUS_SUCCESS);
        stack.Pause();
        EXPECT_EQ(traffic.returned, 1);
        EXPECT_EQ(traffic.refused, 1);
        machine.UnloadDriver("SMALL");
    });
}

TEST(StackTest, CancelsTheSendsThatTheProtocolNames) {
    RunClean({}, [](Machine& machine) {
        Stack& stack = machine.ndis().AddAdapter();
        ASSERT_EQ(machine.LoadDriver(DriverUnderTest()), STATUS_SUCCESS);
        Traffic traffic(machine, stack);
        stack.adapter().queue().SetMode(ReleaseMode::kHold);
        stack.protocol().Send(traffic.MakeSends(2));
        traffic.SendAndCancel(traffic.MakeSends(3));
        EXPECT_EQ(traffic.cancelled, 1);
        EXPECT_EQ(traffic.completed, 1);
        stack.adapter().queue().ReleaseAll();
        EXPECT_EQ(traffic.cancelled, 1);
        EXPECT_EQ(traffic.completed, 5);
        machine.UnloadDriver("NETSIEVE");
    });
}

TEST(StackTest, GoesOnWithoutAModuleThatDoesNotRestart) {
    for (const bool pending : {false, true}) {
        RunClean({}, [&](Machine& machine) {
            Stack& stack = machine.ndis().AddAdapter();
            SmallFilter filter;
            ASSERT_EQ(machine.LoadDriver(DriverUnderTest()), STATUS_SUCCESS);
            ASSERT_EQ(machine.LoadDriver(SmallFilter::Source()), STATUS_SUCCESS);
            EXPECT_THAT(DriversOn(stack), testing::ElementsAre("NETSIEVE", "SMALL"));
            filter.restart = [&] {
                if (!pending) {
                    return NDIS_STATUS_RESOURCES;
                }
                machine.scheduler().Start({.name = "completer"}, [&] {
                    NdisFRestartComplete(filter.handle, NDIS_STATUS_FAILURE);
                });
                return NDIS_STATUS_PENDING;
            };
            stack.Pause();
            stack.Restart();
            EXPECT_THAT(DriversOn(stack), testing::ElementsAre("NETSIEVE"));
            Traffic(machine, stack).ExpectPassing();
            machine.UnloadDriver("SMALL");
            machine.UnloadDriver("NETSIEVE");
        });
    }
}

TEST(StackTest, RefusesDriversWithoutNamesOrForALaterVersion) {
    using Handlers = NDIS_FILTER_DRIVER_CHARACTERISTICS;
    struct Case {
        NDIS_STATUS status;
        void (*change)(Handlers&);
    };
    const Case cases[] = {
        {NDIS_STATUS_BAD_CHARACTERISTICS, [](Handlers& h) { h.FriendlyName.Length = 0; }},
        {NDIS_STATUS_BAD_CHARACTERISTICS, [](Handlers& h) { h.UniqueName.Length = 0; }},
        {NDIS_STATUS_BAD_CHARACTERISTICS, [](Handlers& h) { h.ServiceName.Length = 0; }},
        {NDIS_STATUS_BAD_CHARACTERISTICS, [](Handlers& h) { h.PauseHandler = nullptr; }},
        {NDIS_STATUS_BAD_VERSION, [](Handlers& h) { h.MajorNdisVersion = 5; }},
        {NDIS_STATUS_BAD_VERSION, [](Handlers& h) { h.MinorNdisVersion = 21; }},
        {NDIS_STATUS_SUCCESS, [](Handlers& h) { h.MinorNdisVersion = 20; }},
    };
    for (const Case& c : cases) {
        RunClean({.ndisVersion = 0x60014}, [&](Machine& machine) {
            SmallFilter filter;
            filter.describe = c.change;
            EXPECT_EQ(machine.LoadDriver(SmallFilter::Source()), c.status);
            machine.UnloadDriver("SMALL");
        });
    }
}

TEST(StackTest, OfARemovedAdapterIsLeftByItsFilters) {
    RunClean({}, [](Machine& machine) {
        ASSERT_EQ(machine.LoadDriver(OtherFilter(true)), STATUS_SUCCESS);
        ASSERT_EQ(machine.LoadDriver(DriverUnderTest()), STATUS_SUCCESS);
        Stack& kept = machine.ndis().AddAdapter();
        Stack& removed = machine.ndis().AddAdapter({.ifIndex = 2});
        Traffic traffic(machine, removed);
        removed.adapter().queue().SetMode(ReleaseMode::kDeferred);
        removed.protocol().Send(traffic.MakeSends(3));
        machine.ndis().RemoveAdapter(removed);
        EXPECT_EQ(traffic.completed, 3);
        EXPECT_TRUE(removed.modules().empty());
        EXPECT_THAT(machine.ndis().Stacks(), testing::ElementsAre(&kept));
        removed.protocol().Send(traffic.MakeSends(1));
        EXPECT_EQ(traffic.refused, 1);
        Traffic(machine, kept).ExpectPassing();
        machine.UnloadDriver("NETSIEVE");
        machine.UnloadDriver("OTHERUP");
    });
}

}  // namespace
}  // namespace netsieve::host
