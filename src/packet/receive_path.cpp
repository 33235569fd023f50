#include "packet/receive_path.h"

#include "module/trace_log.h"
#include "packet/interception.h"
#include "packet/net_buffer_chain.h"

namespace {

// One call of the adapter, with its lists sorted into those that go up and those that do not.
struct INDICATION {
    INTERCEPTION Interception;
    NDIS_PORT_NUMBER PortNumber;
    ULONG ReturnFlags;         // of the returns that the call itself makes
    bool Lent;                 // the adapter takes every list back as the call ends
    NBL_CHAIN Retained = {};   // to be indicated
    NBL_CHAIN Completed = {};  // lent lists of which nothing is left to indicate
};

// Puts a context on the list and shows its buffers to the hooks. False when there is no context to
// be had; the list is untouched then.
bool InterceptReceivedList(INDICATION* indication, PNET_BUFFER_LIST list) {
    NBL_CONTEXT* context = AllocateNblContext(indication->Interception.Module, list);
    if (context == nullptr) {
        return false;
    }
    context->Type = NBL_TYPE_RECEIVE;
    context->NetBufferList = list;
    context->PortNumber = indication->PortNumber;
    OfferNetBuffers(&indication->Interception, context, nullptr);
    return true;
}

// Decides where a received list goes. One that came without a buffer is no different from one that
// lost them all.
void SortReceivedList(INDICATION* indication, PNET_BUFFER_LIST list) {
    FILTER_MODULE* module = indication->Interception.Module;
    if (!InterceptReceivedList(indication, list)) {
        TraceLog(module, "NSVFReceiveNBLs", 1818, indication->Interception.AtDispatch);
        AppendNetBufferList(&indication->Retained, list);
    } else if (list->FirstNetBuffer != nullptr) {
        AppendNetBufferList(&indication->Retained, list);
    } else if (indication->Lent) {
        EndInterception(&indication->Interception);
        NSVFReturnNBLs(module, list, indication->ReturnFlags, FALSE);
        AppendNetBufferList(&indication->Completed, list);
    } else {
        EndInterception(&indication->Interception);
        NSVFReturnNBLs(module, list, indication->ReturnFlags, TRUE);
    }
}

}  // namespace

VOID NTAPI NSVFReceiveNBLs(FILTER_MODULE* module,
                           PNET_BUFFER_LIST lists,
                           NDIS_PORT_NUMBER portNumber,
                           ULONG,
                           ULONG receiveFlags) {
    BOOLEAN atDispatch = (receiveFlags & NDIS_RECEIVE_FLAGS_DISPATCH_LEVEL) != 0;
    INDICATION indication = {.Interception = {.Module = module,
                                              .Direction = NIRP_DIRECTION_RECEIVE,
                                              .AtDispatch = atDispatch},
                             .PortNumber = portNumber,
                             .ReturnFlags = atDispatch ? NDIS_RETURN_FLAGS_DISPATCH_LEVEL : 0,
                             .Lent = (receiveFlags & NDIS_RECEIVE_FLAGS_RESOURCES) != 0};
    PNET_BUFFER_LIST successor = nullptr;
    for (PNET_BUFFER_LIST list = lists; list != nullptr; list = successor) {
        successor = list->Next;
        list->Next = nullptr;
        SortReceivedList(&indication, list);
    }
    EndInterception(&indication.Interception);

    const NBL_CHAIN& retained = indication.Retained;
    if (retained.Head == nullptr) {
        return;
    }
    NdisFIndicateReceiveNetBufferLists(module->FilterHandle, retained.Head, portNumber,
                                       retained.Count, receiveFlags);
    if (indication.Lent) {
        // The lists are the driver's again, and the adapter takes them back as this call ends.
        NSVFReturnNBLs(module, retained.Head, indication.ReturnFlags, FALSE);
        JoinNetBufferListChains(lists, retained.Head, indication.Completed.Head);
    }
}

VOID NTAPI NSVFReturnNBLs(FILTER_MODULE* module,
                          PNET_BUFFER_LIST lists,
                          ULONG returnFlags,
                          BOOLEAN returnToMiniport) {
    BOOLEAN atDispatch = (returnFlags & NDIS_RETURN_FLAGS_DISPATCH_LEVEL) != 0;
    PNET_BUFFER_LIST others = SettleLists(module, lists, NIRP_DIRECTION_RECEIVE, atDispatch);
    if (returnToMiniport && others != nullptr) {
        NdisFReturnNetBufferLists(module->FilterHandle, others, returnFlags);
    }
}
