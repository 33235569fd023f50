// Sends through a module with attached hooks, and every send completion.
#pragma once

#include "module/filter_module.h"

// Offers the chain to the hooks and sends what they let pass. The caller holds a reference on the
// module and gives the chain away. IRQL <= DISPATCH_LEVEL.
void FASTABI NSVFSendNBLs(FILTER_MODULE* module,
                          PNET_BUFFER_LIST nbls,
                          NDIS_PORT_NUMBER portNumber,
                          ULONG sendFlags);

// Frees the driver's own NBLs of a chain that was sent, takes the driver's contexts off the others
// and completes them. The caller holds a reference on the module and gives the chain away.
// IRQL <= DISPATCH_LEVEL.
void FASTABI NSVFSendNBLsComplete(FILTER_MODULE* module,
                                  PNET_BUFFER_LIST nbls,
                                  ULONG sendCompleteFlags);
