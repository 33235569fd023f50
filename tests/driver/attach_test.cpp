// How modules come to be: their records, what attach refuses, and what it leaves when it fails.
#include "host/kernel/callback.h"
#include "module/trace_log.h"
#include "packet/nirp_pool.h"
#include "tests/driver/driver_scenario.h"

namespace netsieve::host {
namespace {

std::u16string TextOf(const UNICODE_STRING& name) {
    EXPECT_EQ(name.Length, name.MaximumLength);
    return {name.Buffer, name.Length / sizeof(WCHAR)};
}

class AttachTest : public testing::TestWithParam<AttachTiming> {
  protected:
    // Loads with two adapters, one of them nameless, and looks at both records.
    static void LoadAndCheckRecords(Machine& machine) {
        const AdapterOptions nameless{.instanceName = u"",
                                      .deviceName = u"",
                                      .moduleGuid = u"",
                                      .mac = {2, 0, 0, 0, 0, 9},
                                      .ifIndex = 9};
        Stack& first = machine.ndis().AddAdapter();
        Stack& second = machine.ndis().AddAdapter(nameless);
        machine.ndis().SetAttachTiming(GetParam());
        ASSERT_EQ(machine.LoadDriver(DriverUnderTest()), STATUS_SUCCESS);
        CheckRecord(machine, first);
        CheckRecord(machine, second);

        // Bound while the driver was loading and the stacks were running; now it works.
        EXPECT_EQ(DriverModuleOf(machine, second)->State, FILTER_STATE_RUNNING);
        second.Pause();
        EXPECT_EQ(DriverModuleOf(machine, second)->State, FILTER_STATE_PAUSED);
        second.Restart();
        const auto& registered = first.FindModule(machine.FindDriver("NETSIEVE"))->handlers;
        EXPECT_EQ(registered.MajorDriverVersion, 1);
        EXPECT_EQ(registered.MinorDriverVersion, 0);
        machine.UnloadDriver("NETSIEVE");
    }

    static void CheckRecord(Machine& machine, Stack& stack) {
        const FILTER_MODULE* const record = DriverModuleOf(machine, stack);
        ASSERT_NE(record, nullptr);
        const AdapterOptions& adapter = stack.adapter().options();
        EXPECT_EQ(TextOf(record->FilterModuleName), adapter.moduleGuid);
        EXPECT_EQ(TextOf(record->MiniportInstanceName), adapter.instanceName);
        EXPECT_EQ(TextOf(record->MiniportName), adapter.deviceName);
        EXPECT_EQ(record->FilterModuleName.Buffer, record->NameStorage);
        const std::size_t characters =
            adapter.moduleGuid.size() + adapter.instanceName.size() + adapter.deviceName.size();
        EXPECT_EQ(record->AllocationSize, sizeof(FILTER_MODULE) + 2 * characters);
        EXPECT_THAT(record->MacAddress, testing::ElementsAreArray(adapter.mac));
        EXPECT_EQ(record->MiniportIfIndex, adapter.ifIndex);
        EXPECT_EQ(record->FilterHandle, stack.FindModule(machine.FindDriver("NETSIEVE"))->handle());
        EXPECT_EQ(record->ActiveCalls, 0u);
        EXPECT_NE(record->NblPool, nullptr);
        EXPECT_NE(record->TraceBuffer, nullptr);
        EXPECT_EQ(record->TraceSequence, 0u);
    }
};

TEST_P(AttachTest, FillsTheRecord) {
    RunClean({}, LoadAndCheckRecords);
}

INSTANTIATE_TEST_SUITE_P(Timing,
                         AttachTest,
                         testing::Values(AttachTiming::kConcurrent, AttachTiming::kInline));

struct Failure {
    FaultKind kind;
    std::optional<std::uint32_t> tag;
    NTSTATUS load;
    bool attached;          ///< whether the adapter has a module afterwards
    std::string ring{};     ///< what that one's ring begins with; "none" when there is none
    std::string console{};  ///< what was printed
};

const Failure kFailures[] = {
    {FaultKind::kFilterRegistration, {}, NDIS_STATUS_RESOURCES, false},
    {FaultKind::kDevice, {}, STATUS_INSUFFICIENT_RESOURCES, false},
    {FaultKind::kFilterAttributes, {}, STATUS_SUCCESS, false},
    {FaultKind::kPool, FILTER_MODULE_TAG, STATUS_SUCCESS, false},
    {FaultKind::kPool, TRACE_BUFFER_TAG, STATUS_SUCCESS, true, "none",
     "dbglog memory allocate failed\n"},
    {FaultKind::kNblPool, {}, STATUS_SUCCESS, true, "[0 InitializeNBLPool->52]\n"},
    {FaultKind::kPool, NIRP_TAG, STATUS_SUCCESS, true, "[0 AllocateNirp->126]\n"},
    {FaultKind::kPool, NIRP_BUFFER_TAG, STATUS_SUCCESS, true, "[0 AllocateNirp->142]\n"},
    {FaultKind::kMdl, {}, STATUS_SUCCESS, true, "[0 AllocateNirp->150]\n"},
};

TEST(AttachFailureTest, FailsWhatItMustAndGoesOnWithoutTheRest) {
    for (const Failure& failure : kFailures) {
        SCOPED_TRACE(FaultKindName(failure.kind));
        RunClean({}, [&](Machine& machine) {
            Stack& stack = machine.ndis().AddAdapter();
            machine.faults().Arm({.kind = failure.kind, .tag = failure.tag, .nth = 1});
            EXPECT_EQ(machine.LoadDriver(DriverUnderTest()), failure.load);
            machine.faults().Disarm();
            std::string console;
            for (const std::string& text : machine.debugOutput()) {
                console += text;
            }
            EXPECT_EQ(console, failure.console);
            ASSERT_EQ(!stack.modules().empty(), failure.attached);
            if (failure.attached) {
                const UCHAR* const ring = DriverModuleOf(machine, stack)->TraceBuffer;
                EXPECT_EQ(ring == nullptr ? "none" : reinterpret_cast<const char*>(ring),
                          failure.ring);
            }
            Traffic(machine, stack).ExpectPassing();
            machine.UnloadDriver("NETSIEVE");

            // Nothing of a failed start stands in the way of the next one.
            EXPECT_EQ(machine.LoadDriver(DriverUnderTest()), STATUS_SUCCESS);
            EXPECT_FALSE(stack.modules().empty());
            machine.UnloadDriver("NETSIEVE");
        });
    }
}

TEST(AttachRefusalTest, TakesOnlyItsOwnContextAndEthernet) {
    RunClean({}, [](Machine& machine) {
        Stack& ethernet = machine.ndis().AddAdapter();
        Stack& wan =
            machine.ndis().AddAdapter({.medium = NdisMediumWan, .ifIndex = 2, .bindAnyway = true});
        ASSERT_EQ(machine.LoadDriver(DriverUnderTest()), STATUS_SUCCESS);
        EXPECT_EQ(DriverModuleOf(machine, wan), nullptr);

        LoadedDriver* const driver = machine.FindDriver("NETSIEVE");
        const FilterModule* const module = ethernet.FindModule(driver);
        const FilterRegistration& registration = module->registration;
        // Every event that passes through does so by a handler; OID requests pass without one.
        const NDIS_FILTER_DRIVER_CHARACTERISTICS& handlers = registration.handlers;
        EXPECT_TRUE(handlers.CancelSendNetBufferListsHandler && handlers.StatusHandler &&
                    handlers.NetPnPEventHandler && handlers.DevicePnPEventNotifyHandler);
        EXPECT_FALSE(handlers.SetOptionsHandler || handlers.SetFilterModuleOptionsHandler ||
                     handlers.OidRequestHandler || handlers.OidRequestCompleteHandler ||
                     handlers.CancelOidRequestHandler);
        UNICODE_STRING name{};
        NDIS_FILTER_ATTACH_PARAMETERS parameters{};
        parameters.FilterModuleGuidName = &name;
        parameters.BaseMiniportInstanceName = &name;
        parameters.BaseMiniportName = &name;
        const std::uint64_t allocations = machine.pool().allocations();
        const auto attach = [&](NDIS_HANDLE context, NDIS_MEDIUM medium) {
            parameters.MiniportMediaType = medium;
            const CallbackScope scope("FilterAttach", driver, nullptr);
            return module->handlers.AttachHandler(nullptr, context, &parameters);
        };
        EXPECT_EQ(attach(nullptr, NdisMedium802_3), NDIS_STATUS_INVALID_PARAMETER);
        EXPECT_EQ(attach(&name, NdisMedium802_3), NDIS_STATUS_INVALID_PARAMETER);
        EXPECT_EQ(attach(registration.context, NdisMediumLoopback), NDIS_STATUS_INVALID_PARAMETER);
        EXPECT_EQ(machine.pool().allocations(), allocations);
        machine.UnloadDriver("NETSIEVE");
    });
}

TEST(RestartTest, SetsTheLookaheadWhereThereAreAttributes) {
    for (const bool attributes : {false, true}) {
        RunClean({}, [&](Machine& machine) {
            Stack& stack = machine.ndis().AddAdapter({.restartAttributes = attributes});
            ASSERT_EQ(machine.LoadDriver(DriverUnderTest()), STATUS_SUCCESS);
            const FilterModule* const module = stack.FindModule(machine.FindDriver("NETSIEVE"));
            EXPECT_EQ(module->lookaheadSize, attributes ? 128u : 1500u);
            EXPECT_EQ(DriverModuleOf(machine, stack)->State, FILTER_STATE_RUNNING);

            machine.UnloadDriver("NETSIEVE");
        });
    }
}

}  // namespace
}  // namespace netsieve::host
