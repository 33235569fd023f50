// A count that can be waited on until it is 0: of what has to end before something is freed.
#pragma once

#include "module/spin_lock.h"

// Somebody waits, and whoever ends something takes the lock for it.
constexpr ULONG DRAIN_WAITED = 0x80000000;

// On the data path nobody waits, and counting is one interlocked operation.
struct DRAIN_COUNT {
    ULONG Count;            // of what is under way, and DRAIN_WAITED; atomic
    DRIVER_SPIN_LOCK Lock;  // taken to lower a count that is waited on; a leaf
    KEVENT Event;           // signalled under Lock as such a count falls to 0
};

// Makes the count 0 and its lock free. PASSIVE_LEVEL.
void InitializeDrainCount(DRAIN_COUNT* drain);

// Raises the count. IRQL <= DISPATCH_LEVEL.
void FASTABI RaiseDrainCount(DRAIN_COUNT* drain);

// Lowers the count: the very last act on whatever is counted, since the waiter may free it, and the
// count with it, at once. IRQL <= DISPATCH_LEVEL.
void FASTABI LowerDrainCount(DRAIN_COUNT* drain);

// Returns when the count is 0. One waiter at a time. PASSIVE_LEVEL.
void WaitForDrain(DRAIN_COUNT* drain);
