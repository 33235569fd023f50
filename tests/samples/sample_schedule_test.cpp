// Each sample under traffic, with the frames it holds: its adapter goes, it is unloaded itself,
// both at once, or the driver is unloaded before it.
#include "host/explore.h"
#include "host/image/kernel_image.h"
#include "tests/driver/driver_scenario.h"

// The samples' entry routines, under the names that this program has them compiled with.
extern "C" {
NTSTATUS NTAPI beacon_DriverEntry(PDRIVER_OBJECT driver, PUNICODE_STRING path);
NTSTATUS NTAPI block_dns_DriverEntry(PDRIVER_OBJECT driver, PUNICODE_STRING path);
NTSTATUS NTAPI delay_DriverEntry(PDRIVER_OBJECT driver, PUNICODE_STRING path);
}

namespace netsieve::host {
namespace {

enum class End { kDetach, kUnload, kBoth, kDriverFirst };

struct Sample {
    const char* name;
    PDRIVER_INITIALIZE entry;
    const char* image;
};
const Sample kBeacon{"Beacon", &beacon_DriverEntry, "beacon.sys"};
const Sample kBlockDns{"BlockDns", &block_dns_DriverEntry, "block_dns.sys"};
const Sample kDelay{"Delay", &delay_DriverEntry, "delay.sys"};

struct Case {
    bool image;
    End end;
};
const char* const kEnds[] = {"Detach", "Unload", "Both", "DriverFirst"};

NTSTATUS LoadBoth(Machine& machine, const Sample& sample, bool image) {
    if (!image) {
        const NTSTATUS status = machine.LoadDriver({.name = "NETSIEVE", .entry = &DriverEntry});
        return status != STATUS_SUCCESS
                   ? status
                   : machine.LoadDriver({.name = "SAMPLE", .entry = sample.entry});
    }
    const std::filesystem::path path = NETSIEVE_IMAGE_PATH;
    const NTSTATUS status = machine.LoadDriver({.name = "NETSIEVE", .image = path});
    if (status != STATUS_SUCCESS) {
        return status;
    }
    const ImageExports exports("NETSIEVE.SYS", *machine.FindDriver("NETSIEVE")->image());
    return machine.LoadDriver(
        {.name = "SAMPLE", .image = path.parent_path() / sample.image, .imports = &exports});
}

class Samples : public testing::TestWithParam<std::tuple<Sample, Case>> {
  protected:
    const Sample& GetSample() const { return std::get<0>(GetParam()); }
    const Case& GetCase() const { return std::get<1>(GetParam()); }

    // Frames of both directions are held when the end comes, about when their time is up.
    void Run(Machine& machine) {
        Scheduler& scheduler = machine.scheduler();
        Stack& stack = machine.ndis().AddAdapter();
        ASSERT_EQ(LoadBoth(machine, GetSample(), GetCase().image), STATUS_SUCCESS);
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
        if (GetCase().end == End::kDetach) {
            remove();
        } else if (GetCase().end != End::kUnload) {
            remover = scheduler.Start({.name = "remover", .processor = 3}, remove);
        }
        if (GetCase().end == End::kDriverFirst) {
            machine.UnloadDriver("NETSIEVE");
        }
        machine.UnloadDriver("SAMPLE");
        scheduler.JoinAll(contexts);
        if (remover != 0) {
            scheduler.Join(remover);
        }
        passedOn_ += traffic.onWire != 0 ? 1 : 0;
        machine.UnloadDriver("NETSIEVE");
    }

    std::uint64_t passedOn_ = 0;
};

std::string NameOf(const testing::TestParamInfo<std::tuple<Sample, Case>>& info) {
    const auto& [sample, of] = info.param;
    return std::string(sample.name) + (of.image ? "Image" : "Native") +
           kEnds[static_cast<int>(of.end)];
}

TEST_P(Samples, EndCleanlyUnderTraffic) {
    const ExploreOptions options{.name = NameOf({GetParam(), 0}),
                                 .machine = {.processors = 4},
                                 .schedules = GetCase().image ? 300u : 3000u};
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
                         Samples,
                         testing::Combine(testing::Values(kBeacon, kBlockDns, kDelay),
                                          testing::Values(Case{false, End::kDetach},
                                                          Case{false, End::kUnload},
                                                          Case{false, End::kBoth},
                                                          Case{true, End::kDetach},
                                                          Case{true, End::kUnload},
                                                          Case{true, End::kBoth})),
                         NameOf);
// One that is told of the driver's unload.
INSTANTIATE_TEST_SUITE_P(Told,
                         Samples,
                         testing::Values(std::tuple(kDelay, Case{false, End::kDriverFirst})),
                         NameOf);

// Where nothing watches the calls between the two, a timer that is armed inside the driver's own
// handler is still known for the sample's by the code that armed it.
TEST(DelaySampleImage, ItsTimerIsItsOwn) {
    RunClean({.watchHooks = false}, [](Machine& machine) {
        Stack& stack = machine.ndis().AddAdapter();
        ASSERT_EQ(LoadBoth(machine, kDelay, true), STATUS_SUCCESS);
        Traffic traffic(machine, stack);
        stack.protocol().Send(traffic.MakeSends(1));
        EXPECT_EQ(machine.timers().Outstanding(machine.FindDriver("SAMPLE")), 1u);
        EXPECT_EQ(machine.timers().Outstanding(machine.FindDriver("NETSIEVE")), 0u);
        machine.UnloadDriver("SAMPLE");
        machine.UnloadDriver("NETSIEVE");
    });
}

}  // namespace
}  // namespace netsieve::host
