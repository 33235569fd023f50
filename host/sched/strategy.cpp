#include "host/sched/strategy.h"

#include <algorithm>

namespace netsieve::host {

std::size_t UniformStrategy::Pick(std::span<const std::uint32_t> enabled,
                                  std::size_t,
                                  std::uint64_t) {
    return random_.Below(enabled.size());
}

PctStrategy::PctStrategy(std::uint64_t seed, unsigned depth, std::uint64_t points)
    : random_(seed), depth_(depth) {
    for (unsigned i = 1; i < depth; ++i) {
        changePoints_.push_back(random_.Below(std::max<std::uint64_t>(points, 1)));
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

std::size_t PctStrategy::Pick(std::span<const std::uint32_t> enabled,
                              std::size_t current,
                              std::uint64_t step) {
    while (nextChange_ < changePoints_.size() && step >= changePoints_[nextChange_]) {
        ++nextChange_;
        if (current != kNone) {
            priorities_[enabled[current]] = depth_ - nextChange_;
        }
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
        constexpr unsigned kMostTurns = 8;
        ++clockTurns_;
        priorities_[kClock] =
            clockTurns_ < kMostTurns ? (1ull << 63) | (random_.Next() >> (1 + clockTurns_)) : 0;
    }
    return best;
}

}  // namespace netsieve::host
