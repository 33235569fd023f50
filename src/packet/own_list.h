// Lists that the driver itself originates: a NET_BUFFER_LIST from the module's own pool, with one
// buffer that a packet record holds.
//
// Such a list is counted in the module's OutstandingLists from before anyone can see it until it is
// freed, and the record in its context comes and goes with it.
#pragma once

#include "packet/nbl_context.h"
#include "packet/nirp.h"

// The trace line of each step that can fail.
struct OWN_LIST_SITES {
    PCSTR Label;
    ULONG NoList;
    ULONG NoContext;
};

// Makes a list of `type` whose frame is the record's first DataLength bytes, and hangs the record
// in its context. NULL when there is no memory: a trace line says what was missing, and the record
// is back in the pool. `atDispatch` says that the caller runs at DISPATCH_LEVEL; of the driver's
// locks only ModuleListLock may be held. IRQL <= DISPATCH_LEVEL.
NBL_CONTEXT* NTAPI MakeOwnList(FILTER_MODULE* module,
                               NIRP* nirp,
                               ULONG type,
                               const OWN_LIST_SITES* sites,
                               BOOLEAN atDispatch);

// Frees a list of the driver's own with its record, its context and its work item. A pause or a
// detach may have waited for exactly this, so the module must not be touched any more unless
// something else holds it. Same terms; ModuleListLock, where it is held, is such a hold.
VOID NTAPI FreeOwnList(FILTER_MODULE* module, NBL_CONTEXT* context, BOOLEAN atDispatch);
