#include "hook/hook_registry.h"

#include "hook/hook_life.h"
#include "hook/hook_notify.h"
#include "module/driver_globals.h"
#include "module/undo_guard.h"
#include "platform/list.h"
#include "platform/runtime.h"

namespace {

constexpr ULONG HOOK_NAME_TAG = 0x486B5374;  // "tSkH"

constexpr ULONG CLASS_PRIORITIES[] = {HOOK_PRIORITY_CLASS_0, HOOK_PRIORITY_CLASS_1,
                                      HOOK_PRIORITY_CLASS_2, HOOK_PRIORITY_CLASS_3};

ULONG PriorityOfClass(ULONG priorityClass) {
    constexpr ULONG count = sizeof(CLASS_PRIORITIES) / sizeof(CLASS_PRIORITIES[0]);
    return priorityClass < count ? CLASS_PRIORITIES[priorityClass] : HOOK_PRIORITY_LAST;
}

bool HasRoomForNul(const UNICODE_STRING& name) {
    return name.Buffer != nullptr && name.MaximumLength >= name.Length + sizeof(WCHAR);
}

bool EndsInNul(const UNICODE_STRING& name) {
    return name.Buffer[name.Length / sizeof(WCHAR)] == u'\0';
}

// The copy ends in a NUL, whatever the source does.
bool CopyUnicodeStringAlloc(PUNICODE_STRING destination, const UNICODE_STRING& source) {
    PVOID memory = nullptr;
    if (NdisAllocateMemoryWithTag(&memory, source.MaximumLength, HOOK_NAME_TAG) !=
        NDIS_STATUS_SUCCESS) {
        return false;
    }
    RtlZeroMemory(memory, source.MaximumLength);
    memcpy(memory, source.Buffer, source.Length);
    destination->Length = source.Length;
    destination->MaximumLength = source.MaximumLength;
    destination->Buffer = static_cast<PWSTR>(memory);
    return true;
}

void FreeUnicodeString(PUNICODE_STRING string) {
    NdisFreeMemory(string->Buffer, 0, 0);
}

HOOK_FILTER* HookOf(PLIST_ENTRY entry) {
    return CONTAINING_RECORD(entry, HOOK_FILTER, Link);
}

BOOLEAN JoinIfNameContains(LOCKED_LIST*, PLIST_ENTRY entry, PVOID argument) {
    auto* newName = static_cast<PUNICODE_STRING>(argument);
    HOOK_FILTER* hook = HookOf(entry);
    return wcsstr(newName->Buffer, hook->Name.Buffer) != nullptr && JoinHook(hook);
}

// The first hook whose whole name occurs in `name`, with one more registration; or NULL. Joining
// inside the search is what keeps the hook from being freed before the caller has it.
HOOK_FILTER* JoinHookByName(PUNICODE_STRING name) {
    PLIST_ENTRY entry = LockedListFind(&g_DriverGlobals.HookList, JoinIfNameContains, name);
    return entry == nullptr ? nullptr : HookOf(entry);
}

// The hook takes over the buffer of `name`.
void DescribeHook(HOOK_FILTER* hook,
                  const HOOK_FILTER_REGISTRATION_EX* registration,
                  const UNICODE_STRING& name) {
    hook->MajorVersion = registration->MajorVersion;
    hook->MinorVersion = registration->MinorVersion;
    hook->AttachNotify = registration->AttachNotify;
    hook->DetachNotify = registration->DetachNotify;
    hook->UnloadNotify = registration->UnloadNotify;
    hook->Reserved = registration->Reserved;
    hook->SendHandler = registration->SendHandler;
    hook->ReceiveHandler = registration->ReceiveHandler;
    memcpy(hook->OpaqueData, registration->OpaqueData, sizeof(hook->OpaqueData));
    hook->Priority = registration->Priority;
    hook->Name = name;
}

// Off the list, so that no module is announced to it and no registration joins it; then the wait;
// then out of every table. A hook that is past all notifications waits only if it has to.
void TakeDownHook(HOOK_FILTER* hook) {
    LockedListRemoveEntry(&g_DriverGlobals.HookList, &hook->Link);
    WaitForHookClaims();
    if (IsOwedDetachNotify(hook) || ReadAcquire(&hook->BusyCount) != 0) {
        WaitHookFilterIdle(hook);
    }
    DetachHookFromModules(hook);
}

}  // namespace

void InitializeHookRegistry() {
    InitializeLockedList(&g_DriverGlobals.HookList);
    InitializeDrainCount(&g_DriverGlobals.LeavingHooks);
}

void WaitForLeavingHooks() {
    WaitForDrain(&g_DriverGlobals.LeavingHooks);
}

extern "C" {

NTSTATUS NTAPI ITarnHKRegisterFilterEx(const HOOK_FILTER_REGISTRATION_EX* registration,
                                       PVOID context,
                                       HOOK_FILTER** hookOut) {
    if (registration == nullptr || hookOut == nullptr || !HasRoomForNul(registration->Name) ||
        !EndsInNul(registration->Name)) {
        return STATUS_INVALID_PARAMETER;
    }
    // Copied before it is searched: the client's own may not be readable under the list's lock.
    UNICODE_STRING name;
    if (!CopyUnicodeStringAlloc(&name, registration->Name)) {
        return STATUS_INSUFFICIENT_RESOURCES;
    }
    UndoGuard freeName([&name] { FreeUnicodeString(&name); });

    HOOK_FILTER* hook = JoinHookByName(&name);
    if (hook != nullptr) {
        *hookOut = hook;
        return STATUS_SUCCESS;
    }
    hook = AllocateHookFilter(context);
    if (hook == nullptr) {
        return STATUS_OPEN_FAILED;
    }
    DescribeHook(hook, registration, name);
    freeName.Dismiss();

    AnnounceHookToModules(hook);
    LockedListInsertTail(&g_DriverGlobals.HookList, &hook->Link);
    *hookOut = hook;
    return STATUS_SUCCESS;
}

NTSTATUS NTAPI ITarnHKRegisterFilter(const HOOK_FILTER_REGISTRATION* registration,
                                     PVOID context,
                                     ULONG priorityClass,
                                     HOOK_FILTER** hookOut) {
    if (registration == nullptr || hookOut == nullptr || !HasRoomForNul(registration->Name)) {
        return STATUS_INVALID_PARAMETER;
    }
    HOOK_FILTER_REGISTRATION_EX block;
    RtlZeroMemory(&block, sizeof(block));
    block.MajorVersion = 1;
    block.AttachNotify = registration->AttachNotify;
    block.DetachNotify = registration->DetachNotify;
    block.UnloadNotify = registration->UnloadNotify;
    memcpy(block.OpaqueData, registration->OpaqueData, sizeof(block.OpaqueData));
    block.Priority = PriorityOfClass(priorityClass);
    // The basic block's name need not end in a NUL, its copy does.
    if (!CopyUnicodeStringAlloc(&block.Name, registration->Name)) {
        return STATUS_INSUFFICIENT_RESOURCES;
    }
    NTSTATUS status = ITarnHKRegisterFilterEx(&block, context, hookOut);
    FreeUnicodeString(&block.Name);
    return status;
}

NTSTATUS NTAPI ITarnHKDeregisterFilter(HOOK_FILTER* hook) {
    if (hook == nullptr) {
        return STATUS_INVALID_PARAMETER;
    }
    RaiseDrainCount(&g_DriverGlobals.LeavingHooks);
    if (BeginLeaving(hook)) {
        TakeDownHook(hook);
        FinishLeaving(hook);
        return STATUS_SUCCESS;
    }
    // The routines that are still being called may be those of the caller.
    WaitUntilTakenDown(hook);
    ReleaseHook(hook);
    LowerDrainCount(&g_DriverGlobals.LeavingHooks);
    return STATUS_SUCCESS;
}

VOID NTAPI ITarnHKFlowControl(HOOK_FILTER* hook, ULONG state) {
    if (hook != nullptr && !IsHookLeaving(hook)) {
        WriteRelease(&hook->State, state);
    }
}

}  // extern "C"
