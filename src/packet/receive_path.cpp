#include "packet/receive_path.h"

#include "module/trace_log.h"
#include "packet/interception.h"
#include "packet/net_buffer_chain.h"

namespace {

// One receive indication, its NBLs sorted into those that are indicated further and those that are
// not.
struct INDICATION {
    INTERCEPTION Interception;
    ULONG ReturnFlags;         // of the returns that the call itself makes
    bool Resources;            // the adapter has every NBL back when the call returns
    NBL_CHAIN Retained = {};   // to be indicated
    NBL_CHAIN Completed = {};  // all NET_BUFFERs withheld, and to stay with the caller
};

// An NBL that came without a NET_BUFFER is treated as one of which all were withheld.
void SortReceivedNbl(INDICATION* indication, PNET_BUFFER_LIST nbl) {
    FILTER_MODULE* module = indication->Interception.Module;
    if (!InterceptNbl(&indication->Interception, nbl, nullptr)) {
        TraceLog(module, "NSVFReceiveNBLs", 1818, indication->Interception.AtDispatch);
        AppendNetBufferList(&indication->Retained, nbl);
    } else if (nbl->FirstNetBuffer != nullptr) {
        AppendNetBufferList(&indication->Retained, nbl);
    } else if (indication->Resources) {
        EndInterception(&indication->Interception);
        NSVFReturnNBLs(module, nbl, indication->ReturnFlags, false);
        AppendNetBufferList(&indication->Completed, nbl);
    } else {
        EndInterception(&indication->Interception);
        NSVFReturnNBLs(module, nbl, indication->ReturnFlags, true);
    }
}

}  // namespace

void FASTABI NSVFReceiveNBLs(FILTER_MODULE* module,
                             PNET_BUFFER_LIST nbls,
                             NDIS_PORT_NUMBER portNumber,
                             ULONG,
                             ULONG receiveFlags) {
    bool atDispatch = (receiveFlags & NDIS_RECEIVE_FLAGS_DISPATCH_LEVEL) != 0;
    INDICATION indication = {.Interception = {.Module = module,
                                              .Direction = NIRP_DIRECTION_RECEIVE,
                                              .PortNumber = portNumber,
                                              .AtDispatch = atDispatch},
                             .ReturnFlags = atDispatch ? NDIS_RETURN_FLAGS_DISPATCH_LEVEL : 0,
                             .Resources = (receiveFlags & NDIS_RECEIVE_FLAGS_RESOURCES) != 0};
    PNET_BUFFER_LIST successor = nullptr;
    for (PNET_BUFFER_LIST nbl = nbls; nbl != nullptr; nbl = successor) {
        successor = nbl->Next;
        nbl->Next = nullptr;
        SortReceivedNbl(&indication, nbl);
    }
    EndInterception(&indication.Interception);

    const NBL_CHAIN& retained = indication.Retained;
    if (retained.Head == nullptr) {
        return;
    }
    NdisFIndicateReceiveNetBufferLists(module->FilterHandle, retained.Head, portNumber,
                                       retained.Count, receiveFlags);
    if (indication.Resources) {
        // The NBLs are the driver's again until this call returns: restore them as they were.
        NSVFReturnNBLs(module, retained.Head, indication.ReturnFlags, false);
        JoinNetBufferListChains(nbls, retained.Head, indication.Completed.Head);
    }
}

void FASTABI NSVFReturnNBLs(FILTER_MODULE* module,
                            PNET_BUFFER_LIST nbls,
                            ULONG returnFlags,
                            bool returnToMiniport) {
    bool atDispatch = (returnFlags & NDIS_RETURN_FLAGS_DISPATCH_LEVEL) != 0;
    PNET_BUFFER_LIST others = SettleNbls(module, nbls, NIRP_DIRECTION_RECEIVE, atDispatch);
    if (returnToMiniport && others != nullptr) {
        NdisFReturnNetBufferLists(module->FilterHandle, others, returnFlags);
    }
}
