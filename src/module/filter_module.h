// The filter module: the record of one adapter that the filter is bound to. Its address is the
// FilterModuleContext of every handler.
#pragma once

#include "client/exports.h"
#include "module/driver_globals.h"
#include "module/spin_lock.h"
#include "platform/ndis.h"

constexpr ULONG FILTER_MODULE_TAG = 0x6676736E;  // "nsvf"

constexpr ULONG MAX_MODULE_HOOKS = HOOK_MODULE_LIMIT;
constexpr ULONG MAX_MODULE_PROTOCOLS = 24;

constexpr ULONG FILTER_STATE_PAUSED = 3;
constexpr ULONG FILTER_STATE_RUNNING = 4;

// Zeroed when it is allocated. Fields without a lock of their own are written before the module
// joins ModuleList, and never again.
struct FILTER_MODULE {
    LIST_ENTRY Link
        GUARDED_BY(g_DriverGlobals.ModuleListLock);  // in ModuleList, later in DetachingList
    ULONG AllocationSize;
    UCHAR MacAddress[6];
    NDIS_HANDLE FilterHandle;

    // The adapter's names, their characters in NameStorage and without a NUL.
    UNICODE_STRING FilterModuleName;
    UNICODE_STRING MiniportInstanceName;
    UNICODE_STRING MiniportName;
    NET_IFINDEX MiniportIfIndex;

    ULONG State;                 // written under StateLock, read by ReadAcquire
    DRIVER_SPIN_LOCK StateLock;  // guards changes of State; a leaf

    // Free NIRPs, in two sizes.
    LIST_ENTRY SmallNirpList GUARDED_BY(SmallNirpLock);
    DRIVER_SPIN_LOCK SmallNirpLock;  // guards SmallNirpList; a leaf
    ULONG SmallNirpCapacity;
    LIST_ENTRY LargeNirpList GUARDED_BY(LargeNirpLock);
    DRIVER_SPIN_LOCK LargeNirpLock;  // guards LargeNirpList; a leaf
    ULONG FreeNirpCount;             // on both lists; changed atomically, outside their locks

    // Requests that hooks have marked pending.
    LIST_ENTRY PendingSendList GUARDED_BY(PendingSendLock);
    DRIVER_SPIN_LOCK PendingSendLock;  // guards PendingSendList; a leaf
    LIST_ENTRY PendingReceiveList GUARDED_BY(PendingReceiveLock);
    DRIVER_SPIN_LOCK PendingReceiveLock;  // the same for PendingReceiveList

    NDIS_HANDLE NblPool;       // NULL when it could not be created
    ULONG LastSendPortNumber;  // of the latest send; WriteRelease and ReadAcquire

    // The attached hooks. Hooks[0] to Hooks[HookCount - 1] are in ascending order of priority, what
    // lies behind them is stale.
    HOOK_FILTER* Hooks[MAX_MODULE_HOOKS] GUARDED_BY(HookLock);
    LONG HookCount GUARDED_BY(HookLock);  // also read by ReadAcquire
    HOOK_FILTER* HookSlots[MAX_MODULE_HOOKS] GUARDED_BY(HookLock);
    DRIVER_SPIN_LOCK HookLock;  // guards these and HookTableClosed; a leaf

    // The ring of trace lines; NULL when it could not be allocated.
    PUCHAR TraceBuffer;
    DRIVER_SPIN_LOCK TraceLock;  // guards the ring's bytes and the two below; a leaf
    ULONG TraceSequence GUARDED_BY(TraceLock);
    ULONG TraceOffset GUARDED_BY(TraceLock);

    // The protocols that have sent through the module. Entries are only appended, and an entry
    // below ProtocolCount never changes.
    ULONG ProtocolCount;  // written under ProtocolLock, read by ReadAcquire
    PVOID ProtocolHandles[MAX_MODULE_PROTOCOLS];
    PROTOCOL_ENTRY ProtocolNames[MAX_MODULE_PROTOCOLS];

    // Data-path calls in progress. The event is cleared as the count rises from 0 and signalled as
    // it falls to 0, while ModuleListLock is held.
    ULONG ActiveCalls GUARDED_BY(g_DriverGlobals.ModuleListLock);
    KEVENT IdleEvent;

    DRIVER_SPIN_LOCK ProtocolLock;              // guards growth of the protocol table; a leaf
    bool HookTableClosed GUARDED_BY(HookLock);  // nothing can be attached any more
    ULONGLONG AttachSerial;                     // of joining ModuleList

    // NIRPs whose request a pause has dropped and whose marks are not all completed yet.
    LIST_ENTRY UnpaidSendList GUARDED_BY(PendingSendLock);
    LIST_ENTRY UnpaidReceiveList GUARDED_BY(PendingReceiveLock);

    // NBLs of the driver's own that NDIS or a pending request holds.
    DRAIN_COUNT OutstandingNbls;

    WCHAR NameStorage[];  // the three names, back to back
};
static_assert(offsetof(FILTER_MODULE, NameStorage) == sizeof(FILTER_MODULE));
