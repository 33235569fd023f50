// The count of the lists that the driver itself originated on a module: a paused filter may have
// none of its own outstanding, and a module may not be freed before its last one is back.
#pragma once

#include "driver/filter_module.h"

// Makes the count of a module 0 and its lock free. PASSIVE_LEVEL.
void InitializeOutstandingLists(FILTER_MODULE* module);

// Counts a list, before anyone but the caller can see it. `atDispatch` says that the caller runs at
// DISPATCH_LEVEL. IRQL <= DISPATCH_LEVEL.
VOID NTAPI CountOutstandingList(FILTER_MODULE* module, BOOLEAN atDispatch);

// Uncounts a list: the very last act of giving it up, with no lock held, since a pause or a detach
// may be waiting for exactly this one. `atDispatch` as above. IRQL <= DISPATCH_LEVEL.
VOID NTAPI ReleaseOutstandingList(FILTER_MODULE* module, BOOLEAN atDispatch);

// Returns when the count is 0. The module must be unable to originate more. PASSIVE_LEVEL.
void WaitForOutstandingLists(FILTER_MODULE* module);
