#include "module/module_reference.h"

#include "module/driver_globals.h"

namespace {

bool IsOnList(const LIST_ENTRY* head, const FILTER_MODULE* module)
    REQUIRES_LOCK(g_DriverGlobals.ModuleListLock) {
    const LIST_ENTRY* entry = head->Flink;
    while (entry != head && entry != &module->Link) {
        entry = entry->Flink;
    }
    return entry != head;
}

void RaiseActiveCalls(FILTER_MODULE* module) REQUIRES_LOCK(g_DriverGlobals.ModuleListLock) {
    if (module->ActiveCalls++ == 0) {
        KeClearEvent(&module->IdleEvent);
    }
}

}  // namespace

NDIS_STATUS FASTABI ReferenceFilterModule(FILTER_MODULE* module, bool* heldClosing) {
    *heldClosing = false;
    if (module == nullptr) {
        return NDIS_STATUS_INVALID_PARAMETER;
    }
    SpinLockGuard guard(&g_DriverGlobals.ModuleListLock);
    if (IsOnList(&g_DriverGlobals.ModuleList, module)) {
        RaiseActiveCalls(module);
        return NDIS_STATUS_SUCCESS;
    }
    // Both lists under one hold of the lock: between two, the detach could free the module.
    if (IsOnList(&g_DriverGlobals.DetachingList, module)) {
        RaiseActiveCalls(module);
        *heldClosing = true;
    }
    return NDIS_STATUS_CLOSING;
}

void FASTABI DereferenceFilterModule(FILTER_MODULE* module) {
    if (module == nullptr) {
        return;
    }
    SpinLockGuard guard(&g_DriverGlobals.ModuleListLock);
    if (--module->ActiveCalls == 0) {
        // Inside the lock: detach frees the module as soon as it sees 0 there.
        KeSetEvent(&module->IdleEvent, 0, FALSE);
    }
}
