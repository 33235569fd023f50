#include "module/drain_count.h"

namespace {

bool IsDrained(DRAIN_COUNT* drain) {
    SpinLockGuard guard(&drain->Lock);
    return drain->Count == 0;
}

}  // namespace

void InitializeDrainCount(DRAIN_COUNT* drain) BEFORE_OR_AFTER_SHARING {
    InitializeDriverSpinLock(&drain->Lock);
    drain->Count = 0;
    KeInitializeEvent(&drain->Event, NotificationEvent, TRUE);
}

void FASTABI RaiseDrainCount(DRAIN_COUNT* drain, BOOLEAN atDispatch) {
    SpinLockGuard guard(&drain->Lock, atDispatch);
    if (drain->Count++ == 0) {
        KeClearEvent(&drain->Event);
    }
}

void FASTABI LowerDrainCount(DRAIN_COUNT* drain, BOOLEAN atDispatch) {
    SpinLockGuard guard(&drain->Lock, atDispatch);
    if (--drain->Count == 0) {
        // Inside the lock: whoever sees 0 there may free it.
        KeSetEvent(&drain->Event, 0, FALSE);
    }
}

// The count is read under its lock even after the event was signalled, so that this returns only
// when the signaller has let go of the lock.
void WaitForDrain(DRAIN_COUNT* drain) {
    while (!IsDrained(drain)) {
        KeWaitForSingleObject(&drain->Event, Executive, KernelMode, FALSE, nullptr);
    }
}
