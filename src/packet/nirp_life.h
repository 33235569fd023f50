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
#include "platform/atomics.h"

// State and Holds as the one number that they are read and exchanged as.
inline volatile ULONGLONG* NirpLifeWord(NIRP* nirp) {
    return reinterpret_cast<volatile ULONGLONG*>(&nirp->State);
}

inline ULONGLONG PackNirpLife(ULONG state, ULONG holds) {
    return state | static_cast<ULONGLONG>(holds) << 32;
}

// Makes a NIRP that the caller has to itself one that a hook is shown: State becomes `offered`
// (NIRP_STATE_SEND or NIRP_STATE_RECEIVE), with NIRP_HOLD_NBL and NIRP_HOLD_OFFER. Every other
// field is set already.
inline void OfferNirp(NIRP* nirp, ULONG offered) {
    WriteRelease(NirpLifeWord(nirp), PackNirpLife(offered, NIRP_HOLD_NBL | NIRP_HOLD_OFFER));
}

// Each ends the offer, since the hooks have been called: from here on no mark begins a request, and
// none reads the NBL. `atDispatch` says that the caller runs at DISPATCH_LEVEL.
//
// PassNirp: the frame is to stay in its NBL.
enum PASS_RESULT {
    PASS_OWNED,    // it may, and the caller has the NIRP to itself again
    PASS_CLAIMED,  // it may, and the NIRP goes back to the pool when the claims of late marks end
    PASS_MARKED,   // it may not: a hook has taken the frame over
};
// What is inline here is what every frame that passes goes through; PassClaimedNirp is the rest,
// for a NIRP whose life was `found` to have been changed by a mark.
PASS_RESULT FASTABI PassClaimedNirp(NIRP* nirp, ULONG offered, ULONGLONG found, bool atDispatch);
inline PASS_RESULT PassNirp(NIRP* nirp, ULONG offered, bool atDispatch) {
    ULONGLONG untouched = PackNirpLife(offered, NIRP_HOLD_NBL | NIRP_HOLD_OFFER);
    ULONGLONG found =
        InterlockedCompareExchange(NirpLifeWord(nirp), PackNirpLife(NIRP_STATE_IDLE, 0), untouched);
    return found == untouched ? PASS_OWNED : PassClaimedNirp(nirp, offered, found, atDispatch);
}
// WithholdNirp: the frame is to be withheld from its NBL, whether it was marked or not.
void FASTABI WithholdNirp(NIRP* nirp, bool atDispatch);

// Keeps a NIRP that is on offer, in the state `offered`, from being let go or used again, until
// EndClaim or PublishRequest. False when it is not on offer, or no longer.
bool FASTABI ClaimNirp(NIRP* nirp, ULONG offered);

// Whether the NIRP is still on offer: its Context and the NBL may be read for as long as the
// caller, who has a claim, holds the NIRP's Lock.
bool FASTABI IsOnOffer(NIRP* nirp);

// Turns the caller's claim into the request: State becomes NIRP_STATE_PENDING. False when the frame
// is no longer on offer; the caller still has its claim then. The lock of the pending list is held.
bool FASTABI PublishRequest(NIRP* nirp, ULONG offered);

// Each ends a hold of the caller, who must not touch the NIRP any more: with the last one it is
// back in its pool.
void FASTABI EndClaim(NIRP* nirp);
void FASTABI EndNblHold(NIRP* nirp, bool atDispatch);

// Ends NIRP_HOLD_REQUEST, NIRP_HOLD_MARKS or both.
void FASTABI EndRequest(NIRP* nirp, ULONG holds);
