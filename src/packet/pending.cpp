#include "packet/pending.h"

#include "driver/trace_log.h"
#include "packet/nirp_pool.h"
#include "packet/own_list.h"
#include "platform/atomics.h"
#include "platform/list.h"
#include "platform/runtime.h"

namespace {

constexpr OWN_LIST_SITES CLONE_SITES = {.Label = "CreateCloneNBL", .NoList = 582, .NoContext = 590};

// What differs between the requests of the two directions. A record is on Pending exactly while its
// Clone is set, and on Unpaid after a flush while it has marks left; under Lock both.
struct PENDING_LIST {
    PLIST_ENTRY Pending;
    PLIST_ENTRY Unpaid;
    DRIVER_SPIN_LOCK* Lock;
    SIZE_T LinkOffset;  // of the link that both lists use, in the record
    ULONG OfferedState;
    ULONG CloneType;
};

PENDING_LIST PendingListOf(FILTER_MODULE* module, ULONG direction) {
    if (direction == NIRP_DIRECTION_SEND) {
        return {&module->PendingSendList,        &module->UnpaidSendList, &module->PendingSendLock,
                offsetof(NIRP, PendingSendLink), NIRP_STATE_SEND,         NBL_TYPE_SEND_CLONE};
    }
    return {&module->PendingReceiveList, &module->UnpaidReceiveList,
            &module->PendingReceiveLock, offsetof(NIRP, PendingReceiveLink),
            NIRP_STATE_RECEIVE,          NBL_TYPE_RECEIVE_CLONE};
}

PLIST_ENTRY LinkOf(const PENDING_LIST& list, NIRP* nirp) {
    return reinterpret_cast<PLIST_ENTRY>(reinterpret_cast<PUCHAR>(nirp) + list.LinkOffset);
}

NIRP* NirpOf(const PENDING_LIST& list, PLIST_ENTRY link) {
    return reinterpret_cast<NIRP*>(reinterpret_cast<PUCHAR>(link) - list.LinkOffset);
}

// A copy of the record in a list of the driver's own, or NULL.
NIRP* CreateCloneNBL(FILTER_MODULE* module, NIRP* nirp, ULONG cloneType) {
    NIRP* clone = GetNirp(module, nirp->BufferCapacity, FALSE);
    if (clone == nullptr) {
        return nullptr;
    }
    clone->DataLength = nirp->DataLength;
    memcpy(clone->Buffer, nirp->Buffer, nirp->DataLength);
    return MakeOwnList(module, clone, cloneType, &CLONE_SITES, FALSE) == nullptr ? nullptr : clone;
}

// The lock of the list is held. One more mark on a request that is pending already.
bool JoinRequest(NIRP* nirp) {
    if (nirp->Clone == nullptr) {
        return false;
    }
    InterlockedIncrement(&nirp->PendingCount);
    return true;
}

// The lock of the list is held. False when the record is not being offered, or not any more. The
// exchange settles it with the path that offers: what the path has let pass cannot be marked, and
// what was marked it does not let pass. The state of the module is read under the lock that the
// flush of a pause takes after changing it, so nothing becomes pending behind the flush.
bool BeginRequest(const PENDING_LIST& list, NIRP* nirp, NIRP* clone) {
    SpinLockGuard guard(&nirp->Lock, TRUE);
    if (ReadAcquire(&nirp->Module->State) != FILTER_STATE_RUNNING ||
        InterlockedCompareExchange(&nirp->State, NIRP_STATE_PENDING, list.OfferedState) !=
            list.OfferedState) {
        return false;
    }
    nirp->Holds |= NIRP_HOLD_REQUEST | NIRP_HOLD_MARKS;
    nirp->CompletionStatus = STATUS_SUCCESS;
    nirp->Clone = clone;
    InterlockedIncrement(&nirp->PendingCount);
    InsertTailList(list.Pending, LinkOf(list, nirp));
    return true;
}

enum MARK_RESULT { MARK_JOINED, MARK_BEGUN, MARK_REFUSED };

// Without a clone only a request that is pending already can be marked.
MARK_RESULT TryMark(const PENDING_LIST& list, NIRP* nirp, NIRP* clone) {
    SpinLockGuard guard(list.Lock);
    if (JoinRequest(nirp)) {
        return MARK_JOINED;
    }
    return clone != nullptr && BeginRequest(list, nirp, clone) ? MARK_BEGUN : MARK_REFUSED;
}

bool IsOffered(const PENDING_LIST& list, NIRP* nirp) {
    return ReadAcquire(&nirp->State) == list.OfferedState;
}

// The lock of the list is held, and the record is on Pending: the caller owns the request from here
// on, and what it returns goes with it.
NIRP* TakeRequest(const PENDING_LIST& list, NIRP* nirp) {
    NIRP* clone = nirp->Clone;
    nirp->Clone = nullptr;
    RemoveEntryList(LinkOf(list, nirp));
    return clone;
}

// The lock of the list is held. A mark that was left after a flush is completed now; true when it
// was the last. A completion that no mark is left for changes nothing.
bool PayMark(const PENDING_LIST& list, NIRP* nirp) {
    if (ReadAcquire(&nirp->PendingCount) == 0 || InterlockedDecrement(&nirp->PendingCount) != 0) {
        return false;
    }
    RemoveEntryList(LinkOf(list, nirp));
    return true;
}

// The lock of the list is held, which a pause takes for its flush after changing the module's
// state: what the flush has not met yet is dropped all the same.
ULONG StatusOfRequest(NIRP* nirp) {
    bool running = ReadAcquire(&nirp->Module->State) == FILTER_STATE_RUNNING;
    return running ? nirp->CompletionStatus : static_cast<ULONG>(NDIS_STATUS_PAUSED);
}

struct COMPLETION {
    NIRP* Clone;  // when this was the last completion: the caller owns the request
    ULONG Status;
    bool Late;      // no request is pending on the record
    bool LastMark;  // of those that a flush left
};

COMPLETION CountCompletion(const PENDING_LIST& list, NIRP* nirp, ULONG status) {
    COMPLETION completion = {};
    SpinLockGuard guard(list.Lock);
    if (nirp->Clone == nullptr) {
        completion.Late = true;
        completion.LastMark = PayMark(list, nirp);
    } else if (DecrementNirpPending(nirp, status) == STATUS_SUCCESS) {
        completion.Status = StatusOfRequest(nirp);
        completion.Clone = TakeRequest(list, nirp);
    }
    return completion;
}

// The record goes first: giving up the clone lets go of the module.
void DropClone(FILTER_MODULE* module, NIRP* nirp, NIRP* clone, ULONG holds) {
    NBL_CONTEXT* context = clone->Context;
    ReleaseNirpHolds(module, nirp, holds, FALSE);
    FreeOwnList(module, context, FALSE);
}

// Completes one mark. Returns the context of the clone when that is to go on its way, else NULL.
NBL_CONTEXT* CompleteMark(NIRP* nirp, ULONG status, ULONG direction, PCSTR label, ULONG site) {
    FILTER_MODULE* module = nirp->Module;
    COMPLETION completion = CountCompletion(PendingListOf(module, direction), nirp, status);
    if (completion.Late) {
        TraceLog(module, label, site, FALSE);
    }
    if (completion.LastMark) {
        ReleaseNirpHolds(module, nirp, NIRP_HOLD_MARKS, FALSE);
    }
    if (completion.Clone == nullptr) {
        return nullptr;
    }
    constexpr ULONG holds = NIRP_HOLD_REQUEST | NIRP_HOLD_MARKS;
    if (completion.Status != STATUS_SUCCESS) {
        DropClone(module, nirp, completion.Clone, holds);
        return nullptr;
    }
    NBL_CONTEXT* context = completion.Clone->Context;
    ReleaseNirpHolds(module, nirp, holds, FALSE);
    return context;
}

// Takes the first request off the list, and returns its record, with the clone in `*clone`; NULL
// when none is pending.
NIRP* TakeFirstForFlush(const PENDING_LIST& list, NIRP** clone) {
    SpinLockGuard guard(list.Lock);
    if (IsListEmpty(list.Pending)) {
        return nullptr;
    }
    NIRP* nirp = NirpOf(list, list.Pending->Flink);
    *clone = TakeRequest(list, nirp);
    InsertTailList(list.Unpaid, LinkOf(list, nirp));
    return nirp;
}

void FlushPending(FILTER_MODULE* module, ULONG direction) {
    PENDING_LIST list = PendingListOf(module, direction);
    NIRP* clone = nullptr;
    while (NIRP* nirp = TakeFirstForFlush(list, &clone)) {
        DropClone(module, nirp, clone, NIRP_HOLD_REQUEST);
    }
}

NIRP* TakeUnpaid(const PENDING_LIST& list) {
    SpinLockGuard guard(list.Lock);
    return IsListEmpty(list.Unpaid) ? nullptr : NirpOf(list, RemoveHeadList(list.Unpaid));
}

void MakeEmpty(const PENDING_LIST& list) {
    InitializeListHead(list.Pending);
    InitializeListHead(list.Unpaid);
    InitializeDriverSpinLock(list.Lock);
}

}  // namespace

void InitializePendingLists(FILTER_MODULE* module) {
    MakeEmpty(PendingListOf(module, NIRP_DIRECTION_SEND));
    MakeEmpty(PendingListOf(module, NIRP_DIRECTION_RECEIVE));
}

NTSTATUS DecrementNirpPending(NIRP* nirp, ULONG status) {
    if (status != STATUS_SUCCESS) {
        nirp->CompletionStatus = status;
    }
    return InterlockedDecrement(&nirp->PendingCount) == 0 ? STATUS_SUCCESS : STATUS_UNSUCCESSFUL;
}

VOID NTAPI NSVFSendPendingComplete(NIRP* nirp, ULONG status) {
    FILTER_MODULE* module = nirp->Module;
    NBL_CONTEXT* clone =
        CompleteMark(nirp, status, NIRP_DIRECTION_SEND, "NSVFSendPendingComplete", 2116);
    if (clone != nullptr) {
        NdisFSendNetBufferLists(module->FilterHandle, clone->NetBufferList, clone->PortNumber, 0);
    }
}

VOID NTAPI NSVFReceivePendingComplete(NIRP* nirp, ULONG status) {
    FILTER_MODULE* module = nirp->Module;
    NBL_CONTEXT* clone =
        CompleteMark(nirp, status, NIRP_DIRECTION_RECEIVE, "NSVFReceivePendingComplete", 2199);
    if (clone != nullptr) {
        NdisFIndicateReceiveNetBufferLists(module->FilterHandle, clone->NetBufferList,
                                           clone->PortNumber, 1, 0);
    }
}

void FlushPendingSends(FILTER_MODULE* module) {
    FlushPending(module, NIRP_DIRECTION_SEND);
}

void FlushPendingReceives(FILTER_MODULE* module) {
    FlushPending(module, NIRP_DIRECTION_RECEIVE);
}

NIRP* TakeUnpaidNirp(FILTER_MODULE* module) {
    NIRP* nirp = TakeUnpaid(PendingListOf(module, NIRP_DIRECTION_SEND));
    return nirp != nullptr ? nirp : TakeUnpaid(PendingListOf(module, NIRP_DIRECTION_RECEIVE));
}

extern "C" {

NTSTATUS NTAPI ITarnHKMarkPending(NIRP* nirp) {
    if (nirp == nullptr) {
        return STATUS_INVALID_PARAMETER;
    }
    PENDING_LIST list = PendingListOf(nirp->Module, nirp->Direction);
    if (TryMark(list, nirp, nullptr) == MARK_JOINED) {
        return STATUS_SUCCESS;
    }
    // The clone is made before the request is seen by anyone, and outside the lock.
    NIRP* clone =
        IsOffered(list, nirp) ? CreateCloneNBL(nirp->Module, nirp, list.CloneType) : nullptr;
    if (clone == nullptr) {
        return STATUS_INSUFFICIENT_RESOURCES;
    }
    MARK_RESULT result = TryMark(list, nirp, clone);
    if (result != MARK_BEGUN) {
        FreeOwnList(nirp->Module, clone->Context, FALSE);
    }
    return result == MARK_REFUSED ? STATUS_INSUFFICIENT_RESOURCES : STATUS_SUCCESS;
}

NTSTATUS NTAPI ITarnHKCompleteRequest(NIRP* nirp, ULONG status) {
    if (nirp == nullptr) {
        return STATUS_INVALID_PARAMETER;
    }
    if (nirp->CompletionRoutine != nullptr) {
        nirp->CompletionRoutine(nirp, status);
    }
    return STATUS_SUCCESS;
}

}  // extern "C"
