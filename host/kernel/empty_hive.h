// A registry hive with nothing in it.
#pragma once

#include <cstdint>
#include <vector>

namespace netsieve::host {

/// The file of a hive that has a root key without children and values. The root's security lets the
/// system and the administrators do everything, and keys made below it inherit that.
std::vector<std::uint8_t> EmptyHive();

}  // namespace netsieve::host
