// Each call at an IRQL that it may not be made at.

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "tests/verifier/breakers.h"

namespace netsieve::host {
namespace {

constexpr KIRQL kDeviceLevel = 5;

/// What the calls are made with: all of it is as it should be.
struct Objects {
    PDEVICE_OBJECT device = nullptr;
    PIO_WORKITEM item = nullptr;
    HANDLE key = nullptr;
    KEVENT event;
    NDIS_EVENT ndisEvent;
    OBJECT_ATTRIBUTES attributes{};
    UNICODE_STRING path;
    UNICODE_STRING value;
};

struct Call {
    const char* name;
    KIRQL irql;  ///< the lowest that is too high
    void (*make)(Objects&, PDRIVER_OBJECT);
};

VOID NTAPI NoRoutine(PDEVICE_OBJECT, PVOID) {}

UCHAR g_data[64];
ULONG g_size = 0;

const Call kCalls[] = {
    {"ZwOpenKey", DISPATCH_LEVEL,
     [](Objects& use, PDRIVER_OBJECT) {
         HANDLE key = nullptr;
         ZwOpenKey(&key, KEY_QUERY_VALUE, &use.attributes);
         Machine::Current().scheduler().SetIrql(PASSIVE_LEVEL);
         ZwClose(key);
     }},
    {"ZwSetValueKey", DISPATCH_LEVEL,
     [](Objects& use, PDRIVER_OBJECT) {
         ZwSetValueKey(use.key, &use.value, 0, REG_DWORD, g_data, 4);
     }},
    {"ZwQueryValueKey", DISPATCH_LEVEL,
     [](Objects& use, PDRIVER_OBJECT) {
         ZwQueryValueKey(use.key, &use.value, KeyValueFullInformation, g_data, 64, &g_size);
     }},
    {"ZwDeleteValueKey", DISPATCH_LEVEL,
     [](Objects& use, PDRIVER_OBJECT) { ZwDeleteValueKey(use.key, &use.value); }},
    {"ZwClose", DISPATCH_LEVEL,
     [](Objects& use, PDRIVER_OBJECT) { ZwClose(std::exchange(use.key, nullptr)); }},
    {"PsGetVersion", DISPATCH_LEVEL,
     [](Objects&, PDRIVER_OBJECT) { PsGetVersion(nullptr, nullptr, nullptr, nullptr); }},
    {"IoCreateDevice", DISPATCH_LEVEL,
     [](Objects&, PDRIVER_OBJECT driver) {
         PDEVICE_OBJECT device = nullptr;
         IoCreateDevice(driver, 0, nullptr, FILE_DEVICE_UNKNOWN, 0, FALSE, &device);
         Machine::Current().scheduler().SetIrql(PASSIVE_LEVEL);
         IoDeleteDevice(device);
     }},
    {"IoDeleteDevice", DISPATCH_LEVEL,
     [](Objects& use, PDRIVER_OBJECT) { IoDeleteDevice(std::exchange(use.device, nullptr)); }},
    {"NdisWaitEvent", DISPATCH_LEVEL,
     [](Objects& use, PDRIVER_OBJECT) { NdisWaitEvent(&use.ndisEvent, 1); }},
    {"KeFlushQueuedDpcs", DISPATCH_LEVEL, [](Objects&, PDRIVER_OBJECT) { KeFlushQueuedDpcs(); }},
    {"DbgPrint of wide characters", DISPATCH_LEVEL,
     [](Objects& use, PDRIVER_OBJECT) { DbgPrint("%wZ", &use.value); }},
    {"IoAllocateWorkItem", kDeviceLevel,
     [](Objects& use, PDRIVER_OBJECT) {
         PIO_WORKITEM const item = IoAllocateWorkItem(use.device);
         Machine::Current().scheduler().SetIrql(PASSIVE_LEVEL);
         IoFreeWorkItem(item);
     }},
    {"IoFreeWorkItem", kDeviceLevel,
     [](Objects& use, PDRIVER_OBJECT) { IoFreeWorkItem(std::exchange(use.item, nullptr)); }},
    {"IoQueueWorkItem", kDeviceLevel,
     [](Objects& use, PDRIVER_OBJECT) {
         IoQueueWorkItem(use.item, &NoRoutine, DelayedWorkQueue, nullptr);
     }},
    {"KeSetEvent", kDeviceLevel,
     [](Objects& use, PDRIVER_OBJECT) { KeSetEvent(&use.event, 0, FALSE); }},
    {"KeClearEvent", kDeviceLevel, [](Objects& use, PDRIVER_OBJECT) { KeClearEvent(&use.event); }},
    {"NdisSetEvent", kDeviceLevel,
     [](Objects& use, PDRIVER_OBJECT) { NdisSetEvent(&use.ndisEvent); }},
    {"NdisResetEvent", kDeviceLevel,
     [](Objects& use, PDRIVER_OBJECT) { NdisResetEvent(&use.ndisEvent); }},
    {"KeWaitForSingleObject", kDeviceLevel,
     [](Objects& use, PDRIVER_OBJECT) {
         LARGE_INTEGER none{};
         KeWaitForSingleObject(&use.event, Executive, KernelMode, FALSE, &none);
     }},
};

Rule RuleOf(const Call& call) {
    return call.irql == DISPATCH_LEVEL ? Rule::kPassiveLevelRequired : Rule::kDispatchLevelExceeded;
}

void MakeCall(Scene& scene, const Call& call) {
    Objects use;
    Scheduler& scheduler = scene.machine.scheduler();
    PDRIVER_OBJECT const driver = scene.filter.object;
    IoCreateDevice(driver, 0, nullptr, FILE_DEVICE_UNKNOWN, 0, FALSE, &use.device);
    use.item = IoAllocateWorkItem(use.device);
    RtlInitUnicodeString(&use.path, u"\\Registry\\Machine");
    RtlInitUnicodeString(&use.value, u"Value");
    use.attributes.Length = sizeof(use.attributes);
    use.attributes.ObjectName = &use.path;
    ZwOpenKey(&use.key, KEY_ALL_ACCESS, &use.attributes);
    KeInitializeEvent(&use.event, NotificationEvent, TRUE);
    NdisInitializeEvent(&use.ndisEvent);
    NdisSetEvent(&use.ndisEvent);
    scheduler.SetIrql(call.irql);
    call.make(use, driver);
    scheduler.SetIrql(PASSIVE_LEVEL);
    scheduler.Sleep(kTicksPerMillisecond);
    if (use.key != nullptr) {
        ZwClose(use.key);
    }
    if (use.item != nullptr) {
        IoFreeWorkItem(use.item);
    }
    if (use.device != nullptr) {
        IoDeleteDevice(use.device);
    }
}

}  // namespace

std::vector<Breaker> CallBreakers() {
    std::vector<Breaker> all;
    for (const Call& call : kCalls) {
        all.push_back({RuleOf(call), call.name, [&call](Scene& scene) {
                           scene.Start();
                           MakeCall(scene, call);
                       }});
    }
    return all;
}

namespace {

TEST(Levels, OfEachCallAreKept) {
    for (const Call& call : kCalls) {
        SCOPED_TRACE(call.name);
        Machine machine;
        Scene scene(machine);
        machine.Run([&] {
            scene.Start();
            MakeCall(scene, call);
            scene.Finish();
        });
        const Rule rule = RuleOf(call);
        bool reported = false;
        for (const Violation& violation : machine.verifier().violations()) {
            // A wait breaks the rule of waits too.
            if (violation.rule != Rule::kWaitLevel) {
                reported = true;
                EXPECT_EQ(violation.rule, rule);
                EXPECT_THAT(violation.what,
                            testing::StartsWith(std::string(call.name) + " called"));
            }
        }
        EXPECT_TRUE(reported) << machine.verifier().Describe();
    }
}

}  // namespace
}  // namespace netsieve::host
