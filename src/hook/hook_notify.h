// What the driver tells the registered hook filters of its own accord.
#pragma once

#include "driver/filter_module.h"

// Announces a module that has just joined ModuleList to every hook on HookList. PASSIVE_LEVEL,
// ModuleListLock not held.
void NotifyHooksAdapterAttach(FILTER_MODULE* module);

// Tells the hooks attached to a module that it goes. The module has left ModuleList, no data-path
// call is inside it, and its pools are still there. PASSIVE_LEVEL, ModuleListLock not held.
void NotifyHooksAdapterDetach(FILTER_MODULE* module);

// Takes every hook off HookList and gives it its unload notification, once. PASSIVE_LEVEL.
void NotifyHooksUnload();
