#include "packet/outstanding.h"

namespace {

bool AnyOutstanding(FILTER_MODULE* module) {
    SpinLockGuard guard(&module->OutstandingLock);
    return module->OutstandingLists != 0;
}

}  // namespace

void InitializeOutstandingLists(FILTER_MODULE* module) {
    InitializeDriverSpinLock(&module->OutstandingLock);
    module->OutstandingLists = 0;
    KeInitializeEvent(&module->OutstandingEvent, NotificationEvent, TRUE);
}

void CountOutstandingList(FILTER_MODULE* module, BOOLEAN atDispatch) {
    SpinLockGuard guard(&module->OutstandingLock, atDispatch);
    if (module->OutstandingLists++ == 0) {
        KeClearEvent(&module->OutstandingEvent);
    }
}

void ReleaseOutstandingList(FILTER_MODULE* module, BOOLEAN atDispatch) {
    SpinLockGuard guard(&module->OutstandingLock, atDispatch);
    if (--module->OutstandingLists == 0) {
        // Inside the lock: whoever sees 0 there may free the module.
        KeSetEvent(&module->OutstandingEvent, 0, FALSE);
    }
}

// The count is read under its lock even after the event was signalled, so that this returns only
// when the signaller has let go of the lock.
void WaitForOutstandingLists(FILTER_MODULE* module) {
    while (AnyOutstanding(module)) {
        KeWaitForSingleObject(&module->OutstandingEvent, Executive, KernelMode, FALSE, nullptr);
    }
}
