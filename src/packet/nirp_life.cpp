#include "packet/nirp_life.h"

#include "packet/nirp_pool.h"

namespace {

// State and Holds of a NIRP, as they are at one moment.
struct LIFE {
    ULONG State;
    ULONG Holds;
};

ULONGLONG Pack(LIFE life) {
    return __builtin_bit_cast(ULONGLONG, life);
}

LIFE ReadLife(NIRP* nirp) {
    return __builtin_bit_cast(LIFE, ReadAcquire(NirpLifeWord(nirp)));
}

// False, with `*seen` brought up to date, when the NIRP is no longer as it was seen.
bool Exchange(NIRP* nirp, LIFE* seen, LIFE next) {
    ULONGLONG expected = Pack(*seen);
    ULONGLONG found = InterlockedCompareExchange(NirpLifeWord(nirp), Pack(next), expected);
    *seen = __builtin_bit_cast(LIFE, found);
    return found == expected;
}

bool IsOffered(LIFE life, ULONG offered) {
    return life.State == offered && (life.Holds & NIRP_HOLD_OFFER) != 0;
}

// The NBL may leave from here on, and a mark may be reading its out-of-band data under the lock.
// Marks that come to the lock later find that the offer has ended.
void WaitForReader(NIRP* nirp, bool atDispatch) {
    SpinLockGuard guard(&nirp->Lock, atDispatch);
}

// The holds are the caller's, so they are all set.
LIFE Without(LIFE life, ULONG holds) {
    LIFE next = {life.State, life.Holds - holds};
    if (next.Holds == 0) {
        next.State = NIRP_STATE_IDLE;
    } else if ((holds & NIRP_HOLD_REQUEST) != 0) {
        next.State = NIRP_STATE_COMPLETED;
    } else if ((holds & NIRP_HOLD_NBL) != 0 && life.State == NIRP_STATE_PENDING) {
        next.State = NIRP_STATE_RELEASED;
    }
    return next;
}

// Returns what the NIRP became; with no holds the caller has it to itself.
LIFE EndHolds(NIRP* nirp, ULONG holds) {
    LIFE seen = ReadLife(nirp);
    LIFE next = Without(seen, holds);
    while (!Exchange(nirp, &seen, next)) {
        next = Without(seen, holds);
    }
    return next;
}

}  // namespace

PASS_RESULT FASTABI PassClaimedNirp(NIRP* nirp, ULONG offered, ULONGLONG found, bool atDispatch) {
    LIFE seen = __builtin_bit_cast(LIFE, found);
    while (seen.State == offered) {
        LIFE next = Without(seen, NIRP_HOLD_NBL | NIRP_HOLD_OFFER);
        if (Exchange(nirp, &seen, next)) {
            if (next.Holds == 0) {
                return PASS_OWNED;
            }
            WaitForReader(nirp, atDispatch);
            return PASS_CLAIMED;
        }
    }
    return PASS_MARKED;
}

void FASTABI WithholdNirp(NIRP* nirp, bool atDispatch) {
    LIFE seen = ReadLife(nirp);
    while ((seen.Holds & NIRP_HOLD_OFFER) != 0 &&
           !Exchange(nirp, &seen, {seen.State, seen.Holds - NIRP_HOLD_OFFER})) {
    }
    if (seen.Holds >= NIRP_HOLD_CLAIM) {
        WaitForReader(nirp, atDispatch);
    }
}

bool FASTABI ClaimNirp(NIRP* nirp, ULONG offered) {
    LIFE seen = ReadLife(nirp);
    while (IsOffered(seen, offered)) {
        if (Exchange(nirp, &seen, {seen.State, seen.Holds + NIRP_HOLD_CLAIM})) {
            return true;
        }
    }
    return false;
}

bool FASTABI IsOnOffer(NIRP* nirp) {
    return (ReadLife(nirp).Holds & NIRP_HOLD_OFFER) != 0;
}

bool FASTABI PublishRequest(NIRP* nirp, ULONG offered) {
    LIFE seen = ReadLife(nirp);
    while (IsOffered(seen, offered)) {
        ULONG holds = seen.Holds - NIRP_HOLD_CLAIM - NIRP_HOLD_OFFER;
        if (Exchange(nirp, &seen,
                     {NIRP_STATE_PENDING, holds | NIRP_HOLD_REQUEST | NIRP_HOLD_MARKS})) {
            return true;
        }
    }
    return false;
}

void FASTABI EndClaim(NIRP* nirp) {
    if (EndHolds(nirp, NIRP_HOLD_CLAIM).Holds == 0) {
        ReturnNirp(nirp->Module, nirp, false);
    }
}

void FASTABI EndNblHold(NIRP* nirp, bool atDispatch) {
    if (EndHolds(nirp, NIRP_HOLD_NBL).Holds == 0) {
        ReturnNirp(nirp->Module, nirp, atDispatch);
    }
}

void FASTABI EndRequest(NIRP* nirp, ULONG holds) {
    if (EndHolds(nirp, holds).Holds == 0) {
        ReturnNirp(nirp->Module, nirp, false);
    }
}
