// A stack for signal handlers.
#pragma once

namespace netsieve::host {

/// Gives the calling thread a stack of its own for signals, for as long as it lives: a fault may be
/// that its ordinary stack is used up.
void UseSignalStack();

}  // namespace netsieve::host
