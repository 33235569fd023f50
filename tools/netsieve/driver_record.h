// The driver's own record of an adapter, for what it does not tell in any other way.
#pragma once

#include <optional>

#include "driver/filter_module.h"
#include "host/ndis/filter_module.h"

namespace netsieve::tool {

/// The driver's record of `module`, in the native driver as in an image, or null when the module is
/// not our driver's: another's context is its own affair.
FILTER_MODULE* RecordOf(const host::FilterModule& module);

/// A list that our driver has built itself, around a frame of its own.
struct OwnList {
    const NIRP* record;  ///< which holds the frame
    bool clone;          ///< it is the copy of a pending one
};

/// What our driver says of the list, which is not the host's own; nothing when it was built by
/// somebody else.
std::optional<OwnList> ReadOwnList(PNET_BUFFER_LIST list);

}  // namespace netsieve::tool
