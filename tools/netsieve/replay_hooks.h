// The hooks of one replay, from their registration to their counts.
#pragma once

#include <cstdio>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "host/machine.h"
#include "host/ndis/filter_module.h"
#include "tools/netsieve/built_in_hook.h"
#include "tools/netsieve/hook_driver.h"
#include "tools/netsieve/records/hook_meters.h"
#include "tools/netsieve/replay_report.h"

namespace netsieve::tool {

/// Must outlive the machine's run: drivers call into it.
class ReplayHooks {
  public:
    /// Lines of log hooks go to `log`.
    ReplayHooks(const std::vector<HookOption>& specs,
                ReplayClock& clock,
                ReplayFaults& faults,
                FILE* log);

    bool Any() const { return !hooks_.empty(); }

    /// Registers the program's hooks and loads the hook drivers, which register theirs. Returns
    /// what went wrong, or nothing; with faults a hook that does not come up is left out, and noted
    /// in `leftOut`. Inside Run at PASSIVE_LEVEL, with the driver attached to the adapter as
    /// `module` and no traffic.
    std::optional<std::string> Start(host::Machine& machine,
                                     host::LoadedDriver& driver,
                                     const host::FilterModule& module,
                                     std::vector<std::string>& leftOut);
    /// The adapter is back, with the driver attached as `driverModule`: counts for hooks that have
    /// attached only now. With no traffic.
    void NoteAdapterBack(const FILTER_MODULE& driverModule);
    /// Deregisters and unloads what Start registered and loaded. Inside Run at PASSIVE_LEVEL,
    /// before the driver unloads.
    void Stop(host::Machine& machine);

    const OfferCounts& offers() const { return shared_.offers; }
    const HookExports& exports() const { return shared_.exports; }
    HeldFrames& held() { return shared_.held; }
    const HeldFrames& held() const { return shared_.held; }
    /// Whether every hook is the program's own, so that all pending requests are known.
    bool AllKnown() const { return !hookDrivers_; }
    /// One entry for each hook, in the order of the command line.
    std::vector<HookReport> Report() const;

  private:
    /// One --hook: the program's own hook, or a hook driver with the hooks that it registered.
    struct Hook {
        std::unique_ptr<BuiltInHook> builtIn{};
        std::unique_ptr<HookDriver> driver{};
        std::vector<const HookMeter*> meters{};
    };

    /// The program's hook that sees a frame before its others; it counts the offered frames.
    BuiltInHook& CountingHook();
    std::optional<std::string> Register(BuiltInHook& hook);
    std::vector<const HookMeter*> Meter(const FILTER_MODULE& driverModule);
    std::vector<BuiltInHook*> BuiltIn();

    SharedHookData shared_;
    HookMeters meters_;
    std::vector<Hook> hooks_;
    bool hookDrivers_ = false;
    /// Only counts offers, when there are hook drivers or a hook may not come up.
    std::unique_ptr<BuiltInHook> observer_;
};

}  // namespace netsieve::tool
