#include "host/verifier/verifier.h"

#include <fmt/format.h>

namespace netsieve::host {

namespace {

constexpr const char* kNames[] = {
#define NETSIEVE_RULE_NAME(name, text) #name,
    NETSIEVE_RULES(NETSIEVE_RULE_NAME)
#undef NETSIEVE_RULE_NAME
};

constexpr const char* kTexts[] = {
#define NETSIEVE_RULE_TEXT(name, text) text,
    NETSIEVE_RULES(NETSIEVE_RULE_TEXT)
#undef NETSIEVE_RULE_TEXT
};

// A broken driver can break a rule once per frame; the first reports are the ones that are read.
constexpr std::size_t kMostViolations = 1000;

std::string DescribeHere() {
    if (t_context == nullptr) {
        return "outside the machine";
    }
    return fmt::format("{} at IRQL {}{}", t_context->Describe(), t_context->irql,
                       t_context->DescribeCalls());
}

}  // namespace

const char* RuleName(Rule rule) {
    return kNames[static_cast<std::size_t>(rule)];
}

const char* RuleText(Rule rule) {
    return kTexts[static_cast<std::size_t>(rule)];
}

std::string Violation::Describe() const {
    return fmt::format("{}: {}\n    seen: {}\n    by:   {}", RuleName(rule), RuleText(rule), what,
                       where);
}

void Verifier::Report(Rule rule, std::string what, CheckSite site) {
    if (!enabled_ && rule != Rule::kDeadlock && rule != Rule::kHang) {
        return;
    }
    HostLock lock(mutex_);
    if (violations_.size() < kMostViolations) {
        violations_.push_back({rule, std::move(what), DescribeHere(), site});
    }
}

std::string Verifier::Describe() const {
    std::string text;
    for (const Violation& violation : violations_) {
        text += violation.Describe() + "\n";
    }
    return text;
}

void Verifier::DemandPassive(const char* routine, CheckSite site) {
    if (enabled_ && CurrentContext().irql != PASSIVE_LEVEL) {
        Report(Rule::kPassiveLevelRequired,
               fmt::format("{} called at IRQL {}", routine, CurrentContext().irql), site);
    }
}

void Verifier::DemandUpToDispatch(const char* routine, CheckSite site) {
    if (enabled_ && CurrentContext().irql > DISPATCH_LEVEL) {
        Report(Rule::kDispatchLevelExceeded,
               fmt::format("{} called at IRQL {}", routine, CurrentContext().irql), site);
    }
}

void Verifier::DemandNoneLeft(const std::string& driver,
                              std::size_t count,
                              const char* kind,
                              Rule rule,
                              CheckSite site) {
    if (count != 0) {
        Report(rule, fmt::format("{}: {} {}", driver, count, kind), site);
    }
}

}  // namespace netsieve::host
