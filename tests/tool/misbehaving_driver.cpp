#include "tests/tool/misbehaving_driver.h"

#include "platform/ndis.h"

namespace netsieve::tool {

Misbehaviour g_misbehaviour = Misbehaviour::kNone;

namespace {

NDIS_HANDLE g_driver;
NDIS_HANDLE g_filter;
NDIS_HANDLE g_pool;
unsigned g_sent;
unsigned g_received;

bool Does(Misbehaviour what) {
    return g_misbehaviour == what;
}

NDIS_STATUS NTAPI Attach(NDIS_HANDLE filter, NDIS_HANDLE, PNDIS_FILTER_ATTACH_PARAMETERS) {
    if (Does(Misbehaviour::kRefusesToBind)) {
        return NDIS_STATUS_RESOURCES;
    }
    g_filter = filter;
    NDIS_FILTER_ATTRIBUTES attributes{};
    attributes.Header.Type = NDIS_OBJECT_TYPE_FILTER_ATTRIBUTES;
    attributes.Header.Revision = 1;
    attributes.Header.Size = sizeof attributes;
    NET_BUFFER_LIST_POOL_PARAMETERS pool{};
    pool.Header.Type = NDIS_OBJECT_TYPE_DEFAULT;
    pool.Header.Revision = 1;
    pool.Header.Size = sizeof pool;
    pool.fAllocateNetBuffer = TRUE;
    const NDIS_STATUS status = NdisFSetAttributes(filter, &g_filter, &attributes);
    g_pool = NdisAllocateNetBufferListPool(filter, &pool);
    return status;
}

VOID NTAPI Detach(NDIS_HANDLE) {
    NdisFreeNetBufferListPool(g_pool);
}

NDIS_STATUS NTAPI Restart(NDIS_HANDLE, PNDIS_FILTER_RESTART_PARAMETERS) {
    return NDIS_STATUS_SUCCESS;
}

NDIS_STATUS NTAPI Pause(NDIS_HANDLE, PNDIS_FILTER_PAUSE_PARAMETERS) {
    return NDIS_STATUS_SUCCESS;
}

void InjectCopyOf(const NET_BUFFER& buffer) {
    PNET_BUFFER_LIST const list = NdisAllocateNetBufferAndNetBufferList(
        g_pool, 0, 0, buffer.MdlChain, buffer.DataOffset, buffer.stDataLength);
    list->SourceHandle = g_filter;
    NdisFSendNetBufferLists(g_filter, list, 0, 0);
}

VOID NTAPI Send(NDIS_HANDLE, PNET_BUFFER_LIST lists, NDIS_PORT_NUMBER port, ULONG flags) {
    ++g_sent;
    if (Does(Misbehaviour::kCompletesUnsent) && g_sent % 2 == 0) {
        NdisFSendNetBufferListsComplete(g_filter, lists, 0);
        return;
    }
    if (Does(Misbehaviour::kSendsTwice) && g_sent == 2) {
        InjectCopyOf(*lists->FirstNetBuffer);
    }
    NdisFSendNetBufferLists(g_filter, lists, port, flags);
}

VOID NTAPI SendComplete(NDIS_HANDLE, PNET_BUFFER_LIST lists, ULONG flags) {
    if (lists->SourceHandle == g_filter) {
        NdisFreeNetBufferList(lists);
        return;
    }
    NdisFSendNetBufferListsComplete(g_filter, lists, flags);
}

VOID NTAPI Receive(NDIS_HANDLE,
                   PNET_BUFFER_LIST lists,
                   NDIS_PORT_NUMBER port,
                   ULONG count,
                   ULONG flags) {
    ++g_received;
    if (Does(Misbehaviour::kKeepsAList) && g_received == 1) {
        return;
    }
    const ULONG said = Does(Misbehaviour::kMiscounts) ? count + 1 : count;
    NdisFIndicateReceiveNetBufferLists(g_filter, lists, port, said, flags);
}

VOID NTAPI Return(NDIS_HANDLE, PNET_BUFFER_LIST lists, ULONG flags) {
    NdisFReturnNetBufferLists(g_filter, lists, flags);
}

VOID NTAPI Unload(PDRIVER_OBJECT) {
    NdisFDeregisterFilterDriver(g_driver);
}

}  // namespace
}  // namespace netsieve::tool

using namespace netsieve::tool;

extern "C" NTSTATUS NTAPI DriverEntry(PDRIVER_OBJECT DriverObject, PUNICODE_STRING) {
    if (Does(Misbehaviour::kRefusesToStart)) {
        return STATUS_INSUFFICIENT_RESOURCES;
    }
    g_sent = g_received = 0;
    DriverObject->DriverUnload = Unload;
    NDIS_FILTER_DRIVER_CHARACTERISTICS filter{};
    filter.Header.Type = NDIS_OBJECT_TYPE_FILTER_DRIVER_CHARACTERISTICS;
    filter.Header.Revision = 1;
    filter.Header.Size = sizeof filter;
    filter.MajorNdisVersion = 6;
    RtlInitUnicodeString(&filter.FriendlyName, u"Misbehaving filter");
    RtlInitUnicodeString(&filter.UniqueName, u"{00000000-0000-0000-0000-000000000001}");
    RtlInitUnicodeString(&filter.ServiceName, u"MISBEHAVES");
    filter.AttachHandler = Attach;
    filter.DetachHandler = Detach;
    filter.RestartHandler = Restart;
    filter.PauseHandler = Pause;
    filter.SendNetBufferListsHandler = Send;
    filter.SendNetBufferListsCompleteHandler = SendComplete;
    filter.ReceiveNetBufferListsHandler = Receive;
    filter.ReturnNetBufferListsHandler = Return;
    return NdisFRegisterFilterDriver(DriverObject, nullptr, &filter, &g_driver);
}
