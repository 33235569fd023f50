// The hooks that the program brings along: ordinary hook filters of the driver.
#pragma once

#include <cstdint>
#include <cstdio>
#include <optional>
#include <string>

#include "tools/netsieve/driver_exports.h"
#include "tools/netsieve/held_frames.h"
#include "tools/netsieve/hook_option.h"
#include "tools/netsieve/offer_counts.h"
#include "tools/netsieve/replay_clock.h"

namespace netsieve::tool {

/// What the hooks of a replay share. Outlives them, and the driver's last call of a handler.
struct SharedHookData {
    HookExports exports{};
    OfferCounts offers;
    HeldFrames held;
    ReplayClock* clock = nullptr;  ///< for when a held frame is due
    FILE* log = stdout;            ///< where lines for frames go
};

/// A registered hook filter of one of the program's kinds. Its address is its context in the
/// driver.
class BuiltInHook {
  public:
    /// `number` tells it from the replay's other hooks, in its name and in log lines; number 0 is
    /// the one that only watches.
    BuiltInHook(SharedHookData& shared, HookOption spec, unsigned number);
    BuiltInHook(const BuiltInHook&) = delete;
    BuiltInHook& operator=(const BuiltInHook&) = delete;

    /// Registers it, which attaches it to every adapter, and switches it on. `countsOffers` makes
    /// it the ledger's opener. Returns what went wrong, or nothing. PASSIVE_LEVEL, with the driver
    /// loaded and an adapter there.
    std::optional<std::string> Register(bool countsOffers);
    /// Deregisters it if it is registered. PASSIVE_LEVEL.
    void Deregister();

    const HookOption& spec() const { return spec_; }
    const HookTally& counts() const { return tally_; }
    /// Smaller ones see a frame first; no two hooks of a replay have the same.
    std::uint32_t Priority() const;
    /// The driver's record of it; null when it is not registered.
    const HOOK_FILTER* handle() const { return handle_; }

  private:
    static VOID NTAPI OnAttach(FILTER_MODULE* module, HOOK_FILTER* hook, PVOID context);
    static VOID NTAPI OnDetach(FILTER_MODULE* module, HOOK_FILTER* hook, PVOID context);
    template <Direction kWay>
    static LONG NTAPI OnFrame(PVOID context, NIRP* nirp);

    bool Selects(NIRP* nirp) const;
    /// What the hook does with a frame that it selects.
    Answer Treat(NIRP* nirp, Direction way);
    Answer TakeOver(NIRP* nirp, Direction way);
    void ReplyToArp(NIRP* nirp, Direction way);
    void Log(NIRP* nirp, Direction way) const;

    SharedHookData& shared_;
    HookOption spec_;
    unsigned number_;
    std::u16string name_;
    HookTally tally_;
    HOOK_FILTER* handle_ = nullptr;
    bool countsOffers_ = false;
    NTSTATUS attachStatus_ = STATUS_UNSUCCESSFUL;  ///< until an adapter is announced
};

}  // namespace netsieve::tool
