// How modules go: while calls are inside, with the driver, and again.
#include "module/module_reference.h"
#include "tests/driver/detaching_stack.h"

namespace netsieve::host {
namespace {

class DetachTest : public BothSchedulers {};

TEST_P(DetachTest, GivesBackWhatComesWhileItWaits) {
    RunClean(Options(), [this](Machine& machine) {
        Stack& stack = machine.ndis().AddAdapter({.dispatchFlag = DispatchFlagUse::kAlways});
        ASSERT_EQ(machine.LoadDriver(DriverUnderTest()), STATUS_SUCCESS);
        Traffic traffic(machine, stack);
        SetRelease(stack, ReleaseMode::kHold);
        stack.protocol().Send(traffic.MakeSends(2));
        stack.adapter().Indicate(traffic.MakeReceives(3));
        PNET_BUFFER_LIST const resources = traffic.MakeReceives(2);
        const auto ofResources = NblsOf(resources);
        PNET_BUFFER_LIST const given = traffic.MakeReceives(4);

        DetachingStack detaching(machine, stack);
        detaching.Begin(traffic.MakeSends(1));
        // Until the module has left the list, sends still reach the wire.
        EXPECT_TRUE(Await(machine, [&] {
            stack.protocol().Send(traffic.MakeSends(1));
            return traffic.refused == 1;
        }));
        const int onWire = traffic.onWire;
        for (const KIRQL irql : {PASSIVE_LEVEL, DISPATCH_LEVEL}) {
            PNET_BUFFER_LIST const sent = traffic.MakeSends(2);
            AtIrql(machine, irql, [&] {
                stack.protocol().Send(sent);
                if (irql == PASSIVE_LEVEL) {
                    stack.adapter().Indicate(resources, 0, NDIS_RECEIVE_FLAGS_RESOURCES);
                } else {
                    stack.adapter().Indicate(given);
                }
            });
        }
        EXPECT_EQ(traffic.completeFlags, NDIS_SEND_COMPLETE_FLAGS_DISPATCH_LEVEL);
        EXPECT_EQ(traffic.returnFlags, NDIS_RETURN_FLAGS_DISPATCH_LEVEL);
        EXPECT_EQ(traffic.refused, 5);
        EXPECT_EQ(traffic.onWire, onWire);
        EXPECT_EQ(traffic.received, 3);
        EXPECT_EQ(traffic.returned, 4);
        EXPECT_EQ(NblsOf(resources), ofResources);

        // What went through before still comes back through the module.
        stack.adapter().queue().ReleaseAll();
        stack.protocol().queue().ReleaseAll();
        EXPECT_EQ(traffic.completed, onWire - 1);
        EXPECT_EQ(traffic.returned, 7);
        if (Simulated()) {
            machine.scheduler().Sleep(7 * kTicksPerSecond);  // more than two of the bounded waits
        }
        detaching.End();
        EXPECT_EQ(traffic.completed, onWire);
        stack.protocol().queue().SetMode(ReleaseMode::kInline);
        traffic.ExpectPassing();
        machine.UnloadDriver("NETSIEVE");
    });
}

TEST_P(DetachTest, OfAllModulesComesWithUnload) {
    RunClean(Options(), [](Machine& machine) {
        Stack* stacks[3];
        for (std::uint32_t i = 0; i < 3; ++i) {
            stacks[i] = &machine.ndis().AddAdapter({.ifIndex = i + 1});
            stacks[i]->adapter().queue().SetMode(ReleaseMode::kDeferred);
        }
        // Loading again finds nothing of the time before.
        for (int round = 0; round < 2; ++round) {
            ASSERT_EQ(machine.LoadDriver(DriverUnderTest()), STATUS_SUCCESS);
            machine.ndis().RemoveAdapter(machine.ndis().AddAdapter({.ifIndex = 4}));
            for (Stack* const stack : stacks) {
                ASSERT_NE(DriverModuleOf(machine, *stack), nullptr);
                Traffic traffic(machine, *stack);
                stack->protocol().Send(traffic.MakeSends(4));
                stack->Pause();
                EXPECT_EQ(traffic.completed, 4);
                stack->protocol().Send(traffic.MakeSends(1));
                EXPECT_EQ(traffic.refused, 1);
                stack->Restart();
            }
            machine.UnloadDriver("NETSIEVE");
            EXPECT_EQ(machine.FindDriver("NETSIEVE"), nullptr);
            for (Stack* const stack : stacks) {
                EXPECT_TRUE(stack->modules().empty());
            }
        }
    });
}

INSTANTIATE_TEST_SUITE_P(Schedulers,
                         DetachTest,
                         testing::Values(SchedulerKind::kSimulated, SchedulerKind::kThreaded));

#if !defined(NETSIEVE_TEST_IMAGE)
// What is no module any more, or never was.
TEST(ModuleReferenceTest, RefusesWhatIsOnNeitherList) {
    RunClean({}, [](Machine& machine) {
        ASSERT_EQ(machine.LoadDriver(DriverUnderTest()), STATUS_SUCCESS);
        FILTER_MODULE unknown{};
        const std::pair<FILTER_MODULE*, NDIS_STATUS> cases[] = {
            {nullptr, NDIS_STATUS_INVALID_PARAMETER}, {&unknown, NDIS_STATUS_CLOSING}};
        for (const auto& [module, status] : cases) {
            bool heldClosing = true;
            EXPECT_EQ(ReferenceFilterModule(module, &heldClosing), status);
            EXPECT_FALSE(heldClosing);
        }
        DereferenceFilterModule(nullptr);
        machine.UnloadDriver("NETSIEVE");
    });
}
#endif

}  // namespace
}  // namespace netsieve::host
