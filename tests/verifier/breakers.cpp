#include "tests/verifier/breakers.h"

namespace netsieve::host {

namespace {

constexpr ULONG kTag = SmallFilter::kTag;
constexpr KIRQL kDeviceLevel = 5;

UCHAR* Block(UINT size = 64) {
    PVOID block = nullptr;
    NdisAllocateMemoryWithTag(&block, size, kTag);
    return static_cast<UCHAR*>(block);
}

void Free(PVOID block) {
    NdisFreeMemory(block, 0, 0);
}

struct Lock {
    Lock() { KeInitializeSpinLock(&word); }
    KSPIN_LOCK word;
};

NTSTATUS WaitFor(KEVENT& event, LONGLONG timeout) {
    LARGE_INTEGER due;
    due.QuadPart = timeout;
    return KeWaitForSingleObject(&event, Executive, KernelMode, FALSE,
                                 timeout == 0 ? nullptr : &due);
}

VOID NTAPI NoRoutine(PDEVICE_OBJECT, PVOID) {}
VOID NTAPI FreeOwnItem(PDEVICE_OBJECT, PVOID item) {
    IoFreeWorkItem(static_cast<PIO_WORKITEM>(item));
}
VOID NTAPI NoTimerRoutine(PVOID, PVOID, PVOID, PVOID) {}

// Two events that a routine waits for and sets, on behalf of a driver that does not wait for it.
struct Rendezvous {
    KEVENT go;
    KEVENT done;
};
VOID NTAPI WaitAndSet(PDEVICE_OBJECT, PVOID context) {
    auto* const events = static_cast<Rendezvous*>(context);
    WaitFor(events->go, 0);
    KeSetEvent(&events->done, 0, FALSE);
}

/// Calls `body` with so much of the stack behind it.
template <std::size_t kSize, typename Body>
[[gnu::noinline]] void OnTopOf(const Body& body) {
    UCHAR room[kSize];
    KeepAll(room);
    body();
    KeepAll(room);
}

// What the host needs between the two counts for nobody.
void TakeStack(Scene& scene) {
    scene.filter.send = [&](PNET_BUFFER_LIST nbl, NDIS_PORT_NUMBER port, ULONG flags) {
        OnTopOf<20 * 1024>([&] { NdisFSendNetBufferLists(scene.filter.handle, nbl, port, flags); });
    };
    scene.filter.sendComplete = [&](PNET_BUFFER_LIST nbl, ULONG flags) {
        OnTopOf<8 * 1024>(
            [&] { NdisFSendNetBufferListsComplete(scene.filter.handle, nbl, flags); });
    };
    scene.Start();
    scene.Send();
}

PDEVICE_OBJECT Device(Scene& scene) {
    PDEVICE_OBJECT device = nullptr;
    IoCreateDevice(scene.filter.object, 0, nullptr, FILE_DEVICE_UNKNOWN, 0, FALSE, &device);
    return device;
}

/// Starts the filter with a device and a work item, hands the item to `body`, and frees both.
void WithWorkItem(Scene& scene, const std::function<void(PIO_WORKITEM)>& body, bool frees = true) {
    scene.Start();
    PDEVICE_OBJECT const device = Device(scene);
    PIO_WORKITEM const item = IoAllocateWorkItem(device);
    // The worker cannot run yet: this processor is kept.
    AtDispatch([&] { body(item); });
    scene.machine.scheduler().Sleep(kTicksPerMillisecond);
    if (frees) {
        IoFreeWorkItem(item);
    }
    IoDeleteDevice(device);
}

void FreeBlockWithTimer(Scene& scene) {
    auto* const timer = reinterpret_cast<PNDIS_TIMER>(Block(sizeof(NDIS_TIMER)));
    NdisInitializeTimer(timer, &NoTimerRoutine, nullptr);
    NdisSetTimer(timer, 5);
    Free(timer);
    scene.machine.scheduler().Sleep(10 * kTicksPerMillisecond);
}

// The timer fires while both processors are kept, so that its routine is queued and has not begun.
void FreeBlockWithQueuedTimer(Scene& scene) {
    auto* const timer = reinterpret_cast<PNDIS_TIMER>(Block(sizeof(NDIS_TIMER)));
    NdisInitializeTimer(timer, &NoTimerRoutine, nullptr);
    NdisSetTimer(timer, 1);
    Scheduler& scheduler = scene.machine.scheduler();
    const std::uint32_t other =
        scheduler.Start({.name = "other", .kind = ContextKind::kDpc, .processor = 1}, [&] {
            scheduler.Sleep(2 * kTicksPerMillisecond);
            Free(timer);
            scheduler.Sleep(kTicksPerMillisecond);
        });
    AtDispatch([&] { scheduler.Sleep(5 * kTicksPerMillisecond); });
    scheduler.Join(other);
}

/// Allocates a paged block, fills it, and lets `touch` have it at DISPATCH_LEVEL.
void TouchPaged(const std::function<void(volatile UCHAR*)>& touch) {
    auto* const block = static_cast<UCHAR*>(ExAllocatePoolWithTag(PagedPool, 64, kTag));
    std::fill_n(block, 64, UCHAR{7});
    AtDispatch([&] { touch(block); });
    ExFreePoolWithTag(block, kTag);
}

// The other processor's context, which may, touches the block between two touches of the raised
// one: the first is no fault, and the second is one.
void TouchPagedInTurns(Scene& scene) {
    auto* const block = static_cast<volatile UCHAR*>(ExAllocatePoolWithTag(PagedPool, 64, kTag));
    Scheduler& scheduler = scene.machine.scheduler();
    const std::uint32_t other = scheduler.Start({.name = "other", .processor = 1}, [&] {
        scheduler.Sleep(kTicksPerMillisecond);
        block[0] = 1;
    });
    AtDispatch([&] {
        scheduler.Sleep(2 * kTicksPerMillisecond);
        block[1] = 1;
    });
    scheduler.Join(other);
    ExFreePoolWithTag(const_cast<UCHAR*>(block), kTag);
}

HANDLE OpenKey() {
    UNICODE_STRING name;
    RtlInitUnicodeString(&name, u"\\Registry\\Machine");
    OBJECT_ATTRIBUTES attributes{};
    attributes.Length = sizeof(attributes);
    attributes.ObjectName = &name;
    HANDLE key = nullptr;
    ZwOpenKey(&key, KEY_ALL_ACCESS, &attributes);
    return key;
}

void ReadUnmapped(Scene&) {
    UCHAR frame[64] = {};
    MDL mdl;
    DescribeBuffer(mdl, frame, sizeof(frame), false);
    static_cast<void>(static_cast<volatile UCHAR*>(mdl.StartVa)[mdl.ByteOffset]);
}

void TakeInBothOrders() {
    Lock a;
    Lock b;
    for (const auto& [first, second] : {std::pair{&a, &b}, std::pair{&b, &a}}) {
        const KIRQL irql = KeAcquireSpinLockRaiseToDpc(&first->word);
        KeAcquireSpinLockAtDpcLevel(&second->word);
        KeReleaseSpinLockFromDpcLevel(&second->word);
        KeReleaseSpinLock(&first->word, irql);
    }
}

void TakeOverwrittenLock(Scene& scene) {
    Lock lock;
    Scheduler& scheduler = scene.machine.scheduler();
    const KIRQL irql = KeAcquireSpinLockRaiseToDpc(&lock.word);
    lock.word = 0;
    const std::uint32_t other = scheduler.Start({.name = "other", .processor = 1}, [&] {
        KeReleaseSpinLock(&lock.word, KeAcquireSpinLockRaiseToDpc(&lock.word));
    });
    scheduler.Sleep(kTicksPerMillisecond);
    KeReleaseSpinLock(&lock.word, irql);
    scheduler.Join(other);
}

void RunPastUnload(Scene& scene) {
    static Rendezvous events;
    KeInitializeEvent(&events.go, NotificationEvent, FALSE);
    KeInitializeEvent(&events.done, NotificationEvent, FALSE);
    WithWorkItem(scene, [](PIO_WORKITEM item) {
        IoQueueWorkItem(item, &WaitAndSet, DelayedWorkQueue, &events);
    });
    scene.Finish();
    KeSetEvent(&events.go, 0, FALSE);
    WaitFor(events.done, 0);
}

std::vector<Breaker> LockBreakers() {
    return {
        {Rule::kLockForm, "acquired in the at-DPC form at PASSIVE_LEVEL",
         [](Scene&) {
             Lock lock;
             KeAcquireSpinLockAtDpcLevel(&lock.word);
             AtDispatch([&] { KeReleaseSpinLockFromDpcLevel(&lock.word); });
         }},
        {Rule::kLockForm, "released at PASSIVE_LEVEL",
         [](Scene&) {
             Lock lock;
             AtDispatch([&] { KeAcquireSpinLockAtDpcLevel(&lock.word); });
             KeReleaseSpinLockFromDpcLevel(&lock.word);
         }},
        {Rule::kLockForm, "acquired raising and released in the at-DPC form",
         [](Scene&) {
             Lock lock;
             AtDispatch([&] {
                 KeAcquireSpinLockRaiseToDpc(&lock.word);
                 KeReleaseSpinLockFromDpcLevel(&lock.word);
             });
         }},
        {Rule::kDispatchLevelExceeded, "acquired in an interrupt",
         [](Scene& scene) {
             Lock lock;
             scene.machine.scheduler().SetIrql(kDeviceLevel);
             KeReleaseSpinLock(&lock.word, KeAcquireSpinLockRaiseToDpc(&lock.word));
             scene.machine.scheduler().SetIrql(PASSIVE_LEVEL);
         }},
        {Rule::kLockForm, "released to another IRQL than was saved",
         [](Scene&) {
             Lock lock;
             AtDispatch([&] {
                 KeAcquireSpinLockRaiseToDpc(&lock.word);
                 KeReleaseSpinLock(&lock.word, PASSIVE_LEVEL);
             });
         }},
        {Rule::kLockRecursion, "acquired by its owner",
         [](Scene&) {
             Lock lock;
             const KIRQL irql = KeAcquireSpinLockRaiseToDpc(&lock.word);
             KeAcquireSpinLockAtDpcLevel(&lock.word);
             KeReleaseSpinLockFromDpcLevel(&lock.word);
             KeReleaseSpinLock(&lock.word, irql);
         }},
        {Rule::kLockOwner, "released by one who never acquired it",
         [](Scene&) {
             Lock lock;
             KeReleaseSpinLock(&lock.word, PASSIVE_LEVEL);
         }},
        {Rule::kLockUninitialised, "a word of zero is no lock",
         [](Scene&) {
             KSPIN_LOCK lock = 0;
             KeReleaseSpinLock(&lock, KeAcquireSpinLockRaiseToDpc(&lock));
         }},
        {Rule::kLockReinitialised, "initialised while held",
         [](Scene&) {
             Lock lock;
             const KIRQL irql = KeAcquireSpinLockRaiseToDpc(&lock.word);
             KeInitializeSpinLock(&lock.word);
             KeReleaseSpinLock(&lock.word, irql);
         }},
        {Rule::kLockOverwritten, "cleared by its owner, which then releases it",
         [](Scene&) {
             Lock lock;
             const KIRQL irql = KeAcquireSpinLockRaiseToDpc(&lock.word);
             lock.word = 0;
             KeReleaseSpinLock(&lock.word, irql);
         }},
        {Rule::kLockOverwritten, "cleared, and then acquired by another", &TakeOverwrittenLock,
         false, 0, "thread 2 (other) on processor 1 at IRQL 0"},
        {Rule::kLockInFreedMemory, "freed while held, then released",
         [](Scene&) {
             auto* const lock = reinterpret_cast<PKSPIN_LOCK>(Block());
             KeInitializeSpinLock(lock);
             const KIRQL irql = KeAcquireSpinLockRaiseToDpc(lock);
             Free(lock);
             KeReleaseSpinLock(lock, irql);
         }},
        {Rule::kLockOrder, "two locks in both orders", [](Scene&) { TakeInBothOrders(); }},
    };
}

std::vector<Breaker> PoolBreakers() {
    return {
        {Rule::kPoolZeroSize, "zero bytes", [](Scene&) { Free(Block(0)); }},
        {Rule::kPagedPoolLevel, "paged pool at DISPATCH_LEVEL",
         [](Scene& scene) {
             void* block = nullptr;
             MemoryPool& pool = scene.machine.pool();
             AtDispatch([&] { block = pool.Allocate(8, kTag, PoolKind::kPaged); });
             pool.Free(block, kTag);
         }},
        {Rule::kPagedPoolLevel, "paged pool freed at DISPATCH_LEVEL",
         [](Scene& scene) {
             void* const block = scene.machine.pool().Allocate(8, kTag, PoolKind::kPaged);
             AtDispatch([&] { scene.machine.pool().Free(block, kTag); });
         }},
        {Rule::kPagedPoolTouched, "read at DISPATCH_LEVEL",
         [](Scene&) { TouchPaged([](volatile UCHAR* block) { static_cast<void>(block[8]); }); }},
        {Rule::kPagedPoolTouched, "written at DISPATCH_LEVEL, once it was written below it",
         [](Scene&) { TouchPaged([](volatile UCHAR* block) { block[63] = 1; }); }},
        {Rule::kPagedPoolTouched, "touched by another while the pages are back",
         &TouchPagedInTurns},
        {Rule::kMdlPagedMemory, "described as if it were not paged",
         [](Scene&) {
             void* const block = ExAllocatePoolWithTag(PagedPool, 64, kTag);
             NdisFreeMdl(NdisAllocateMdl(nullptr, block, 64));
             ExFreePoolWithTag(block, kTag);
         }},
        {Rule::kMdlUnmapped, "the bytes read through StartVa", &ReadUnmapped},
        {Rule::kPoolOverrun, "one byte behind",
         [](Scene&) {
             UCHAR* const block = Block();
             block[64] = 0;
             Free(block);
         }},
        {Rule::kPoolOverrun, "one byte before",
         [](Scene&) {
             UCHAR* const block = Block();
             block[-1] = 0;
             Free(block);
         }},
        {Rule::kPoolDoubleFree, "freed twice",
         [](Scene&) {
             UCHAR* const block = Block();
             Free(block);
             Free(block);
         }},
        {Rule::kPoolDoubleFree, "an MDL that was not allocated",
         [](Scene&) {
             MDL mdl{};
             NdisFreeMdl(&mdl);
         }},
        {Rule::kPoolDoubleFree, "a work item freed twice",
         [](Scene& scene) {
             WithWorkItem(
                 scene,
                 [](PIO_WORKITEM item) {
                     IoFreeWorkItem(item);
                     IoFreeWorkItem(item);
                 },
                 false);
         }},
        {Rule::kPoolDoubleFree, "an NBL pool freed twice",
         [](Scene& scene) {
             scene.Start();
             NDIS_HANDLE const pool = scene.MakeOwn()->NdisPoolHandle;
             scene.FreeOwn();
             NdisFreeNetBufferListPool(pool);
         }},
        {Rule::kPoolDoubleFree, "deregistered twice",
         [](Scene& scene) {
             scene.filter.unload = [&] { NdisFDeregisterFilterDriver(scene.filter.registration); };
             scene.Start();
         }},
        {Rule::kPoolInvalidPointer, "a device deleted twice",
         [](Scene& scene) {
             scene.Start();
             PDEVICE_OBJECT const device = Device(scene);
             IoDeleteDevice(device);
             IoDeleteDevice(device);
         }},
        {Rule::kPoolInvalidPointer, "a work item for a deleted device",
         [](Scene& scene) {
             scene.Start();
             PDEVICE_OBJECT const device = Device(scene);
             IoDeleteDevice(device);
             IoAllocateWorkItem(device);
         }},
        {Rule::kPoolInvalidPointer, "not by its first byte",
         [](Scene&) {
             UCHAR* const block = Block();
             Free(block + 8);
             Free(block);
         }},
        {Rule::kPoolWrongTag, "another tag",
         [](Scene& scene) { scene.machine.pool().Free(Block(), kTag + 1); }},
        {Rule::kPoolUseAfterFree, "written after it was freed",
         [](Scene&) {
             UCHAR* const block = Block();
             Free(block);
             block[7] = 0;
         },
         true},
        {Rule::kPoolUseAfterFree, "an MDL is written after it was freed",
         [](Scene&) {
             UCHAR bytes[16];
             PMDL const mdl = NdisAllocateMdl(nullptr, bytes, sizeof(bytes));
             NdisFreeMdl(mdl);
             mdl->ByteCount = 0;
         },
         true},
        {Rule::kPoolUseAfterFree, "a work item is queued whose device is gone",
         [](Scene& scene) {
             scene.Start();
             PDEVICE_OBJECT const device = Device(scene);
             PIO_WORKITEM const item = IoAllocateWorkItem(device);
             IoDeleteDevice(device);
             IoQueueWorkItem(item, &NoRoutine, DelayedWorkQueue, nullptr);
             scene.machine.scheduler().Sleep(kTicksPerMillisecond);
             IoFreeWorkItem(item);
         }},
        {Rule::kPoolUseAfterFree, "a freed work item is queued",
         [](Scene& scene) {
             WithWorkItem(
                 scene,
                 [](PIO_WORKITEM item) {
                     IoFreeWorkItem(item);
                     IoQueueWorkItem(item, &NoRoutine, DelayedWorkQueue, nullptr);
                 },
                 false);
         }},
        {Rule::kHandleNotOpen, "a handle closed twice",
         [](Scene&) {
             HANDLE const key = OpenKey();
             ZwClose(key);
             ZwClose(key);
         }},
        {Rule::kHandleNotOpen, "a value deleted by a closed handle",
         [](Scene&) {
             HANDLE const key = OpenKey();
             ZwClose(key);
             UNICODE_STRING value;
             RtlInitUnicodeString(&value, u"Value");
             ZwDeleteValueKey(key, &value);
         }},
        {Rule::kPoolLeak, "a block outlives the driver",
         [](Scene& scene) {
             scene.filter.entry = [] { return Block() == nullptr ? STATUS_UNSUCCESSFUL : 0; };
             scene.Start();
         }},
        {Rule::kObjectLeak, "a device outlives the driver",
         [](Scene& scene) {
             scene.Start();
             Device(scene);
         }},
        {Rule::kObjectLeak, "a work item outlives the driver",
         [](Scene& scene) {
             WithWorkItem(
                 scene, [](PIO_WORKITEM) {}, false);
         }},
        {Rule::kObjectLeak, "a registry handle outlives the driver",
         [](Scene& scene) {
             scene.filter.unload = [] { OpenKey(); };
             scene.Start();
         }},
        {Rule::kObjectLeak, "an MDL outlives the driver",
         [](Scene& scene) {
             static UCHAR bytes[16];
             scene.filter.unload = [&] {
                 NdisAllocateMdl(scene.filter.handle, bytes, sizeof(bytes));
             };
             scene.Start();
         }},
        {Rule::kObjectLeak, "a registration outlives the driver",
         [](Scene& scene) {
             scene.filter.deregisters = false;
             scene.filter.attach = [] { return NDIS_STATUS_FAILURE; };
             scene.Start();
         }},
        {Rule::kObjectLeak, "an NBL pool outlives the driver",
         [](Scene& scene) {
             scene.filter.restart = [&] {
                 NET_BUFFER_LIST_POOL_PARAMETERS parameters = PoolParameters();
                 NdisAllocateNetBufferListPool(scene.filter.handle, &parameters);
                 return NDIS_STATUS_SUCCESS;
             };
             scene.Start();
         }},
    };
}

std::vector<Breaker> RoutineBreakers() {
    return {
        {Rule::kWorkItemQueued, "queued twice",
         [](Scene& scene) {
             WithWorkItem(scene, [](PIO_WORKITEM item) {
                 IoQueueWorkItem(item, &NoRoutine, DelayedWorkQueue, nullptr);
                 IoQueueWorkItem(item, &NoRoutine, DelayedWorkQueue, nullptr);
             });
         }},
        {Rule::kWorkItemQueued, "freed while queued",
         [](Scene& scene) {
             WithWorkItem(
                 scene,
                 [](PIO_WORKITEM item) {
                     IoQueueWorkItem(item, &NoRoutine, DelayedWorkQueue, nullptr);
                     IoFreeWorkItem(item);
                 },
                 false);
         }},
        {Rule::kTimerUninitialised, "a timer of zeroes is set",
         [](Scene&) {
             NDIS_TIMER timer{};
             NdisSetTimer(&timer, 1);
         }},
        {Rule::kTimerUninitialised, "a timer in a fresh block is cancelled",
         [](Scene&) {
             auto* const timer = reinterpret_cast<PNDIS_TIMER>(Block(sizeof(NDIS_TIMER)));
             BOOLEAN cancelled = TRUE;
             NdisCancelTimer(timer, &cancelled);
             Free(timer);
         }},
        {Rule::kTimerReinitialised, "initialised while armed",
         [](Scene& scene) {
             NDIS_TIMER timer;
             NdisInitializeTimer(&timer, &NoTimerRoutine, nullptr);
             NdisSetTimer(&timer, 1);
             NdisInitializeTimer(&timer, &NoTimerRoutine, nullptr);
             scene.machine.scheduler().Sleep(5 * kTicksPerMillisecond);
         }},
        {Rule::kTimerInFreedMemory, "armed", &FreeBlockWithTimer},
        {Rule::kTimerInFreedMemory, "queued", &FreeBlockWithQueuedTimer},
        {Rule::kRoutineOutlivesDriver, "a timer is armed at the end of unload",
         [](Scene& scene) {
             static NDIS_TIMER timer;
             scene.filter.unload = [] {
                 NdisInitializeTimer(&timer, &NoTimerRoutine, nullptr);
                 NdisSetTimer(&timer, 1);
             };
             scene.Start();
         }},
        {Rule::kRoutineOutlivesDriver, "a work item is queued at the end of unload",
         [](Scene& scene) {
             scene.filter.unload = [&] {
                 PDEVICE_OBJECT const device = Device(scene);
                 PIO_WORKITEM const item = IoAllocateWorkItem(device);
                 IoQueueWorkItem(item, &FreeOwnItem, DelayedWorkQueue, item);
                 IoDeleteDevice(device);
             };
             scene.Start();
         }},
        {Rule::kRoutineOutlivesDriver, "a routine goes on after unload", &RunPastUnload},
    };
}

std::vector<Breaker> LevelBreakers() {
    return {
        {Rule::kPassiveLevelRequired, "a PnP event at DISPATCH_LEVEL",
         [](Scene& scene) {
             scene.Start();
             AtDispatch([&] { NdisFDevicePnPEventNotify(scene.filter.handle, nullptr); });
         }},
        {Rule::kPassiveLevelRequired, "a network PnP event at DISPATCH_LEVEL",
         [](Scene& scene) {
             scene.Start();
             AtDispatch([&] { NdisFNetPnPEvent(scene.filter.handle, nullptr); });
         }},
        {Rule::kPassiveLevelRequired, "a registration at DISPATCH_LEVEL",
         [](Scene&) {
             NDIS_FILTER_DRIVER_CHARACTERISTICS none{};
             NDIS_HANDLE handle = nullptr;
             AtDispatch([&] { NdisFRegisterFilterDriver(nullptr, nullptr, &none, &handle); });
         }},
        {Rule::kPassiveLevelRequired, "a deregistration at DISPATCH_LEVEL",
         [](Scene& scene) {
             scene.filter.deregisters = false;
             scene.filter.unload = [&] {
                 AtDispatch([&] { NdisFDeregisterFilterDriver(scene.filter.registration); });
             };
             scene.Start();
         }},
        {Rule::kPassiveLevelRequired, "attributes set at DISPATCH_LEVEL",
         [](Scene& scene) {
             scene.Start();
             NDIS_FILTER_ATTRIBUTES attributes{};
             AtDispatch([&] { NdisFSetAttributes(scene.filter.handle, nullptr, &attributes); });
         }},
        {Rule::kPassiveLevelRequired, "a stack is paused at DISPATCH_LEVEL",
         [](Scene& scene) {
             scene.Start();
             AtDispatch([&] { scene.stack->Pause(); });
         }},
        {Rule::kPassiveLevelRequired, "a stack is restarted at DISPATCH_LEVEL",
         [](Scene& scene) {
             scene.Start();
             scene.stack->Pause();
             AtDispatch([&] { scene.stack->Restart(); });
         }},
        {Rule::kPassiveLevelRequired, "a filter attaches and detaches at DISPATCH_LEVEL",
         [](Scene& scene) {
             scene.Start();
             FilterModule& module = *scene.stack->modules().front();
             AtDispatch([&] {
                 scene.stack->Detach(module);
                 scene.filter.attach = [] { return NDIS_STATUS_FAILURE; };
                 scene.stack->Attach(module.registration);
             });
         },
         false, 2},
        {Rule::kPassiveLevelRequired, "a registry call with a spin lock held",
         [](Scene&) {
             Lock lock;
             HANDLE const key = OpenKey();
             AtDispatch([&] { KeAcquireSpinLockAtDpcLevel(&lock.word); });
             ZwClose(key);
             AtDispatch([&] { KeReleaseSpinLockFromDpcLevel(&lock.word); });
         }},
        {Rule::kDispatchLevelExceeded, "an event set in an interrupt",
         [](Scene& scene) {
             KEVENT event;
             KeInitializeEvent(&event, NotificationEvent, FALSE);
             scene.machine.scheduler().SetIrql(kDeviceLevel);
             KeSetEvent(&event, 0, FALSE);
             scene.machine.scheduler().SetIrql(PASSIVE_LEVEL);
         }},
        {Rule::kWaitLevel, "a wait at DISPATCH_LEVEL",
         [](Scene&) {
             KEVENT event;
             KeInitializeEvent(&event, NotificationEvent, TRUE);
             AtDispatch([&] { WaitFor(event, -kTicksPerMillisecond); });
         }},
        {Rule::kEventWaitLevel, "set with Wait at DISPATCH_LEVEL",
         [](Scene&) {
             KEVENT event;
             KeInitializeEvent(&event, NotificationEvent, FALSE);
             AtDispatch([&] { KeSetEvent(&event, 0, TRUE); });
         }},
        {Rule::kKernelStack, "20 KiB in one routine and 8 in another that it leads to", &TakeStack},
        {Rule::kEventUninitialised, "an event of zeroes",
         [](Scene&) {
             KEVENT event{};
             KeSetEvent(&event, 0, FALSE);
         }},
        {Rule::kEventUninitialised, "an event of zeroes is cleared",
         [](Scene&) {
             KEVENT event{};
             KeClearEvent(&event);
         }},
        {Rule::kEventUninitialised, "an event of zeroes is waited for",
         [](Scene&) {
             KEVENT event{};
             WaitFor(event, -kTicksPerMillisecond);
         }},
        {Rule::kHang, "a routine that goes round and round",
         [](Scene&) {
             for (;;) {
                 KeStallExecutionProcessor(1);
             }
         }},
        {Rule::kHang, "the same wait times out for ever",
         [](Scene&) {
             KEVENT event;
             KeInitializeEvent(&event, NotificationEvent, FALSE);
             while (WaitFor(event, -3 * kTicksPerSecond) == STATUS_TIMEOUT) {
             }
         }},
        {Rule::kDeadlock, "an event that nobody sets",
         [](Scene&) {
             KEVENT event;
             KeInitializeEvent(&event, NotificationEvent, FALSE);
             WaitFor(event, 0);
         }},
    };
}

}  // namespace

void AtDispatch(const std::function<void()>& body) {
    // As the system raises it: a lock would be one more thing held.
    Scheduler& scheduler = Machine::Current().scheduler();
    const KIRQL irql = CurrentContext().irql;
    scheduler.SetIrql(DISPATCH_LEVEL);
    body();
    scheduler.SetIrql(irql);
}

std::vector<Breaker> KernelBreakers() {
    std::vector<Breaker> all;
    for (const auto& part : {LockBreakers(), PoolBreakers(), RoutineBreakers(), LevelBreakers()}) {
        all.insert(all.end(), part.begin(), part.end());
    }
    return all;
}

}  // namespace netsieve::host
