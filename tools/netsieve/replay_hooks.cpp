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

ReplayHooks::ReplayHooks(const std::vector<HookOption>& specs, ReplayClock& clock, FILE* log) {
    shared_.log = log;
    shared_.clock = &clock;
    bool hookDrivers = false;
    for (const HookOption& spec : specs) {
        const unsigned number = static_cast<unsigned>(hooks_.size()) + 1;
        Hook& hook = hooks_.emplace_back();
        if (spec.kind == HookKind::kDriver) {
            hook.driver = std::make_unique<HookDriver>(spec, number);
            hookDrivers = true;
        } else {
            hook.builtIn = std::make_unique<BuiltInHook>(shared_, spec, number);
        }
    }
    if (hookDrivers) {
        HookOption watching{.text = "that counts for the summary"};
        observer_ = std::make_unique<BuiltInHook>(shared_, std::move(watching), 0);
    }
}

std::optional<std::string> ReplayHooks::Start(host::Machine& machine,
                                              host::LoadedDriver& driver,
                                              const host::FilterModule& module) {
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
    for (BuiltInHook* hook : BuiltIn()) {
        if (auto failure = Register(*hook)) {
            return failure;
        }
    }
    for (Hook& hook : hooks_) {
        if (hook.driver == nullptr) {
            continue;
        }
        if (auto failure = LoadHookDriver(hook, machine, driver, *driverModule)) {
            return failure;
        }
    }
    return std::nullopt;
}

std::optional<std::string> ReplayHooks::Register(BuiltInHook& hook) {
    return hook.Register(&hook == &CountingHook());
}

std::optional<std::string> ReplayHooks::LoadHookDriver(Hook& hook,
                                                       host::Machine& machine,
                                                       const host::LoadedDriver& driver,
                                                       const FILTER_MODULE& driverModule) {
    if (auto failure = hook.driver->Load(machine, driver)) {
        return failure;
    }
    std::vector<const HOOK_FILTER*> own;
    for (const BuiltInHook* builtIn : BuiltIn()) {
        own.push_back(builtIn->handle());
    }
    hook.meters = meters_.Attach(driverModule, own, CountingHook().handle(), shared_.offers);
    return std::nullopt;
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
