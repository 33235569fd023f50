// The stack itself: who stands where, who gets what, and when lists are taken at all.
#include <algorithm>
#include <iterator>

#include "tests/driver/driver_scenario.h"

namespace netsieve::host {
namespace {

std::vector<std::string> DriversOn(Stack& stack) {
    std::vector<std::string> names;
    for (const FilterModule* module : stack.modules()) {
        names.push_back(module->registration.driver->Name());
    }
    return names;
}

TEST(StackTest, OrdersFiltersByAltitudeWhateverTheOrderOfLoading) {
    const std::vector<DriverSource> sources = {ForeignFilter(true), ForeignFilter(false),
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
                                testing::ElementsAre("FOREIGNUP", "NETSIEVE", "FOREIGNLO"));
                    Traffic(machine, *stack).ExpectPassing();
                }
                // Out of the middle first: its neighbours find each other.
                machine.UnloadDriver("NETSIEVE");
                EXPECT_THAT(DriversOn(early), testing::ElementsAre("FOREIGNUP", "FOREIGNLO"));
                Traffic(machine, early).ExpectPassing();
                machine.UnloadDriver("FOREIGNLO");
                machine.UnloadDriver("FOREIGNUP");
                EXPECT_TRUE(early.modules().empty());
                Traffic(machine, early).ExpectPassing();
            });
        }
    }
}

TEST(StackTest, RoutesListsOfOneChainToTheirProtocols) {
    RunClean({}, [](Machine& machine) {
        Stack& stack = machine.ndis().AddAdapter();
        stack.AddProtocol(u"SECOND");
        ASSERT_EQ(machine.LoadDriver(DriverUnderTest()), STATUS_SUCCESS);
        std::vector<PNET_BUFFER_LIST> completed[2], received[2], returned;
        for (std::size_t i = 0; i < 2; ++i) {
            stack.protocol(i).onSendComplete = [&, i](PNET_BUFFER_LIST chain, ULONG) {
                std::ranges::copy(ListsOf(chain), std::back_inserter(completed[i]));
            };
            stack.protocol(i).onReceive = [&, i](PNET_BUFFER_LIST chain, NDIS_PORT_NUMBER,
                                                 ULONG count, ULONG) {
                EXPECT_EQ(count, ListsOf(chain).size());
                std::ranges::copy(ListsOf(chain), std::back_inserter(received[i]));
            };
        }
        stack.adapter().onReturned = [&](PNET_BUFFER_LIST chain, ULONG) {
            std::ranges::copy(ListsOf(chain), std::back_inserter(returned));
        };

        // Held, so that the sends of both protocols come back as one chain.
        stack.adapter().pace().Set(Pace::kHold);
        FrameLists first(machine, stack.protocol(0).pool());
        FrameLists second(machine, stack.protocol(1).pool());
        const std::array<std::uint8_t, 60> frame{};
        const std::span<const std::uint8_t> bytes(frame);
        PNET_BUFFER_LIST const a = first.Make(bytes), b = second.Make(bytes), c = first.Make(bytes);
        stack.protocol(0).Send(a);
        stack.protocol(1).Send(b);
        stack.protocol(0).Send(c);
        EXPECT_EQ(stack.adapter().pace().InHand(), 3u);
        stack.adapter().pace().ReleaseAll();
        EXPECT_THAT(completed[0], testing::ElementsAre(a, c));
        EXPECT_THAT(completed[1], testing::ElementsAre(b));

        FrameLists frames(machine, stack.adapter().pool());
        for (const ULONG flags : {ULONG{0}, NDIS_RECEIVE_FLAGS_RESOURCES}) {
            PNET_BUFFER_LIST lists[3];
            for (PNET_BUFFER_LIST& list : lists) {
                list = frames.Make(bytes);
            }
            lists[0]->Next = lists[1];
            lists[1]->Next = lists[2];
            stack.chooseReceiver = [&](PNET_BUFFER_LIST list) { return list == lists[1] ? 1 : 0; };
            EXPECT_TRUE(stack.adapter().Indicate(lists[0], 0, flags));
            EXPECT_THAT(received[0], testing::ElementsAre(lists[0], lists[2]));
            EXPECT_THAT(received[1], testing::ElementsAre(lists[1]));
            if (flags == 0) {
                EXPECT_THAT(returned, testing::UnorderedElementsAreArray(lists));
            } else {
                EXPECT_THAT(returned, testing::IsEmpty());
                EXPECT_THAT(ListsOf(lists[0]), testing::ElementsAreArray(lists));
            }
            received[0].clear();
            received[1].clear();
            returned.clear();
        }
        machine.UnloadDriver("NETSIEVE");
    });
}

TEST(StackTest, TakesNoListsWhilePausedAndBringsAllHomeFirst) {
    RunClean({}, [](Machine& machine) {
        Stack& stack = machine.ndis().AddAdapter();
        Traffic traffic(machine, stack);
        stack.adapter().pace().Set(Pace::kHold);
        stack.protocol().pace().Set(Pace::kHold);
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
        stack.adapter().pace().Set(Pace::kInline);
        stack.protocol().pace().Set(Pace::kInline);
        stack.Restart();
        traffic.ExpectPassing();
    });
}

TEST(StackTest, OfARemovedAdapterIsLeftByItsFilters) {
    RunClean({}, [](Machine& machine) {
        ASSERT_EQ(machine.LoadDriver(ForeignFilter(true)), STATUS_SUCCESS);
        ASSERT_EQ(machine.LoadDriver(DriverUnderTest()), STATUS_SUCCESS);
        Stack& kept = machine.ndis().AddAdapter();
        Stack& removed = machine.ndis().AddAdapter({.ifIndex = 2});
        Traffic traffic(machine, removed);
        removed.adapter().pace().Set(Pace::kDeferred);
        removed.protocol().Send(traffic.MakeSends(3));
        machine.ndis().RemoveAdapter(removed);
        EXPECT_EQ(traffic.completed, 3);
        EXPECT_TRUE(removed.modules().empty());
        EXPECT_THAT(machine.ndis().Stacks(), testing::ElementsAre(&kept));
        removed.protocol().Send(traffic.MakeSends(1));
        EXPECT_EQ(traffic.refused, 1);
        Traffic(machine, kept).ExpectPassing();
        machine.UnloadDriver("NETSIEVE");
        machine.UnloadDriver("FOREIGNUP");
    });
}

}  // namespace
}  // namespace netsieve::host
