#include "packet/nirp_pool.h"

#include "module/trace_log.h"
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

void InitializeFreeLists(FILTER_MODULE* module) {
    InitializeListHead(&module->SmallNirpList);
    InitializeListHead(&module->LargeNirpList);
    InitializeDriverSpinLock(&module->SmallNirpLock);
    InitializeDriverSpinLock(&module->LargeNirpLock);
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
        ReturnNirp(module, nirp, false);
    }
}

NIRP* FASTABI TakeNirp(FILTER_MODULE* module, bool small, bool atDispatch) {
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

// The trace line of each step of making a buffer that can fail.
struct BUFFER_SITES {
    PCSTR Label;
    ULONG NoBuffer;
    ULONG NoMdl;
};

constexpr BUFFER_SITES FIRST_BUFFER_SITES = {.Label = "AllocateNirp",
                                             .NoBuffer = 142,
                                             .NoMdl = 150};
constexpr BUFFER_SITES NEXT_BUFFER_SITES = {.Label = "ReAllocateNirpBuffer",
                                            .NoBuffer = 398,
                                            .NoMdl = 406};

void FASTABI FreeNirpBuffer(NIRP* nirp) {
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

// The NIRP has no buffer; on failure it still has none.
NTSTATUS AllocateNirpBuffer(NIRP* nirp, ULONG capacity, ULONG tag, const BUFFER_SITES& sites) {
    FILTER_MODULE* module = nirp->Module;
    PVOID buffer = nullptr;
    NTSTATUS status = NdisAllocateMemoryWithTag(&buffer, capacity, tag);
    if (status != NDIS_STATUS_SUCCESS) {
        TraceLog(module, sites.Label, sites.NoBuffer, false);
        return status;
    }
    nirp->Buffer = static_cast<PUCHAR>(buffer);
    nirp->Mdl = NdisAllocateMdl(module->FilterHandle, buffer, capacity);
    if (nirp->Mdl == nullptr) {
        TraceLog(module, sites.Label, sites.NoMdl, false);
        FreeNirpBuffer(nirp);
        return STATUS_INSUFFICIENT_RESOURCES;
    }
    nirp->BufferCapacity = capacity;
    return STATUS_SUCCESS;
}

void FreeNirps(FILTER_MODULE* module, bool small) {
    while (NIRP* nirp = TakeNirp(module, small, false)) {
        FreeNirp(nirp);
    }
}

}  // namespace

NTSTATUS InitializeNBLPool(FILTER_MODULE* module) {
    InitializeFreeLists(module);

    NET_BUFFER_LIST_POOL_PARAMETERS parameters;
    RtlZeroMemory(&parameters, sizeof(parameters));
    parameters.Header.Type = NDIS_OBJECT_TYPE_DEFAULT;
    parameters.Header.Revision = 1;
    parameters.Header.Size = sizeof(parameters);
    parameters.fAllocateNetBuffer = TRUE;
    parameters.PoolTag = NBL_POOL_TAG;
    module->NblPool = NdisAllocateNetBufferListPool(module->FilterHandle, &parameters);
    if (module->NblPool == nullptr) {
        TraceLog(module, "InitializeNBLPool", 52, false);
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
    FreeNirps(module, true);
    FreeNirps(module, false);
}

void FreeNirp(NIRP* nirp) {
    FreeNirpBuffer(nirp);
    NdisFreeMemory(nirp, 0, 0);
}

NTSTATUS FASTABI AllocateNirp(FILTER_MODULE* module, ULONG capacity, NIRP** nirp) {
    *nirp = nullptr;
    PVOID memory = nullptr;
    NTSTATUS status = NdisAllocateMemoryWithTag(&memory, sizeof(NIRP), NIRP_TAG);
    if (status != NDIS_STATUS_SUCCESS) {
        TraceLog(module, "AllocateNirp", 126, false);
        return status;
    }
    RtlZeroMemory(memory, sizeof(NIRP));
    auto* made = static_cast<NIRP*>(memory);
    made->Module = module;
    InitializeListHead(&made->FreeLink);
    InitializeListHead(&made->PendingSendLink);
    InitializeListHead(&made->PendingReceiveLink);
    InitializeListHead(&made->ContextLink);
    InitializeDriverSpinLock(&made->Lock);

    status = AllocateNirpBuffer(made, capacity, NIRP_BUFFER_TAG, FIRST_BUFFER_SITES);
    if (status != STATUS_SUCCESS) {
        FreeNirp(made);
        return status;
    }
    *nirp = made;
    return STATUS_SUCCESS;
}

NTSTATUS FASTABI ReAllocateNirpBuffer(FILTER_MODULE* module, NIRP* nirp, ULONG size) {
    FreeNirpBuffer(nirp);
    ULONG capacity =
        size > module->SmallNirpCapacity ? LARGE_NIRP_CAPACITY : module->SmallNirpCapacity;
    return AllocateNirpBuffer(nirp, capacity, NIRP_REALLOCATED_BUFFER_TAG, NEXT_BUFFER_SITES);
}

NIRP* FASTABI GetNirp(FILTER_MODULE* module, ULONG size, bool atDispatch) {
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
    // A NIRP of the right free list may still lack its buffer: an earlier re-allocation failed.
    if (borrowed || nirp->BufferCapacity < size) {
        if (ReAllocateNirpBuffer(module, nirp, size) != STATUS_SUCCESS) {
            ReturnNirp(module, nirp, atDispatch);
            return nullptr;
        }
    }
    return nirp;
}

void FASTABI ReturnNirp(FILTER_MODULE* module, NIRP* nirp, bool atDispatch) {
    FREE_LIST list = FreeListOf(module, nirp->BufferCapacity <= module->SmallNirpCapacity);
    {
        SpinLockGuard guard(list.Lock, atDispatch);
        InsertTailList(list.Head, &nirp->FreeLink);
    }
    InterlockedIncrement(&module->FreeNirpCount);
}
