// Collects broken rules.
#pragma once

#include <cstdint>
#include <functional>
#include <string>
#include <vector>

#include "host/sched/scheduler.h"
#include "host/verifier/check_site.h"
#include "host/verifier/rules.h"

namespace netsieve::host {

/// One broken rule as it was met.
struct Violation {
    Rule rule = Rule::kCount;
    std::string what;   ///< what was seen: the call, the values, the object
    std::string where;  ///< the context and the callbacks it was inside of
    CheckSite site;     ///< the check that found it

    /// One or more lines for people: name, demand, what was seen, where.
    std::string Describe() const;
};

/// The record of everything that went against the platform's rules in one machine. Reporting does
/// not stop the run: the host then does what hurts least and goes on.
class Verifier {
  public:
    /// Whether the checks run at all. Fixed for the life of the machine.
    explicit Verifier(bool enabled) : enabled_(enabled) {}

    bool enabled() const { return enabled_; }

    /// Notes a violation. Any context, any IRQL; nothing is noted when the verifier is off, but for
    /// Deadlock and Hang, which end a run.
    void Report(Rule rule, std::string what, CheckSite site = CheckSite::Here());

    /// Every violation so far, in order. Read it when the machine is quiet.
    const std::vector<Violation>& violations() const { return violations_; }
    bool Silent() const { return violations_.empty(); }
    /// All violations as text, for a failing test or a summary; empty when silent.
    std::string Describe() const;

    /// Demands an IRQL of PASSIVE_LEVEL, or at most DISPATCH_LEVEL, of the caller of `routine`.
    void DemandPassive(const char* routine, CheckSite site = CheckSite::Here());
    void DemandUpToDispatch(const char* routine, CheckSite site = CheckSite::Here());
    /// Demands that `driver`, which is unloaded, has left no objects of a kind: ObjectLeak, or
    /// `rule`.
    void DemandNoneLeft(const std::string& driver,
                        std::size_t count,
                        const char* kind,
                        Rule rule = Rule::kObjectLeak,
                        CheckSite site = CheckSite::Here());

  private:
    bool enabled_;
    HostMutex mutex_;
    std::vector<Violation> violations_;
};

}  // namespace netsieve::host
