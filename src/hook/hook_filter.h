// The record of a registered hook filter. Clients hold its address as their handle.
#pragma once

#include "client/exports.h"
#include "module/locked_list.h"

constexpr ULONG HOOK_FILTER_TAG = 0x746F666E;  // "nfot"
constexpr ULONG HOOK_CLASS = 254;
constexpr ULONG HOOK_SLOT_NONE = 0x7FFF7FFF;

// The fields from MajorVersion to Context are written before the hook is announced to anyone, and
// cleared when the record is freed.
struct HOOK_FILTER {
    LIST_ENTRY Link;  // in HookList, under its lock; first, because the list hands it out
    UCHAR MajorVersion;
    UCHAR MinorVersion;
    HOOK_ATTACH_NOTIFY AttachNotify;
    HOOK_DETACH_NOTIFY DetachNotify;
    HOOK_UNLOAD_NOTIFY UnloadNotify;
    PVOID Reserved;
    HOOK_PACKET_HANDLER SendHandler;
    HOOK_PACKET_HANDLER ReceiveHandler;
    UCHAR OpaqueData[HOOK_OPAQUE_SIZE];
    ULONG Priority;
    UNICODE_STRING Name;  // its buffer belongs to the record
    PVOID Context;

    ULONG Class;
    ULONG AttachCount;  // entries in the tables of all modules; atomic
    ULONG State;        // HOOK_STATE_ values; WriteRelease and ReadAcquire
    ULONG SlotIndex;    // claimed last, in whichever module; WriteRelease and ReadAcquire
    LOCKED_LIST PrivateList;

    // What keeps the record allocated, as one number: a handler call must not pay for two
    // interlocked operations on each side. hook_life.h has the parts and their rules.
    union {
        volatile ULONGLONG Holds;
        struct {
            ULONG BusyCount;   // handler calls in progress, on all processors
            ULONG OwnerCount;  // registrations and the like
        };
    };

    NDIS_TIMER HookIdleTimer;
    NDIS_EVENT HookIdleEvent;
    UCHAR UnloadNotified;  // 1 from just before UnloadNotify is called

    // HookIdleTimer is armed, or its routine runs; WriteRelease and ReadAcquire.
    UCHAR TimerRunning;
    ULONG Life;                 // a HOOK_LIFE_ value; changed as hook_life.h says
    ULONGLONG AnnounceSerial;   // of the announcement to the modules; under ModuleListLock
    NDIS_EVENT TakenDownEvent;  // signalled when the hook is in no table any more
};
static_assert(offsetof(HOOK_FILTER, Link) == 0);
static_assert(offsetof(HOOK_FILTER, BusyCount) == offsetof(HOOK_FILTER, Holds));

// Makes a stopped hook with one registration, on no list and with nothing of the client's but
// `context`. NULL when there is no memory. IRQL <= DISPATCH_LEVEL.
HOOK_FILTER* AllocateHookFilter(PVOID context);

// Frees a hook that nothing holds any more. IRQL <= DISPATCH_LEVEL, no lock held.
void FreeHookFilter(HOOK_FILTER* hook);
