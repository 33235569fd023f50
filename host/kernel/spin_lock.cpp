// The kernel's spin locks and IRQL.

#include "host/machine.h"
#include "host/sched/happens_before.h"
#include "host/sched/threaded_scheduler.h"

using namespace netsieve::host;

namespace {

// The checked and the simulated forms stay out of the fast paths: they carry the platform's calling
// convention themselves, so that the fast paths need not save the registers it preserves.

__attribute__((noinline)) KIRQL NTAPI AcquireSlowly(PKSPIN_LOCK lock, bool atDpc) {
    Machine& machine = Machine::Current();
    Context& context = CurrentContext();
    const KIRQL saved = context.irql;
    LockTracker* const tracker = machine.locks();
    if (tracker != nullptr && !tracker->BeforeAcquire(lock, atDpc)) {
        return saved;
    }
    if (!atDpc) {
        machine.scheduler().SetIrql(DISPATCH_LEVEL);
    }
    machine.scheduler().AcquireSpin(lock);
    NoteAcquire(lock);
    if (tracker != nullptr) {
        tracker->AfterAcquire(lock, atDpc, saved);
    }
    return saved;
}

__attribute__((noinline)) void NTAPI ReleaseSlowly(PKSPIN_LOCK lock, bool atDpc, KIRQL irql) {
    Machine& machine = Machine::Current();
    LockTracker* const tracker = machine.locks();
    if (tracker == nullptr || tracker->BeforeRelease(lock, atDpc, irql)) {
        NoteRelease(lock);
        machine.scheduler().ReleaseSpin(lock);
    }
    if (!atDpc) {
        machine.scheduler().SetIrql(irql);
    }
}

__attribute__((noinline)) void NTAPI InitialiseTracked(LockTracker* tracker, PKSPIN_LOCK lock) {
    tracker->Initialise(lock);
}

}  // namespace

extern "C" {

VOID NTAPI KeInitializeSpinLock(PKSPIN_LOCK SpinLock) {
    if (LockTracker* const tracker = Machine::Current().locks()) {
        InitialiseTracked(tracker, SpinLock);
    } else {
        *SpinLock = 0;
    }
}

KIRQL NTAPI KeAcquireSpinLockRaiseToDpc(PKSPIN_LOCK SpinLock) {
    if (!g_plainMode) {
        return AcquireSlowly(SpinLock, false);
    }
    Context& context = CurrentContext();
    const KIRQL saved = context.irql;
    context.irql = DISPATCH_LEVEL;
    ThreadedScheduler::SpinUntilAcquired(SpinLock);
    NoteAcquire(SpinLock);
    return saved;
}

VOID NTAPI KeReleaseSpinLock(PKSPIN_LOCK SpinLock, KIRQL NewIrql) {
    if (!g_plainMode) {
        ReleaseSlowly(SpinLock, false, NewIrql);
        return;
    }
    NoteRelease(SpinLock);
    ThreadedScheduler::ReleaseWord(SpinLock);
    CurrentContext().irql = NewIrql;
}

VOID NTAPI KeAcquireSpinLockAtDpcLevel(PKSPIN_LOCK SpinLock) {
    if (!g_plainMode) {
        AcquireSlowly(SpinLock, true);
        return;
    }
    ThreadedScheduler::SpinUntilAcquired(SpinLock);
    NoteAcquire(SpinLock);
}

VOID NTAPI KeReleaseSpinLockFromDpcLevel(PKSPIN_LOCK SpinLock) {
    if (!g_plainMode) {
        ReleaseSlowly(SpinLock, true, DISPATCH_LEVEL);
        return;
    }
    NoteRelease(SpinLock);
    ThreadedScheduler::ReleaseWord(SpinLock);
}

KIRQL NTAPI KeGetCurrentIrql(VOID) {
    return CurrentContext().irql;
}

}  // extern "C"
