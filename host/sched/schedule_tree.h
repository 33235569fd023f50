// All schedules of a scenario with at most so many preemptions, one after the other.
#pragma once

#include <cstdint>
#include <map>
#include <span>
#include <string>
#include <vector>

#include "host/sched/strategy.h"

namespace netsieve::host {

class SignalText;

/// Walks the tree of choices depth first, one run for each leaf. A choice is a preemption when the
/// context that is running could go on; when it cannot, all others are equal. Left alone, a run
/// goes on with whoever is running, else with the oldest.
///
/// The scenario must do the same whenever it is given the same choices.
class ScheduleTree {
  public:
    explicit ScheduleTree(unsigned preemptions) : preemptions_(preemptions) {}

    /// Runs the one schedule of this name instead.
    void Follow(const std::string& name);

    /// While closed, only the choice of a run that is left alone is tried: before and after the
    /// part to explore. Open at first.
    void SetOpen(bool open) { open_ = open; }

    /// As Strategy::Pick.
    std::size_t Pick(std::span<const std::uint32_t> enabled, std::size_t current);

    /// Goes on to the next schedule; false when there is none.
    bool Advance();

    /// Of the schedule that is being run, for Follow: which context was chosen at which pick, where
    /// that is not the one that a run which is left alone would choose. "-" for that run.
    std::string name() const;
    /// Appends the name. Safe in a signal handler.
    void AppendName(SignalText& text) const;

    /// The scenario came to a choice other than before.
    bool diverged() const { return diverged_; }

  private:
    struct Node {
        std::size_t enabled;  ///< how many could run
        std::size_t choices;  ///< how many of them are tried
        std::size_t choice;   ///< 0 is that of a run which is left alone
        std::uint32_t taken;  ///< the context
    };

    std::size_t PickNamed(std::span<const std::uint32_t> enabled, std::size_t first);

    unsigned preemptions_;
    unsigned spent_ = 0;
    bool open_ = true;
    bool diverged_ = false;
    std::vector<Node> nodes_;
    std::size_t depth_ = 0;  ///< picks of this run
    bool following_ = false;
    std::map<std::size_t, std::uint32_t> named_;
};

/// Chooses along a tree, which lives longer.
class TreeStrategy final : public Strategy {
  public:
    explicit TreeStrategy(ScheduleTree& tree) : tree_(tree) {}
    void OnStart(std::uint32_t) override {}
    std::size_t Pick(std::span<const std::uint32_t> enabled, std::size_t current) override {
        return tree_.Pick(enabled, current);
    }

  private:
    ScheduleTree& tree_;
};

}  // namespace netsieve::host
