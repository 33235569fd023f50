#include "host/ndis/other_filter.h"

#include <cstring>
#include <new>

#include "host/machine.h"
#include "platform/ndis.h"

namespace netsieve::host {

namespace {

constexpr ULONG kTag = 0x7268746F;  // "othr"
constexpr USHORT kContextSize = 32;
constexpr USHORT kBackFill = 96;  // room that filters below may take without an allocation

/// Counts the calls inside the module: one may not have returned yet when all its NBLs are
/// completed and the module is detached.
struct Module {
    explicit Module(NDIS_HANDLE ndisHandle) : handle(ndisHandle) {
        KeInitializeSpinLock(&lock);
        KeInitializeEvent(&idle, NotificationEvent, TRUE);
    }

    void Enter() {
        const KIRQL irql = KeAcquireSpinLockRaiseToDpc(&lock);
        if (calls++ == 0) {
            KeClearEvent(&idle);
        }
        KeReleaseSpinLock(&lock, irql);
    }
    void Leave() {
        const KIRQL irql = KeAcquireSpinLockRaiseToDpc(&lock);
        if (--calls == 0) {
            KeSetEvent(&idle, 0, FALSE);
        }
        KeReleaseSpinLock(&lock, irql);
    }
    void WaitUntilIdle() {
        for (bool busy = true; busy;) {
            KeWaitForSingleObject(&idle, Executive, KernelMode, FALSE, nullptr);
            // The thread that set the event still holds the lock.
            const KIRQL irql = KeAcquireSpinLockRaiseToDpc(&lock);
            busy = calls != 0;
            KeReleaseSpinLock(&lock, irql);
        }
    }

    NDIS_HANDLE handle;
    KSPIN_LOCK lock;
    KEVENT idle;
    unsigned calls = 0;
};

class ModuleCall {
  public:
    explicit ModuleCall(NDIS_HANDLE context) : module_(static_cast<Module*>(context)) {
        module_->Enter();
    }
    ~ModuleCall() { module_->Leave(); }
    ModuleCall(const ModuleCall&) = delete;
    ModuleCall& operator=(const ModuleCall&) = delete;
    Module* operator->() const { return module_; }
    Module* Get() const { return module_; }

  private:
    Module* module_;
};

/// The context that this filter pushes on each NBL until it is completed or returned.
struct Mark {
    std::uint64_t magic;
    Module* module;
    PNET_BUFFER_LIST nbl;
    std::uint64_t reserved;
};
static_assert(sizeof(Mark) == kContextSize);

// One of each kind, global because the handlers are plain functions.
struct Driver {
    const char* name;
    std::uint64_t magic;
    NDIS_HANDLE registration = nullptr;
};
Driver g_above{"OTHERUP", 0x6162'6F76'6561'626Full};
Driver g_below{"OTHERLO", 0x6265'6C6F'7762'656Cull};

template <Driver* kDriver>
struct Filter {
    // The context of this module: an NBL that passes two adapters has a context for each.
    static Mark* TopMark(const Module* module, PNET_BUFFER_LIST nbl) {
        NET_BUFFER_LIST_CONTEXT* const block = nbl->Context;
        if (block == nullptr || block->Offset + kContextSize > block->Size) {
            return nullptr;
        }
        auto* mark = reinterpret_cast<Mark*>(reinterpret_cast<char*>(block + 1) + block->Offset);
        return mark->magic == kDriver->magic && mark->module == module ? mark : nullptr;
    }

    // An NBL without context space is passed on without a context, which Pop has to allow for.
    static void Push(Module* module, PNET_BUFFER_LIST chain) {
        for (PNET_BUFFER_LIST nbl = chain; nbl != nullptr; nbl = nbl->Next) {
            if (NdisAllocateNetBufferListContext(nbl, kContextSize, kBackFill, kTag) ==
                NDIS_STATUS_SUCCESS) {
                NET_BUFFER_LIST_CONTEXT* const block = nbl->Context;
                const Mark mark{kDriver->magic, module, nbl, 0};
                std::memcpy(reinterpret_cast<char*>(block + 1) + block->Offset, &mark,
                            sizeof(mark));
            }
        }
    }

    static void Pop(const Module* module, PNET_BUFFER_LIST chain) {
        for (PNET_BUFFER_LIST nbl = chain; nbl != nullptr; nbl = nbl->Next) {
            Mark* const mark = TopMark(module, nbl);
            if (mark == nullptr) {
                continue;
            }
            if (mark->nbl != nbl) {
                Machine::Current().verifier().Report(
                    Rule::kContextNotOnTop,
                    std::string(kDriver->name) + " found its context on another NBL");
            }
            mark->magic = 0;
            NdisFreeNetBufferListContext(nbl, kContextSize);
        }
    }

    static NDIS_STATUS NTAPI Attach(NDIS_HANDLE handle,
                                    NDIS_HANDLE,
                                    PNDIS_FILTER_ATTACH_PARAMETERS) {
        PVOID memory = nullptr;
        NDIS_STATUS status = NdisAllocateMemoryWithTag(&memory, sizeof(Module), kTag);
        if (status != NDIS_STATUS_SUCCESS) {
            return status;
        }
        auto* module = new (memory) Module(handle);
        NDIS_FILTER_ATTRIBUTES attributes{};
        attributes.Header = {NDIS_OBJECT_TYPE_FILTER_ATTRIBUTES, 1, sizeof(attributes)};
        status = NdisFSetAttributes(handle, module, &attributes);
        if (status != NDIS_STATUS_SUCCESS) {
            NdisFreeMemory(memory, 0, 0);
        }
        return status;
    }
    static VOID NTAPI Detach(NDIS_HANDLE context) {
        static_cast<Module*>(context)->WaitUntilIdle();
        NdisFreeMemory(context, 0, 0);
    }
    static NDIS_STATUS NTAPI Restart(NDIS_HANDLE, PNDIS_FILTER_RESTART_PARAMETERS) {
        return NDIS_STATUS_SUCCESS;
    }
    static NDIS_STATUS NTAPI Pause(NDIS_HANDLE, PNDIS_FILTER_PAUSE_PARAMETERS) {
        return NDIS_STATUS_SUCCESS;
    }
    static VOID NTAPI Send(NDIS_HANDLE context,
                           PNET_BUFFER_LIST chain,
                           NDIS_PORT_NUMBER port,
                           ULONG flags) {
        const ModuleCall module(context);
        Push(module.Get(), chain);
        NdisFSendNetBufferLists(module->handle, chain, port, flags);
    }
    static VOID NTAPI SendComplete(NDIS_HANDLE context, PNET_BUFFER_LIST chain, ULONG flags) {
        const ModuleCall module(context);
        Pop(module.Get(), chain);
        NdisFSendNetBufferListsComplete(module->handle, chain, flags);
    }
    static VOID NTAPI Receive(NDIS_HANDLE context,
                              PNET_BUFFER_LIST chain,
                              NDIS_PORT_NUMBER port,
                              ULONG count,
                              ULONG flags) {
        const ModuleCall module(context);
        Push(module.Get(), chain);
        NdisFIndicateReceiveNetBufferLists(module->handle, chain, port, count, flags);
        if ((flags & NDIS_RECEIVE_FLAGS_RESOURCES) != 0) {
            Pop(module.Get(), chain);
        }
    }
    static VOID NTAPI Return(NDIS_HANDLE context, PNET_BUFFER_LIST chain, ULONG flags) {
        const ModuleCall module(context);
        Pop(module.Get(), chain);
        NdisFReturnNetBufferLists(module->handle, chain, flags);
    }

    static VOID NTAPI Unload(PDRIVER_OBJECT) {
        if (kDriver->registration != nullptr) {
            NdisFDeregisterFilterDriver(kDriver->registration);
            kDriver->registration = nullptr;
        }
    }

    static NTSTATUS NTAPI Entry(PDRIVER_OBJECT driverObject, PUNICODE_STRING) {
        driverObject->DriverUnload = &Unload;
        NDIS_FILTER_DRIVER_CHARACTERISTICS handlers =
            DescribeFilter(u"Other filter", u"{0B3F8E64-5D17-4C53-9B3C-7A6B2C9F0E11}", u"OTHER");
        handlers.AttachHandler = &Attach;
        handlers.DetachHandler = &Detach;
        handlers.RestartHandler = &Restart;
        handlers.PauseHandler = &Pause;
        handlers.SendNetBufferListsHandler = &Send;
        handlers.SendNetBufferListsCompleteHandler = &SendComplete;
        handlers.ReceiveNetBufferListsHandler = &Receive;
        handlers.ReturnNetBufferListsHandler = &Return;
        return NdisFRegisterFilterDriver(driverObject, kDriver, &handlers, &kDriver->registration);
    }
};

}  // namespace

NDIS_FILTER_DRIVER_CHARACTERISTICS DescribeFilter(PCWSTR friendlyName,
                                                  PCWSTR uniqueName,
                                                  PCWSTR serviceName) {
    NDIS_FILTER_DRIVER_CHARACTERISTICS description{};
    description.Header = {NDIS_OBJECT_TYPE_FILTER_DRIVER_CHARACTERISTICS, 1, sizeof(description)};
    description.MajorNdisVersion = 6;
    RtlInitUnicodeString(&description.FriendlyName, friendlyName);
    RtlInitUnicodeString(&description.UniqueName, uniqueName);
    RtlInitUnicodeString(&description.ServiceName, serviceName);
    return description;
}

DriverSource OtherFilter(bool above) {
    return above ? DriverSource{.name = g_above.name,
                                .entry = &Filter<&g_above>::Entry,
                                .altitude = 100}
                 : DriverSource{
                       .name = g_below.name, .entry = &Filter<&g_below>::Entry, .altitude = -100};
}

}  // namespace netsieve::host
