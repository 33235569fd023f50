// The program's own hooks, which register with the driver as any hook driver's do.
#pragma once

#include <cstdint>
#include <cstdio>
#include <optional>
#include <string>

#include "tools/netsieve/driver_exports.h"
#include "tools/netsieve/hook_option.h"
#include "tools/netsieve/offer_counts.h"
#include "tools/netsieve/records/held_frames.h"
#include "tools/netsieve/replay_clock.h"
#include "tools/netsieve/replay_faults.h"

namespace netsieve::tool {

/// What the hooks of a replay share. Must outlive them and the driver's last call of a handler.
struct SharedHookData {
    HookExports exports{};
    OfferCounts offers;
    HeldFrames held;
    ReplayClock* clock = nullptr;    ///< the capture's time
    ReplayFaults* faults = nullptr;  ///< null until the machine is there
    FILE* log = stdout;              ///< output of log hooks
};

/// One of the program's own hooks. Its address is the context that the driver passes to its
/// handlers.
class BuiltInHook {
  public:
    /// `number` identifies it in its name and in log lines; 0 is the hook that only counts offers.
    BuiltInHook(SharedHookData& shared, HookOption spec, unsigned number);
    BuiltInHook(const BuiltInHook&) = delete;
    BuiltInHook& operator=(const BuiltInHook&) = delete;

    /// Registers it, which attaches it to every adapter, and makes it active. With `countsOffers`
    /// it counts the frames that hooks are offered. Returns what went wrong, or nothing.
    /// PASSIVE_LEVEL, with the driver loaded and an adapter added.
    std::optional<std::string> Register(bool countsOffers);
    /// Deregisters it if it is registered. PASSIVE_LEVEL.
    void Deregister();

    const HookOption& spec() const { return spec_; }
    const HookTally& counts() const { return tally_; }
    /// Hooks with a lower priority value see a frame first; no two hooks of a replay have the same.
    std::uint32_t Priority() const;
    /// The hook in the driver; null when it is not registered.
    const HOOK_FILTER* handle() const { return handle_; }

  private:
    static VOID NTAPI OnAttach(FILTER_MODULE* module, HOOK_FILTER* hook, PVOID context);
    static VOID NTAPI OnDetach(FILTER_MODULE* module, HOOK_FILTER* hook, PVOID context);
    template <Direction kDirection>
    static LONG NTAPI OnFrame(PVOID context, NIRP* nirp);

    bool Selects(NIRP* nirp) const;
    /// Handles a frame that the hook selects.
    Answer Treat(NIRP* nirp, Direction direction);
    Answer MarkPending(NIRP* nirp, Direction direction);
    void ReplyToArp(NIRP* nirp, Direction direction);
    void Log(NIRP* nirp, Direction direction) const;

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
