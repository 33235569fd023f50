// The life of a NIRP: every change of its State and its Holds. What the pool, the paths and the
// pending requests do with a NIRP, they do by these routines.
//
//   pool ──GetNirp──► IDLE ──OfferNirp──► SEND or RECEIVE ──PassNirp──► IDLE, the offerer's
//                                           │        ▲  │
//                                           │        │  └─WithholdNirp─► the same, no longer on
//                                      ClaimNirp  EndClaim             offer ──EndNblHold──► IDLE
//                                           │        │
//                                           └─► claimed ──PublishRequest──► PENDING
//
//   PENDING ──EndRequest──► COMPLETED       (its NET_BUFFER is still withheld, or marks are open)
//   PENDING ──EndNblHold──► RELEASED ──EndRequest──► COMPLETED, when marks are open
//   whoever ends the last hold ──► IDLE, and ReturnNirp
//
// State and Holds are the two halves of one 64-bit word, and each transition is one interlocked
// exchange of it. So no transition can be taken twice, and no use of a NIRP meets the next one: a
// NIRP with a hold is not in the pool. A frame that was marked never looks offered again, since
// NIRP_HOLD_OFFER comes from OfferNirp alone.
//
// None of these may be called with a free list's lock held. IRQL <= DISPATCH_LEVEL.
#pragma once

#include "packet/nirp.h"

// Makes a NIRP that the caller has to itself one that a hook is shown: State becomes `offered`
// (NIRP_STATE_SEND or NIRP_STATE_RECEIVE), with NIRP_HOLD_NBL and NIRP_HOLD_OFFER. Every other
// field is set already.
void OfferNirp(NIRP* nirp, ULONG offered);

// Each ends the offer, since the hooks have been called: from here on no mark begins a request, and
// none reads the NBL. `atDispatch` says that the caller runs at DISPATCH_LEVEL.
//
// PassNirp: the frame is to stay in its NBL.
enum PASS_RESULT {
    PASS_OWNED,    // it may, and the caller has the NIRP to itself again
    PASS_CLAIMED,  // it may, and the NIRP goes back to the pool when the claims of late marks end
    PASS_MARKED,   // it may not: a hook has taken the frame over
};
PASS_RESULT FASTABI PassNirp(NIRP* nirp, ULONG offered, bool atDispatch);
// WithholdNirp: the frame is to be withheld from its NBL, whether it was marked or not.
void FASTABI WithholdNirp(NIRP* nirp, bool atDispatch);

// Keeps a NIRP that is on offer, in the state `offered`, from being let go or used again, until
// EndClaim or PublishRequest. False when it is not on offer, or no longer.
bool ClaimNirp(NIRP* nirp, ULONG offered);

// Whether the NIRP is still on offer: its Context and the NBL may be read for as long as the
// caller, who has a claim, holds the NIRP's Lock.
bool IsOnOffer(NIRP* nirp);

// Turns the caller's claim into the request: State becomes NIRP_STATE_PENDING. False when the frame
// is no longer on offer; the caller still has its claim then. The lock of the pending list is held.
bool PublishRequest(NIRP* nirp, ULONG offered);

// Each ends a hold of the caller, who must not touch the NIRP any more: with the last one it is
// back in its pool.
void EndClaim(NIRP* nirp);
void FASTABI EndNblHold(NIRP* nirp, bool atDispatch);

// Ends NIRP_HOLD_REQUEST, NIRP_HOLD_MARKS or both.
void EndRequest(NIRP* nirp, ULONG holds);
