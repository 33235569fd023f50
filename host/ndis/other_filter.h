// A filter driver of someone else's, to stand above or below the one under test.
#pragma once

#include "host/loaded_driver.h"

namespace netsieve::host {

/// A driver that passes everything on, and pushes a context of its own on every NBL that crosses
/// it, as filters in the field do. It checks on the way back that its context is on top and as it
/// left it; a difference shows as a broken rule. Two may be loaded at once, one of each kind.
/// `above`: nearer to the protocols than a driver of altitude 0.
DriverSource OtherFilter(bool above);

}  // namespace netsieve::host
