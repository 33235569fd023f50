// Keeps count of the frames that hooks are shown and of their verdicts.
#pragma once

#include <atomic>
#include <cstdint>

namespace netsieve::tool {

enum class Direction : std::uint8_t { kSent, kReceived };

/// A count that anyone may read and one thread at a time adds to: the driver shows a frame to the
/// hooks inside the call that brings it, and the replay makes those calls one after the other.
class Tally {
  public:
    void Add() {
        value_.store(value_.load(std::memory_order_relaxed) + 1, std::memory_order_relaxed);
    }
    std::uint64_t value() const { return value_.load(std::memory_order_relaxed); }

  private:
    std::atomic<std::uint64_t> value_ = 0;
};

/// What a hook does with a frame.
enum class Answer : std::uint8_t { kPass, kWithhold, kMark };

/// What one hook was shown and answered.
struct HookTally {
    Tally passed;
    Tally withheld;
    Tally marked;    ///< taken over, to be decided about later
    Tally matched;   ///< selected by the expression
    Tally overflow;  ///< were to be taken over, and the driver could not
    Tally injected;  ///< frames of its own that it gave the driver

    std::uint64_t Offered() const { return passed.value() + withheld.value() + marked.value(); }
    void Count(Answer answer) {
        (answer == Answer::kPass ? passed : answer == Answer::kWithhold ? withheld : marked).Add();
    }
};

/// The frames that were offered, and those of them that at least one hook kept from passing.
/// Several hooks may withhold one frame. One of them, the opener, sees every frame that is offered.
class OfferCounts {
  public:
    /// The opener is shown the next frame.
    void Open(Direction way) {
        frames_.Add();
        Of(way).offered.Add();
    }
    /// A hook withholds or takes over the frame that is being offered; `beforeCountingHook` when it
    /// sees frames before the opener does.
    void Withhold(Direction way, bool beforeCountingHook) {
        const std::uint64_t frame = frames_.value() + (beforeCountingHook ? 1 : 0);
        if (frame != latestWithheld_.load(std::memory_order_relaxed)) {
            latestWithheld_.store(frame, std::memory_order_relaxed);
            Of(way).withheld.Add();
        }
    }

    std::uint64_t Offered(Direction way) const { return counts_[Index(way)].offered.value(); }
    std::uint64_t Withheld(Direction way) const { return counts_[Index(way)].withheld.value(); }

  private:
    struct Counts {
        Tally offered;
        Tally withheld;
    };

    static std::size_t Index(Direction way) { return static_cast<std::size_t>(way); }
    Counts& Of(Direction way) { return counts_[Index(way)]; }

    Tally frames_;
    std::atomic<std::uint64_t> latestWithheld_ = 0;
    Counts counts_[2];
};

}  // namespace netsieve::tool
