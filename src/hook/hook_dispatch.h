// Offering a packet record to the hooks of a module.
#pragma once

#include "driver/filter_module.h"
#include "packet/nirp.h"

// Shows the record to every active hook of the module in the order of the table, on its way in
// `direction` (NIRP_DIRECTION_SEND calls the send handlers, anything else the receive handlers).
// Returns the last verdict that was not 0, or 0. A hook that is attached or detached meanwhile may
// miss the record or get it twice. The caller has the record and a reference on the module; none of
// the driver's locks may be held, and none is while a handler runs. IRQL <= DISPATCH_LEVEL.
LONG NTAPI CallHookHandlers(FILTER_MODULE* module, NIRP* nirp, ULONG direction);
