#include "hook/hook_life.h"

#include "module/driver_globals.h"
#include "platform/runtime.h"

namespace {

constexpr UINT IDLE_POLL_MILLISECONDS = 100;
constexpr UINT IDLE_WAIT_MILLISECONDS = 10'000;

bool IsBusy(ULONGLONG holds) {
    return static_cast<ULONG>(holds) != 0;
}

ULONG LifeAfter(ULONG life) {
    return life == HOOK_LIFE_UNLOAD_SILENT ? HOOK_LIFE_LEAVING_SILENT : HOOK_LIFE_LEAVING;
}

// Looks every 100 milliseconds whether a handler still runs. The store to TimerRunning is the last
// touch of the record: the waiter may free it at once.
VOID NTAPI HookIdleTimerRoutine(PVOID, PVOID functionContext, PVOID, PVOID) {
    auto* hook = static_cast<HOOK_FILTER*>(functionContext);
    if (ReadAcquire(&hook->BusyCount) != 0) {
        NdisSetTimer(&hook->HookIdleTimer, IDLE_POLL_MILLISECONDS);
        return;
    }
    NdisSetEvent(&hook->HookIdleEvent);
    WriteRelease<UCHAR>(&hook->TimerRunning, FALSE);
}

// Cancelling does not wait for a routine that has begun, and that one may arm the timer once more.
// So: cancel, else let the routine end, until the timer was cancelled or its routine is through.
void StopIdleTimer(HOOK_FILTER* hook) {
    do {
        BOOLEAN cancelled = FALSE;
        NdisCancelTimer(&hook->HookIdleTimer, &cancelled);
        if (cancelled) {
            return;
        }
        KeFlushQueuedDpcs();
    } while (ReadAcquire(&hook->TimerRunning));
}

// No call is in progress and none begins any more. Uncounting is the last act: the driver may be
// gone behind it.
void EndTakenDown(HOOK_FILTER* hook) {
    if (InterlockedAdd(&hook->Holds, 0 - HOOK_HOLD_TAKEN_DOWN) == 0) {
        FreeHookFilter(hook);
    }
    LowerDrainCount(&g_DriverGlobals.LeavingHooks);
}

}  // namespace

bool IsOwedDetachNotify(const HOOK_FILTER* hook) {
    ULONG life = ReadAcquire(&hook->Life);
    return life != HOOK_LIFE_UNLOAD_SILENT && life != HOOK_LIFE_LEAVING_SILENT;
}

// The registration whose end takes the hook off the list is still held, for as long as it is on.
bool JoinHook(HOOK_FILTER* hook) {
    if (IsHookLeaving(hook)) {
        return false;
    }
    HoldHook(hook, HOOK_HOLD_OWNER);
    return true;
}

bool BeginUnloadOfHook(HOOK_FILTER* hook) {
    ULONG life =
        hook->UnloadNotify != nullptr ? HOOK_LIFE_UNLOAD_NOTIFIED : HOOK_LIFE_UNLOAD_SILENT;
    HoldHook(hook, HOOK_HOLD_OWNER);
    WriteRelease(&hook->State, HOOK_STATE_STOPPED);
    if (InterlockedCompareExchange(&hook->Life, life, HOOK_LIFE_REGISTERED) !=
        HOOK_LIFE_REGISTERED) {
        return false;
    }
    return life == HOOK_LIFE_UNLOAD_NOTIFIED;
}

bool BeginLeaving(HOOK_FILTER* hook) {
    ULONG life = ReadAcquire(&hook->Life);
    while (life < HOOK_LIFE_LEAVING) {
        ULONG found = InterlockedCompareExchange(&hook->Life, LifeAfter(life), life);
        if (found == life) {
            WriteRelease(&hook->State, HOOK_STATE_STOPPED);
            return true;
        }
        life = found;
    }
    return false;
}

void WaitHookFilterIdle(HOOK_FILTER* hook) {
    NdisInitializeTimer(&hook->HookIdleTimer, HookIdleTimerRoutine, hook);
    WriteRelease<UCHAR>(&hook->TimerRunning, TRUE);
    NdisSetTimer(&hook->HookIdleTimer, IDLE_POLL_MILLISECONDS);
    NdisWaitEvent(&hook->HookIdleEvent, IDLE_WAIT_MILLISECONDS);
    StopIdleTimer(hook);
}

void FinishLeaving(HOOK_FILTER* hook) {
    NdisSetEvent(&hook->TakenDownEvent);
    if (!IsBusy(InterlockedAdd(&hook->Holds, HOOK_HOLD_TAKEN_DOWN - HOOK_HOLD_OWNER))) {
        EndTakenDown(hook);
    }
}

void WaitUntilTakenDown(HOOK_FILTER* hook) {
    NdisWaitEvent(&hook->TakenDownEvent, 0);
}

void FASTABI EndLastHookCall(HOOK_FILTER* hook, ULONGLONG left) {
    if (!IsBusy(left)) {
        EndTakenDown(hook);
    }
}

void ReleaseHook(HOOK_FILTER* hook) {
    if (InterlockedAdd(&hook->Holds, 0 - HOOK_HOLD_OWNER) == 0) {
        FreeHookFilter(hook);
    }
}
