// Timers, work items, devices, memory descriptors and blocks as a driver uses them by the rules.

#include <gtest/gtest.h>

#include <algorithm>

#include "host/machine.h"
#include "platform/atomics.h"

namespace netsieve::host {
namespace {

PDRIVER_OBJECT g_object = nullptr;

VOID NTAPI Unload(PDRIVER_OBJECT) {}

NTSTATUS NTAPI Entry(PDRIVER_OBJECT driverObject, PUNICODE_STRING) {
    g_object = driverObject;
    driverObject->DriverUnload = &Unload;
    return STATUS_SUCCESS;
}

/// Runs `body` with a driver loaded, which has to keep every rule and to leave nothing behind.
class DriverObjects : public testing::Test {
  protected:
    void Run(const std::function<void()>& body) {
        machine_.Run([&] {
            machine_.LoadDriver({.name = "OBJECTS", .entry = &Entry});
            body();
            machine_.UnloadDriver("OBJECTS");
        });
        EXPECT_TRUE(machine_.verifier().Silent()) << machine_.verifier().Describe();
    }
    NTSTATUS Create(const char16_t* name, PDEVICE_OBJECT* device, ULONG extension = 0) {
        UNICODE_STRING text;
        RtlInitUnicodeString(&text, name);
        return IoCreateDevice(g_object, extension, name == nullptr ? nullptr : &text,
                              FILE_DEVICE_UNKNOWN, 0, FALSE, device);
    }

    Machine machine_;
};

VOID NTAPI NoteTime(PVOID, PVOID context, PVOID, PVOID) {
    EXPECT_EQ(KeGetCurrentIrql(), DISPATCH_LEVEL);
    static_cast<std::vector<Ticks>*>(context)->push_back(Machine::Current().scheduler().Now());
}

TEST_F(DriverObjects, ATimerFiresOnceAtDispatchLevelWhenItsLatestDueTimeComes) {
    NDIS_TIMER timer;
    std::vector<Ticks> fired;
    Run([&] {
        NdisInitializeTimer(&timer, &NoteTime, &fired);
        const auto sleep = [&](Ticks ms) { machine_.scheduler().Sleep(ms * kTicksPerMillisecond); };
        BOOLEAN cancelled = TRUE;
        NdisCancelTimer(&timer, &cancelled);
        EXPECT_FALSE(cancelled);
        NdisSetTimer(&timer, 10);
        NdisSetTimer(&timer, 30);  // takes the first one back
        sleep(100);
        ASSERT_EQ(fired.size(), 1u);
        EXPECT_EQ(fired[0], 30 * kTicksPerMillisecond);
        NdisCancelTimer(&timer, &cancelled);
        EXPECT_FALSE(cancelled);
        NdisSetTimer(&timer, 10);
        NdisCancelTimer(&timer, &cancelled);
        EXPECT_TRUE(cancelled);
        sleep(100);
        EXPECT_EQ(fired.size(), 1u);
    });
}

// The item is out of the queue when its routine runs, which may then queue it again or free it; and
// the routine may still be on its way out when the driver has gone.
TEST_F(DriverObjects, AWorkItemMayBeQueuedAgainAndFreedByItsRoutine) {
    struct State {
        PIO_WORKITEM item = nullptr;
        KEVENT done;
        int runs = 0;
        static VOID NTAPI Routine(PDEVICE_OBJECT device, PVOID context) {
            auto* const state = static_cast<State*>(context);
            EXPECT_EQ(KeGetCurrentIrql(), PASSIVE_LEVEL);
            EXPECT_EQ(device, g_object->DeviceObject);
            if (++state->runs == 1) {
                IoQueueWorkItem(state->item, &Routine, DelayedWorkQueue, state);
                return;
            }
            IoFreeWorkItem(state->item);
            KeSetEvent(&state->done, 0, FALSE);
        }
    } state;
    Run([&] {
        PDEVICE_OBJECT device = nullptr;
        ASSERT_EQ(Create(nullptr, &device), STATUS_SUCCESS);
        KeInitializeEvent(&state.done, NotificationEvent, FALSE);
        state.item = IoAllocateWorkItem(device);
        IoQueueWorkItem(state.item, &State::Routine, DelayedWorkQueue, &state);
        KeWaitForSingleObject(&state.done, Executive, KernelMode, FALSE, nullptr);
        EXPECT_EQ(state.runs, 2);
        IoDeleteDevice(device);
    });
}

// The routine has its device, with what lies in the extension, though it was deleted meanwhile.
TEST_F(DriverObjects, AQueuedWorkItemKeepsItsDevice) {
    struct State {
        KEVENT done;
        PIO_WORKITEM item = nullptr;
        static VOID NTAPI Routine(PDEVICE_OBJECT device, PVOID context) {
            auto* const state = static_cast<State*>(context);
            EXPECT_EQ(*static_cast<ULONG*>(device->DeviceExtension), 0x5EEDu);
            IoFreeWorkItem(state->item);
            KeSetEvent(&state->done, 0, FALSE);
        }
    } state;
    Run([&] {
        constexpr ULONG kExtension = 3000;
        PDEVICE_OBJECT device = nullptr;
        ASSERT_EQ(Create(u"\\Device\\HELD", &device, kExtension), STATUS_SUCCESS);
        EXPECT_EQ(device->DriverObject, g_object);
        EXPECT_EQ(device->Size, sizeof(DEVICE_OBJECT) + kExtension);
        auto* const extension = static_cast<UCHAR*>(device->DeviceExtension);
        EXPECT_EQ(std::count(extension, extension + kExtension, 0), kExtension);
        *reinterpret_cast<ULONG*>(extension) = 0x5EED;
        KeInitializeEvent(&state.done, NotificationEvent, FALSE);
        state.item = IoAllocateWorkItem(device);
        machine_.scheduler().SetIrql(DISPATCH_LEVEL);
        IoQueueWorkItem(state.item, &State::Routine, DelayedWorkQueue, &state);
        machine_.scheduler().SetIrql(PASSIVE_LEVEL);
        IoDeleteDevice(device);
        KeWaitForSingleObject(&state.done, Executive, KernelMode, FALSE, nullptr);
    });
    EXPECT_EQ(machine_.devices().Live(), 0u);
}

TEST_F(DriverObjects, ADeviceNameIsTakenUntilItsDeviceIsDeleted) {
    Run([&] {
        PDEVICE_OBJECT first = nullptr;
        PDEVICE_OBJECT second = nullptr;
        EXPECT_EQ(Create(u"\\Device\\ONE", &first), STATUS_SUCCESS);
        EXPECT_EQ(Create(u"\\Device\\ONE", &second), STATUS_OBJECT_NAME_COLLISION);
        IoDeleteDevice(first);
        EXPECT_EQ(g_object->DeviceObject, nullptr);
        EXPECT_EQ(Create(u"\\Device\\ONE", &second), STATUS_SUCCESS);
        machine_.faults().Arm({.kind = FaultKind::kDevice, .nth = 1});
        EXPECT_EQ(Create(nullptr, &first), STATUS_INSUFFICIENT_RESOURCES);
        IoDeleteDevice(second);
    });
}

TEST_F(DriverObjects, ADescriptorIsMappedWhenSomeoneAsks) {
    std::vector<UCHAR> bytes(5000);
    Run([&] {
        PMDL const mdl = NdisAllocateMdl(nullptr, bytes.data() + 100, 4800);
        EXPECT_EQ(static_cast<UCHAR*>(mdl->StartVa) + mdl->ByteOffset, bytes.data() + 100);
        EXPECT_EQ(mdl->ByteCount, 4800u);
        EXPECT_LT(mdl->ByteOffset, 4096u);
        NdisFreeMdl(mdl);

        const auto map = [](MDL& one) {
            return MmMapLockedPagesSpecifyCache(&one, KernelMode, MmCached, nullptr, FALSE,
                                                NormalPagePriority);
        };
        MDL unmapped;
        DescribeBuffer(unmapped, bytes.data() + 7, 64, false);
        EXPECT_EQ(unmapped.MdlFlags & MDL_HAS_SYSTEM_ADDRESS, 0);
        machine_.faults().Arm({.kind = FaultKind::kMapping, .nth = 1});
        EXPECT_EQ(map(unmapped), nullptr);
        EXPECT_EQ(map(unmapped), bytes.data() + 7);
        EXPECT_NE(unmapped.MdlFlags & MDL_HAS_SYSTEM_ADDRESS, 0);
        // Once mapped there is nothing left that could fail.
        machine_.faults().Arm({.kind = FaultKind::kMapping, .nth = 1});
        EXPECT_EQ(map(unmapped), bytes.data() + 7);
    });
}

int g_atomicPoints = 0;

// Without its point an operation would hide every race that it is part of from the searches. What
// may let another go on has one behind it too.
TEST(Atomics, EachOperationIsASchedulingPoint) {
    PlatformAtomicHook = [](const volatile void*) NTAPI { ++g_atomicPoints; };
    ULONG word = 5;
    int seen = 0;
    const auto expect = [&](ULONG result, ULONG expected, int points) {
        EXPECT_EQ(result, expected);
        EXPECT_EQ(g_atomicPoints, seen += points);
    };
    expect(InterlockedIncrement(&word), 6, 1);
    expect(InterlockedDecrement(&word), 5, 2);
    expect(InterlockedAdd(&word, 3U), 8, 2);
    expect(InterlockedCompareExchange(&word, 9U, 8U), 8, 2);
    expect(ReadAcquire(&word), 9, 1);
    WriteRelease(&word, 1U);
    expect(word, 1, 2);
    PlatformAtomicHook = nullptr;
}

}  // namespace
}  // namespace netsieve::host
