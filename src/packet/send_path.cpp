#include "packet/send_path.h"

#include "hook/protocol_table.h"
#include "hook/source_handle.h"
#include "module/trace_log.h"
#include "packet/interception.h"
#include "packet/net_buffer_chain.h"

namespace {

PROTOCOL_ENTRY* SendingProtocol(FILTER_MODULE* module, NDIS_HANDLE sourceHandle) {
    return IsOpenObject(sourceHandle) ? LookupProtocolEntry(module, sourceHandle) : nullptr;
}

// All NET_BUFFERs were withheld: complete with NDIS_STATUS_SUCCESS, and answer a request for
// large-send offload as the platform asks, of version 1 with no payload sent.
void MarkSent(PNET_BUFFER_LIST nbl) {
    nbl->Status = NDIS_STATUS_SUCCESS;
    NDIS_TCP_LARGE_SEND_OFFLOAD_NET_BUFFER_LIST_INFO largeSend = {};
    largeSend.Value = NET_BUFFER_LIST_INFO(nbl, TcpLargeSendNetBufferListInfo);
    if (largeSend.Value == nullptr) {
        return;
    }
    if (largeSend.Transmit.Type == NDIS_TCP_LARGE_SEND_OFFLOAD_V1_TYPE) {
        largeSend.LsoV1TransmitComplete.TcpPayload = 0;
    } else {
        largeSend.LsoV2TransmitComplete.Reserved = 0;
    }
    NET_BUFFER_LIST_INFO(nbl, TcpLargeSendNetBufferListInfo) = largeSend.Value;
}

}  // namespace

void FASTABI NSVFSendNBLs(FILTER_MODULE* module,
                          PNET_BUFFER_LIST nbls,
                          NDIS_PORT_NUMBER portNumber,
                          ULONG sendFlags) {
    bool atDispatch = (sendFlags & NDIS_SEND_FLAGS_DISPATCH_LEVEL) != 0;
    INTERCEPTION interception = {.Module = module,
                                 .Direction = NIRP_DIRECTION_SEND,
                                 .PortNumber = portNumber,
                                 .AtDispatch = atDispatch};
    NBL_CHAIN retained;
    PNET_BUFFER_LIST successor = nullptr;
    for (PNET_BUFFER_LIST nbl = nbls; nbl != nullptr; nbl = successor) {
        successor = nbl->Next;
        nbl->Next = nullptr;
        if (!InterceptNbl(&interception, nbl, SendingProtocol(module, nbl->SourceHandle))) {
            // Sent at once, ahead of those that are collected: no hook is shown it.
            EndInterception(&interception);
            TraceLog(module, "NSVFSendNBLs", 1517, atDispatch);
            NdisFSendNetBufferLists(module->FilterHandle, nbl, portNumber, sendFlags);
        } else if (nbl->FirstNetBuffer != nullptr) {
            AppendNetBufferList(&retained, nbl);
        } else {
            MarkSent(nbl);
            EndInterception(&interception);
            NSVFSendNBLsComplete(module, nbl,
                                 atDispatch ? NDIS_SEND_COMPLETE_FLAGS_DISPATCH_LEVEL : 0);
        }
    }
    EndInterception(&interception);
    if (retained.Head != nullptr) {
        NdisFSendNetBufferLists(module->FilterHandle, retained.Head, portNumber, sendFlags);
    }
}

void FASTABI NSVFSendNBLsComplete(FILTER_MODULE* module,
                                  PNET_BUFFER_LIST nbls,
                                  ULONG sendCompleteFlags) {
    bool atDispatch = (sendCompleteFlags & NDIS_SEND_COMPLETE_FLAGS_DISPATCH_LEVEL) != 0;
    PNET_BUFFER_LIST others = SettleNbls(module, nbls, NIRP_DIRECTION_SEND, atDispatch);
    if (others != nullptr) {
        NdisFSendNetBufferListsComplete(module->FilterHandle, others, sendCompleteFlags);
    }
}
