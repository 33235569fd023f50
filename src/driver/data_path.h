// The entry of the data path. NDIS calls these at IRQL <= DISPATCH_LEVEL, on several processors at
// once, for the same module too. Each holds a reference on its module for the length of the call.
#pragma once

#include "platform/ndis.h"

// Passes the chain down, through the hooks if any is attached. While the module is being detached,
// the chain is completed with NDIS_STATUS_PAUSED in every NBL.
VOID NTAPI NSVFilterSendNetBufferLists(NDIS_HANDLE FilterModuleContext,
                                       PNET_BUFFER_LIST NetBufferLists,
                                       NDIS_PORT_NUMBER PortNumber,
                                       ULONG SendFlags);

// Takes the driver's own NBLs out of the chain and completes the others, also while the module is
// being detached.
VOID NTAPI NSVFilterSendNetBufferListsComplete(NDIS_HANDLE FilterModuleContext,
                                               PNET_BUFFER_LIST NetBufferLists,
                                               ULONG SendCompleteFlags);

// Passes the chain up, through the hooks if any is attached. While the module is being detached,
// the adapter gets it back.
VOID NTAPI NSVFilterReceiveNetBufferLists(NDIS_HANDLE FilterModuleContext,
                                          PNET_BUFFER_LIST NetBufferLists,
                                          NDIS_PORT_NUMBER PortNumber,
                                          ULONG NumberOfNetBufferLists,
                                          ULONG ReceiveFlags);

// Takes the driver's own NBLs out of the chain and returns the others to the adapter, also while
// the module is being detached.
VOID NTAPI NSVFilterReturnNetBufferLists(NDIS_HANDLE FilterModuleContext,
                                         PNET_BUFFER_LIST NetBufferLists,
                                         ULONG ReturnFlags);
