// Counts the frames that hooks are offered, and their verdicts.
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

/// A hook's verdict on a frame.
enum class Answer : std::uint8_t { kPass, kWithhold, kMark };

/// The frames that one hook was offered, by its verdict.
struct HookTally {
    Tally passed;
    Tally withheld;
    Tally marked;    ///< marked pending
    Tally matched;   ///< selected by its expression
    Tally overflow;  ///< could not be marked pending
    Tally injected;  ///< frames that it injected

    std::uint64_t Offered() const { return passed.value() + withheld.value() + marked.value(); }
    void Count(Answer answer) {
        (answer == Answer::kPass ? passed : answer == Answer::kWithhold ? withheld : marked).Add();
    }
};

/// Counts the frames that were offered, and those that at least one hook withheld or marked
/// pending. Several hooks may do so with one frame. One of the hooks is the counting hook, which is
/// offered every frame.
class OfferCounts {
  public:
    /// The counting hook is offered the next frame.
    void CountOffered(Direction direction) {
        frames_.Add();
        Of(direction).offered.Add();
    }
    /// A hook withholds the frame that is being offered or marks it pending. `beforeCountingHook`:
    /// it sees each frame before the counting hook does.
    void CountWithheld(Direction direction, bool beforeCountingHook) {
        const std::uint64_t frame = frames_.value() + (beforeCountingHook ? 1 : 0);
        if (frame != latestWithheld_.load(std::memory_order_relaxed)) {
            latestWithheld_.store(frame, std::memory_order_relaxed);
            Of(direction).withheld.Add();
        }
    }

    std::uint64_t Offered(Direction direction) const {
        return counts_[Index(direction)].offered.value();
    }
    std::uint64_t Withheld(Direction direction) const {
        return counts_[Index(direction)].withheld.value();
    }

  private:
    struct Counts {
        Tally offered;
        Tally withheld;
    };

    static std::size_t Index(Direction direction) { return static_cast<std::size_t>(direction); }
    Counts& Of(Direction direction) { return counts_[Index(direction)]; }

    Tally frames_;
    std::atomic<std::uint64_t> latestWithheld_ = 0;
    Counts counts_[2];
};

}  // namespace netsieve::tool
