// A module's table of attached hooks.
#pragma once

#include "module/filter_module.h"

// Makes the table of a module that was just zeroed ready: no hook, a free lock.
void InitializeHookTable(FILTER_MODULE* module);

// The operations below run at IRQL <= DISPATCH_LEVEL, with HookLock not held; ModuleListLock or the
// lock of HookList may be.

// Whether the hook has an entry.
bool IsHookAttached(FILTER_MODULE* module, const HOOK_FILTER* hook);

// Takes out the first entry of the hook, and says whether there was one.
bool RemoveHookFromModule(FILTER_MODULE* module, HOOK_FILTER* hook);

// The hook in the table's first entry. When there is none, the table is closed: nothing can be
// attached to the module any more.
HOOK_FILTER* FirstHookOrCloseTable(FILTER_MODULE* module);

// Returns when whoever was looking at the table has let go of it.
void WaitForTableUsers(FILTER_MODULE* module);
