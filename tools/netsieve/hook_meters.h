// Counts what the hooks of hook modules are shown and answer.
#pragma once

#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "hook/hook_filter.h"
#include "tools/netsieve/driver_structures.h"
#include "tools/netsieve/offer_counts.h"

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

/// Puts a meter in front of the handlers of hooks that the program did not register itself, in the
/// driver's records of them: nothing else sees their single verdicts. Outlives the driver's last
/// call of a handler. One at a time in a process.
class HookMeters {
  public:
    HookMeters() = default;
    ~HookMeters();
    HookMeters(const HookMeters&) = delete;
    HookMeters& operator=(const HookMeters&) = delete;

    /// Meters every hook in the adapter's table that is neither metered yet nor among `own`, and
    /// returns the new meters in the table's order. `opener` is the ledger's. While nothing crosses
    /// the adapter.
    std::vector<const HookMeter*> Attach(const FILTER_MODULE& module,
                                         const std::vector<const HOOK_FILTER*>& own,
                                         const HOOK_FILTER* countingHook,
                                         OfferCounts& offers);

  private:
    std::vector<std::unique_ptr<HookMeter>> meters_;
};

}  // namespace netsieve::tool
