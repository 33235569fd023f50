// Receive indications through a module with attached hooks, and every return.
#pragma once

#include "module/filter_module.h"

// Offers the chain to the hooks and indicates what they let pass. The caller holds a reference on
// the module and gives the chain away, unless `receiveFlags` has NDIS_RECEIVE_FLAGS_RESOURCES: then
// it has the chain back, as it was, when this returns. IRQL <= DISPATCH_LEVEL.
void FASTABI NSVFReceiveNBLs(FILTER_MODULE* module,
                             PNET_BUFFER_LIST nbls,
                             NDIS_PORT_NUMBER portNumber,
                             ULONG numberOfNetBufferLists,
                             ULONG receiveFlags);

// Frees the driver's own NBLs of a chain that was indicated and takes the driver's contexts off the
// others. With `returnToMiniport` these are returned, else they stay with the caller. The caller
// holds a reference on the module. IRQL <= DISPATCH_LEVEL.
void FASTABI NSVFReturnNBLs(FILTER_MODULE* module,
                            PNET_BUFFER_LIST nbls,
                            ULONG returnFlags,
                            bool returnToMiniport);
