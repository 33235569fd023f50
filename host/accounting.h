// What is left in a machine when a run is over.
#pragma once

#include <cstdint>
#include <string>

namespace netsieve::host {

class Machine;

/// Counts of everything that has to be freed, returned or completed. Each is 0 after the drivers
/// are unloaded and the traffic has ended.
struct Accounting {
    std::uint64_t poolBlocks = 0;  ///< tagged memory
    std::uint64_t nblsOutstanding =
        0;  ///< not completed or returned to their owners (needs the verifier)
    std::uint64_t driverNbls = 0;  ///< NBLs allocated from drivers' pools and not freed
    std::uint64_t nblPools = 0;    ///< pools of drivers
    std::uint64_t mdls = 0;        ///< MDLs that drivers allocated
    std::uint64_t devices = 0;
    std::uint64_t workItems = 0;
    std::uint64_t timers = 0;         ///< armed, or with a routine queued or running
    std::uint64_t waiters = 0;        ///< contexts that wait for an event
    std::uint64_t registrations = 0;  ///< filter drivers that are registered

    bool Balanced() const;
    /// "everything was given back", or what was not: "3 pool blocks, 1 device".
    std::string Describe() const;
};

/// Takes stock. When the machine is quiet: after Run, or inside it with nothing else running.
Accounting TakeStock(Machine& machine);

}  // namespace netsieve::host
