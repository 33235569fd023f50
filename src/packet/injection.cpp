#include "packet/injection.h"

#include "client/exports.h"
#include "module/driver_globals.h"
#include "module/trace_log.h"
#include "packet/net_buffer_chain.h"
#include "packet/nirp_pool.h"
#include "packet/own_list.h"
#include "platform/atomics.h"
#include "platform/runtime.h"

namespace {

constexpr ULONG ETHERNET_ADDRESSES_SIZE = 12;
constexpr ULONG SOURCE_ADDRESS_OFFSET = 6;

constexpr char LABEL[] = "NSVFSendPacket";
constexpr OWN_LIST_SITES INJECTED_SITES = {.Label = LABEL, .NoList = 2391, .NoContext = 2399};

struct INJECTION {
    const UCHAR* Frame;
    ULONG Length;
    bool Deferred;  // the caller may not call NDIS: it runs above PASSIVE_LEVEL
    NBL_CHAIN Lists = {};
};

void SendInjectedList(FILTER_MODULE* module, PNET_BUFFER_LIST list) {
    NdisFSendNetBufferLists(module->FilterHandle, list, ReadAcquire(&module->LastSendPortNumber),
                            0);
}

// The list keeps its module until it is freed, and a module that is paused waits for it.
VOID NTAPI SendPacketWorkItem(PDEVICE_OBJECT, PVOID argument) {
    auto* context = static_cast<NBL_CONTEXT*>(argument);
    FILTER_MODULE* module = context->Module;
    if (ReadAcquire(&module->State) == FILTER_STATE_RUNNING) {
        SendInjectedList(module, context->NetBufferList);
    } else {
        FreeOwnList(module, context, FALSE);
    }
    LowerDrainCount(&g_DriverGlobals.WorkItems, FALSE);
}

// ModuleListLock is held, as in all that follows up to the walk.
bool CanSend(FILTER_MODULE* module, const UCHAR* frame) {
    if (module->NblPool == nullptr) {
        TraceLog(module, LABEL, 2357, TRUE);
        return false;
    }
    if (ReadAcquire(&module->State) != FILTER_STATE_RUNNING) {
        TraceLog(module, LABEL, 2363, TRUE);
        return false;
    }
    return memcmp(frame + SOURCE_ADDRESS_OFFSET, module->MacAddress, sizeof(module->MacAddress)) ==
           0;
}

NBL_CONTEXT* MakeInjectedList(FILTER_MODULE* module, const INJECTION* injection) {
    NIRP* nirp = GetNirp(module, injection->Length, TRUE);
    if (nirp == nullptr) {
        return nullptr;
    }
    nirp->DataLength = injection->Length;
    memcpy(nirp->Buffer, injection->Frame, injection->Length);
    return MakeOwnList(module, nirp, NBL_TYPE_INJECTED, &INJECTED_SITES, TRUE);
}

// False when the list cannot be deferred and has been given up. The device object cannot go while
// the lock is held.
bool AttachWorkItem(FILTER_MODULE* module, NBL_CONTEXT* context) {
    if (g_DriverGlobals.DeviceObject != nullptr) {
        context->WorkItem = IoAllocateWorkItem(g_DriverGlobals.DeviceObject);
    }
    if (context->WorkItem == nullptr) {
        TraceLog(module, LABEL, 2412, TRUE);
        FreeOwnList(module, context, TRUE);
        return false;
    }
    RaiseDrainCount(&g_DriverGlobals.WorkItems, TRUE);
    return true;
}

void InjectInto(FILTER_MODULE* module, INJECTION* injection) {
    if (!CanSend(module, injection->Frame)) {
        return;
    }
    NBL_CONTEXT* context = MakeInjectedList(module, injection);
    if (context == nullptr || (injection->Deferred && !AttachWorkItem(module, context))) {
        return;
    }
    context->NetBufferList->Scratch = context;
    AppendNetBufferList(&injection->Lists, context->NetBufferList);
}

void MakeLists(INJECTION* injection) {
    SpinLockGuard guard(&g_DriverGlobals.ModuleListLock);
    PLIST_ENTRY head = &g_DriverGlobals.ModuleList;
    for (PLIST_ENTRY at = head->Flink; at != head; at = at->Flink) {
        InjectInto(CONTAINING_RECORD(at, FILTER_MODULE, Link), injection);
    }
}

// Each list and its module may be gone as soon as the list is given away.
void GiveAway(PNET_BUFFER_LIST list) {
    auto* context = static_cast<NBL_CONTEXT*>(list->Scratch);
    if (context->WorkItem != nullptr) {
        IoQueueWorkItem(context->WorkItem, SendPacketWorkItem, CriticalWorkQueue, context);
    } else {
        SendInjectedList(context->Module, list);
    }
}

}  // namespace

// Every list is made in one walk, and the lock is let go of once: a walk that was to go on behind a
// call of NDIS could find that its module has left the list.
NTSTATUS NSVFSendPacket(const UCHAR* frame, ULONG length) {
    if (frame == nullptr || length < ETHERNET_ADDRESSES_SIZE) {
        return STATUS_SUCCESS;
    }
    INJECTION injection = {
        .Frame = frame, .Length = length, .Deferred = KeGetCurrentIrql() != PASSIVE_LEVEL};
    MakeLists(&injection);

    PNET_BUFFER_LIST successor = nullptr;
    for (PNET_BUFFER_LIST list = injection.Lists.Head; list != nullptr; list = successor) {
        successor = list->Next;
        list->Next = nullptr;
        GiveAway(list);
    }
    return STATUS_SUCCESS;
}

extern "C" NTSTATUS NTAPI ITarnHKSendPacket(PVOID, const VOID* frame, ULONG length) {
    NSVFSendPacket(static_cast<const UCHAR*>(frame), length);
    return STATUS_SUCCESS;
}
