// The life of a hook: every change of its Life and its Holds, and the wait for its handlers.
//
//   ITarnHKRegisterFilter(Ex) ──► REGISTERED ──ITarnHKDeregisterFilter──► LEAVING
//                                     │                                      ▲
//                           TakeForUnload, the hook                          │
//                      ┌──────────────┴──────────────┐                       │
//             has an UnloadNotify                 has none                   │
//                      ▼                             ▼                       │
//               UNLOAD_NOTIFIED               UNLOAD_SILENT ──────► LEAVING_SILENT
//                      └──ITarnHKDeregisterFilter────│───────────────────────┘
//
// The first deregistration takes the hook down, whoever else is registered under its name: the
// driver behind its routines may be the one that leaves. The later ones wait until that is done.
// The record stays allocated until nothing holds it: every registration that has not ended, the
// unload pass while it notifies the hook, the taking down, and each handler call in progress.
#pragma once

#include "hook/hook_filter.h"
#include "platform/atomics.h"

constexpr ULONG HOOK_LIFE_REGISTERED = 0;       // on HookList, or about to be
constexpr ULONG HOOK_LIFE_UNLOAD_NOTIFIED = 1;  // off HookList, its UnloadNotify is called
constexpr ULONG HOOK_LIFE_UNLOAD_SILENT = 2;    // off HookList, past all notifications
constexpr ULONG HOOK_LIFE_LEAVING = 3;          // no handler call begins, nothing is attached
constexpr ULONG HOOK_LIFE_LEAVING_SILENT = 4;   // the same, past all notifications

// Holds, as added to HOOK_FILTER::Holds. The low half is BusyCount, the high half OwnerCount.
constexpr ULONGLONG HOOK_HOLD_CALL = 1;            // a handler call
constexpr ULONGLONG HOOK_HOLD_OWNER = 1ULL << 32;  // a registration, or the unload pass
// The hook has been taken down, and counts in LeavingHooks until its last handler has returned.
constexpr ULONGLONG HOOK_HOLD_TAKEN_DOWN = 1ULL << 63;

// All of these run at IRQL <= DISPATCH_LEVEL unless they say something else.

// Whether the hook is being taken down, or has been.
inline bool IsHookLeaving(const HOOK_FILTER* hook) {
    return ReadAcquire(&hook->Life) >= HOOK_LIFE_LEAVING;
}

// Whether each module that the hook is attached to owes it a DetachNotify when they part.
bool IsOwedDetachNotify(const HOOK_FILTER* hook);

// Adds a registration to a hook on HookList, whose lock is held. False when the hook is leaving.
bool JoinHook(HOOK_FILTER* hook);

// The unload takes the hook off HookList, whose lock is held, and holds it until ReleaseHook. True
// when its UnloadNotify is to be called; not for one whose deregistration has begun.
bool BeginUnloadOfHook(HOOK_FILTER* hook);

// True for the first caller, who takes the hook down and calls FinishLeaving.
bool BeginLeaving(HOOK_FILTER* hook);

// Returns when no handler of a hook that is leaving runs any more, or 10 seconds have passed. No
// further call may begin. PASSIVE_LEVEL.
void WaitHookFilterIdle(HOOK_FILTER* hook);

// The hook is in no table any more. Ends the caller's registration; the hook is uncounted in
// LeavingHooks, where the caller has counted it, as the last of its handlers returns. No lock held.
void FinishLeaving(HOOK_FILTER* hook);

// Returns when FinishLeaving has been called. PASSIVE_LEVEL.
void WaitUntilTakenDown(HOOK_FILTER* hook);

// Holds the record for a call or an owner. Something else must be holding it already, for as long
// as this takes.
inline void HoldHook(HOOK_FILTER* hook, ULONGLONG hold) {
    InterlockedAdd(&hook->Holds, hold);
}

// The rest of EndHookCall, for a hook that goes with its last call.
void FASTABI EndLastHookCall(HOOK_FILTER* hook, ULONGLONG left);

// Ends the hold of a handler call; the record may be gone when it returns. No lock held.
inline void EndHookCall(HOOK_FILTER* hook) {
    ULONGLONG left = InterlockedAdd(&hook->Holds, 0 - HOOK_HOLD_CALL);
    if ((left & HOOK_HOLD_TAKEN_DOWN) != 0) {
        EndLastHookCall(hook, left);
    }
}

// Ends the hold of an owner; the record may be gone when it returns. No lock held.
void ReleaseHook(HOOK_FILTER* hook);
