// The driver's exports as clients are bound to them when a machine watches its hooks.
#pragma once

#include <string_view>

namespace netsieve::host {

/// What a client of an image is bound to for the image's export `name` at `address`: the function
/// that watches it, or `address` itself when nothing is watched or the name is no export for hooks.
/// The clients of one image at a time are watched.
void* WatchedExport(std::string_view name, void* address);

}  // namespace netsieve::host
