// A filter driver that does to frames what filters do, as its seed decides.
#pragma once

#include <atomic>
#include <cstdint>

#include "host/loaded_driver.h"

namespace netsieve::host {

/// What a busy filter does with an NBL besides passing it on: each once in so many, 0 never.
struct BusyFilterOptions {
    unsigned queues = 4;      ///< keeps it, and passes it on from a timer's routine
    unsigned clones = 4;      ///< sends a clone in its place and completes it when that is back
    unsigned drops = 8;       ///< completes it, or returns it
    unsigned originates = 4;  ///< sends or indicates a frame of its own first
    unsigned splits = 4;      ///< passes on each NBL of a chain in a call of its own
    unsigned failsRestart = 0;
};

/// How often it did so, over all runs.
struct BusyFilterCounts {
    std::atomic<std::uint64_t> queued, cloned, dropped, originated, split, pausesPended;
};

/// A correct driver, `above` or below a driver of altitude 0. Two may be loaded at once, one of
/// each kind. What it does follows from the machine's seed. Its own frames are 64 bytes of 0xB5.
DriverSource BusyFilter(bool above, const BusyFilterOptions& options = {});
BusyFilterCounts& CountsOfBusyFilter(bool above);

}  // namespace netsieve::host
