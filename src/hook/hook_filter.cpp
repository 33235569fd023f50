#include "hook/hook_filter.h"

#include "hook/hook_life.h"
#include "platform/runtime.h"

HOOK_FILTER* AllocateHookFilter(PVOID context) {
    PVOID memory = nullptr;
    if (NdisAllocateMemoryWithTag(&memory, sizeof(HOOK_FILTER), HOOK_FILTER_TAG) !=
        NDIS_STATUS_SUCCESS) {
        return nullptr;
    }
    RtlZeroMemory(memory, sizeof(HOOK_FILTER));
    auto* hook = static_cast<HOOK_FILTER*>(memory);
    hook->Context = context;
    hook->State = HOOK_STATE_STOPPED;
    hook->Class = HOOK_CLASS;
    hook->SlotIndex = HOOK_SLOT_NONE;
    hook->Holds = HOOK_HOLD_OWNER;
    InitializeLockedList(&hook->PrivateList);
    NdisInitializeEvent(&hook->HookIdleEvent);
    NdisInitializeEvent(&hook->TakenDownEvent);
    return hook;
}

void FreeHookFilter(HOOK_FILTER* hook) {
    NdisFreeMemory(hook->Name.Buffer, 0, 0);
    RtlZeroMemory(&hook->MajorVersion,
                  offsetof(HOOK_FILTER, Class) - offsetof(HOOK_FILTER, MajorVersion));
    LockedListFlush(&hook->PrivateList, nullptr, nullptr);
    NdisFreeMemory(hook, 0, 0);
}
