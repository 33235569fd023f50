// What the way down and the way up have in common: showing the buffers of a list to the hooks,
// taking the withheld ones out, and settling the lists that come back.
//
// While a list's buffers are walked, the tail cursor is the buffer that was put back last. Before
// any was put back, it is the buffer that is to become the list's head. So a buffer that meets
// itself in the cursor has no predecessor, and a passed one needs no link.
#pragma once

#include "packet/nbl_context.h"
#include "packet/nirp.h"

// One call's lists on their way past the hooks.
struct INTERCEPTION {
    FILTER_MODULE* Module;
    ULONG Direction;  // NIRP_DIRECTION_SEND or NIRP_DIRECTION_RECEIVE
    BOOLEAN AtDispatch;

    // The record of the latest frame that passed. Most frames pass, and most calls bring many: the
    // next frame can have it without another turn through the pool.
    NIRP* Spare = nullptr;

    // The list whose turn it is.
    NBL_CONTEXT* Context = nullptr;
    PROTOCOL_ENTRY* Protocol = nullptr;  // who sent it; NULL when not known, and on the way up
    PNET_BUFFER TailCursor = nullptr;
};

// Copies each buffer of a list and offers the copy to the module's hooks. Buffers that pass, or
// that cannot be shown, stay in the list in their order. The withheld ones leave it, and their
// records wait in its context for RestoreNetBuffers. The caller has the list; none of the driver's
// locks may be held. IRQL <= DISPATCH_LEVEL.
VOID NTAPI OfferNetBuffers(INTERCEPTION* interception,
                           NBL_CONTEXT* context,
                           PROTOCOL_ENTRY* protocol);

// Gives back what the interception kept for its next list. Before any list leaves the driver: the
// call that it leaves by may bring more frames, which need the record. Same terms.
VOID NTAPI EndInterception(INTERCEPTION* interception);

// Settles a chain that NDIS gave back on its way in `direction`: restores the lists that were
// intercepted there and frees the driver's own. Returns the chain of the lists that belong to
// others, in their order, or NULL. The caller has the chain and a reference on the module; none of
// the driver's locks may be held. IRQL <= DISPATCH_LEVEL.
PNET_BUFFER_LIST NTAPI SettleLists(FILTER_MODULE* module,
                                   PNET_BUFFER_LIST lists,
                                   ULONG direction,
                                   BOOLEAN atDispatch);
