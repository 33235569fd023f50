#include "hook/hook_table.h"

#include "hook/hook_life.h"
#include "platform/atomics.h"
#include "platform/runtime.h"

namespace {

// Compared, not subtracted: a 32-bit difference gives priorities of 0x80000000 and above no order.
int NTAPI CompareHookPriority(const void* left, const void* right) {
    ULONG leftPriority = (*static_cast<HOOK_FILTER* const*>(left))->Priority;
    ULONG rightPriority = (*static_cast<HOOK_FILTER* const*>(right))->Priority;
    return leftPriority == rightPriority ? 0 : leftPriority < rightPriority ? -1 : 1;
}

void ClaimHookSlot(FILTER_MODULE* module, HOOK_FILTER* hook) REQUIRES_LOCK(module->HookLock) {
    for (ULONG i = 0; i < MAX_MODULE_HOOKS; ++i) {
        if (module->HookSlots[i] == nullptr) {
            module->HookSlots[i] = hook;
            WriteRelease(&hook->SlotIndex, i);
            return;
        }
    }
}

void ReleaseHookSlot(FILTER_MODULE* module, HOOK_FILTER* hook) REQUIRES_LOCK(module->HookLock) {
    for (ULONG i = 0; i < MAX_MODULE_HOOKS; ++i) {
        if (module->HookSlots[i] == hook) {
            module->HookSlots[i] = nullptr;
            WriteRelease(&hook->SlotIndex, HOOK_SLOT_NONE);
            return;
        }
    }
}

// The index of the hook's first entry, or HookCount.
LONG FindHook(const FILTER_MODULE* module, const HOOK_FILTER* hook)
    REQUIRES_LOCK(module->HookLock) {
    LONG index = 0;
    while (index < module->HookCount && module->Hooks[index] != hook) {
        ++index;
    }
    return index;
}

}  // namespace

void InitializeHookTable(FILTER_MODULE* module) {
    InitializeDriverSpinLock(&module->HookLock);
}

bool IsHookAttached(FILTER_MODULE* module, const HOOK_FILTER* hook) {
    SpinLockGuard guard(&module->HookLock);
    return FindHook(module, hook) != module->HookCount;
}

bool RemoveHookFromModule(FILTER_MODULE* module, HOOK_FILTER* hook) {
    SpinLockGuard guard(&module->HookLock);
    LONG index = FindHook(module, hook);
    if (index == module->HookCount) {
        return false;
    }
    ReleaseHookSlot(module, hook);
    for (; index + 1 < module->HookCount; ++index) {
        module->Hooks[index] = module->Hooks[index + 1];
    }
    InterlockedDecrement(&module->HookCount);
    // Inside the lock: the entry was what kept the hook from being freed.
    InterlockedDecrement(&hook->AttachCount);
    return true;
}

HOOK_FILTER* FirstHookOrCloseTable(FILTER_MODULE* module) {
    SpinLockGuard guard(&module->HookLock);
    if (module->HookCount != 0) {
        return module->Hooks[0];
    }
    module->HookTableClosed = true;
    return nullptr;
}

void WaitForTableUsers(FILTER_MODULE* module) {
    SpinLockGuard guard(&module->HookLock);
}

extern "C" {

NTSTATUS NTAPI ITarnHKAttachFilter(FILTER_MODULE* module, HOOK_FILTER* hook) {
    if (module == nullptr || hook == nullptr) {
        return STATUS_INVALID_PARAMETER;
    }
    SpinLockGuard guard(&module->HookLock);
    // A hook that leaves passes through every table once, after the flag is set: what is attached
    // before that is taken out again, and nothing is attached after.
    if (module->HookTableClosed || IsHookLeaving(hook)) {
        return STATUS_INVALID_PARAMETER;
    }
    if (module->HookCount == static_cast<LONG>(MAX_MODULE_HOOKS)) {
        return STATUS_INSUFFICIENT_RESOURCES;
    }
    module->Hooks[module->HookCount] = hook;
    ClaimHookSlot(module, hook);
    qsort(module->Hooks, static_cast<SIZE_T>(module->HookCount) + 1, sizeof(HOOK_FILTER*),
          CompareHookPriority);
    InterlockedIncrement(&module->HookCount);
    InterlockedIncrement(&hook->AttachCount);
    return STATUS_SUCCESS;
}

NTSTATUS NTAPI ITarnHKDettachFilter(FILTER_MODULE* module, HOOK_FILTER* hook) {
    if (module == nullptr || hook == nullptr) {
        return STATUS_INVALID_PARAMETER;
    }
    RemoveHookFromModule(module, hook);
    return STATUS_SUCCESS;
}

}  // extern "C"
