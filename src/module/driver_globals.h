// The driver-wide state.
#pragma once

#include "module/drain_count.h"
#include "module/locked_list.h"
#include "platform/ndis.h"

// Its address is the filter driver context that NDIS hands to the attach handler.
struct FILTER_DRIVER_GLOBALS {
    PDRIVER_OBJECT DriverObject;

    // Guards ModuleList, DetachingList, the ActiveCalls of every module, AnnounceSerial and
    // DeviceObject. Inside it may be taken: a module's HookLock, free-list and trace lock, and the
    // lock of a DRAIN_COUNT. Never held together with the lock of HookList.
    DRIVER_SPIN_LOCK ModuleListLock;
    LIST_ENTRY ModuleList
        GUARDED_BY(ModuleListLock);  // the attached FILTER_MODULEs, in the order of their attach

    LOCKED_LIST HookList;  // the registered HOOK_FILTERs; inside its lock, a module's HookLock

    NDIS_HANDLE FilterDriverHandle;  // NULL while not registered; DriverEntry and unload only
    PDEVICE_OBJECT DeviceObject GUARDED_BY(ModuleListLock);  // NULL while there is none

    // Modules that have left ModuleList and are not freed yet: NBLs that reach one of them are
    // completed or returned by its handle.
    LIST_ENTRY DetachingList GUARDED_BY(ModuleListLock);

    // Numbers the modules as they join ModuleList and the hooks as they are announced to it, so
    // that the two ways in which a module and a hook can meet agree on who announces it.
    ULONGLONG AnnounceSerial GUARDED_BY(ModuleListLock);

    // Deregistrations in progress, and hooks that were taken down while handlers of them run.
    DRAIN_COUNT LeavingHooks;

    // Work items from their allocation, which needs DeviceObject and its lock, to the end of their
    // routines: the device outlives them.
    DRAIN_COUNT WorkItems;

    ULONG OsMajorVersion;  // 0 until it was asked for; WriteRelease and ReadAcquire
};

// Zeroed by DriverEntry before anything else uses it.
extern FILTER_DRIVER_GLOBALS g_DriverGlobals;
