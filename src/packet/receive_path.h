// The way of received lists through a module with attached hooks, and of every return.
#pragma once

#include "module/filter_module.h"

// Offers the chain to the hooks and indicates what they let pass. The caller holds a reference on
// the module and gives the chain away, or lends it for the call when `receiveFlags` says so.
// IRQL <= DISPATCH_LEVEL.
VOID NTAPI NSVFReceiveNBLs(FILTER_MODULE* module,
                           PNET_BUFFER_LIST lists,
                           NDIS_PORT_NUMBER portNumber,
                           ULONG numberOfNetBufferLists,
                           ULONG receiveFlags);

// Settles the driver's lists and contexts in a chain that has been received. With
// `returnToMiniport` the other lists go back to the adapter, else they stay with the caller. The
// caller holds a reference on the module. IRQL <= DISPATCH_LEVEL.
VOID NTAPI NSVFReturnNBLs(FILTER_MODULE* module,
                          PNET_BUFFER_LIST lists,
                          ULONG returnFlags,
                          BOOLEAN returnToMiniport);
