// Requests that a hook has taken over to decide about later.
#pragma once

#include "driver/filter_module.h"

// Drops every request that is pending on the module. The module's state is FILTER_STATE_PAUSED
// already, so no request can become pending any more. PASSIVE_LEVEL.
void FlushPendingSends(FILTER_MODULE* module);
void FlushPendingReceives(FILTER_MODULE* module);
