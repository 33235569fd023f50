// Another filter driver, which attaches above or below the one under test.
#pragma once

#include "host/loaded_driver.h"
#include "platform/ndis.h"

namespace netsieve::host {

/// A filter driver that passes everything on and pushes a context of its own on every NBL, as real
/// filters do. When the NBL is completed or returned it checks that its context is on top and
/// unchanged, and reports a broken rule otherwise. Two may be loaded at once, one of each kind.
/// `above`: nearer to the protocols than a driver of altitude 0.
DriverSource OtherFilter(bool above);

/// What a filter driver registers, without its handlers. The names, which end with a NUL, stay the
/// caller's. IRQL <= DISPATCH_LEVEL.
NDIS_FILTER_DRIVER_CHARACTERISTICS DescribeFilter(PCWSTR friendlyName,
                                                  PCWSTR uniqueName,
                                                  PCWSTR serviceName);

}  // namespace netsieve::host
