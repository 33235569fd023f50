// Memory that nobody may touch for a while. Only AddressSanitizer watches it.
#pragma once

#include <cstddef>

#include "host/sanitizers.h"

#ifdef NETSIEVE_ASAN
#include <sanitizer/asan_interface.h>
#endif

namespace netsieve::host {

/// Whether poisoned memory cannot have been touched, so that nobody need look.
#ifdef NETSIEVE_ASAN
constexpr bool kPoisonIsWatched = true;
#else
constexpr bool kPoisonIsWatched = false;
#endif

/// Any access to the bytes stops the program until UnpoisonMemory.
inline void PoisonMemory([[maybe_unused]] const void* data, [[maybe_unused]] std::size_t size) {
#ifdef NETSIEVE_ASAN
    __asan_poison_memory_region(data, size);
#endif
}

inline void UnpoisonMemory([[maybe_unused]] const void* data, [[maybe_unused]] std::size_t size) {
#ifdef NETSIEVE_ASAN
    __asan_unpoison_memory_region(data, size);
#endif
}

}  // namespace netsieve::host
