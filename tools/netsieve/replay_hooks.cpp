#include "tools/netsieve/replay_hooks.h"

#include <fmt/format.h>

#include <algorithm>

namespace netsieve::tool {
namespace {

void Enter(const HookTally& tally, HookReport& report) {
    report.offered = tally.Offered();
    report.passed = tally.passed.value();
    report.withheld = tally.withheld.value();
    report.marked = tally.marked.value();
    report.overflow = tally.overflow.value();
    report.injected = tally.injected.value();
}

}  // namespace

ReplayHooks::ReplayHooks(const std::vector<HookOption>& specs,
                         ReplayClock& clock,
                         ReplayFaults& faults,
                         FILE* log) {
    shared_.log = log;
    shared_.clock = &clock;
    shared_.faults = &faults;
    for (const HookOption& spec : specs) {
        const unsigned number = static_cast<unsigned>(hooks_.size()) + 1;
        Hook& hook = hooks_.emplace_back();
        if (spec.kind == HookKind::kDriver) {
            hook.driver = std::make_unique<HookDriver>(spec, number);
            hookDrivers_ = true;
        } else {
            hook.builtIn = std::make_unique<BuiltInHook>(shared_, spec, number);
        }
    }
    if (hookDrivers_ || (faults.wanted() && Any())) {
        HookOption watching{.text = "that counts for the summary"};
        observer_ = std::make_unique<BuiltInHook>(shared_, std::move(watching), 0);
    }
}

std::optional<std::string> ReplayHooks::Start(host::Machine& machine,
                                              host::LoadedDriver& driver,
                                              const host::FilterModule& module,
                                              std::vector<std::string>& leftOut) {
    if (const auto missing = FindHookExports(driver, shared_.exports)) {
        return fmt::format("the driver takes no hooks: it does not export {}", *missing);
    }
    if (!Any()) {
        return std::nullopt;
    }
    const FILTER_MODULE* const driverModule = DriverModuleOf(module);
    if (driverModule == nullptr) {
        return "the driver is not the one that hooks are made for";
    }
    shared_.held.SetLimit(
        static_cast<std::size_t>(std::max<LONG>(driverModule->FreeNirpCount, 1) - 1) / 2);
    // Before the hook drivers: if one's hook had a name that is contained in ours, the driver would
    // join our hook with it.
    const auto fatal = [&](const std::optional<std::string>& failure) {
        if (failure && shared_.faults->wanted()) {
            leftOut.push_back(*failure);
        }
        return failure && !shared_.faults->wanted();
    };
    for (BuiltInHook* hook : BuiltIn()) {
        if (auto failure = Register(*hook); fatal(failure)) {
            return failure;
        }
    }
    for (Hook& hook : hooks_) {
        if (hook.driver == nullptr) {
            continue;
        }
        if (auto failure = hook.driver->Load(machine, driver); fatal(failure)) {
            return failure;
        }
        hook.meters = Meter(*driverModule);
    }
    return std::nullopt;
}

std::optional<std::string> ReplayHooks::Register(BuiltInHook& hook) {
    std::optional<WithoutFaults> guard;
    if (&hook == observer_.get()) {
        guard.emplace(*shared_.faults);
    }
    return hook.Register(&hook == &CountingHook());
}

void ReplayHooks::NoteAdapterBack(const FILTER_MODULE& driverModule) {
    if (hookDrivers_) {
        Meter(driverModule);
    }
}

std::vector<const HookMeter*> ReplayHooks::Meter(const FILTER_MODULE& driverModule) {
    std::vector<const HOOK_FILTER*> own;
    for (const BuiltInHook* builtIn : BuiltIn()) {
        own.push_back(builtIn->handle());
    }
    return meters_.Attach(driverModule, own, CountingHook().handle(), shared_.offers);
}

void ReplayHooks::Stop(host::Machine& machine) {
    for (auto hook = hooks_.rbegin(); hook != hooks_.rend(); ++hook) {
        if (hook->driver != nullptr) {
            hook->driver->Unload(machine);
        }
    }
    for (BuiltInHook* hook : BuiltIn()) {
        hook->Deregister();
    }
}

BuiltInHook& ReplayHooks::CountingHook() {
    const std::vector<BuiltInHook*> builtIn = BuiltIn();
    return **std::min_element(builtIn.begin(), builtIn.end(),
                              [](const BuiltInHook* left, const BuiltInHook* right) {
                                  return left->Priority() < right->Priority();
                              });
}

std::vector<BuiltInHook*> ReplayHooks::BuiltIn() {
    std::vector<BuiltInHook*> builtIn;
    if (observer_ != nullptr) {
        builtIn.push_back(observer_.get());
    }
    for (const Hook& hook : hooks_) {
        if (hook.builtIn != nullptr) {
            builtIn.push_back(hook.builtIn.get());
        }
    }
    return builtIn;
}

std::vector<HookReport> ReplayHooks::Report() const {
    std::vector<HookReport> reports;
    unsigned number = 0;
    for (const Hook& hook : hooks_) {
        HookReport report{.number = ++number};
        if (hook.builtIn != nullptr) {
            report.spec = hook.builtIn->spec().text;
            report.priority = hook.builtIn->Priority();
            if (hook.builtIn->spec().kind != HookKind::kReplyArp) {
                report.matched = hook.builtIn->counts().matched.value();
            }
            Enter(hook.builtIn->counts(), report);
            reports.push_back(report);
            continue;
        }
        report.spec = hook.driver->spec().text;
        for (const HookMeter* meter : hook.meters) {
            report.name = meter->name;
            report.priority = meter->priority;
            Enter(meter->tally, report);
            reports.push_back(report);
        }
        if (hook.meters.empty()) {
            reports.push_back(report);
        }
    }
    return reports;
}

}  // namespace netsieve::tool
