// The sample that delays, under the frames it holds: its adapter goes, it is unloaded itself, both
// at once, or the driver is unloaded before it.
#include "host/explore.h"
#include "host/image/kernel_image.h"
#include "tests/driver/driver_scenario.h"

// The sample's entry routine, under the name that this program has it compiled with.
extern "C" NTSTATUS NTAPI delay_DriverEntry(PDRIVER_OBJECT driver, PUNICODE_STRING path);

namespace netsieve::host {
namespace {

enum class End { kDetach, kUnload, kBoth, kDriverFirst };

struct Case {
    const char* name;
    bool image;
    End end;
};

NTSTATUS LoadBoth(Machine& machine, bool image) {
    if (!image) {
        const NTSTATUS status = machine.LoadDriver({.name = "NETSIEVE", .entry = &DriverEntry});
        return status != STATUS_SUCCESS
                   ? status
                   : machine.LoadDriver({.name = "DELAY", .entry = &delay_DriverEntry});
    }
    const std::filesystem::path path = NETSIEVE_IMAGE_PATH;
    const NTSTATUS status = machine.LoadDriver({.name = "NETSIEVE", .image = path});
    if (status != STATUS_SUCCESS) {
        return status;
    }
    const ImageExports exports("NETSIEVE.SYS", *machine.FindDriver("NETSIEVE")->image());
    return machine.LoadDriver(
        {.name = "DELAY", .image = path.parent_path() / "delay.sys", .imports = &exports});
}

class DelaySample : public testing::TestWithParam<Case> {
  protected:
    // Frames of both directions are held when the end comes, about when their time is up.
    void Run(Machine& machine) {
        Scheduler& scheduler = machine.scheduler();
        Stack& stack = machine.ndis().AddAdapter();
        ASSERT_EQ(LoadBoth(machine, GetParam().image), STATUS_SUCCESS);
        Traffic traffic(machine, stack);
        PNET_BUFFER_LIST const sends[] = {traffic.MakeSends(3), traffic.MakeSends(1)};
        PNET_BUFFER_LIST const receives = traffic.MakeReceives(2);
        const std::uint32_t contexts[] = {
            scheduler.Start({.name = "sender", .processor = 1},
                            [&] {
                                stack.protocol().Send(sends[0]);
                                scheduler.Sleep(20 * kTicksPerMillisecond);
                                stack.protocol().Send(sends[1]);
                            }),
            scheduler.Start({.name = "receiver", .kind = ContextKind::kDpc, .processor = 2},
                            [&] { stack.adapter().Indicate(receives); })};
        scheduler.Sleep(20 * kTicksPerMillisecond);
        const auto remove = [&] { machine.ndis().RemoveAdapter(stack); };
        std::uint32_t remover = 0;
        if (GetParam().end == End::kDetach) {
            remove();
        } else if (GetParam().end != End::kUnload) {
            remover = scheduler.Start({.name = "remover", .processor = 3}, remove);
        }
        if (GetParam().end == End::kDriverFirst) {
            machine.UnloadDriver("NETSIEVE");
        }
        machine.UnloadDriver("DELAY");
        scheduler.JoinAll(contexts);
        if (remover != 0) {
            scheduler.Join(remover);
        }
        passedOn_ += traffic.onWire != 0 ? 1 : 0;
        machine.UnloadDriver("NETSIEVE");
    }

    std::uint64_t passedOn_ = 0;
};

TEST_P(DelaySample, EndsCleanlyUnderTheFramesItHolds) {
    const ExploreOptions options{.name = std::string("delay sample, ") + GetParam().name,
                                 .machine = {.processors = 4},
                                 .schedules = GetParam().image ? 300u : 3000u};
    const ExploreResult result = Explore(
        options, [this](Machine& machine) { Run(machine); },
        [](Machine& machine) {
            const Accounting stock = TakeStock(machine);
            return stock.Balanced() ? std::string() : stock.Describe();
        });
    EXPECT_FALSE(result.finding) << result.finding->what << "\n" << result.finding->replay;
    EXPECT_GT(passedOn_, 0u);
}

INSTANTIATE_TEST_SUITE_P(,
                         DelaySample,
                         testing::Values(Case{"NativeDetach", false, End::kDetach},
                                         Case{"NativeUnload", false, End::kUnload},
                                         Case{"NativeBoth", false, End::kBoth},
                                         Case{"NativeDriverFirst", false, End::kDriverFirst},
                                         Case{"ImageDetach", true, End::kDetach},
                                         Case{"ImageUnload", true, End::kUnload},
                                         Case{"ImageBoth", true, End::kBoth}),
                         [](const auto& parameter) { return std::string(parameter.param.name); });

// Where nothing watches the calls between the two, a timer that is armed inside the driver's own
// handler is still known for the sample's by the code that armed it.
TEST(DelaySampleImage, ItsTimerIsItsOwn) {
    RunClean({.watchHooks = false}, [](Machine& machine) {
        Stack& stack = machine.ndis().AddAdapter();
        ASSERT_EQ(LoadBoth(machine, true), STATUS_SUCCESS);
        Traffic traffic(machine, stack);
        stack.protocol().Send(traffic.MakeSends(1));
        EXPECT_EQ(machine.timers().Outstanding(machine.FindDriver("DELAY")), 1u);
        EXPECT_EQ(machine.timers().Outstanding(machine.FindDriver("NETSIEVE")), 0u);
        machine.UnloadDriver("DELAY");
        machine.UnloadDriver("NETSIEVE");
    });
}

}  // namespace
}  // namespace netsieve::host
