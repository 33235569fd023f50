// Scenarios that nobody wrote: bytes say which adapters, filters and hooks there are, what crosses
// them and what happens to them meanwhile. Any bytes are a scenario, and fewer or smaller ones a
// simpler one, so that what is found can be shrunk.
#pragma once

#include <deque>
#include <memory>
#include <string>
#include <vector>

#include "tests/driver/schedule_scenarios.h"
#include "tests/packet/pending_rig.h"

namespace netsieve::host {

using ScenarioBytes = std::vector<std::uint8_t>;

/// Bytes for a scenario of a few steps.
ScenarioBytes DrawScenario(std::uint64_t seed);
/// In words, a line for each step.
std::string DescribeScenario(const ScenarioBytes& bytes);
/// Fewer and smaller bytes that still fail, each tried with `fails`; a local minimum.
ScenarioBytes ShrinkScenario(ScenarioBytes bytes,
                             const std::function<bool(const ScenarioBytes&)>& fails);

class GeneratedScenario final : public Scenario {
  public:
    explicit GeneratedScenario(ScenarioBytes bytes);
    void Run(Machine& machine) override;

  private:
    struct Step;
    struct Plan;
    struct Sent;
    class Hook;
    class Site;
    class Cast;
    void JudgeFrame(const Sent& frame);

    std::shared_ptr<const Plan> plan_;

    friend std::string DescribeScenario(const ScenarioBytes& bytes);
};

}  // namespace netsieve::host
