#include "packet/nirp_pool.h"

#include "driver/trace_log.h"
#include "platform/list.h"
#include "platform/runtime.h"

namespace {

constexpr ULONG ETHERNET_HEADER_SIZE = 14;

void InitializeRecordLists(FILTER_MODULE* module) {
    InitializeListHead(&module->SmallNirpList);
    InitializeListHead(&module->LargeNirpList);
    InitializeListHead(&module->PendingSendList);
    InitializeListHead(&module->PendingReceiveList);
    InitializeDriverSpinLock(&module->SmallNirpLock);
    InitializeDriverSpinLock(&module->LargeNirpLock);
    InitializeDriverSpinLock(&module->PendingSendLock);
    InitializeDriverSpinLock(&module->PendingReceiveLock);
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

// Nothing takes a record while no hook can be attached, so none is made, and the status says so.
NTSTATUS InitializeNirpPool(FILTER_MODULE* module, ULONG mtu) {
    module->SmallNirpCapacity = mtu + ETHERNET_HEADER_SIZE;
    return STATUS_INSUFFICIENT_RESOURCES;
}

void FreeNirpPool(FILTER_MODULE*) {}
