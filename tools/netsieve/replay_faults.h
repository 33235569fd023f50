// The allocations that a replay makes fail.
#pragma once

#include <cstdint>

#include "host/sched/random.h"

namespace netsieve::tool {

/// Makes one failable call in so many fail, by the seed, while it is on. Switched inside the
/// machine's run.
class ReplayFaults {
  public:
    ReplayFaults(bool wanted, std::uint64_t seed)
        : wanted_(wanted), random_(seed ^ kStream), oneIn_(8u << random_.Below(6)) {}

    bool wanted() const { return wanted_; }
    bool on() const { return on_; }
    void TurnOn();
    void TurnOff();

    /// One call in so many fails.
    std::uint32_t oneIn() const { return oneIn_; }
    /// Calls that were made to fail.
    std::uint64_t Failed() const;

  private:
    static constexpr std::uint64_t kStream = 0xFA17'0000'7E91'A11Eull;

    bool wanted_;
    host::Random random_;
    std::uint32_t oneIn_;
    bool on_ = false;
    std::uint64_t failed_ = 0;
};

/// Turns the faults off for a step that the replay cannot do without.
class WithoutFaults {
  public:
    explicit WithoutFaults(ReplayFaults& faults) : faults_(faults), wereOn_(faults.on()) {
        faults_.TurnOff();
    }
    ~WithoutFaults() {
        if (wereOn_) {
            faults_.TurnOn();
        }
    }
    WithoutFaults(const WithoutFaults&) = delete;
    WithoutFaults& operator=(const WithoutFaults&) = delete;

  private:
    ReplayFaults& faults_;
    bool wereOn_;
};

}  // namespace netsieve::tool
