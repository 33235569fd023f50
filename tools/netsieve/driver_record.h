// The driver's own record of an adapter, for what it does not tell in any other way.
#pragma once

#include "driver/filter_module.h"
#include "host/ndis/filter_module.h"

namespace netsieve::tool {

/// The driver's record of `module`, in the native driver as in an image, or null when the module is
/// not our driver's: another's context is its own affair.
FILTER_MODULE* RecordOf(const host::FilterModule& module);

}  // namespace netsieve::tool
