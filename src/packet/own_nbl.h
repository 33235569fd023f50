// NBLs that the driver originates: from the module's own pool, each with one NET_BUFFER over the
// bytes of a NIRP.
//
// Such an NBL is counted in the module's OutstandingNbls from before anyone can see it until it is
// freed, and the NIRP in its context comes and goes with it.
#pragma once

#include "packet/nbl_context.h"
#include "packet/nirp.h"

// The trace line of each step that can fail.
struct OWN_NBL_SITES {
    PCSTR Label;
    ULONG NoNbl;
    ULONG NoContext;
};

// Makes an NBL of `type` whose frame is the NIRP's first DataLength bytes, and puts the NIRP into
// its context. NULL when there is no memory: a trace line says what was missing, and the NIRP is
// back in the pool. `atDispatch` says that the caller runs at DISPATCH_LEVEL; of the driver's locks
// only ModuleListLock may be held. IRQL <= DISPATCH_LEVEL.
NBL_CONTEXT* FASTABI MakeOwnNbl(FILTER_MODULE* module,
                                NIRP* nirp,
                                ULONG type,
                                const OWN_NBL_SITES* sites,
                                bool atDispatch);

// Frees an NBL of the driver's own with its NIRP, its context and its work item. A pause or a
// detach may have waited for exactly this, so the module must not be touched any more unless
// something else holds it. Same terms; ModuleListLock, where it is held, is such a hold.
void FASTABI FreeOwnNbl(FILTER_MODULE* module, NBL_CONTEXT* context, bool atDispatch);
