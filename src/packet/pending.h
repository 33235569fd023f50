// Requests that a hook has taken over to decide about later.
//
// A request begins with the first mark on a NIRP that is on offer, and is finished once: by the
// completion of its last mark, or by the flush of a pause. Whoever takes the NIRP off its pending
// list, under that list's lock, finishes it; the clone goes with that.
//
// A hook does not hear of a pause. After a flush the NIRP stays out of the pool until every mark
// has been completed all the same, so that none of these completions can meet a later request.
#pragma once

#include "module/filter_module.h"
#include "packet/nirp.h"

// Makes the module's pending lists empty and their locks free.
void InitializePendingLists(FILTER_MODULE* module);

// Counts one completed mark of a NIRP on its pending list, and keeps a status that is not 0.
// Returns STATUS_SUCCESS for the last mark, else STATUS_UNSUCCESSFUL. The list's lock is held.
NTSTATUS DecrementNirpPending(NIRP* nirp, ULONG status);

// Complete one mark on a sent or a received frame. The last one finishes the request: with every
// status 0 the clone is sent or indicated, unless the module is no longer running; else it is
// dropped. A NIRP that no request is pending on, in this direction, writes a trace line. IRQL <=
// DISPATCH_LEVEL, none of the driver's locks held.
void FASTABI NSVFSendPendingComplete(NIRP* nirp, ULONG status);
void FASTABI NSVFReceivePendingComplete(NIRP* nirp, ULONG status);

// Drops every request that is pending on the module. The module's state is FILTER_STATE_PAUSED
// already, so no request can become pending any more. PASSIVE_LEVEL.
void FlushPendingSends(FILTER_MODULE* module);
void FlushPendingReceives(FILTER_MODULE* module);

// Frees the NIRPs whose marks were never all completed. The module is being freed, and no hook may
// complete anything on it any more. PASSIVE_LEVEL.
void FreeUnpaidNirps(FILTER_MODULE* module);
