// How the simulated scheduler chooses who runs next.
#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <span>
#include <vector>

#include "host/sched/random.h"

namespace netsieve::host {

/// Chooses at each scheduling point. Everything it does follows from its seed and its arguments.
class Strategy {
  public:
    static constexpr std::size_t kNone = static_cast<std::size_t>(-1);

    /// The clock's id, where advancing it is one of the choices.
    static constexpr std::uint32_t kClock = 0;

    virtual ~Strategy() = default;

    /// A context with this id exists from now on.
    virtual void OnStart(std::uint32_t id) = 0;

    /// Index into `enabled` (context ids in order of creation, never empty; the clock comes first)
    /// of the one to run. `current` is the index of the running one, or kNone when it cannot go on.
    virtual std::size_t Pick(std::span<const std::uint32_t> enabled, std::size_t current) = 0;

    /// How many picks so far were choices: the running one could go on, and so could another that
    /// would ever be chosen. 0 of a strategy that does not count them.
    virtual std::uint64_t choices() const { return 0; }
};

/// Every enabled context with the same probability at every point.
class UniformStrategy final : public Strategy {
  public:
    explicit UniformStrategy(std::uint64_t seed) : random_(seed) {}
    void OnStart(std::uint32_t) override {}
    std::size_t Pick(std::span<const std::uint32_t> enabled, std::size_t) override;

  private:
    Random random_;
};

/// Probabilistic concurrency testing: distinct random priorities, always the highest that is
/// enabled, and at depth-1 random choices the running one drops below all others. Finds any bug of
/// that depth with probability at least 1/(n*k^(depth-1)) for n contexts and k choices: theorem 9
/// of Burckhardt, Kothari, Musuvathi and Nagarakatte, "A Randomized Scheduler with Probabilistic
/// Guarantees of Finding Bugs", ASPLOS 2010, which counts every step as a choice. Here a step at
/// which nobody else could run is none, so that k is smaller and no change point is lost on it.
class PctStrategy final : public Strategy {
  public:
    /// `choices`: how many a run of this kind has (RunResult::choices); the change points are drawn
    /// among so many.
    PctStrategy(std::uint64_t seed, unsigned depth, std::uint64_t choices);
    void OnStart(std::uint32_t id) override;
    std::size_t Pick(std::span<const std::uint32_t> enabled, std::size_t current) override;
    std::uint64_t choices() const override { return choices_; }

  private:
    std::uint64_t DrawPriority(std::uint32_t id);
    bool IsChoice(std::span<const std::uint32_t> enabled, std::size_t current) const;
    void DropAtChangePoint(std::uint32_t running);

    Random random_;
    std::uint64_t depth_;
    unsigned clockTurns_ = 0;
    std::uint64_t choices_ = 0;
    std::vector<std::uint64_t> changePoints_;  ///< ascending; passed ones before nextChange_
    std::size_t nextChange_ = 0;
    std::vector<std::uint64_t> priorities_;  ///< by context id
};

}  // namespace netsieve::host
