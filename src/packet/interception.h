// What the send and the receive path have in common: showing the NET_BUFFERs of an NBL to the
// hooks, taking the withheld ones out, and settling the NBLs that come back.
//
// While an NBL's NET_BUFFERs are walked, the tail cursor is the one that was put back last. Before
// any was put back, it is the one that is to become the NBL's first. So a NET_BUFFER that equals
// the cursor has no predecessor, and one that passed needs no link.
#pragma once

#include "packet/nbl_context.h"
#include "packet/nirp.h"

// The NBLs of one call, on their way past the hooks.
struct INTERCEPTION {
    FILTER_MODULE* Module;
    ULONG Direction;  // NIRP_DIRECTION_SEND or NIRP_DIRECTION_RECEIVE
    NDIS_PORT_NUMBER PortNumber;
    bool AtDispatch;

    // The NIRP of the latest frame that passed. Most frames pass and most calls bring many: the
    // next frame takes it without the locks of the pool.
    NIRP* Spare = nullptr;

    // The NBL at hand.
    NBL_CONTEXT* Context = nullptr;
    PROTOCOL_ENTRY* Protocol = nullptr;  // of a sent NBL; NULL when it is not known
    PNET_BUFFER TailCursor = nullptr;
};

// Puts a context on the NBL and offers a copy of each NET_BUFFER to the module's hooks. NET_BUFFERs
// that pass, or that cannot be shown, stay in the NBL in their order. The withheld ones leave it,
// and their NIRPs wait in the context for RestoreNetBuffers. False when there is no context to be
// had; the NBL is untouched then. The caller has the NBL; none of the driver's locks may be held.
// IRQL <= DISPATCH_LEVEL.
bool FASTABI InterceptNbl(INTERCEPTION* interception,
                          PNET_BUFFER_LIST nbl,
                          PROTOCOL_ENTRY* protocol);

// Returns the spare NIRP to the pool. To be called before any NBL leaves the driver: the call that
// it leaves by may bring more frames, and they may need it. Same terms.
void FASTABI EndInterception(INTERCEPTION* interception);

// Settles a chain that NDIS gave back on its way in `direction`: restores the NBLs that were
// intercepted and frees the driver's own. Returns the chain of the NBLs that belong to others, in
// their order, or NULL. The caller has the chain and a reference on the module; none of the
// driver's locks may be held. IRQL <= DISPATCH_LEVEL.
PNET_BUFFER_LIST FASTABI SettleNbls(FILTER_MODULE* module,
                                    PNET_BUFFER_LIST nbls,
                                    ULONG direction,
                                    bool atDispatch);
