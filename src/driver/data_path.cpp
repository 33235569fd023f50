#include "driver/data_path.h"

#include "module/module_reference.h"
#include "packet/receive_path.h"
#include "packet/send_path.h"
#include "platform/atomics.h"

namespace {

void RefuseSend(FILTER_MODULE* module, PNET_BUFFER_LIST nbls, ULONG sendFlags) {
    for (PNET_BUFFER_LIST nbl = nbls; nbl != nullptr; nbl = nbl->Next) {
        nbl->Status = NDIS_STATUS_PAUSED;
    }
    ULONG flags =
        (sendFlags & NDIS_SEND_FLAGS_DISPATCH_LEVEL) ? NDIS_SEND_COMPLETE_FLAGS_DISPATCH_LEVEL : 0;
    NdisFSendNetBufferListsComplete(module->FilterHandle, nbls, flags);
}

void RefuseReceive(FILTER_MODULE* module, PNET_BUFFER_LIST nbls, ULONG receiveFlags) {
    if (receiveFlags & NDIS_RECEIVE_FLAGS_RESOURCES) {
        return;  // the adapter has the NBLs back when the call returns
    }
    ULONG flags =
        (receiveFlags & NDIS_RECEIVE_FLAGS_DISPATCH_LEVEL) ? NDIS_RETURN_FLAGS_DISPATCH_LEVEL : 0;
    NdisFReturnNetBufferLists(module->FilterHandle, nbls, flags);
}

}  // namespace

VOID NTAPI NSVFilterSendNetBufferLists(NDIS_HANDLE FilterModuleContext,
                                       PNET_BUFFER_LIST NetBufferLists,
                                       NDIS_PORT_NUMBER PortNumber,
                                       ULONG SendFlags) {
    auto* module = static_cast<FILTER_MODULE*>(FilterModuleContext);
    ModuleReference reference(module);
    if (reference.Closing()) {
        RefuseSend(module, NetBufferLists, SendFlags);
    } else if (reference.Live()) {
        WriteRelease(&module->LastSendPortNumber, PortNumber);
        if (ReadAcquire(&module->HookCount) == 0) {
            NdisFSendNetBufferLists(module->FilterHandle, NetBufferLists, PortNumber, SendFlags);
        } else {
            NSVFSendNBLs(module, NetBufferLists, PortNumber, SendFlags);
        }
    }
}

VOID NTAPI NSVFilterSendNetBufferListsComplete(NDIS_HANDLE FilterModuleContext,
                                               PNET_BUFFER_LIST NetBufferLists,
                                               ULONG SendCompleteFlags) {
    auto* module = static_cast<FILTER_MODULE*>(FilterModuleContext);
    ModuleReference reference(module);
    // The NBLs of a detaching module may still carry our contexts: settle them in full.
    if (reference.Held()) {
        NSVFSendNBLsComplete(module, NetBufferLists, SendCompleteFlags);
    }
}

VOID NTAPI NSVFilterReceiveNetBufferLists(NDIS_HANDLE FilterModuleContext,
                                          PNET_BUFFER_LIST NetBufferLists,
                                          NDIS_PORT_NUMBER PortNumber,
                                          ULONG NumberOfNetBufferLists,
                                          ULONG ReceiveFlags) {
    auto* module = static_cast<FILTER_MODULE*>(FilterModuleContext);
    ModuleReference reference(module);
    if (reference.Closing()) {
        RefuseReceive(module, NetBufferLists, ReceiveFlags);
    } else if (reference.Live()) {
        if (ReadAcquire(&module->HookCount) == 0) {
            NdisFIndicateReceiveNetBufferLists(module->FilterHandle, NetBufferLists, PortNumber,
                                               NumberOfNetBufferLists, ReceiveFlags);
        } else {
            NSVFReceiveNBLs(module, NetBufferLists, PortNumber, NumberOfNetBufferLists,
                            ReceiveFlags);
        }
    }
}

VOID NTAPI NSVFilterReturnNetBufferLists(NDIS_HANDLE FilterModuleContext,
                                         PNET_BUFFER_LIST NetBufferLists,
                                         ULONG ReturnFlags) {
    auto* module = static_cast<FILTER_MODULE*>(FilterModuleContext);
    ModuleReference reference(module);
    if (reference.Held()) {
        NSVFReturnNBLs(module, NetBufferLists, ReturnFlags, true);
    }
}
