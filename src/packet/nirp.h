// The NIRP, the packet record: the copy of one frame that hooks are shown, and what the driver has
// to know about the frame until it is settled.
#pragma once

#include "hook/hook_dispatch.h"
#include "module/spin_lock.h"

struct NBL_CONTEXT;

// Ends a request that was made pending on the NIRP. IRQL <= DISPATCH_LEVEL.
using NIRP_COMPLETION_ROUTINE = void(FASTABI*)(NIRP* nirp, ULONG status);

// What becomes of a NIRP is decided in packet/nirp_life.h; the diagram of these states is there.
constexpr ULONG NIRP_STATE_IDLE = 0;       // carries no frame that a hook may mark
constexpr ULONG NIRP_STATE_SEND = 1;       // offered on the send path; stays so while withheld
constexpr ULONG NIRP_STATE_RECEIVE = 3;    // offered on the receive path; stays so while withheld
constexpr ULONG NIRP_STATE_PENDING = 4;    // marked pending: a clone exists
constexpr ULONG NIRP_STATE_COMPLETED = 5;  // the request is finished
constexpr ULONG NIRP_STATE_RELEASED = 6;   // the NET_BUFFER is back in its NBL, the request is not

// What keeps a NIRP out of its pool. They end in any order, and whoever ends the last one returns
// the NIRP.
constexpr ULONG NIRP_HOLD_NBL = 1;      // its NET_BUFFER is on offer, or withheld from its NBL
constexpr ULONG NIRP_HOLD_REQUEST = 2;  // a request on it is not finished
constexpr ULONG NIRP_HOLD_MARKS = 4;    // a hook has yet to complete a mark
constexpr ULONG NIRP_HOLD_OFFER = 8;    // its hooks are being called, and none has marked it
constexpr ULONG NIRP_HOLD_CLAIM = 16;   // one for each mark that is copying the frame: a count

// The one of a module's four lists of taken-over NIRPs that a NIRP is on. It is changed under the
// lock of that list, so whoever finds the list's own value under its lock knows that the NIRP
// stays.
constexpr ULONG NIRP_LIST_NONE = 0;
constexpr ULONG NIRP_LIST_PENDING_SEND = 1;
constexpr ULONG NIRP_LIST_PENDING_RECEIVE = 2;
constexpr ULONG NIRP_LIST_UNPAID_SEND = 3;
constexpr ULONG NIRP_LIST_UNPAID_RECEIVE = 4;

// Allocated with its module and freed with it. Its user has a NIRP that was taken from the pool to
// itself; once it has been offered, nirp_life.h says who may do what with it.
struct NIRP {
    LIST_ENTRY FreeLink;            // in a free list; under that list's lock
    LIST_ENTRY PendingSendLink;     // under PendingSendLock
    LIST_ENTRY PendingReceiveLink;  // under PendingReceiveLock
    ULONG BufferCapacity;           // 0 without a buffer
    PMDL Mdl;                       // describes all of Buffer
    ULONG PendingCount;             // marks not completed yet; under the lock of the list it is on
    LIST_ENTRY ContextLink;         // in the Nirps of an NBL's context; under that context's lock
    PNET_BUFFER PrevNetBuffer;      // where a withheld NetBuffer goes back; NULL is the head
    PNET_BUFFER NetBuffer;          // the frame that was copied
    NBL_CONTEXT* Context;           // of the NBL that NetBuffer is of; valid under NIRP_HOLD_NBL
    NIRP_COMPLETION_ROUTINE CompletionRoutine;
    ULONG CompletionStatus;  // under the lock of the pending list
    // Held while a mark reads the NBL of the offer. Whoever ends an offer that marks have claims on
    // takes and releases it, so that the NBL does not leave while a mark reads it. A leaf.
    DRIVER_SPIN_LOCK Lock;
    ULONG State;       // written and read as one with Holds: see nirp_life.h
    ULONG Holds;       // NIRP_HOLD_ values
    NIRP* Clone;       // of the pending request; under the lock of the pending list
    ULONG DataLength;  // of the frame; never above BufferCapacity
    PUCHAR Buffer;
    PROTOCOL_ENTRY* Protocol;  // who sent the frame; NULL when that is not known
    ULONG Direction;
    NDIS_HANDLE SendSourceHandle;
    NDIS_HANDLE ReceiveSourceHandle;
    FILTER_MODULE* Module;  // never changes
    ULONG OnList;           // a NIRP_LIST_ value; WriteRelease and ReadAcquire
};
static_assert(offsetof(NIRP, State) % sizeof(ULONGLONG) == 0 &&
                  offsetof(NIRP, Holds) == offsetof(NIRP, State) + sizeof(ULONG),
              "State and Holds change in one interlocked operation");
