// What a module makes packets of: its pool of lists, and its free packet records.
#pragma once

#include "driver/filter_module.h"

constexpr ULONG NBL_POOL_TAG = 0x6C626E6E;  // "nnbl"

// Makes the module's free and pending lists empty and their locks free, then creates the pool for
// the lists that the driver builds. STATUS_INSUFFICIENT_RESOURCES without a pool; the lists are set
// up all the same. Before every other routine of the pools. PASSIVE_LEVEL.
NTSTATUS InitializeNBLPool(FILTER_MODULE* module);

// Frees the pool, if there is one. Every list of it is back. PASSIVE_LEVEL.
void FreeNBLPool(FILTER_MODULE* module);

// Makes the packet records for frames of up to `mtu` bytes behind their Ethernet header, and a few
// for the longest. STATUS_INSUFFICIENT_RESOURCES when there is not one. PASSIVE_LEVEL.
NTSTATUS InitializeNirpPool(FILTER_MODULE* module, ULONG mtu);

// Frees the records on the two free lists. PASSIVE_LEVEL.
void FreeNirpPool(FILTER_MODULE* module);
