#include "host/sched/strategy.h"

#include <algorithm>

namespace netsieve::host {

namespace {
constexpr unsigned kMostClockTurns = 8;
}

std::size_t UniformStrategy::Pick(std::span<const std::uint32_t> enabled, std::size_t) {
    return random_.Below(enabled.size());
}

PctStrategy::PctStrategy(std::uint64_t seed, unsigned depth, std::uint64_t choices)
    : random_(seed), depth_(depth) {
    for (unsigned i = 1; i < depth; ++i) {
        changePoints_.push_back(random_.Below(std::max<std::uint64_t>(choices, 1)));
    }
    std::sort(changePoints_.begin(), changePoints_.end());
}

void PctStrategy::OnStart(std::uint32_t id) {
    if (priorities_.size() <= id) {
        priorities_.resize(id + 1);
    }
    priorities_[id] = DrawPriority(id);
}

// The low bits keep two priorities apart; the top bit keeps all of them above the values that
// change points hand out.
std::uint64_t PctStrategy::DrawPriority(std::uint32_t id) {
    return (1ull << 63) | (random_.Next() >> 21 << 20) | id;
}

bool PctStrategy::IsChoice(std::span<const std::uint32_t> enabled, std::size_t current) const {
    const bool idleClock = enabled[0] == kClock && clockTurns_ >= kMostClockTurns;
    return current != kNone && enabled.size() > (idleClock ? 2u : 1u);
}

// Two change points at one choice drop its context once: the second takes effect at the next.
void PctStrategy::DropAtChangePoint(std::uint32_t running) {
    if (nextChange_ < changePoints_.size() && choices_ >= changePoints_[nextChange_]) {
        ++nextChange_;
        priorities_[running] = depth_ - nextChange_;
    }
    ++choices_;
}

std::size_t PctStrategy::Pick(std::span<const std::uint32_t> enabled, std::size_t current) {
    if (IsChoice(enabled, current)) {
        DropAtChangePoint(enabled[current]);
    }
    std::size_t best = 0;
    for (std::size_t i = 1; i < enabled.size(); ++i) {
        if (priorities_[enabled[i]] > priorities_[enabled[best]]) {
            best = i;
        }
    }
    if (enabled[best] == kClock) {
        // A clock that stayed above someone would let timeouts pass for ever while he never runs:
        // each turn that it took from others leaves it less likely to take another, and none in
        // the end.
        ++clockTurns_;
        priorities_[kClock] = clockTurns_ < kMostClockTurns
                                  ? (1ull << 63) | (random_.Next() >> (1 + clockTurns_))
                                  : 0;
    }
    return best;
}

}  // namespace netsieve::host
