// The trace that the driver keeps for each adapter.
#pragma once

#include <string>
#include <vector>

#include "host/ndis/filter_module.h"

namespace netsieve::tool {

/// The lines that are still whole in the module's trace ring, oldest first; none for a module of
/// some other driver. The ring is short, so the latest line's number tells how many there have
/// been. The module must be attached and quiet.
std::vector<std::string> ReadModuleTrace(const host::FilterModule& module);

}  // namespace netsieve::tool
