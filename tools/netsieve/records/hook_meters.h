// Counts the verdicts of the hooks that hook drivers register.
#pragma once

#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "hook/hook_filter.h"
#include "tools/netsieve/offer_counts.h"
#include "tools/netsieve/records/driver_structures.h"

namespace netsieve::tool {

/// One metered hook.
struct HookMeter {
    const HOOK_FILTER* hook = nullptr;
    std::string name{};
    std::uint32_t priority = 0;
    bool beforeCountingHook = false;
    HOOK_PACKET_HANDLER handlers[2] = {};  ///< the hook's own, by direction
    OfferCounts* offers = nullptr;
    HookTally tally{};
};

/// Replaces the handlers of hooks that the program did not register itself by counting ones, in the
/// driver's structures: no export tells a hook's verdicts. Must outlive the driver's last call of a
/// handler. One at a time in a process.
class HookMeters {
  public:
    HookMeters() = default;
    ~HookMeters();
    HookMeters(const HookMeters&) = delete;
    HookMeters& operator=(const HookMeters&) = delete;

    /// Meters every hook in the adapter's hook table that is neither metered yet nor in `own`, and
    /// returns the new meters in the table's order. `countingHook` counts the offers. While no
    /// frame is sent or received on the adapter.
    std::vector<const HookMeter*> Attach(const FILTER_MODULE& module,
                                         const std::vector<const HOOK_FILTER*>& own,
                                         const HOOK_FILTER* countingHook,
                                         OfferCounts& offers);

  private:
    std::vector<std::unique_ptr<HookMeter>> meters_;
};

}  // namespace netsieve::tool
