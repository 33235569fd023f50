// A module without hooks is transparent: every NBL and every event goes on as it came.
#include <fmt/format.h>

#include <deque>

#include "tests/driver/driver_scenario.h"

namespace netsieve::host {
namespace {

/// A call as it arrives at an end of the stack.
std::string Call(const char* name,
                 const std::vector<PNET_BUFFER_LIST>& nbls,
                 NDIS_PORT_NUMBER port,
                 ULONG count,
                 ULONG flags,
                 KIRQL irql = CurrentContext().irql) {
    return fmt::format("{} NBLs {} port {} count {} flags {:#x} IRQL {}", name,
                       testing::PrintToString(nbls), port, count, flags, irql);
}

void RecordCalls(Stack& stack, std::vector<std::string>& calls) {
    stack.adapter().onSend = [&](PNET_BUFFER_LIST chain, NDIS_PORT_NUMBER port, ULONG flags) {
        calls.push_back(Call("send", NblsOf(chain), port, 0, flags));
    };
    stack.protocol().onSendComplete = [&](PNET_BUFFER_LIST chain, ULONG flags) {
        calls.push_back(Call("complete", NblsOf(chain), 0, 0, flags));
    };
    stack.protocol().onReceive = [&](PNET_BUFFER_LIST chain, NDIS_PORT_NUMBER port, ULONG count,
                                     ULONG flags) {
        calls.push_back(Call("receive", NblsOf(chain), port, count, flags));
    };
    stack.adapter().onReturned = [&](PNET_BUFFER_LIST chain, ULONG flags) {
        calls.push_back(Call("return", NblsOf(chain), 0, 0, flags));
    };
}

class PassThroughTest : public BothSchedulers {};

TEST_P(PassThroughTest, HandsNblsOnAsTheyCame) {
    RunClean(Options(), [](Machine& machine) {
        Stack& stack = machine.ndis().AddAdapter({.dispatchFlag = DispatchFlagUse::kAlways});
        ASSERT_EQ(machine.LoadDriver(DriverUnderTest()), STATUS_SUCCESS);
        Traffic traffic(machine, stack);
        std::vector<std::string> calls;
        RecordCalls(stack, calls);
        for (const KIRQL irql : {PASSIVE_LEVEL, DISPATCH_LEVEL}) {
            const ULONG atDispatch = irql == DISPATCH_LEVEL ? 1 : 0;
            PNET_BUFFER_LIST const sent = traffic.MakeSends(3);
            PNET_BUFFER_LIST const given = traffic.MakeReceives(2);
            PNET_BUFFER_LIST const resources = traffic.MakeReceives(2);
            const auto ofSent = NblsOf(sent), ofGiven = NblsOf(given),
                       ofResources = NblsOf(resources);
            AtIrql(machine, irql, [&] {
                stack.protocol().Send(sent, 7 + irql, 0x10);
                stack.adapter().Indicate(given, 9 + irql, 0x100);
                stack.adapter().Indicate(resources, 11, NDIS_RECEIVE_FLAGS_RESOURCES);
            });
            EXPECT_THAT(calls, testing::ElementsAre(
                                   Call("send", ofSent, 7 + irql, 0, 0x10 | atDispatch, irql),
                                   Call("complete", ofSent, 0, 0, atDispatch, irql),
                                   Call("receive", ofGiven, 9 + irql, 2, 0x100 | atDispatch, irql),
                                   Call("return", ofGiven, 0, 0, atDispatch, irql),
                                   Call("receive", ofResources, 11, 2,
                                        NDIS_RECEIVE_FLAGS_RESOURCES | atDispatch, irql)));
            EXPECT_EQ(NblsOf(resources), ofResources);
            // A receive's port is nobody's affair; a send's is what an injection will use.
            EXPECT_EQ(DriverModuleOf(machine, stack)->LastSendPortNumber, 7u + irql);
            calls.clear();
        }
        machine.UnloadDriver("NETSIEVE");
    });
}

TEST_P(PassThroughTest, HandsEventsOnAsTheyCame) {
    RunClean(Options(), [](Machine& machine) {
        Stack& stack = machine.ndis().AddAdapter();
        Protocol& second = stack.AddProtocol(u"SECOND");
        ASSERT_EQ(machine.LoadDriver(DriverUnderTest()), STATUS_SUCCESS);
        constexpr NDIS_STATUS kAnswer = MakeStatus(0xC00000BB);
        char objects[4];  // only their addresses matter
        auto* const deviceEvent = reinterpret_cast<PNET_DEVICE_PNP_EVENT>(&objects[1]);
        auto* const netEvent = reinterpret_cast<PNET_PNP_EVENT_NOTIFICATION>(&objects[2]);
        auto* const status = reinterpret_cast<PNDIS_STATUS_INDICATION>(&objects[3]);
        std::vector<const void*> seen;
        stack.adapter().onCancel = [&](PVOID id) { seen.push_back(id); };
        stack.adapter().onDevicePnpEvent = [&](auto* event) { seen.push_back(event); };
        stack.adapter().onNetPnpEvent = [&](auto* event) {
            seen.push_back(event);
            return kAnswer;
        };
        stack.protocol().onStatus = [&](auto* event) { seen.push_back(event); };
        second.onStatus = stack.protocol().onStatus;

        for (const KIRQL irql : {PASSIVE_LEVEL, DISPATCH_LEVEL}) {
            AtIrql(machine, irql, [&] {
                second.CancelSend(&objects[0]);
                stack.adapter().IndicateStatus(status);
            });
            EXPECT_THAT(seen, testing::ElementsAre(&objects[0], status, status));
            seen.clear();
        }
        stack.protocol().DevicePnpEvent(deviceEvent);
        EXPECT_EQ(stack.protocol().NetPnpEvent(netEvent), kAnswer);
        EXPECT_THAT(seen, testing::ElementsAre(deviceEvent, netEvent));
        machine.UnloadDriver("NETSIEVE");
    });
}

// Everything at once: two adapters, foreign filters with contexts of their own on both sides,
// buffers in pieces, chains of several senders that are split, mixed and reordered on their way
// back. The verifier compares each NBL's buffers and bytes with how it left.
TEST_P(PassThroughTest, KeepsMixedTrafficWhole) {
    for (const ReleaseMode mode : {ReleaseMode::kDeferred, ReleaseMode::kMixed}) {
        RunClean(Options(), [&](Machine& machine) {
            Stack* const stacks[] = {&machine.ndis().AddAdapter(),
                                     &machine.ndis().AddAdapter({.ifIndex = 2})};
            for (const bool above : {true, false}) {
                ASSERT_EQ(machine.LoadDriver(OtherFilter(above)), STATUS_SUCCESS);
            }
            ASSERT_EQ(machine.LoadDriver(DriverUnderTest()), STATUS_SUCCESS);
            std::deque<Traffic> traffic;
            std::vector<std::uint32_t> callers;
            for (Stack* const stack : stacks) {
                SetRelease(*stack, mode);
                Traffic& counts = traffic.emplace_back(machine, *stack);
                for (unsigned i = 0; i < 4; ++i) {
                    PNET_BUFFER_LIST const sends = counts.MakeSends(5);
                    PNET_BUFFER_LIST const receives = counts.MakeReceives(5);
                    callers.push_back(machine.scheduler().Start(
                        {.name = "caller",
                         .kind = i < 2 ? ContextKind::kDpc : ContextKind::kThread,
                         .processor = i},
                        [=] {
                            stack->protocol().Send(sends);
                            stack->adapter().Indicate(receives, 0,
                                                      i == 3 ? NDIS_RECEIVE_FLAGS_RESOURCES : 0);
                        }));
                }
            }
            machine.scheduler().JoinAll(callers);
            machine.UnloadDriver("NETSIEVE");
            machine.UnloadDriver("OTHERUP");
            machine.UnloadDriver("OTHERLO");
            for (const Traffic& counts : traffic) {
                EXPECT_THAT((std::array<int, 6>{counts.onWire, counts.completed, counts.refused,
                                                counts.received, counts.returned, counts.changed}),
                            testing::ElementsAre(20, 20, 0, 20, 15, 0));
            }
        });
    }
}

INSTANTIATE_TEST_SUITE_P(Schedulers,
                         PassThroughTest,
                         testing::Values(SchedulerKind::kSimulated, SchedulerKind::kThreaded));

}  // namespace
}  // namespace netsieve::host
