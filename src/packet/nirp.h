// The packet record: the copy of one frame that hooks are shown, and what the driver has to know
// about the frame until it is settled.
#pragma once

#include "driver/spin_lock.h"
#include "hook/exports.h"

struct NBL_CONTEXT;

// Ends a request that was made pending on the record. IRQL <= DISPATCH_LEVEL.
using NIRP_COMPLETION_ROUTINE = VOID(NTAPI*)(NIRP* nirp, ULONG status);

constexpr ULONG NIRP_STATE_IDLE = 0;       // in the pool, or just handed out
constexpr ULONG NIRP_STATE_SEND = 1;       // offered on the way down; stays so while withheld
constexpr ULONG NIRP_STATE_RECEIVE = 3;    // offered on the way up; stays so while withheld
constexpr ULONG NIRP_STATE_PENDING = 4;    // marked pending: a clone exists
constexpr ULONG NIRP_STATE_COMPLETED = 5;  // the request is finished
constexpr ULONG NIRP_STATE_RELEASED = 6;   // the buffer is back in its list, the request is not

constexpr ULONG NIRP_DIRECTION_SEND = 1;
constexpr ULONG NIRP_DIRECTION_RECEIVE = 2;

// What can keep an offered record out of its pool. They end in any order, and whoever ends the last
// one returns the record.
constexpr ULONG NIRP_HOLD_LIST = 1;     // its buffer is withheld from its list
constexpr ULONG NIRP_HOLD_REQUEST = 2;  // a request on it is not finished
constexpr ULONG NIRP_HOLD_MARKS = 4;    // a hook owes the completion of a mark

// Allocated with its module and freed with it. A record that is out of the pool and not withheld
// belongs to one path alone, which needs no lock for it.
struct NIRP {
    LIST_ENTRY FreeLink;            // in a free list; under that list's lock
    LIST_ENTRY PendingSendLink;     // under PendingSendLock
    LIST_ENTRY PendingReceiveLink;  // under PendingReceiveLock
    ULONG BufferCapacity;           // 0 without a buffer
    PMDL Mdl;                       // describes all of Buffer
    ULONG PendingCount;             // marks that are not completed yet
    LIST_ENTRY ContextLink;         // in the Nirps of a list's context; under that context's lock
    PNET_BUFFER PrevNetBuffer;      // where a withheld NetBuffer goes back; NULL is the head
    PNET_BUFFER NetBuffer;          // the frame that was copied
    NBL_CONTEXT* Context;           // of the list that NetBuffer came in; NULL once it is restored
    NIRP_COMPLETION_ROUTINE CompletionRoutine;
    ULONG CompletionStatus;
    // Guards the steps of State from NIRP_STATE_PENDING on, and Holds. A leaf.
    DRIVER_SPIN_LOCK Lock;
    ULONG State;  // written by WriteRelease, read by ReadAcquire outside the lock
    NIRP* Clone;
    ULONG DataLength;  // of the frame; never above BufferCapacity
    PUCHAR Buffer;
    PROTOCOL_ENTRY* Protocol;  // who sent the frame; NULL when that is not known
    ULONG Direction;
    NDIS_HANDLE SendSourceHandle;
    NDIS_HANDLE ReceiveSourceHandle;
    FILTER_MODULE* Module;  // never changes
    ULONG Holds;            // NIRP_HOLD_ values; set before the record is offered, then under Lock
};
