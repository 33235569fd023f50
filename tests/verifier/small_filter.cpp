#include "tests/verifier/small_filter.h"

#include "host/ndis/other_filter.h"

namespace netsieve::host {

namespace {

SmallFilter* g_filter = nullptr;

/// The module's context: in the pool, so that its end is seen.
struct SmallModule {
    NDIS_HANDLE handle;
};

NDIS_HANDLE HandleOf(NDIS_HANDLE context) {
    return static_cast<SmallModule*>(context)->handle;
}

NDIS_STATUS NTAPI Attach(NDIS_HANDLE handle, NDIS_HANDLE, PNDIS_FILTER_ATTACH_PARAMETERS) {
    g_filter->handle = handle;
    const NDIS_STATUS status = g_filter->attach ? g_filter->attach() : NDIS_STATUS_SUCCESS;
    if (status != NDIS_STATUS_SUCCESS || !g_filter->setsAttributes) {
        return status;
    }
    PVOID memory = nullptr;
    if (NdisAllocateMemoryWithTag(&memory, sizeof(SmallModule), SmallFilter::kTag) !=
        NDIS_STATUS_SUCCESS) {
        return NDIS_STATUS_RESOURCES;
    }
    static_cast<SmallModule*>(memory)->handle = handle;
    NDIS_FILTER_ATTRIBUTES attributes{};
    attributes.Header = {NDIS_OBJECT_TYPE_FILTER_ATTRIBUTES, 1, sizeof(attributes)};
    attributes.Flags = g_filter->attributeFlags;
    const NDIS_STATUS set = NdisFSetAttributes(handle, memory, &attributes);
    if (set != NDIS_STATUS_SUCCESS) {
        NdisFreeMemory(memory, 0, 0);
    }
    return set;
}

VOID NTAPI Detach(NDIS_HANDLE context) {
    NdisFreeMemory(context, 0, 0);
}

NDIS_STATUS NTAPI Restart(NDIS_HANDLE, PNDIS_FILTER_RESTART_PARAMETERS) {
    return g_filter->restart ? g_filter->restart() : NDIS_STATUS_SUCCESS;
}

NDIS_STATUS NTAPI Pause(NDIS_HANDLE, PNDIS_FILTER_PAUSE_PARAMETERS) {
    return g_filter->pause ? g_filter->pause() : NDIS_STATUS_SUCCESS;
}

VOID NTAPI Send(NDIS_HANDLE context, PNET_BUFFER_LIST chain, NDIS_PORT_NUMBER port, ULONG flags) {
    g_filter->send ? g_filter->send(chain, port, flags)
                   : NdisFSendNetBufferLists(HandleOf(context), chain, port, flags);
}

VOID NTAPI SendComplete(NDIS_HANDLE context, PNET_BUFFER_LIST chain, ULONG flags) {
    g_filter->sendComplete ? g_filter->sendComplete(chain, flags)
                           : NdisFSendNetBufferListsComplete(HandleOf(context), chain, flags);
}

VOID NTAPI Receive(NDIS_HANDLE context,
                   PNET_BUFFER_LIST chain,
                   NDIS_PORT_NUMBER port,
                   ULONG count,
                   ULONG flags) {
    g_filter->receive
        ? g_filter->receive(chain, port, count, flags)
        : NdisFIndicateReceiveNetBufferLists(HandleOf(context), chain, port, count, flags);
}

VOID NTAPI Return(NDIS_HANDLE context, PNET_BUFFER_LIST chain, ULONG flags) {
    g_filter->returned ? g_filter->returned(chain, flags)
                       : NdisFReturnNetBufferLists(HandleOf(context), chain, flags);
}

VOID NTAPI Cancel(NDIS_HANDLE context, PVOID cancelId) {
    g_filter->cancel ? g_filter->cancel(cancelId)
                     : NdisFCancelSendNetBufferLists(HandleOf(context), cancelId);
}

VOID NTAPI Unload(PDRIVER_OBJECT) {
    if (g_filter->deregisters) {
        NdisFDeregisterFilterDriver(g_filter->registration);
    }
    if (g_filter->unload) {
        g_filter->unload();
    }
}

}  // namespace

SmallFilter::SmallFilter() {
    g_filter = this;
}

SmallFilter::~SmallFilter() {
    g_filter = nullptr;
}

NTSTATUS NTAPI SmallFilter::Entry(PDRIVER_OBJECT driverObject, PUNICODE_STRING) {
    driverObject->DriverUnload = &Unload;
    g_filter->object = driverObject;
    NDIS_FILTER_DRIVER_CHARACTERISTICS handlers =
        DescribeFilter(u"Small filter", u"{5E0B6A57-3C11-4B7A-9F0D-2F6C6B1D7A02}", u"SMALL");
    handlers.AttachHandler = &Attach;
    handlers.DetachHandler = &Detach;
    handlers.RestartHandler = &Restart;
    handlers.PauseHandler = &Pause;
    handlers.SendNetBufferListsHandler = &host::Send;
    handlers.SendNetBufferListsCompleteHandler = &SendComplete;
    handlers.ReceiveNetBufferListsHandler = &Receive;
    handlers.ReturnNetBufferListsHandler = &Return;
    handlers.CancelSendNetBufferListsHandler = &Cancel;
    if (g_filter->describe) {
        g_filter->describe(handlers);
    }
    const NDIS_STATUS status =
        NdisFRegisterFilterDriver(driverObject, nullptr, &handlers, &g_filter->registration);
    return status == NDIS_STATUS_SUCCESS && g_filter->entry ? g_filter->entry() : status;
}

}  // namespace netsieve::host
