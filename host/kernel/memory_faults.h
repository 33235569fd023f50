// Touches of memory that the running code may not touch, as the processor notices them.
#pragma once

#include "host/sched/context.h"

namespace netsieve::host {

class Machine;

/// Decides what becomes of a fault at `address` that the instruction at `code` caused. True when
/// the access may be made again: the memory is accessible now, and if the running context was not
/// allowed to touch it, its Context says so until CollectTouch. Safe in a signal handler.
bool RecoverFromFault(const void* address, const void* code);

void CollectTouchSlowly(Machine& machine);

/// Reports what the running context has touched since the last time. Called wherever a driver calls
/// the platform and where a callback returns, so that the report says inside of what it was.
inline void CollectTouch(Machine& machine) {
    if (CurrentContext().touch.kind != TouchKind::kNone) [[unlikely]] {
        CollectTouchSlowly(machine);
    }
}

}  // namespace netsieve::host
