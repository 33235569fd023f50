#include "packet/pending.h"

#include "module/trace_log.h"
#include "packet/copy_net_buffer.h"
#include "packet/nirp_life.h"
#include "packet/nirp_pool.h"
#include "packet/own_nbl.h"
#include "platform/atomics.h"
#include "platform/list.h"
#include "platform/runtime.h"

namespace {

constexpr OWN_NBL_SITES CLONE_SITES = {.Label = "CreateCloneNBL", .NoNbl = 582, .NoContext = 590};

// What differs between the requests of the two directions. A NIRP whose OnList is PendingValue is
// linked into Pending, and one whose OnList is UnpaidValue into Unpaid; all of it under Lock.
struct PENDING_LIST {
    PLIST_ENTRY Pending;
    PLIST_ENTRY Unpaid;
    DRIVER_SPIN_LOCK* Lock;
    SIZE_T LinkOffset;  // of the link that both lists use, in the NIRP
    ULONG PendingValue;
    ULONG UnpaidValue;
    ULONG OfferedState;
    ULONG CloneType;
    decltype(&NdisCopySendNetBufferListInfo) CopyInfo;  // out-of-band data of the frame's NBL
};

PENDING_LIST PendingListOf(FILTER_MODULE* module, ULONG direction) {
    if (direction == NIRP_DIRECTION_SEND) {
        return {.Pending = &module->PendingSendList,
                .Unpaid = &module->UnpaidSendList,
                .Lock = &module->PendingSendLock,
                .LinkOffset = offsetof(NIRP, PendingSendLink),
                .PendingValue = NIRP_LIST_PENDING_SEND,
                .UnpaidValue = NIRP_LIST_UNPAID_SEND,
                .OfferedState = NIRP_STATE_SEND,
                .CloneType = NBL_TYPE_SEND_CLONE,
                .CopyInfo = NdisCopySendNetBufferListInfo};
    }
    return {.Pending = &module->PendingReceiveList,
            .Unpaid = &module->UnpaidReceiveList,
            .Lock = &module->PendingReceiveLock,
            .LinkOffset = offsetof(NIRP, PendingReceiveLink),
            .PendingValue = NIRP_LIST_PENDING_RECEIVE,
            .UnpaidValue = NIRP_LIST_UNPAID_RECEIVE,
            .OfferedState = NIRP_STATE_RECEIVE,
            .CloneType = NBL_TYPE_RECEIVE_CLONE,
            .CopyInfo = NdisCopyReceiveNetBufferListInfo};
}

PLIST_ENTRY LinkOf(const PENDING_LIST& list, NIRP* nirp) {
    return reinterpret_cast<PLIST_ENTRY>(reinterpret_cast<PUCHAR>(nirp) + list.LinkOffset);
}

NIRP* NirpOf(const PENDING_LIST& list, PLIST_ENTRY link) {
    return reinterpret_cast<NIRP*>(reinterpret_cast<PUCHAR>(link) - list.LinkOffset);
}

// Whether the NIRP is on one of the list's two, which only the list's lock says: the NIRP may be in
// use in the other direction at this moment.
bool IsPending(const PENDING_LIST& list, NIRP* nirp) REQUIRES_LOCK(list.Lock) {
    return ReadAcquire(&nirp->OnList) == list.PendingValue;
}

bool IsUnpaid(const PENDING_LIST& list, NIRP* nirp) REQUIRES_LOCK(list.Lock) {
    return ReadAcquire(&nirp->OnList) == list.UnpaidValue;
}

// What the frame's NBL asks of the adapter, or says of the frame, holds for the clone: without it
// the adapter would send an unfinished checksum, an oversized frame or an untagged one. Once the
// offer has ended the NBL may be elsewhere, and the mark is refused anyway.
void CopyOutOfBandData(const PENDING_LIST& list, NIRP* nirp, NIRP* clone) {
    PNET_BUFFER_LIST copy = clone->Context->NetBufferList;
    SpinLockGuard guard(&nirp->Lock);
    if (IsOnOffer(nirp)) {
        list.CopyInfo(copy, nirp->Context->NetBufferList);
        // Memory of the NBL's owner, who may free it long before the clone goes.
        NET_BUFFER_LIST_INFO(copy, MediaSpecificInformation) = nullptr;
    }
}

// A copy of the NIRP in an NBL that the driver originates, or NULL. The caller has a claim.
NIRP* CreateCloneNBL(const PENDING_LIST& list, NIRP* nirp) {
    FILTER_MODULE* module = nirp->Module;
    NIRP* clone = GetNirp(module, nirp->BufferCapacity, false);
    if (clone == nullptr) {
        return nullptr;
    }
    CopyNirp(nirp, clone);
    if (MakeOwnNbl(module, clone, list.CloneType, &CLONE_SITES, false) == nullptr) {
        return nullptr;
    }
    CopyOutOfBandData(list, nirp, clone);
    return clone;
}

// One more mark on a request that is pending already.
bool JoinRequest(const PENDING_LIST& list, NIRP* nirp) REQUIRES_LOCK(list.Lock) {
    if (!IsPending(list, nirp)) {
        return false;
    }
    ++nirp->PendingCount;
    return true;
}

// The flush of a pause takes the same lock after it has changed the module's state, so nothing
// becomes pending after the flush.
bool BeginRequest(const PENDING_LIST& list, NIRP* nirp, NIRP* clone) REQUIRES_LOCK(list.Lock) {
    if (ReadAcquire(&nirp->Module->State) != FILTER_STATE_RUNNING ||
        !PublishRequest(nirp, list.OfferedState)) {
        return false;
    }
    nirp->CompletionStatus = STATUS_SUCCESS;
    nirp->Clone = clone;
    nirp->PendingCount = 1;
    InsertTailList(list.Pending, LinkOf(list, nirp));
    WriteRelease(&nirp->OnList, list.PendingValue);
    return true;
}

bool TryJoin(const PENDING_LIST& list, NIRP* nirp) {
    SpinLockGuard guard(list.Lock);
    return JoinRequest(list, nirp);
}

enum MARK_RESULT { MARK_JOINED, MARK_BEGUN, MARK_REFUSED };

MARK_RESULT JoinOrBegin(const PENDING_LIST& list, NIRP* nirp, NIRP* clone) {
    SpinLockGuard guard(list.Lock);
    if (JoinRequest(list, nirp)) {
        return MARK_JOINED;
    }
    return BeginRequest(list, nirp, clone) ? MARK_BEGUN : MARK_REFUSED;
}

// The caller's claim ends here: it has become the request, or is taken back.
MARK_RESULT MarkClaimed(const PENDING_LIST& list, NIRP* nirp) {
    NIRP* clone = CreateCloneNBL(list, nirp);
    MARK_RESULT result = clone == nullptr ? MARK_REFUSED : JoinOrBegin(list, nirp, clone);
    if (result == MARK_BEGUN) {
        return MARK_BEGUN;
    }
    EndClaim(nirp);
    if (clone != nullptr) {
        FreeOwnNbl(clone->Module, clone->Context, false);
    }
    return result;
}

// The NIRP is on Pending: the caller owns the request from here on, and with it the clone that this
// returns.
NIRP* TakeRequest(const PENDING_LIST& list, NIRP* nirp) REQUIRES_LOCK(list.Lock) {
    RemoveEntryList(LinkOf(list, nirp));
    WriteRelease(&nirp->OnList, NIRP_LIST_NONE);
    return nirp->Clone;
}

// The NIRP is on Unpaid: a mark that was open at the flush is completed now. True when it was the
// last.
bool PayMark(const PENDING_LIST& list, NIRP* nirp) REQUIRES_LOCK(list.Lock) {
    if (--nirp->PendingCount != 0) {
        return false;
    }
    RemoveEntryList(LinkOf(list, nirp));
    WriteRelease(&nirp->OnList, NIRP_LIST_NONE);
    return true;
}

// The flush of a pause takes the same lock after it has changed the module's state: a request that
// it has not come to yet is dropped all the same.
ULONG StatusOfRequest([[maybe_unused]] const PENDING_LIST& list, NIRP* nirp)
    REQUIRES_LOCK(list.Lock) {
    bool running = ReadAcquire(&nirp->Module->State) == FILTER_STATE_RUNNING;
    return running ? nirp->CompletionStatus : static_cast<ULONG>(NDIS_STATUS_PAUSED);
}

struct COMPLETION {
    NIRP* Clone;  // when this was the last completion: the caller owns the request
    ULONG Status;
    bool Late;      // no request is pending on the NIRP
    bool LastMark;  // of those that a flush left
};

COMPLETION CountCompletion(const PENDING_LIST& list, NIRP* nirp, ULONG status) {
    COMPLETION completion = {};
    SpinLockGuard guard(list.Lock);
    if (!IsPending(list, nirp)) {
        completion.Late = true;
        completion.LastMark = IsUnpaid(list, nirp) && PayMark(list, nirp);
    } else if (DecrementNirpPending(nirp, status) == STATUS_SUCCESS) {
        completion.Status = StatusOfRequest(list, nirp);
        completion.Clone = TakeRequest(list, nirp);
    }
    return completion;
}

// Completes one mark. Returns the context of the clone when that is to be sent or indicated, else
// NULL. The NIRP's holds end before that: freeing the clone ends the hold on the module.
NBL_CONTEXT* FASTABI CompleteMark(NIRP* nirp,
                                  ULONG status,
                                  ULONG direction,
                                  PCSTR label,
                                  ULONG site) {
    FILTER_MODULE* module = nirp->Module;
    COMPLETION completion = CountCompletion(PendingListOf(module, direction), nirp, status);
    if (completion.Late) {
        TraceLog(module, label, site, false);
    }
    if (completion.LastMark) {
        EndRequest(nirp, NIRP_HOLD_MARKS);
    }
    if (completion.Clone == nullptr) {
        return nullptr;
    }
    NBL_CONTEXT* context = completion.Clone->Context;
    EndRequest(nirp, NIRP_HOLD_REQUEST | NIRP_HOLD_MARKS);
    if (completion.Status != STATUS_SUCCESS) {
        FreeOwnNbl(module, context, false);
        return nullptr;
    }
    return context;
}

// Takes the first request off the list, and returns its NIRP, with the clone in `*clone`; NULL
// when none is pending.
NIRP* TakeFirstForFlush(const PENDING_LIST& list, NIRP** clone) {
    SpinLockGuard guard(list.Lock);
    if (IsListEmpty(list.Pending)) {
        return nullptr;
    }
    NIRP* nirp = NirpOf(list, list.Pending->Flink);
    *clone = TakeRequest(list, nirp);
    InsertTailList(list.Unpaid, LinkOf(list, nirp));
    WriteRelease(&nirp->OnList, list.UnpaidValue);
    return nirp;
}

void FlushPending(FILTER_MODULE* module, ULONG direction) {
    PENDING_LIST list = PendingListOf(module, direction);
    NIRP* clone = nullptr;
    while (NIRP* nirp = TakeFirstForFlush(list, &clone)) {
        EndRequest(nirp, NIRP_HOLD_REQUEST);
        FreeOwnNbl(module, clone->Context, false);
    }
}

// No lock: the module is nobody else's any more.
void FreeUnpaid(const PENDING_LIST& list) {
    while (!IsListEmpty(list.Unpaid)) {
        FreeNirp(NirpOf(list, RemoveHeadList(list.Unpaid)));
    }
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
    return --nirp->PendingCount == 0 ? STATUS_SUCCESS : STATUS_UNSUCCESSFUL;
}

void FASTABI NSVFSendPendingComplete(NIRP* nirp, ULONG status) {
    FILTER_MODULE* module = nirp->Module;
    NBL_CONTEXT* clone =
        CompleteMark(nirp, status, NIRP_DIRECTION_SEND, "NSVFSendPendingComplete", 2116);
    if (clone != nullptr) {
        NdisFSendNetBufferLists(module->FilterHandle, clone->NetBufferList, clone->PortNumber, 0);
    }
}

void FASTABI NSVFReceivePendingComplete(NIRP* nirp, ULONG status) {
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

void FreeUnpaidNirps(FILTER_MODULE* module) {
    FreeUnpaid(PendingListOf(module, NIRP_DIRECTION_SEND));
    FreeUnpaid(PendingListOf(module, NIRP_DIRECTION_RECEIVE));
}

extern "C" {

// A hook may be late, and the NIRP carry another frame by now: what is read here before the claim,
// or the list's lock, may be stale, and both test it again.
NTSTATUS NTAPI ITarnHKMarkPending(NIRP* nirp) {
    if (nirp == nullptr) {
        return STATUS_INVALID_PARAMETER;
    }
    PENDING_LIST list = PendingListOf(nirp->Module, ReadAcquire(&nirp->Direction));
    bool marked = ClaimNirp(nirp, list.OfferedState) ? MarkClaimed(list, nirp) != MARK_REFUSED
                                                     : TryJoin(list, nirp);
    return marked ? STATUS_SUCCESS : STATUS_INSUFFICIENT_RESOURCES;
}

NTSTATUS NTAPI ITarnHKCompleteRequest(NIRP* nirp, ULONG status) {
    if (nirp == nullptr) {
        return STATUS_INVALID_PARAMETER;
    }
    NIRP_COMPLETION_ROUTINE complete = ReadAcquire(&nirp->CompletionRoutine);
    if (complete != nullptr) {
        complete(nirp, status);
    }
    return STATUS_SUCCESS;
}

}  // extern "C"
