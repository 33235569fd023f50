// A module's table of the protocols that have sent through it.
#pragma once

#include "platform/types.h"

struct FILTER_MODULE;

constexpr ULONG MAX_MODULE_PROTOCOLS = 24;

// A protocol's name in 8-bit characters, with a NUL behind them. Clients get a pointer to it.
struct PROTOCOL_ENTRY {
    USHORT Length;         // without the NUL
    USHORT MaximumLength;  // of Buffer
    PCHAR Buffer;
};
static_assert(sizeof(PROTOCOL_ENTRY) == 16 && offsetof(PROTOCOL_ENTRY, MaximumLength) == 2 &&
              offsetof(PROTOCOL_ENTRY, Buffer) == 8);

// Makes the table of a module that was just zeroed ready: no entry, a free lock.
void InitializeProtocolTable(FILTER_MODULE* module);

// Frees the names. Nobody may hold an entry of the module any more.
void FreeProtocolTable(FILTER_MODULE* module);
