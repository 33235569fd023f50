// Reads the driver's own structures, for what no export of the driver returns.
#pragma once

#include <cstdint>
#include <optional>

#include "host/ndis/filter_module.h"
#include "module/filter_module.h"
#include "tools/netsieve/offer_counts.h"

namespace netsieve::tool {

/// The FILTER_MODULE of our driver, native or image, for this filter module of the host; null when
/// the module is another driver's.
FILTER_MODULE* DriverModuleOf(const host::FilterModule& module);

/// Number of requests of one direction that hooks have marked pending. IRQL <= DISPATCH_LEVEL.
std::uint64_t PendingRequests(FILTER_MODULE& module, Direction direction);

/// Number of pending requests of one direction that a pause has flushed and whose marks are not all
/// completed. Between a pause and the next restart. IRQL <= DISPATCH_LEVEL.
std::uint64_t UnpaidRequests(FILTER_MODULE& module, Direction direction);

/// Number of NIRPs of the module that are neither free nor hold a pending or flushed request, where
/// `capacity` of them were free before any traffic. PASSIVE_LEVEL.
std::uint64_t NirpsInTransit(FILTER_MODULE& module, ULONG capacity);

/// An NBL of our driver's own.
struct DriverNbl {
    const NIRP* nirp;  ///< the record that holds its frame
    bool clone;        ///< of a pending frame; otherwise an injected frame
};

/// Describes an NBL that is not the host's; nothing when it is not our driver's.
std::optional<DriverNbl> ReadDriverNbl(PNET_BUFFER_LIST nbl);

}  // namespace netsieve::tool
