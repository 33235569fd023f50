// No hook can be attached so far: no list carries a context of the driver, and none is its own.
#include "packet/receive_path.h"

VOID NTAPI NSVFReceiveNBLs(FILTER_MODULE* module,
                           PNET_BUFFER_LIST lists,
                           NDIS_PORT_NUMBER portNumber,
                           ULONG numberOfNetBufferLists,
                           ULONG receiveFlags) {
    NdisFIndicateReceiveNetBufferLists(module->FilterHandle, lists, portNumber,
                                       numberOfNetBufferLists, receiveFlags);
}

VOID NTAPI NSVFReturnNBLs(FILTER_MODULE* module,
                          PNET_BUFFER_LIST lists,
                          ULONG returnFlags,
                          BOOLEAN returnToMiniport) {
    if (returnToMiniport) {
        NdisFReturnNetBufferLists(module->FilterHandle, lists, returnFlags);
    }
}
