#include "tools/netsieve/replay_variation.h"

#include "host/machine.h"

namespace netsieve::tool {
namespace {

host::ReleaseMode AnyMode(host::Random& random) {
    constexpr host::ReleaseMode kModes[] = {
        host::ReleaseMode::kInline, host::ReleaseMode::kDeferred, host::ReleaseMode::kMixed};
    return kModes[random.Below(std::size(kModes))];
}

}  // namespace

void ReplayVariation::ChooseReleases(host::Stack& stack) {
    if (varied_) {
        stack.adapter().queue().SetMode(AnyMode(random_));
        stack.protocol().queue().SetMode(AnyMode(random_));
    }
}

void ReplayVariation::MakeSomewhere(const std::function<void()>& call) {
    ++counts_.calls;
    const std::uint64_t choice = random_.Below(4);
    if (choice == 0) {
        call();
        return;
    }
    const bool raised = choice > 1;
    counts_.raisedCalls += raised ? 1 : 0;
    host::Scheduler& scheduler = host::Machine::Current().scheduler();
    scheduler.Join(
        scheduler.Start({.name = raised ? "the adapter's DPC" : "a sending thread",
                         .kind = raised ? host::ContextKind::kDpc : host::ContextKind::kWorker,
                         .processor = static_cast<unsigned>(random_.Below(scheduler.processors()))},
                        call));
}

Interlude ReplayVariation::Before(std::uint64_t frame) {
    if (!varied_ || frame < nextInterlude_) {
        return Interlude::kNone;
    }
    nextInterlude_ = frame + 1 + random_.Below(16 + frame / 4);
    constexpr Interlude kInterludes[] = {Interlude::kAdapterReturns, Interlude::kOtherAdapter,
                                         Interlude::kOtherTraffic, Interlude::kOtherTraffic};
    return kInterludes[random_.Below(std::size(kInterludes))];
}

void ReplayVariation::LetRunUntil(const std::function<bool()>& done) const {
    constexpr unsigned kMostPoints = 2000;
    for (unsigned points = 0; points < kMostPoints && !done(); ++points) {
        host::Machine::Current().scheduler().Point(host::PointKind::kCall);
    }
}

}  // namespace netsieve::tool
