// What the driver tells the registered hook filters of its own accord.
//
// A hook and a module that part are settled exactly once, by whoever comes first: the module's
// detach finds the hook on HookList or, once it has left that, in the module's own table; the
// hook's deregistration finds the module on ModuleList or on DetachingList. Each settles the pair
// under a lock that the other needs too, and leaves no entry behind for it to find.
#pragma once

#include "module/filter_module.h"

// Announces a module that has just joined ModuleList to every hook on HookList, unless the hook's
// own announcement has met it there already. PASSIVE_LEVEL, ModuleListLock not held.
void NotifyHooksAdapterAttach(FILTER_MODULE* module);

// Tells the hooks attached to a module that it goes, and empties and closes its hook table. The
// module is on DetachingList, no data-path call is inside it, and its pools are still there.
// PASSIVE_LEVEL, ModuleListLock not held.
void NotifyHooksAdapterDetach(FILTER_MODULE* module);

// Takes every hook off HookList and gives it its unload notification, once. PASSIVE_LEVEL.
void NotifyHooksUnload();

// Announces every module on ModuleList to a hook that is on no list yet. IRQL <= DISPATCH_LEVEL,
// no lock held.
void AnnounceHookToModules(HOOK_FILTER* hook);

// Takes a hook that is leaving out of the table of every module, those that are being detached
// included, after the notification that each owes it. IRQL <= DISPATCH_LEVEL, no lock held.
void DetachHookFromModules(HOOK_FILTER* hook);

// Returns when every processor that saw a hook active before this call has counted its handler call
// in the hook's BusyCount. IRQL <= DISPATCH_LEVEL, no lock held.
void WaitForHookClaims();
