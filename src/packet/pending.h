// Requests that a hook has taken over to decide about later.
#pragma once

#include "driver/filter_module.h"
#include "packet/nirp.h"

// Ends the request that is pending on a sent or received frame. A record that no request is pending
// on only writes a trace line. IRQL <= DISPATCH_LEVEL.
VOID NTAPI NSVFSendPendingComplete(NIRP* nirp, ULONG status);
VOID NTAPI NSVFReceivePendingComplete(NIRP* nirp, ULONG status);

// Drops every request that is pending on the module. The module's state is FILTER_STATE_PAUSED
// already, so no request can become pending any more. PASSIVE_LEVEL.
void FlushPendingSends(FILTER_MODULE* module);
void FlushPendingReceives(FILTER_MODULE* module);
