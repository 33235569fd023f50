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

// Puts a context on the list and shows its buffers to the hooks. False when there is no context to
// be had; the list is untouched then.
bool InterceptSentList(INTERCEPTION* interception,
                       PNET_BUFFER_LIST list,
                       NDIS_PORT_NUMBER portNumber) {
    NBL_CONTEXT* context = AllocateNblContext(interception->Module, list);
    if (context == nullptr) {
        return false;
    }
    context->Type = NBL_TYPE_SEND;
    context->NetBufferList = list;
    context->PortNumber = portNumber;
    OfferNetBuffers(interception, context,
                    SendingProtocol(interception->Module, list->SourceHandle));
    return true;
}

// To its sender an NBL whose NET_BUFFERs were all withheld looks sent. A request for large-send
// offload is answered as the platform asks: of version 1 nothing was sent.
void MarkSent(PNET_BUFFER_LIST list) {
    list->Status = NDIS_STATUS_SUCCESS;
    NDIS_TCP_LARGE_SEND_OFFLOAD_NET_BUFFER_LIST_INFO largeSend = {};
    largeSend.Value = NET_BUFFER_LIST_INFO(list, TcpLargeSendNetBufferListInfo);
    if (largeSend.Value == nullptr) {
        return;
    }
    if (largeSend.Transmit.Type == NDIS_TCP_LARGE_SEND_OFFLOAD_V1_TYPE) {
        largeSend.LsoV1TransmitComplete.TcpPayload = 0;
    } else {
        largeSend.LsoV2TransmitComplete.Reserved = 0;
    }
    NET_BUFFER_LIST_INFO(list, TcpLargeSendNetBufferListInfo) = largeSend.Value;
}

}  // namespace

VOID NTAPI NSVFSendNBLs(FILTER_MODULE* module,
                        PNET_BUFFER_LIST lists,
                        NDIS_PORT_NUMBER portNumber,
                        ULONG sendFlags) {
    BOOLEAN atDispatch = (sendFlags & NDIS_SEND_FLAGS_DISPATCH_LEVEL) != 0;
    INTERCEPTION interception = {
        .Module = module, .Direction = NIRP_DIRECTION_SEND, .AtDispatch = atDispatch};
    NBL_CHAIN retained;
    PNET_BUFFER_LIST successor = nullptr;
    for (PNET_BUFFER_LIST list = lists; list != nullptr; list = successor) {
        successor = list->Next;
        list->Next = nullptr;
        if (!InterceptSentList(&interception, list, portNumber)) {
            // Ahead of the lists that are kept for the one call below: the hooks do not see it, so
            // nothing has to wait for it.
            EndInterception(&interception);
            TraceLog(module, "NSVFSendNBLs", 1517, atDispatch);
            NdisFSendNetBufferLists(module->FilterHandle, list, portNumber, sendFlags);
        } else if (list->FirstNetBuffer != nullptr) {
            AppendNetBufferList(&retained, list);
        } else {
            MarkSent(list);
            EndInterception(&interception);
            NSVFSendNBLsComplete(module, list,
                                 atDispatch ? NDIS_SEND_COMPLETE_FLAGS_DISPATCH_LEVEL : 0);
        }
    }
    EndInterception(&interception);
    if (retained.Head != nullptr) {
        NdisFSendNetBufferLists(module->FilterHandle, retained.Head, portNumber, sendFlags);
    }
}

VOID NTAPI NSVFSendNBLsComplete(FILTER_MODULE* module,
                                PNET_BUFFER_LIST lists,
                                ULONG sendCompleteFlags) {
    BOOLEAN atDispatch = (sendCompleteFlags & NDIS_SEND_COMPLETE_FLAGS_DISPATCH_LEVEL) != 0;
    PNET_BUFFER_LIST others = SettleLists(module, lists, NIRP_DIRECTION_SEND, atDispatch);
    if (others != nullptr) {
        NdisFSendNetBufferListsComplete(module->FilterHandle, others, sendCompleteFlags);
    }
}
