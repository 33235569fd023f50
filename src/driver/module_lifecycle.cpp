#include "driver/module_lifecycle.h"

#include "hook/hook_notify.h"
#include "hook/hook_table.h"
#include "hook/protocol_table.h"
#include "module/driver_globals.h"
#include "module/filter_module.h"
#include "module/trace_log.h"
#include "module/undo_guard.h"
#include "packet/nirp_pool.h"
#include "packet/pending.h"
#include "platform/atomics.h"
#include "platform/list.h"
#include "platform/runtime.h"

namespace {

constexpr ULONG ETHERNET_MTU = 1500;
constexpr ULONG LOOKAHEAD_SIZE = 128;
constexpr LONGLONG IDLE_WAIT = -30'000'000;  // 3 seconds from now

NDIS_STATUS AllocateFilterModule(const NDIS_FILTER_ATTACH_PARAMETERS* parameters,
                                 FILTER_MODULE** module) {
    ULONG size = sizeof(FILTER_MODULE) + parameters->FilterModuleGuidName->Length +
                 parameters->BaseMiniportInstanceName->Length +
                 parameters->BaseMiniportName->Length;
    PVOID memory = nullptr;
    NDIS_STATUS status = NdisAllocateMemoryWithTag(&memory, size, FILTER_MODULE_TAG);
    if (status != NDIS_STATUS_SUCCESS) {
        return status;
    }
    RtlZeroMemory(memory, size);
    *module = static_cast<FILTER_MODULE*>(memory);
    (*module)->AllocationSize = size;
    return NDIS_STATUS_SUCCESS;
}

// Copies `source` to `storage` and returns where the next name goes.
PWSTR StoreName(PUNICODE_STRING name, PWSTR storage, const UNICODE_STRING* source) {
    name->Length = source->Length;
    name->MaximumLength = source->Length;
    name->Buffer = storage;
    memcpy(storage, source->Buffer, source->Length);
    return storage + source->Length / sizeof(WCHAR);
}

void DescribeAdapter(FILTER_MODULE* module, const NDIS_FILTER_ATTACH_PARAMETERS* parameters) {
    PWSTR storage = module->NameStorage;
    storage = StoreName(&module->FilterModuleName, storage, parameters->FilterModuleGuidName);
    storage =
        StoreName(&module->MiniportInstanceName, storage, parameters->BaseMiniportInstanceName);
    StoreName(&module->MiniportName, storage, parameters->BaseMiniportName);
    module->MiniportIfIndex = parameters->BaseMiniportIfIndex;
    memcpy(module->MacAddress, parameters->CurrentMacAddress, sizeof(module->MacAddress));
}

NDIS_STATUS SetFilterAttributes(FILTER_MODULE* module) {
    NDIS_FILTER_ATTRIBUTES attributes;
    RtlZeroMemory(&attributes, sizeof(attributes));
    attributes.Header.Type = NDIS_OBJECT_TYPE_FILTER_ATTRIBUTES;
    attributes.Header.Revision = 1;
    attributes.Header.Size = sizeof(attributes);
    return NdisFSetAttributes(module->FilterHandle, module, &attributes);
}

// A pool that cannot be made leaves the module working without it; the trace ring tells.
void InitializeFilterModule(FILTER_MODULE* module) {
    WriteRelease(&module->State, FILTER_STATE_PAUSED);
    InitializeDriverSpinLock(&module->StateLock);
    InitializeHookTable(module);
    InitializeProtocolTable(module);
    InitializeDrainCount(&module->OutstandingNbls);
    InitializePendingLists(module);
    InitializeNBLPool(module);
    InitializeListHead(&module->Link);
    InitializeNirpPool(module, ETHERNET_MTU);
    KeInitializeEvent(&module->IdleEvent, NotificationEvent, FALSE);
}

void LinkModule(FILTER_MODULE* module) {
    SpinLockGuard guard(&g_DriverGlobals.ModuleListLock);
    module->AttachSerial = ++g_DriverGlobals.AnnounceSerial;
    InsertTailList(&g_DriverGlobals.ModuleList, &module->Link);
}

void MoveToDetachingList(FILTER_MODULE* module) {
    SpinLockGuard guard(&g_DriverGlobals.ModuleListLock);
    RemoveEntryList(&module->Link);
    InsertTailList(&g_DriverGlobals.DetachingList, &module->Link);
}

bool IsModuleIdle(FILTER_MODULE* module) {
    SpinLockGuard guard(&g_DriverGlobals.ModuleListLock);
    return module->ActiveCalls == 0;
}

// The last call signals the event with the lock held, so when this returns true nobody touches the
// module any more and nobody can find it.
bool LeaveDetachingListIfIdle(FILTER_MODULE* module) {
    SpinLockGuard guard(&g_DriverGlobals.ModuleListLock);
    if (module->ActiveCalls != 0) {
        return false;
    }
    RemoveEntryList(&module->Link);
    return true;
}

void WaitForIdleEvent(FILTER_MODULE* module) {
    LARGE_INTEGER timeout;
    timeout.QuadPart = IDLE_WAIT;
    KeWaitForSingleObject(&module->IdleEvent, Executive, KernelMode, FALSE, &timeout);
}

void SetModuleState(FILTER_MODULE* module, ULONG state) {
    SpinLockGuard guard(&module->StateLock);
    WriteRelease(&module->State, state);
}

// Waits for every walk of the module list that may have read the module's state before this call.
void PassThroughModuleListLock() {
    SpinLockGuard guard(&g_DriverGlobals.ModuleListLock);
}

void FreeFilterModule(FILTER_MODULE* module) {
    FreeTraceLog(module);
    FreeProtocolTable(module);
    NdisFreeMemory(module, 0, 0);
}

}  // namespace

NDIS_STATUS NTAPI NSVFilterAttach(NDIS_HANDLE NdisFilterHandle,
                                  NDIS_HANDLE FilterDriverContext,
                                  PNDIS_FILTER_ATTACH_PARAMETERS AttachParameters) {
    if (FilterDriverContext != &g_DriverGlobals ||
        AttachParameters->MiniportMediaType != NdisMedium802_3) {
        return NDIS_STATUS_INVALID_PARAMETER;
    }
    FILTER_MODULE* module = nullptr;
    NDIS_STATUS status = AllocateFilterModule(AttachParameters, &module);
    if (status != NDIS_STATUS_SUCCESS) {
        return status;
    }
    UndoGuard freeModule([module] { FreeFilterModule(module); });

    InitializeTraceLog(module);
    DescribeAdapter(module, AttachParameters);
    module->FilterHandle = NdisFilterHandle;
    status = SetFilterAttributes(module);
    if (status != NDIS_STATUS_SUCCESS) {
        TraceLog(module, "NSVFilterAttach", 651, false);
        return status;
    }
    // No way back from here: NDIS knows the module now, and setting attributes has no inverse.
    freeModule.Dismiss();

    InitializeFilterModule(module);
    LinkModule(module);
    NotifyHooksAdapterAttach(module);
    return NDIS_STATUS_SUCCESS;
}

VOID NTAPI NSVFilterDetach(NDIS_HANDLE FilterModuleContext) {
    auto* module = static_cast<FILTER_MODULE*>(FilterModuleContext);
    MoveToDetachingList(module);
    while (!IsModuleIdle(module)) {
        WaitForIdleEvent(module);
    }
    NotifyHooksAdapterDetach(module);

    // Before the module leaves the list: the NBLs it waits for come back through calls that must
    // find it there.
    WaitForDrain(&module->OutstandingNbls);
    while (!LeaveDetachingListIfIdle(module)) {
        WaitForIdleEvent(module);
    }
    FreeUnpaidNirps(module);
    FreeNirpPool(module);
    FreeNBLPool(module);
    FreeFilterModule(module);
}

NDIS_STATUS NTAPI NSVFilterRestart(NDIS_HANDLE FilterModuleContext,
                                   PNDIS_FILTER_RESTART_PARAMETERS Parameters) {
    auto* module = static_cast<FILTER_MODULE*>(FilterModuleContext);
    if (Parameters->RestartAttributes != nullptr) {
        // The general attributes come first.
        auto* general =
            reinterpret_cast<PNDIS_RESTART_GENERAL_ATTRIBUTES>(Parameters->RestartAttributes->Data);
        general->LookaheadSize = LOOKAHEAD_SIZE;
    }
    SetModuleState(module, FILTER_STATE_RUNNING);
    return NDIS_STATUS_SUCCESS;
}

NDIS_STATUS NTAPI NSVFilterPause(NDIS_HANDLE FilterModuleContext, PNDIS_FILTER_PAUSE_PARAMETERS) {
    auto* module = static_cast<FILTER_MODULE*>(FilterModuleContext);
    SetModuleState(module, FILTER_STATE_PAUSED);
    FlushPendingSends(module);
    FlushPendingReceives(module);

    // An injection that saw the module running has counted its NBL by the time the lock is free.
    PassThroughModuleListLock();
    WaitForDrain(&module->OutstandingNbls);
    return NDIS_STATUS_SUCCESS;
}
