#include "host/ndis/busy_filter.h"

#include <cstddef>
#include <cstring>
#include <new>
#include <utility>

#include "host/machine.h"
#include "host/ndis/module_pnp.h"
#include "host/ndis/other_filter.h"
#include "host/sched/random.h"
#include "platform/ndis.h"

namespace netsieve::host {
namespace {

constexpr ULONG kTag = 0x79737562;  // "busy"
constexpr ULONG kOwnFrameSize = 64;
constexpr UINT kQueueMilliseconds = 1;

/// A chain in its order.
struct Chain {
    PNET_BUFFER_LIST head = nullptr;
    PNET_BUFFER_LIST tail = nullptr;
    ULONG count = 0;

    void Append(PNET_BUFFER_LIST nbl) {
        nbl->Next = nullptr;
        (head == nullptr ? head : tail->Next) = nbl;
        tail = nbl;
        ++count;
    }
};

template <typename Each>
void ForEach(PNET_BUFFER_LIST chain, Each each) {
    while (chain != nullptr) {
        PNET_BUFFER_LIST const nbl = std::exchange(chain, chain->Next);
        nbl->Next = nullptr;
        each(nbl);
    }
}

/// The memory of a frame of the filter's own, which the MDL of its NBL leads to.
struct OwnFrame {
    PMDL mdl;
    UCHAR bytes[kOwnFrameSize];
};

enum class Fate { kPass, kQueue, kClone, kDrop };

/// Calls are counted, so that a detach can wait for those that have done their work and not
/// returned.
struct Module {
    NDIS_HANDLE handle = nullptr;
    NDIS_HANDLE pool = nullptr;
    const BusyFilterOptions* options = nullptr;
    BusyFilterCounts* counts = nullptr;
    Random random{0};
    NDIS_TIMER timer{};
    KEVENT idle{};

    KSPIN_LOCK lock{};  // what follows, and `random`
    bool running = false;
    bool pausePending = false;
    unsigned calls = 0;
    unsigned work = 0;  ///< own NBLs outstanding, and releases of queued ones under way
    Chain queuedSends, queuedReceives;
};

class Locked {
  public:
    explicit Locked(Module& module)
        : lock_(&module.lock), irql_(KeAcquireSpinLockRaiseToDpc(lock_)) {}
    ~Locked() { KeReleaseSpinLock(lock_, irql_); }
    Locked(const Locked&) = delete;
    Locked& operator=(const Locked&) = delete;

  private:
    PKSPIN_LOCK lock_;
    KIRQL irql_;
};

class ModuleCall {
  public:
    explicit ModuleCall(PVOID context) : module_(*static_cast<Module*>(context)) {
        const Locked locked(module_);
        if (module_.calls++ == 0) {
            KeClearEvent(&module_.idle);
        }
    }
    ~ModuleCall() {
        const Locked locked(module_);
        if (--module_.calls == 0) {
            KeSetEvent(&module_.idle, 0, FALSE);
        }
    }
    ModuleCall(const ModuleCall&) = delete;
    ModuleCall& operator=(const ModuleCall&) = delete;
    Module& operator*() const { return module_; }

  private:
    Module& module_;
};

/// False when the module is not running, and may begin nothing.
bool BeginWork(Module& module) {
    const Locked locked(module);
    module.work += module.running ? 1 : 0;
    return module.running;
}

/// The last of it completes a pause that waits for it.
void EndWork(Module& module) {
    bool last = false;
    {
        const Locked locked(module);
        last = --module.work == 0 && std::exchange(module.pausePending, false);
    }
    if (last) {
        NdisFPauseComplete(module.handle);
    }
}

bool OneIn(Module& module, unsigned n) {
    const Locked locked(module);
    return n != 0 && module.random.OneIn(n);
}

Fate FateOf(Module& module, bool mayKeep, bool mayClone) {
    const BusyFilterOptions& options = *module.options;
    if (mayKeep && OneIn(module, options.drops)) {
        return Fate::kDrop;
    }
    if (mayKeep && OneIn(module, options.queues)) {
        return Fate::kQueue;
    }
    return mayClone && OneIn(module, options.clones) ? Fate::kClone : Fate::kPass;
}

// ---- NBLs of its own ----

bool IsOwn(const Module& module, const NET_BUFFER_LIST* nbl) {
    return nbl->NdisPoolHandle == module.pool;
}

OwnFrame* MakeOwnFrame(Module& module) {
    PVOID memory = nullptr;
    if (NdisAllocateMemoryWithTag(&memory, sizeof(OwnFrame), kTag) != NDIS_STATUS_SUCCESS) {
        return nullptr;
    }
    auto* const frame = static_cast<OwnFrame*>(memory);
    std::memset(frame->bytes, 0xB5, sizeof(frame->bytes));
    frame->mdl = NdisAllocateMdl(module.handle, frame->bytes, sizeof(frame->bytes));
    if (frame->mdl == nullptr) {
        NdisFreeMemory(frame, 0, 0);
        return nullptr;
    }
    return frame;
}

OwnFrame* FrameOf(const NET_BUFFER_LIST* nbl) {
    auto* const bytes = static_cast<UCHAR*>(nbl->FirstNetBuffer->MdlChain->MappedSystemVa);
    return reinterpret_cast<OwnFrame*>(bytes - offsetof(OwnFrame, bytes));
}

void FreeOwnFrame(OwnFrame* frame) {
    NdisFreeMdl(frame->mdl);
    NdisFreeMemory(frame, 0, 0);
}

PNET_BUFFER_LIST MakeOwnNbl(Module& module) {
    OwnFrame* const frame = MakeOwnFrame(module);
    PNET_BUFFER_LIST const nbl = frame == nullptr
                                     ? nullptr
                                     : NdisAllocateNetBufferAndNetBufferList(
                                           module.pool, 0, 0, frame->mdl, 0, kOwnFrameSize);
    if (nbl == nullptr) {
        if (frame != nullptr) {
            FreeOwnFrame(frame);
        }
        return nullptr;
    }
    nbl->SourceHandle = module.handle;
    return nbl;
}

/// Shares the parent's MDLs, as published for clones.
PNET_BUFFER_LIST MakeClone(Module& module, PNET_BUFFER_LIST parent) {
    const NET_BUFFER* const buffer = parent->FirstNetBuffer;
    PNET_BUFFER_LIST const clone = NdisAllocateNetBufferAndNetBufferList(
        module.pool, 0, 0, buffer->CurrentMdl, buffer->CurrentMdlOffset, buffer->DataLength);
    if (clone != nullptr) {
        NdisCopySendNetBufferListInfo(clone, parent);
        clone->SourceHandle = module.handle;
        clone->ParentNetBufferList = parent;
        ++parent->ChildRefCount;
    }
    return clone;
}

/// The end of an own NBL: returns the parent of a clone, to be completed.
PNET_BUFFER_LIST EndOwn(PNET_BUFFER_LIST nbl) {
    PNET_BUFFER_LIST const parent = nbl->ParentNetBufferList;
    if (parent != nullptr) {
        parent->Status = nbl->Status;
        NET_BUFFER_LIST_INFO(parent, TcpLargeSendNetBufferListInfo) =
            NET_BUFFER_LIST_INFO(nbl, TcpLargeSendNetBufferListInfo);
        --parent->ChildRefCount;
        nbl->ParentNetBufferList = nullptr;
        NdisFreeNetBufferList(nbl);
        return parent;
    }
    OwnFrame* const frame = FrameOf(nbl);
    NdisFreeNetBufferList(nbl);
    FreeOwnFrame(frame);
    return nullptr;
}

/// A frame of its own, in the direction of the caller's.
void Originate(Module& module, bool send, ULONG flags) {
    if (!OneIn(module, module.options->originates) || !BeginWork(module)) {
        return;
    }
    PNET_BUFFER_LIST const nbl = MakeOwnNbl(module);
    if (nbl == nullptr) {
        EndWork(module);
        return;
    }
    ++module.counts->originated;
    if (send) {
        NdisFSendNetBufferLists(module.handle, nbl, 0, flags & NDIS_SEND_FLAGS_DISPATCH_LEVEL);
    } else {
        NdisFIndicateReceiveNetBufferLists(module.handle, nbl, 0, 1,
                                           flags & NDIS_RECEIVE_FLAGS_DISPATCH_LEVEL);
    }
}

// ---- queued NBLs ----

/// False when the module is not running.
bool Queue(Module& module, Chain Module::*queue, PNET_BUFFER_LIST nbl) {
    {
        const Locked locked(module);
        if (!module.running) {
            return false;
        }
        (module.*queue).Append(nbl);
        NdisSetTimer(&module.timer, kQueueMilliseconds);
    }
    ++module.counts->queued;
    return true;
}

VOID NTAPI ReleaseQueued(PVOID, PVOID context, PVOID, PVOID) {
    const ModuleCall call(context);
    Module& module = *call;
    if (!BeginWork(module)) {
        return;
    }
    Chain sends;
    Chain receives;
    {
        const Locked locked(module);
        sends = std::exchange(module.queuedSends, {});
        receives = std::exchange(module.queuedReceives, {});
    }
    if (sends.head != nullptr) {
        NdisFSendNetBufferLists(module.handle, sends.head, 0, NDIS_SEND_FLAGS_DISPATCH_LEVEL);
    }
    if (receives.head != nullptr) {
        NdisFIndicateReceiveNetBufferLists(module.handle, receives.head, 0, receives.count,
                                           NDIS_RECEIVE_FLAGS_DISPATCH_LEVEL);
    }
    EndWork(module);
}

// ---- the data path ----

void CompleteOne(Module& module, PNET_BUFFER_LIST nbl, NDIS_STATUS status, ULONG sendFlags) {
    nbl->Status = status;
    NET_BUFFER_LIST_INFO(nbl, TcpLargeSendNetBufferListInfo) = nullptr;
    NdisFSendNetBufferListsComplete(module.handle, nbl, sendFlags & NDIS_SEND_FLAGS_DISPATCH_LEVEL);
}

/// A clone takes the NBL's place below; false when it cannot.
bool SendClone(Module& module, PNET_BUFFER_LIST nbl, NDIS_PORT_NUMBER port, ULONG flags) {
    if (!BeginWork(module)) {
        return false;
    }
    PNET_BUFFER_LIST const clone = MakeClone(module, nbl);
    if (clone == nullptr) {
        EndWork(module);
        return false;
    }
    ++module.counts->cloned;
    NdisFSendNetBufferLists(module.handle, clone, port, flags);
    return true;
}

/// Whether the fate has been met, so that the NBL is not to be passed on.
bool MeetSend(Module& module, PNET_BUFFER_LIST nbl, NDIS_PORT_NUMBER port, ULONG flags) {
    const bool one = nbl->FirstNetBuffer != nullptr && nbl->FirstNetBuffer->Next == nullptr;
    switch (FateOf(module, true, one)) {
        case Fate::kQueue:
            return Queue(module, &Module::queuedSends, nbl);
        case Fate::kClone:
            return SendClone(module, nbl, port, flags);
        case Fate::kDrop:
            ++module.counts->dropped;
            CompleteOne(module, nbl, NDIS_STATUS_SUCCESS, flags);
            return true;
        case Fate::kPass:
            break;
    }
    return false;
}

VOID NTAPI Send(NDIS_HANDLE context, PNET_BUFFER_LIST chain, NDIS_PORT_NUMBER port, ULONG flags) {
    const ModuleCall call(context);
    Module& module = *call;
    const bool split = OneIn(module, module.options->splits);
    module.counts->split += split ? 1 : 0;
    Originate(module, true, flags);
    Chain passed;
    ForEach(chain, [&](PNET_BUFFER_LIST nbl) {
        if (MeetSend(module, nbl, port, flags)) {
            return;
        }
        if (split) {
            NdisFSendNetBufferLists(module.handle, nbl, port, flags);
        } else {
            passed.Append(nbl);
        }
    });
    if (passed.head != nullptr) {
        NdisFSendNetBufferLists(module.handle, passed.head, port, flags);
    }
}

/// Ends the module's own NBLs of a chain that comes back. Returns how many there were; in `others`
/// are the rest and the parents of clones, which go back further.
unsigned EndOwnOf(const Module& module, PNET_BUFFER_LIST chain, Chain& others) {
    unsigned ended = 0;
    ForEach(chain, [&](PNET_BUFFER_LIST nbl) {
        if (IsOwn(module, nbl)) {
            nbl = EndOwn(nbl);
            ++ended;
        }
        if (nbl != nullptr) {
            others.Append(nbl);
        }
    });
    return ended;
}

template <auto kGoBack>
VOID NTAPI ComeBack(NDIS_HANDLE context, PNET_BUFFER_LIST chain, ULONG flags) {
    const ModuleCall call(context);
    Module& module = *call;
    Chain others;
    unsigned ended = EndOwnOf(module, chain, others);
    if (others.head != nullptr) {
        kGoBack(module.handle, others.head, flags);
    }
    for (; ended != 0; --ended) {
        EndWork(module);
    }
}

bool MeetReceive(Module& module, PNET_BUFFER_LIST nbl, ULONG flags) {
    const Fate fate = FateOf(module, (flags & NDIS_RECEIVE_FLAGS_RESOURCES) == 0, false);
    if (fate == Fate::kQueue) {
        return Queue(module, &Module::queuedReceives, nbl);
    }
    if (fate == Fate::kDrop) {
        ++module.counts->dropped;
        NdisFReturnNetBufferLists(module.handle, nbl, flags & NDIS_RECEIVE_FLAGS_DISPATCH_LEVEL);
        return true;
    }
    return false;
}

VOID NTAPI Receive(NDIS_HANDLE context,
                   PNET_BUFFER_LIST chain,
                   NDIS_PORT_NUMBER port,
                   ULONG count,
                   ULONG flags) {
    const ModuleCall call(context);
    Module& module = *call;
    Originate(module, false, flags);
    // A chain with the resources flag has to be whole again when this returns.
    if ((flags & NDIS_RECEIVE_FLAGS_RESOURCES) != 0) {
        NdisFIndicateReceiveNetBufferLists(module.handle, chain, port, count, flags);
        return;
    }
    const bool split = OneIn(module, module.options->splits);
    module.counts->split += split ? 1 : 0;
    Chain passed;
    ForEach(chain, [&](PNET_BUFFER_LIST nbl) {
        if (MeetReceive(module, nbl, flags)) {
            return;
        }
        if (split) {
            NdisFIndicateReceiveNetBufferLists(module.handle, nbl, port, 1, flags);
        } else {
            passed.Append(nbl);
        }
    });
    if (passed.head != nullptr) {
        NdisFIndicateReceiveNetBufferLists(module.handle, passed.head, port, passed.count, flags);
    }
}

// ---- the module's life ----

NDIS_STATUS NTAPI Restart(NDIS_HANDLE context, PNDIS_FILTER_RESTART_PARAMETERS) {
    Module& module = *static_cast<Module*>(context);
    if (OneIn(module, module.options->failsRestart)) {
        return NDIS_STATUS_RESOURCES;
    }
    const Locked locked(module);
    module.running = true;
    return NDIS_STATUS_SUCCESS;
}

NDIS_STATUS NTAPI Pause(NDIS_HANDLE context, PNDIS_FILTER_PAUSE_PARAMETERS) {
    const ModuleCall call(context);
    Module& module = *call;
    Chain sends;
    Chain receives;
    {
        const Locked locked(module);
        module.running = false;
        sends = std::exchange(module.queuedSends, {});
        receives = std::exchange(module.queuedReceives, {});
    }
    BOOLEAN cancelled = FALSE;
    NdisCancelTimer(&module.timer, &cancelled);
    ForEach(sends.head,
            [&](PNET_BUFFER_LIST nbl) { CompleteOne(module, nbl, NDIS_STATUS_PAUSED, 0); });
    if (receives.head != nullptr) {
        NdisFReturnNetBufferLists(module.handle, receives.head, 0);
    }
    const Locked locked(module);
    module.pausePending = module.work != 0;
    module.counts->pausesPended += module.pausePending ? 1 : 0;
    return module.pausePending ? NDIS_STATUS_PENDING : NDIS_STATUS_SUCCESS;
}

VOID NTAPI Detach(NDIS_HANDLE context) {
    auto* const module = static_cast<Module*>(context);
    KeFlushQueuedDpcs();
    for (bool busy = true; busy;) {
        KeWaitForSingleObject(&module->idle, Executive, KernelMode, FALSE, nullptr);
        // The thread that set the event still holds the lock.
        const Locked locked(*module);
        busy = module->calls != 0;
    }
    NdisFreeNetBufferListPool(module->pool);
    NdisFreeMemory(module, 0, 0);
}

NDIS_HANDLE MakePool(NDIS_HANDLE handle) {
    NET_BUFFER_LIST_POOL_PARAMETERS parameters{};
    parameters.Header = {NDIS_OBJECT_TYPE_DEFAULT, 1, sizeof(parameters)};
    parameters.fAllocateNetBuffer = TRUE;
    parameters.PoolTag = kTag;
    return NdisAllocateNetBufferListPool(handle, &parameters);
}

/// One of each kind, global because the handlers are plain functions.
struct Driver {
    const char* name;
    std::uint64_t salt;
    BusyFilterOptions options{};
    BusyFilterCounts counts{};
    NDIS_HANDLE registration = nullptr;
};
Driver g_above{.name = "BUSYUP", .salt = 0xB5'0000};
Driver g_below{.name = "BUSYLO", .salt = 0xB5'1111};

NDIS_STATUS NTAPI Attach(NDIS_HANDLE handle,
                         NDIS_HANDLE context,
                         PNDIS_FILTER_ATTACH_PARAMETERS parameters) {
    auto* const driver = static_cast<Driver*>(context);
    PVOID memory = nullptr;
    NDIS_STATUS status = NdisAllocateMemoryWithTag(&memory, sizeof(Module), kTag);
    if (status != NDIS_STATUS_SUCCESS) {
        return status;
    }
    auto* const module = new (memory) Module;
    module->handle = handle;
    module->options = &driver->options;
    module->counts = &driver->counts;
    module->random =
        Random(Machine::Current().options().seed ^ driver->salt ^ parameters->BaseMiniportIfIndex);
    KeInitializeSpinLock(&module->lock);
    KeInitializeEvent(&module->idle, NotificationEvent, TRUE);
    NdisInitializeTimer(&module->timer, &ReleaseQueued, module);
    module->pool = MakePool(handle);
    NDIS_FILTER_ATTRIBUTES attributes{};
    attributes.Header = {NDIS_OBJECT_TYPE_FILTER_ATTRIBUTES, 1, sizeof(attributes)};
    status = module->pool == nullptr ? NDIS_STATUS_RESOURCES
                                     : NdisFSetAttributes(handle, module, &attributes);
    if (status != NDIS_STATUS_SUCCESS) {
        if (module->pool != nullptr) {
            NdisFreeNetBufferListPool(module->pool);
        }
        NdisFreeMemory(module, 0, 0);
    }
    return status;
}

template <Driver* kDriver>
VOID NTAPI Unload(PDRIVER_OBJECT) {
    if (kDriver->registration != nullptr) {
        NdisFDeregisterFilterDriver(std::exchange(kDriver->registration, nullptr));
    }
}

template <Driver* kDriver>
NTSTATUS NTAPI Entry(PDRIVER_OBJECT driverObject, PUNICODE_STRING) {
    driverObject->DriverUnload = &Unload<kDriver>;
    NDIS_FILTER_DRIVER_CHARACTERISTICS handlers =
        DescribeFilter(u"Busy filter", u"{2D6F4A10-9C0B-4C0E-8E4F-51B7C9F0A3B5}", u"BUSY");
    handlers.AttachHandler = &Attach;
    handlers.DetachHandler = &Detach;
    handlers.RestartHandler = &Restart;
    handlers.PauseHandler = &Pause;
    handlers.SendNetBufferListsHandler = &Send;
    handlers.SendNetBufferListsCompleteHandler = &ComeBack<&NdisFSendNetBufferListsComplete>;
    handlers.ReceiveNetBufferListsHandler = &Receive;
    handlers.ReturnNetBufferListsHandler = &ComeBack<&NdisFReturnNetBufferLists>;
    return NdisFRegisterFilterDriver(driverObject, kDriver, &handlers, &kDriver->registration);
}

}  // namespace

DriverSource BusyFilter(bool above, const BusyFilterOptions& options) {
    (above ? g_above : g_below).options = options;
    return above ? DriverSource{.name = g_above.name, .entry = &Entry<&g_above>, .altitude = 100}
                 : DriverSource{.name = g_below.name, .entry = &Entry<&g_below>, .altitude = -100};
}

BusyFilterCounts& CountsOfBusyFilter(bool above) {
    return (above ? g_above : g_below).counts;
}

}  // namespace netsieve::host
