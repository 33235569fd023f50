// What the seed varies in a replay without changing what becomes of a frame.
#pragma once

#include <cstdint>
#include <functional>
#include <optional>

#include "host/ndis/stack.h"
#include "host/sched/random.h"
#include "tools/netsieve/replay_report.h"

namespace netsieve::tool {

/// What happens between two frames.
enum class Interlude { kNone, kAdapterReturns, kOtherAdapter, kOtherTraffic };

/// Chooses, by the seed, where the calls of the stack are made from, when NBLs are completed and
/// returned, and what happens between frames. Without a seed of the user's it varies nothing.
class ReplayVariation {
  public:
    explicit ReplayVariation(const std::optional<std::uint64_t>& seed)
        : varied_(seed.has_value()), random_(seed.value_or(0) ^ kStream) {}

    bool varied() const { return varied_; }

    /// Chooses how the adapter completes and the protocol returns what they are given. While no NBL
    /// is outstanding.
    void ChooseReleases(host::Stack& stack);
    /// Makes a call of the stack or the driver: from the caller, or from a worker at PASSIVE_LEVEL
    /// or a DPC on any processor. Returns when it was made. At PASSIVE_LEVEL.
    template <typename Call>
    void Make(const Call& call) {
        if (varied_) {
            MakeSomewhere(call);
        } else {
            call();
        }
    }
    /// What happens before the frame with this number. Rarer and rarer, since a removed adapter's
    /// records stay to the end of the run.
    Interlude Before(std::uint64_t frame);
    /// Lets other contexts run until `done`, or a while if that does not come true.
    void LetRunUntil(const std::function<bool()>& done) const;
    /// A choice that is as likely as not; false without a seed.
    bool Either() { return varied_ && random_.OneIn(2); }
    std::uint64_t Draw() { return random_.Next(); }

    VariationCounts& counts() { return counts_; }

  private:
    static constexpr std::uint64_t kStream = 0x5EED'0000'7E91'A11Eull;

    void MakeSomewhere(const std::function<void()>& call);

    bool varied_;
    host::Random random_;
    std::uint64_t nextInterlude_ = 0;
    VariationCounts counts_;
};

}  // namespace netsieve::tool
