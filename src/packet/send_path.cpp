// No hook can be attached so far: no list carries a context of the driver, and none is its own.
#include "packet/send_path.h"

VOID NTAPI NSVFSendNBLs(FILTER_MODULE* module,
                        PNET_BUFFER_LIST lists,
                        NDIS_PORT_NUMBER portNumber,
                        ULONG sendFlags) {
    NdisFSendNetBufferLists(module->FilterHandle, lists, portNumber, sendFlags);
}

VOID NTAPI NSVFSendNBLsComplete(FILTER_MODULE* module,
                                PNET_BUFFER_LIST lists,
                                ULONG sendCompleteFlags) {
    NdisFSendNetBufferListsComplete(module->FilterHandle, lists, sendCompleteFlags);
}
