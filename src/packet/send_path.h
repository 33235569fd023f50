// The way of sent lists through a module with attached hooks, and of every completion.
#pragma once

#include "module/filter_module.h"

// Offers the chain to the hooks and sends down what they let pass. The caller holds a reference on
// the module and gives the chain away. IRQL <= DISPATCH_LEVEL.
VOID NTAPI NSVFSendNBLs(FILTER_MODULE* module,
                        PNET_BUFFER_LIST lists,
                        NDIS_PORT_NUMBER portNumber,
                        ULONG sendFlags);

// Settles the driver's lists and contexts in a chain that has been sent, and passes up what belongs
// to others. The caller holds a reference on the module and gives the chain away.
// IRQL <= DISPATCH_LEVEL.
VOID NTAPI NSVFSendNBLsComplete(FILTER_MODULE* module,
                                PNET_BUFFER_LIST lists,
                                ULONG sendCompleteFlags);
