// A module's trace: a ring of short text lines that say where a failure was met. The driver writes
// it and never reads it; it is there for whoever holds a debugger or a dump.
#pragma once

#include "module/filter_module.h"

constexpr ULONG TRACE_BUFFER_SIZE = 512;
constexpr ULONG TRACE_BUFFER_TAG = 0x6C646D6E;  // "nmdl"

// Sets up the ring of a module that was just zeroed. A module whose ring cannot be allocated works
// without one, and one message goes to the debugger. PASSIVE_LEVEL.
void InitializeTraceLog(FILTER_MODULE* module);

// Frees the ring, if there is one. Nothing may trace on the module any more.
void FreeTraceLog(FILTER_MODULE* module);

// Appends the line "[number label->site]\n" and its NUL; without a label or a ring, nothing.
// `label` is a literal, far shorter than a line. `atDispatch` says that the caller runs at
// DISPATCH_LEVEL. IRQL <= DISPATCH_LEVEL; TraceLock must not be held.
void FASTABI TraceLog(FILTER_MODULE* module, PCSTR label, ULONG site, bool atDispatch);
