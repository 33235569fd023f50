#include "packet/injection.h"

#include "client/exports.h"
#include "module/driver_globals.h"
#include "module/trace_log.h"
#include "packet/net_buffer_chain.h"
#include "packet/nirp_pool.h"
#include "packet/own_nbl.h"
#include "platform/atomics.h"
#include "platform/runtime.h"

namespace {

constexpr ULONG ETHERNET_ADDRESSES_SIZE = 12;
constexpr ULONG SOURCE_ADDRESS_OFFSET = 6;

constexpr char LABEL[] = "NSVFSendPacket";
constexpr OWN_NBL_SITES INJECTED_SITES = {.Label = LABEL, .NoNbl = 2391, .NoContext = 2399};

struct INJECTION {
    const UCHAR* Frame;
    ULONG Length;
    bool Deferred;  // the caller may not call NDIS: it runs above PASSIVE_LEVEL
    NBL_CHAIN Nbls = {};
};

void SendInjectedNbl(FILTER_MODULE* module, PNET_BUFFER_LIST nbl) {
    NdisFSendNetBufferLists(module->FilterHandle, nbl, ReadAcquire(&module->LastSendPortNumber), 0);
}

// The NBL keeps its module until it is freed: a module that is paused waits for it.
VOID NTAPI SendPacketWorkItem(PDEVICE_OBJECT, PVOID argument) {
    auto* context = static_cast<NBL_CONTEXT*>(argument);
    FILTER_MODULE* module = context->Module;
    if (ReadAcquire(&module->State) == FILTER_STATE_RUNNING) {
        SendInjectedNbl(module, context->NetBufferList);
    } else {
        FreeOwnNbl(module, context, false);
    }
    LowerDrainCount(&g_DriverGlobals.WorkItems);
}

bool CanSend(FILTER_MODULE* module, const UCHAR* frame)
    REQUIRES_LOCK(g_DriverGlobals.ModuleListLock) {
    if (module->NblPool == nullptr) {
        TraceLog(module, LABEL, 2357, true);
        return false;
    }
    if (ReadAcquire(&module->State) != FILTER_STATE_RUNNING) {
        TraceLog(module, LABEL, 2363, true);
        return false;
    }
    return memcmp(frame + SOURCE_ADDRESS_OFFSET, module->MacAddress, sizeof(module->MacAddress)) ==
           0;
}

NBL_CONTEXT* MakeInjectedNbl(FILTER_MODULE* module, const INJECTION* injection)
    REQUIRES_LOCK(g_DriverGlobals.ModuleListLock) {
    NIRP* nirp = GetNirp(module, injection->Length, true);
    if (nirp == nullptr) {
        return nullptr;
    }
    nirp->DataLength = injection->Length;
    memcpy(nirp->Buffer, injection->Frame, injection->Length);
    return MakeOwnNbl(module, nirp, NBL_TYPE_INJECTED, &INJECTED_SITES, true);
}

// False when the NBL cannot be deferred and has been freed. The device object cannot go while
// the lock is held.
bool AttachWorkItem(FILTER_MODULE* module, NBL_CONTEXT* context)
    REQUIRES_LOCK(g_DriverGlobals.ModuleListLock) {
    if (g_DriverGlobals.DeviceObject != nullptr) {
        context->WorkItem = IoAllocateWorkItem(g_DriverGlobals.DeviceObject);
    }
    if (context->WorkItem == nullptr) {
        TraceLog(module, LABEL, 2412, true);
        FreeOwnNbl(module, context, true);
        return false;
    }
    RaiseDrainCount(&g_DriverGlobals.WorkItems);
    return true;
}

void InjectInto(FILTER_MODULE* module, INJECTION* injection)
    REQUIRES_LOCK(g_DriverGlobals.ModuleListLock) {
    if (!CanSend(module, injection->Frame)) {
        return;
    }
    NBL_CONTEXT* context = MakeInjectedNbl(module, injection);
    if (context == nullptr || (injection->Deferred && !AttachWorkItem(module, context))) {
        return;
    }
    context->NetBufferList->Scratch = context;
    AppendNetBufferList(&injection->Nbls, context->NetBufferList);
}

void MakeInjectedNbls(INJECTION* injection) {
    SpinLockGuard guard(&g_DriverGlobals.ModuleListLock);
    PLIST_ENTRY head = &g_DriverGlobals.ModuleList;
    for (PLIST_ENTRY at = head->Flink; at != head; at = at->Flink) {
        InjectInto(CONTAINING_RECORD(at, FILTER_MODULE, Link), injection);
    }
}

// The NBL and its module may be gone as soon as the NBL is sent or the work item queued.
void GiveAway(PNET_BUFFER_LIST nbl) {
    auto* context = static_cast<NBL_CONTEXT*>(nbl->Scratch);
    if (context->WorkItem != nullptr) {
        IoQueueWorkItem(context->WorkItem, SendPacketWorkItem, CriticalWorkQueue, context);
    } else {
        SendInjectedNbl(context->Module, nbl);
    }
}

}  // namespace

// Every NBL is made in one walk under one hold of the lock: a walk that went on after a call of
// NDIS could find that its module has left ModuleList.
NTSTATUS NSVFSendPacket(const UCHAR* frame, ULONG length) {
    if (frame == nullptr || length < ETHERNET_ADDRESSES_SIZE) {
        return STATUS_SUCCESS;
    }
    INJECTION injection = {
        .Frame = frame, .Length = length, .Deferred = KeGetCurrentIrql() != PASSIVE_LEVEL};
    MakeInjectedNbls(&injection);

    PNET_BUFFER_LIST successor = nullptr;
    for (PNET_BUFFER_LIST nbl = injection.Nbls.Head; nbl != nullptr; nbl = successor) {
        successor = nbl->Next;
        nbl->Next = nullptr;
        GiveAway(nbl);
    }
    return STATUS_SUCCESS;
}

extern "C" NTSTATUS NTAPI ITarnHKSendPacket(PVOID, const VOID* frame, ULONG length) {
    NSVFSendPacket(static_cast<const UCHAR*>(frame), length);
    return STATUS_SUCCESS;
}
