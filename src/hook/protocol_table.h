// A module's table of the protocols that have sent through it.
#pragma once

#include "module/filter_module.h"

constexpr ULONG PROTOCOL_NAME_TAG = 0x486B5374;  // "tSkH"

// Makes the table of a module that was just zeroed ready: no entry, a free lock.
void InitializeProtocolTable(FILTER_MODULE* module);

// The name of the protocol behind the SourceHandle of a sent NBL, put into the table when it is
// not there yet. NULL when there is no protocol, the table is full, its name does not fit an entry
// or memory is short; the next NBL tries again. The entry lives as long as the module. The caller
// holds the NBL. IRQL <= DISPATCH_LEVEL.
PROTOCOL_ENTRY* FASTABI LookupProtocolEntry(FILTER_MODULE* module, NDIS_HANDLE sourceHandle);

// Frees the names. Nobody may hold an entry of the module any more.
void FreeProtocolTable(FILTER_MODULE* module);
