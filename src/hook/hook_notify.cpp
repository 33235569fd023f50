#include "hook/hook_notify.h"

#include "hook/hook_life.h"
#include "hook/hook_table.h"
#include "module/driver_globals.h"
#include "platform/atomics.h"
#include "platform/list.h"

namespace {

HOOK_FILTER* HookOf(PLIST_ENTRY entry) {
    return CONTAINING_RECORD(entry, HOOK_FILTER, Link);
}

template <typename Action>
void ForEachModule(PLIST_ENTRY head, Action action) REQUIRES_LOCK(g_DriverGlobals.ModuleListLock) {
    for (PLIST_ENTRY at = head->Flink; at != head; at = at->Flink) {
        action(CONTAINING_RECORD(at, FILTER_MODULE, Link));
    }
}

// The attached and the detaching modules.
template <typename Action>
void ForEveryModule(Action action) REQUIRES_LOCK(g_DriverGlobals.ModuleListLock) {
    ForEachModule(&g_DriverGlobals.ModuleList, action);
    ForEachModule(&g_DriverGlobals.DetachingList, action);
}

// The lock of HookList or ModuleListLock is held.
void NotifyAttach(FILTER_MODULE* module, HOOK_FILTER* hook) {
    if (hook->AttachNotify != nullptr) {
        hook->AttachNotify(module, hook, hook->Context);
    }
}

// Settles a pair. The lock of HookList is held with the hook on it, or ModuleListLock with the
// module on one of its lists: the entry in the table keeps the hook from being freed.
void Part(FILTER_MODULE* module, HOOK_FILTER* hook) {
    if (!IsHookAttached(module, hook)) {
        return;
    }
    if (hook->DetachNotify != nullptr && IsOwedDetachNotify(hook)) {
        hook->DetachNotify(module, hook, hook->Context);
    }
    while (RemoveHookFromModule(module, hook)) {
    }
}

BOOLEAN AnnounceModule(LOCKED_LIST*, PLIST_ENTRY entry, PVOID argument) {
    auto* module = static_cast<FILTER_MODULE*>(argument);
    HOOK_FILTER* hook = HookOf(entry);
    if (hook->AnnounceSerial < module->AttachSerial) {
        NotifyAttach(module, hook);
    }
    return FALSE;
}

BOOLEAN PartFromModule(LOCKED_LIST*, PLIST_ENTRY entry, PVOID argument) {
    Part(static_cast<FILTER_MODULE*>(argument), HookOf(entry));
    return FALSE;
}

struct UNLOADED_HOOK {
    HOOK_FILTER* Hook;  // NULL when the list is empty
    bool Notify;
};

BOOLEAN TakeForUnload(LOCKED_LIST*, PLIST_ENTRY entry, PVOID argument) {
    HOOK_FILTER* hook = HookOf(entry);
    *static_cast<UNLOADED_HOOK*>(argument) = {hook, BeginUnloadOfHook(hook)};
    return TRUE;
}

// Takes the first hook off the list, with a hold on it.
UNLOADED_HOOK TakeFirstForUnload() {
    UNLOADED_HOOK taken = {};
    LockedListFlush(&g_DriverGlobals.HookList, TakeForUnload, &taken);
    return taken;
}

}  // namespace

void NotifyHooksAdapterAttach(FILTER_MODULE* module) {
    LockedListFind(&g_DriverGlobals.HookList, AnnounceModule, module);
}

void NotifyHooksAdapterDetach(FILTER_MODULE* module) {
    LockedListFind(&g_DriverGlobals.HookList, PartFromModule, module);

    // What is left in the table are hooks that have left the list, and late attachments.
    SpinLockGuard guard(&g_DriverGlobals.ModuleListLock);
    while (HOOK_FILTER* hook = FirstHookOrCloseTable(module)) {
        Part(module, hook);
    }
}

void NotifyHooksUnload() {
    for (UNLOADED_HOOK taken = TakeFirstForUnload(); taken.Hook != nullptr;
         taken = TakeFirstForUnload()) {
        if (taken.Notify) {
            WriteRelease<UCHAR>(&taken.Hook->UnloadNotified, TRUE);
            taken.Hook->UnloadNotify(taken.Hook->Context);
        }
        ReleaseHook(taken.Hook);
    }
}

void AnnounceHookToModules(HOOK_FILTER* hook) {
    SpinLockGuard guard(&g_DriverGlobals.ModuleListLock);
    hook->AnnounceSerial = ++g_DriverGlobals.AnnounceSerial;
    ForEachModule(&g_DriverGlobals.ModuleList,
                  [hook](FILTER_MODULE* module) { NotifyAttach(module, hook); });
}

void DetachHookFromModules(HOOK_FILTER* hook) {
    SpinLockGuard guard(&g_DriverGlobals.ModuleListLock);
    ForEveryModule([hook](FILTER_MODULE* module) { Part(module, hook); });
}

void WaitForHookClaims() {
    SpinLockGuard guard(&g_DriverGlobals.ModuleListLock);
    ForEveryModule(WaitForTableUsers);
}
