#include "host/kernel/faults.h"

namespace netsieve::host {

const char* FaultKindName(FaultKind kind) {
    static constexpr const char* kNames[] = {
        "pool",      "nbl-pool", "nbl",          "nbl-context", "mdl",      "mapping",
        "work-item", "device",   "registration", "attributes",  "registry",
    };
    static_assert(std::size(kNames) == static_cast<std::size_t>(FaultKind::kCount));
    return kNames[static_cast<std::size_t>(kind)];
}

void Faults::Arm(const FaultPlan& plan) {
    HostLock lock(mutex_);
    plan_ = plan;
    random_ = Random(plan.seed);
    counted_ = 0;
    injected_ = 0;
    armed_ = true;
}

void Faults::Disarm() {
    armed_ = false;
}

std::uint64_t Faults::Counted() {
    HostLock lock(mutex_);
    return counted_;
}

std::uint64_t Faults::Injected() {
    HostLock lock(mutex_);
    return injected_;
}

bool Faults::Decide(FaultKind kind, std::uint32_t tag) {
    HostLock lock(mutex_);
    if ((plan_.kind && *plan_.kind != kind) || (plan_.tag && *plan_.tag != tag)) {
        return false;
    }
    ++counted_;
    constexpr double kRange = 9007199254740992.0;  // 2^53: doubles below 1 with no rounding up
    const bool numbered =
        plan_.nth != 0 && (plan_.persistent ? counted_ >= plan_.nth : counted_ == plan_.nth);
    const bool drawn = plan_.probability > 0 &&
                       static_cast<double>(random_.Next() >> 11) / kRange < plan_.probability;
    injected_ += numbered || drawn ? 1 : 0;
    return numbered || drawn;
}

}  // namespace netsieve::host
