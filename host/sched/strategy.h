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

    /// Index into `enabled` (context ids in order of creation, never empty) of the one to run.
    /// `current` is the index of the running one, or kNone when it cannot go on. `step` counts the
    /// points of the run.
    virtual std::size_t Pick(std::span<const std::uint32_t> enabled,
                             std::size_t current,
                             std::uint64_t step) = 0;
};

/// Every enabled context with the same probability at every point.
class UniformStrategy final : public Strategy {
  public:
    explicit UniformStrategy(std::uint64_t seed) : random_(seed) {}
    void OnStart(std::uint32_t) override {}
    std::size_t Pick(std::span<const std::uint32_t> enabled, std::size_t, std::uint64_t) override;

  private:
    Random random_;
};

/// Probabilistic concurrency testing: distinct random priorities, always the highest that is
/// enabled, and at depth-1 random points the running one drops below all others. Finds any bug of
/// that depth with probability at least 1/(n*k^(depth-1)) for n contexts and k points.
class PctStrategy final : public Strategy {
  public:
    /// `points`: how many points a run of this kind has; change points are drawn below it.
    PctStrategy(std::uint64_t seed, unsigned depth, std::uint64_t points);
    void OnStart(std::uint32_t id) override;
    std::size_t Pick(std::span<const std::uint32_t> enabled,
                     std::size_t current,
                     std::uint64_t step) override;

  private:
    std::uint64_t DrawPriority(std::uint32_t id);

    Random random_;
    std::uint64_t depth_;
    unsigned clockTurns_ = 0;
    std::vector<std::uint64_t> changePoints_;  ///< ascending; passed ones before nextChange_
    std::size_t nextChange_ = 0;
    std::vector<std::uint64_t> priorities_;  ///< by context id
};

}  // namespace netsieve::host
