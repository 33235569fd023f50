#include "hook/hook_dispatch.h"

#include "hook/hook_life.h"
#include "platform/atomics.h"

namespace {

HOOK_PACKET_HANDLER HandlerOf(const HOOK_FILTER* hook, ULONG direction) {
    return direction == NIRP_DIRECTION_SEND ? hook->SendHandler : hook->ReceiveHandler;
}

// A hook that is leaving cannot be made active again, whatever its client sets.
bool IsActive(const HOOK_FILTER* hook) {
    ULONG state = ReadAcquire(&hook->State);
    return (state == HOOK_STATE_ACTIVE || state == HOOK_STATE_RESUMED) && !IsHookLeaving(hook);
}

// The next hook from `*index` on that is to be called, held for the call; NULL at the end of the
// table. The test and the hold are one act under the lock, and the deregistration that waits for a
// hook's calls passes through that lock before it counts them.
HOOK_FILTER* FASTABI ClaimNextHook(FILTER_MODULE* module, LONG* index, ULONG direction) {
    SpinLockGuard guard(&module->HookLock);
    while (*index < module->HookCount) {
        HOOK_FILTER* hook = module->Hooks[(*index)++];
        if (IsActive(hook) && HandlerOf(hook, direction) != nullptr) {
            HoldHook(hook, HOOK_HOLD_CALL);
            return hook;
        }
    }
    return nullptr;
}

}  // namespace

LONG FASTABI CallHookHandlers(FILTER_MODULE* module, NIRP* nirp, ULONG direction) {
    LONG result = 0;
    LONG index = 0;
    // Reading the count without its lock spares the last turn of the walk the lock; the claim reads
    // it again.
    while (index < ReadAcquire(&module->HookCount)) {
        HOOK_FILTER* hook = ClaimNextHook(module, &index, direction);
        if (hook == nullptr) {
            break;
        }
        LONG verdict = HandlerOf(hook, direction)(hook->Context, nirp);
        EndHookCall(hook);
        if (verdict != 0) {
            result = verdict;
        }
    }
    return result;
}
