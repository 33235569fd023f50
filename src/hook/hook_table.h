// A module's table of attached hooks.
#pragma once

#include "platform/types.h"

struct FILTER_MODULE;
struct HOOK_FILTER;  // the record of a registered hook filter

constexpr ULONG MAX_MODULE_HOOKS = 64;

// Makes the table of a module that was just zeroed ready: no hook, a free lock.
void InitializeHookTable(FILTER_MODULE* module);
