#include "hook/hook_registry.h"

#include "driver/driver_globals.h"
#include "driver/undo_guard.h"
#include "hook/hook_filter.h"
#include "hook/hook_notify.h"
#include "platform/list.h"
#include "platform/runtime.h"

namespace {

constexpr ULONG HOOK_NAME_TAG = 0x486B5374;  // "tSkH"
constexpr UINT IDLE_POLL_MILLISECONDS = 100;
constexpr UINT IDLE_WAIT_MILLISECONDS = 10'000;

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

// Never from 0: a hook whose last registration has ended is on its way out, even while it is still
// on the list.
bool AddRegistration(HOOK_FILTER* hook) {
    ULONG count = ReadAcquire(&hook->Registrations);
    while (count != 0) {
        ULONG found = InterlockedCompareExchange(&hook->Registrations, count + 1, count);
        if (found == count) {
            return true;
        }
        count = found;
    }
    return false;
}

BOOLEAN JoinIfNameContains(LOCKED_LIST*, PLIST_ENTRY entry, PVOID argument) {
    auto* newName = static_cast<PUNICODE_STRING>(argument);
    HOOK_FILTER* hook = HookOf(entry);
    return wcsstr(newName->Buffer, hook->Name.Buffer) != nullptr && AddRegistration(hook);
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

// Looks every 100 milliseconds whether a handler still runs. The store to TimerRunning is the last
// touch of the record: the waiter may free it at once.
VOID NTAPI HookIdleTimerRoutine(PVOID, PVOID functionContext, PVOID, PVOID) {
    auto* hook = static_cast<HOOK_FILTER*>(functionContext);
    bool busy = ReadAcquire(&hook->BusyCount) != 0;
    if (busy && !ReadAcquire(&hook->TimerStopped)) {
        NdisSetTimer(&hook->HookIdleTimer, IDLE_POLL_MILLISECONDS);
        return;
    }
    if (!busy) {
        NdisSetEvent(&hook->HookIdleEvent);
    }
    WriteRelease<UCHAR>(&hook->TimerRunning, FALSE);
}

// Cancelling does not wait for a routine that has begun, and that one may arm the timer once more
// if it read the flag before it was set. So: cancel, else let the routine end, until one of the two
// has made sure that nothing comes any more.
void StopIdleTimer(HOOK_FILTER* hook) {
    WriteRelease<UCHAR>(&hook->TimerStopped, TRUE);
    do {
        BOOLEAN cancelled = FALSE;
        NdisCancelTimer(&hook->HookIdleTimer, &cancelled);
        if (cancelled) {
            return;
        }
        KeFlushQueuedDpcs();
    } while (ReadAcquire(&hook->TimerRunning));
}

// Returns when no handler of the hook runs any more, or 10 seconds have passed. The hook is leaving
// and its claims are in, so no further call begins.
void WaitHookFilterIdle(HOOK_FILTER* hook) {
    NdisInitializeTimer(&hook->HookIdleTimer, HookIdleTimerRoutine, hook);
    WriteRelease<UCHAR>(&hook->TimerRunning, TRUE);
    NdisSetTimer(&hook->HookIdleTimer, IDLE_POLL_MILLISECONDS);
    NdisWaitEvent(&hook->HookIdleEvent, IDLE_WAIT_MILLISECONDS);
    StopIdleTimer(hook);
}

// The caller has ended the last registration.
void TakeDownHook(HOOK_FILTER* hook) {
    RaiseDrainCount(&g_DriverGlobals.LeavingHooks, FALSE);
    bool found = LockedListRemoveEntry(&g_DriverGlobals.HookList, &hook->Link) != nullptr;
    WriteRelease<UCHAR>(&hook->Leaving, TRUE);
    WriteRelease(&hook->State, HOOK_STATE_STOPPED);

    // A hook that the unload took off the list without having anything to call is past all
    // notifications, and waits only if it has to. The unload decides under the list's lock whether
    // it has something to call, so that is decided by now.
    bool notify = found != (ReadAcquire(&hook->UnloadNotified) != FALSE);
    WaitForHookClaims();
    if (notify || ReadAcquire(&hook->BusyCount) != 0) {
        WaitHookFilterIdle(hook);
    }
    DetachHookFromModules(hook, notify);
    ReleaseHook(hook, HOOK_HOLD_OWNER);
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
    if (InterlockedDecrement(&hook->Registrations) == 0) {
        TakeDownHook(hook);
    }
    return STATUS_SUCCESS;
}

VOID NTAPI ITarnHKFlowControl(HOOK_FILTER* hook, ULONG state) {
    if (hook != nullptr) {
        WriteRelease(&hook->State, state);
    }
}

}  // extern "C"
