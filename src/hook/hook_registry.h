// Registering and deregistering hook filters: the exports are in the public header.
#pragma once

#include "platform/ndis.h"

// Makes the registry ready for its first hook. From DriverEntry, before anyone can register.
void InitializeHookRegistry();

// Returns when no hook is being taken down any more and no record waits for a handler that outlived
// its deregistration. Hooks that are still registered are not waited for. PASSIVE_LEVEL.
void WaitForLeavingHooks();
