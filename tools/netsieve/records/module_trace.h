// The trace that the driver keeps for each adapter.
#pragma once

#include <string>
#include <vector>

#include "host/ndis/filter_module.h"

namespace netsieve::tool {

/// The complete lines in the trace ring of the module, oldest first; none for a module of another
/// driver. The ring is short: the number of the latest line tells how many lines there were. The
/// module must be attached, and nothing may run in it.
std::vector<std::string> ReadModuleTrace(const host::FilterModule& module);

}  // namespace netsieve::tool
