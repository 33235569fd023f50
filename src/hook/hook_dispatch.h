// Offering a NIRP to the hooks of a filter module.
#pragma once

#include "module/filter_module.h"

// The direction of a NIRP's frame, which says by which of its handlers a hook is shown it.
constexpr ULONG NIRP_DIRECTION_SEND = 1;
constexpr ULONG NIRP_DIRECTION_RECEIVE = 2;

// Shows the NIRP to every active hook of the module in the order of the table, in
// `direction` (NIRP_DIRECTION_SEND calls the send handlers, anything else the receive handlers).
// Returns the last verdict that was not 0, or 0. A hook that is attached or detached meanwhile may
// miss the NIRP or get it twice. The caller has the NIRP and a reference on the module; none of the
// driver's locks may be held, and none is while a handler runs. IRQL <= DISPATCH_LEVEL.
LONG FASTABI CallHookHandlers(FILTER_MODULE* module, NIRP* nirp, ULONG direction);
