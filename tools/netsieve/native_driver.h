// The driver that is built into the program.
#pragma once

#include <string_view>

#include "platform/kernel.h"

namespace netsieve::tool {

/// Its entry routine.
PDRIVER_INITIALIZE NativeEntry();

/// The address of the export with this name, or null. Naming them all here is also what keeps them
/// in the program for hook drivers to be bound to.
void* NativeExport(std::string_view name);

}  // namespace netsieve::tool
