#include "module/drain_count.h"

#include "platform/atomics.h"

namespace {

// Whoever finds 0 here, under the lock, is the last to touch the count.
bool IsDrained(DRAIN_COUNT* drain) {
    SpinLockGuard guard(&drain->Lock);
    if (ReadAcquire(&drain->Count) == DRAIN_WAITED) {
        return true;
    }
    KeClearEvent(&drain->Event);
    return false;
}

// False when somebody waits, or the count has just changed.
bool TryLowerUnwaited(DRAIN_COUNT* drain) {
    ULONG seen = ReadAcquire(&drain->Count);
    return (seen & DRAIN_WAITED) == 0 &&
           InterlockedCompareExchange(&drain->Count, seen - 1, seen) == seen;
}

// Lowered inside the lock: the waiter, who reads the count under it, cannot see 0 and free the
// count before the lock has been released.
void LowerUnderLock(DRAIN_COUNT* drain) {
    SpinLockGuard guard(&drain->Lock);
    if (InterlockedDecrement(&drain->Count) == DRAIN_WAITED) {
        KeSetEvent(&drain->Event, 0, FALSE);
    }
}

}  // namespace

void InitializeDrainCount(DRAIN_COUNT* drain) {
    InitializeDriverSpinLock(&drain->Lock);
    drain->Count = 0;
    KeInitializeEvent(&drain->Event, NotificationEvent, FALSE);
}

void FASTABI RaiseDrainCount(DRAIN_COUNT* drain) {
    InterlockedIncrement(&drain->Count);
}

void FASTABI LowerDrainCount(DRAIN_COUNT* drain) {
    if (!TryLowerUnwaited(drain)) {
        LowerUnderLock(drain);
    }
}

void WaitForDrain(DRAIN_COUNT* drain) {
    InterlockedAdd(&drain->Count, DRAIN_WAITED);
    while (!IsDrained(drain)) {
        KeWaitForSingleObject(&drain->Event, Executive, KernelMode, FALSE, nullptr);
    }
    InterlockedAdd(&drain->Count, 0 - DRAIN_WAITED);
}
