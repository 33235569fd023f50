// The driver's own record of an adapter, for what it does not tell in any other way.
#pragma once

#include <cstdint>
#include <optional>

#include "host/ndis/filter_module.h"
#include "module/filter_module.h"
#include "tools/netsieve/offer_counts.h"

namespace netsieve::tool {

/// The driver's record of `module`, in the native driver as in an image, or null when the module is
/// not our driver's: another's context is its own affair.
FILTER_MODULE* DriverModuleOf(const host::FilterModule& module);

/// How many requests of one direction a pause has flushed whose marks are not all completed yet.
/// Between a pause and the next restart. At or below DISPATCH_LEVEL.
std::uint64_t UnpaidRequests(FILTER_MODULE& record, Direction way);

/// An NBL that our driver has built itself, around a frame of its own.
struct DriverNbl {
    const NIRP* record;  ///< which holds the frame
    bool clone;          ///< it is the copy of a pending one
};

/// What our driver says of the NBL, which is not the host's own; nothing when it was built by
/// somebody else.
std::optional<DriverNbl> ReadDriverNbl(PNET_BUFFER_LIST nbl);

}  // namespace netsieve::tool
