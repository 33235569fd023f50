#include "packet/nirp_pool.h"

#include "driver/trace_log.h"
#include "driver/undo_guard.h"
#include "packet/pending.h"
#include "platform/atomics.h"
#include "platform/list.h"
#include "platform/runtime.h"

namespace {

constexpr ULONG ETHERNET_HEADER_SIZE = 14;

struct POOL_SIZE {
    ULONG SmallNirps;
    ULONG LargeNirps;
};

// One of a module's two free lists.
struct FREE_LIST {
    PLIST_ENTRY Head;
    DRIVER_SPIN_LOCK* Lock;
};

FREE_LIST FreeListOf(FILTER_MODULE* module, bool small) {
    return small ? FREE_LIST{&module->SmallNirpList, &module->SmallNirpLock}
                 : FREE_LIST{&module->LargeNirpList, &module->LargeNirpLock};
}

void InitializeRecordLists(FILTER_MODULE* module) {
    InitializeListHead(&module->SmallNirpList);
    InitializeListHead(&module->LargeNirpList);
    InitializeDriverSpinLock(&module->SmallNirpLock);
    InitializeDriverSpinLock(&module->LargeNirpLock);
    InitializePendingLists(module);
}

POOL_SIZE PoolSizeOfMachine() {
    switch (MmQuerySystemSize()) {
        case MmSmallSystem:
            return {16, 3};
        case MmMediumSystem:
            return {21, 5};
        default:
            return {32, 16};
    }
}

void FillFreeList(FILTER_MODULE* module, ULONG count, ULONG capacity) {
    for (ULONG i = 0; i < count; ++i) {
        NIRP* nirp = nullptr;
        if (AllocateNirp(module, capacity, &nirp) != STATUS_SUCCESS) {
            return;
        }
        ReturnNirp(module, nirp, FALSE);
    }
}

NIRP* NTAPI TakeNirp(FILTER_MODULE* module, bool small, BOOLEAN atDispatch) {
    FREE_LIST list = FreeListOf(module, small);
    NIRP* nirp = nullptr;
    {
        SpinLockGuard guard(list.Lock, atDispatch);
        if (IsListEmpty(list.Head)) {
            return nullptr;
        }
        nirp = CONTAINING_RECORD(RemoveHeadList(list.Head), NIRP, FreeLink);
    }
    InterlockedDecrement(&module->FreeNirpCount);
    return nirp;
}

void FreeNirpBuffer(NIRP* nirp) {
    if (nirp->Mdl != nullptr) {
        NdisFreeMdl(nirp->Mdl);
        nirp->Mdl = nullptr;
    }
    if (nirp->Buffer != nullptr) {
        NdisFreeMemory(nirp->Buffer, 0, 0);
        nirp->Buffer = nullptr;
    }
    nirp->BufferCapacity = 0;
}

void FreeNirp(NIRP* nirp) {
    FreeNirpBuffer(nirp);
    NdisFreeMemory(nirp, 0, 0);
}

void FreeRecords(FILTER_MODULE* module, bool small) {
    while (NIRP* nirp = TakeNirp(module, small, FALSE)) {
        FreeNirp(nirp);
    }
}

// The record's lock is held. A request that outlives its list is finished by its completion alone.
ULONG StateWithout(NIRP* nirp, ULONG holds) {
    if (holds & NIRP_HOLD_REQUEST) {
        return NIRP_STATE_COMPLETED;
    }
    ULONG state = ReadAcquire(&nirp->State);
    return (holds & NIRP_HOLD_LIST) && state == NIRP_STATE_PENDING ? NIRP_STATE_RELEASED : state;
}

}  // namespace

NTSTATUS InitializeNBLPool(FILTER_MODULE* module) {
    InitializeRecordLists(module);

    NET_BUFFER_LIST_POOL_PARAMETERS parameters;
    RtlZeroMemory(&parameters, sizeof(parameters));
    parameters.Header.Type = NDIS_OBJECT_TYPE_DEFAULT;
    parameters.Header.Revision = 1;
    parameters.Header.Size = sizeof(parameters);
    parameters.fAllocateNetBuffer = TRUE;
    parameters.PoolTag = NBL_POOL_TAG;
    module->NblPool = NdisAllocateNetBufferListPool(module->FilterHandle, &parameters);
    if (module->NblPool == nullptr) {
        TraceLog(module, "InitializeNBLPool", 52, FALSE);
        return STATUS_INSUFFICIENT_RESOURCES;
    }
    return STATUS_SUCCESS;
}

void FreeNBLPool(FILTER_MODULE* module) {
    if (module->NblPool != nullptr) {
        NdisFreeNetBufferListPool(module->NblPool);
        module->NblPool = nullptr;
    }
}

NTSTATUS InitializeNirpPool(FILTER_MODULE* module, ULONG mtu) {
    POOL_SIZE size = PoolSizeOfMachine();
    module->SmallNirpCapacity = mtu + ETHERNET_HEADER_SIZE;
    FillFreeList(module, size.SmallNirps, module->SmallNirpCapacity);
    FillFreeList(module, size.LargeNirps, LARGE_NIRP_CAPACITY);
    return ReadAcquire(&module->FreeNirpCount) == 0 ? STATUS_INSUFFICIENT_RESOURCES
                                                    : STATUS_SUCCESS;
}

void FreeNirpPool(FILTER_MODULE* module) {
    FreeRecords(module, true);
    FreeRecords(module, false);
    while (NIRP* nirp = TakeUnpaidNirp(module)) {
        FreeNirp(nirp);
    }
}

NTSTATUS AllocateNirp(FILTER_MODULE* module, ULONG capacity, NIRP** nirp) {
    *nirp = nullptr;
    PVOID memory = nullptr;
    NTSTATUS status = NdisAllocateMemoryWithTag(&memory, sizeof(NIRP), NIRP_TAG);
    if (status != NDIS_STATUS_SUCCESS) {
        TraceLog(module, "AllocateNirp", 126, FALSE);
        return status;
    }
    RtlZeroMemory(memory, sizeof(NIRP));
    auto* made = static_cast<NIRP*>(memory);
    UndoGuard freeMade([made] { FreeNirp(made); });
    made->Module = module;
    InitializeListHead(&made->FreeLink);
    InitializeListHead(&made->PendingSendLink);
    InitializeListHead(&made->PendingReceiveLink);
    InitializeListHead(&made->ContextLink);
    InitializeDriverSpinLock(&made->Lock);

    PVOID buffer = nullptr;
    status = NdisAllocateMemoryWithTag(&buffer, capacity, NIRP_BUFFER_TAG);
    if (status != NDIS_STATUS_SUCCESS) {
        TraceLog(module, "AllocateNirp", 142, FALSE);
        return status;
    }
    made->Buffer = static_cast<PUCHAR>(buffer);
    made->Mdl = NdisAllocateMdl(module->FilterHandle, buffer, capacity);
    if (made->Mdl == nullptr) {
        TraceLog(module, "AllocateNirp", 150, FALSE);
        return STATUS_INSUFFICIENT_RESOURCES;
    }
    made->BufferCapacity = capacity;
    freeMade.Dismiss();
    *nirp = made;
    return STATUS_SUCCESS;
}

NTSTATUS NTAPI ReAllocateNirpBuffer(FILTER_MODULE* module, NIRP* nirp, ULONG size) {
    FreeNirpBuffer(nirp);

    ULONG capacity =
        size > module->SmallNirpCapacity ? LARGE_NIRP_CAPACITY : module->SmallNirpCapacity;
    PVOID buffer = nullptr;
    NTSTATUS status = NdisAllocateMemoryWithTag(&buffer, capacity, NIRP_REALLOCATED_BUFFER_TAG);
    if (status != NDIS_STATUS_SUCCESS) {
        TraceLog(module, "ReAllocateNirpBuffer", 398, FALSE);
        return status;
    }
    nirp->Buffer = static_cast<PUCHAR>(buffer);
    nirp->Mdl = NdisAllocateMdl(module->FilterHandle, buffer, capacity);
    if (nirp->Mdl == nullptr) {
        TraceLog(module, "ReAllocateNirpBuffer", 406, FALSE);
        FreeNirpBuffer(nirp);
        return STATUS_INSUFFICIENT_RESOURCES;
    }
    nirp->BufferCapacity = capacity;
    return STATUS_SUCCESS;
}

NIRP* NTAPI GetNirp(FILTER_MODULE* module, ULONG size, BOOLEAN atDispatch) {
    if (size > LARGE_NIRP_CAPACITY) {
        return nullptr;
    }
    bool small = size <= module->SmallNirpCapacity;
    NIRP* nirp = TakeNirp(module, small, atDispatch);
    bool borrowed = nirp == nullptr;
    if (borrowed) {
        nirp = TakeNirp(module, !small, atDispatch);
        if (nirp == nullptr) {
            return nullptr;
        }
    }
    // A record on the right list may still lack its buffer: an earlier re-allocation failed.
    if (borrowed || nirp->BufferCapacity < size) {
        if (ReAllocateNirpBuffer(module, nirp, size) != STATUS_SUCCESS) {
            ReturnNirp(module, nirp, atDispatch);
            return nullptr;
        }
    }
    return nirp;
}

VOID NTAPI ReturnNirp(FILTER_MODULE* module, NIRP* nirp, BOOLEAN atDispatch) {
    MakeNirpIdle(nirp);
    FREE_LIST list = FreeListOf(module, nirp->BufferCapacity <= module->SmallNirpCapacity);
    {
        SpinLockGuard guard(list.Lock, atDispatch);
        InsertTailList(list.Head, &nirp->FreeLink);
    }
    InterlockedIncrement(&module->FreeNirpCount);
}

// Whoever ends the last hold has the record alone, so the return needs no lock around it.
VOID NTAPI ReleaseNirpHolds(FILTER_MODULE* module, NIRP* nirp, ULONG holds, BOOLEAN atDispatch) {
    bool free = false;
    {
        SpinLockGuard guard(&nirp->Lock, atDispatch);
        nirp->Holds &= ~holds;
        free = nirp->Holds == 0;
        // Nobody can mark it from here on: a record that was withheld still looked offered.
        WriteRelease(&nirp->State, free ? NIRP_STATE_IDLE : StateWithout(nirp, holds));
    }
    if (free) {
        ReturnNirp(module, nirp, atDispatch);
    }
}
