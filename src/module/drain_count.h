// A count that can be waited on until it is 0.
#pragma once

#include "module/spin_lock.h"

// The event is cleared as the count rises from 0 and signalled as it falls to 0, while the lock is
// held.
struct DRAIN_COUNT {
    ULONG Count GUARDED_BY(Lock);
    DRIVER_SPIN_LOCK Lock;  // guards Count; a leaf
    KEVENT Event;
};

// Makes the count 0 and its lock free. PASSIVE_LEVEL.
void InitializeDrainCount(DRAIN_COUNT* drain);

// Raises the count. `atDispatch` says that the caller runs at DISPATCH_LEVEL. IRQL <=
// DISPATCH_LEVEL.
void FASTABI RaiseDrainCount(DRAIN_COUNT* drain, BOOLEAN atDispatch);

// Lowers the count: the very last act on whatever is counted, since the waiter may free it, and the
// count with it, at once. Same terms.
void FASTABI LowerDrainCount(DRAIN_COUNT* drain, BOOLEAN atDispatch);

// Returns when the count is 0. PASSIVE_LEVEL.
void WaitForDrain(DRAIN_COUNT* drain);
