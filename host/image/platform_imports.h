// What an image's imports from ntoskrnl.exe, NDIS.SYS and HAL.dll are bound to.
#pragma once

#include "host/image/import_resolver.h"

namespace netsieve::host {

/// Every platform routine that this host has, by module and published name.
const ImportTable& PlatformImports();

}  // namespace netsieve::host
