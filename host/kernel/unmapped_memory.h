// Addresses that lead nowhere: where the StartVa of an MDL points that has no system mapping.
#pragma once

#include <cstddef>

namespace netsieve::host {

/// A stretch of pages that nobody may read. Someone who reads an unmapped MDL through StartVa gets
/// a fault there, which RecoverFromFault notes, and then zeroes.
class UnmappedMemory {
  public:
    /// The first page.
    static void* Start();

    /// Safe in a signal handler.
    static bool Contains(const void* address);
    static std::size_t Offset(const void* address);
    /// Makes the pages accessible, so that a reader can go on. False when that is not possible.
    /// Safe in a signal handler.
    static bool Open();
    /// Empties them, and takes them away again.
    static void Close();
};

}  // namespace netsieve::host
