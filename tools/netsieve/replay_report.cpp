#include "tools/netsieve/replay_report.h"

#include <fmt/format.h>

#include <algorithm>
#include <iterator>
#include <nlohmann/json.hpp>

#include "host/kernel/visible_text.h"

namespace netsieve::tool {
namespace {

/// The first few say what went wrong; a thousand more of them would hide it.
constexpr std::size_t kFindingsShown = 10;

using Json = nlohmann::ordered_json;

/// Appends lines that share one label, which only the first of them shows.
class SummaryText {
  public:
    template <typename... Args>
    void Line(std::string_view label, fmt::format_string<Args...> format, Args&&... args) {
        fmt::format_to(std::back_inserter(text_), "{:<12}", label);
        fmt::format_to(std::back_inserter(text_), format, std::forward<Args>(args)...);
        text_ += '\n';
    }

    /// A text of several lines.
    void Lines(std::string_view label, std::string_view lines) {
        std::size_t end = 0;
        do {
            end = lines.find('\n');
            Line(label, "{}", lines.substr(0, end));
            label = "";
            lines.remove_prefix(std::min(end + 1, lines.size()));
        } while (end != lines.npos);
    }

    std::string Take() { return std::move(text_); }

  private:
    std::string text_;
};

/// "1 frame", "2 frames".
std::string Counted(std::uint64_t count, std::string_view noun) {
    return fmt::format("{} {}{}", count, noun, count == 1 ? "" : "s");
}

const char* PrecisionName(TimePrecision precision) {
    return precision == TimePrecision::kNanoseconds ? "nanoseconds" : "microseconds";
}

const char* FaultName(CaptureFault fault) {
    switch (fault) {
        case CaptureFault::kCannotOpen:
            return "cannot_open";
        case CaptureFault::kNotACapture:
            return "not_a_capture";
        case CaptureFault::kUnsupportedVersion:
            return "unsupported_version";
        case CaptureFault::kDamagedHeader:
            return "damaged_header";
        case CaptureFault::kLinkType:
            return "link_type";
        case CaptureFault::kBrokenOff:
            return "broken_off";
    }
    return "unknown";
}

const char* OriginName(MacOrigin origin) {
    switch (origin) {
        case MacOrigin::kGiven:
            return "given";
        case MacOrigin::kVoted:
            return "voted";
        case MacOrigin::kFallback:
            return "fallback";
    }
    return "unknown";
}

/// The sum over all adapters and both directions of one count.
template <typename Count>
std::uint64_t Total(const ReplayReport& report, Count count) {
    std::uint64_t total = 0;
    for (const AdapterReport& adapter : report.adapters) {
        total += count(adapter.sent) + count(adapter.received);
    }
    return total;
}

std::uint64_t TotalLost(const ReplayReport& report) {
    return Total(report, [](const DirectionCounts& counts) { return counts.Lost(); });
}

bool AllAsOrdered(const ReplayReport& report) {
    return Total(report, [](const DirectionCounts& counts) {
               return std::uint64_t{!counts.AsOrdered()};
           }) == 0;
}

std::string OriginText(const AdapterReport& adapter) {
    switch (adapter.origin) {
        case MacOrigin::kGiven:
            return "as given";
        case MacOrigin::kVoted:
            return fmt::format("found in {}, more than any other", Counted(adapter.votes, "frame"));
        case MacOrigin::kFallback:
            return "made up: no frame has an adapter's address";
    }
    return {};
}

void AddAdapter(SummaryText& text, const AdapterReport& adapter) {
    text.Line("adapter", "{} ({})", FormatMac(adapter.address), OriginText(adapter));
    text.Line("", "{:<11}{:>11}{:>12}", "", "sent", "received");
    const auto row = [&](const char* name, std::uint64_t sent, std::uint64_t received,
                         bool always) {
        if (always || sent + received > 0) {
            text.Line("", "{:<11}{:>11}{:>12}", name, sent, received);
        }
    };
    const DirectionCounts& sent = adapter.sent;
    const DirectionCounts& received = adapter.received;
    row("frames", sent.frames, received.frames, true);
    row("passed", sent.passed, received.passed, true);
    row("withheld", sent.Withheld(), received.Withheld(), true);
    row("re-injected", sent.reinjected, received.reinjected, false);
    row("dropped", sent.dropped, received.dropped, false);
    row("flushed", sent.flushed, received.flushed, false);
    row("injected", sent.injected, received.injected, false);
    row("reordered", sent.reordered, received.reordered, false);
    row("lost", sent.Lost(), received.Lost(), true);
}

void AddHooks(SummaryText& text, const ReplayReport& report) {
    if (report.hooks.empty()) {
        return;
    }
    text.Line("hooks", "{:>12}{:>12}{:>12}{:>12}  {}", "offered", "selected", "passed", "withheld",
              "hook");
    for (const HookReport& hook : report.hooks) {
        text.Line("", "{:>12}{:>12}{:>12}{:>12}  {} {}{}", hook.offered,
                  hook.matched ? std::to_string(*hook.matched) : "-", hook.passed, hook.withheld,
                  hook.number, hook.spec, hook.name.empty() ? "" : " (" + hook.name + ")");
    }
    const char* label = "pending";
    for (const HookReport& hook : report.hooks) {
        if (hook.marked + hook.overflow > 0) {
            text.Line(label, "{:>12} marked{:>12} refused  {} {}", hook.marked, hook.overflow,
                      hook.number, hook.spec);
            label = "";
        }
    }
    label = "injected";
    for (const HookReport& hook : report.hooks) {
        if (hook.injected > 0) {
            text.Line(label, "{:>12} injected  {} {}", hook.injected, hook.number, hook.spec);
            label = "";
        }
    }
}

void AddInjection(SummaryText& text, const ReplayReport& report) {
    if (report.inject.empty()) {
        return;
    }
    const InjectionCounts& counts = report.injection;
    text.Line("injection", "{}: {}, {} sent{}", report.inject, Counted(counts.frames, "frame"),
              counts.sent, report.injectFailure ? ", broken off" : "");
    const auto rest = [&](std::uint64_t frames, const char* why) {
        if (frames > 0) {
            text.Line("", "{} not sent: {}", Counted(frames, "frame"), why);
        }
    };
    rest(counts.otherSource, "the source is not the adapter's address");
    rest(counts.badLength, "shorter than 12 bytes or longer than 65535");
    rest(counts.refused, "the driver had nothing left to send them in");
}

void AddPause(SummaryText& text, const ReplayReport& report) {
    if (!report.pauseAt) {
        return;
    }
    if (report.flushedByPause) {
        text.Line("pause", "after frame {}, which flushed {}", *report.pauseAt,
                  Counted(*report.flushedByPause, "held frame"));
    } else {
        text.Line("pause", "never: frame {} was not reached", *report.pauseAt);
    }
}

void AddUninspected(SummaryText& text, const ReplayReport& report) {
    const struct {
        std::uint64_t UninspectedCounts::*count;
        const char* reason;
    } kReasons[] = {{&UninspectedCounts::notAddressed, "not addressed to the adapter"},
                    {&UninspectedCounts::tooLarge, "too large"},
                    {&UninspectedCounts::copyFailed, "copy failed"},
                    {&UninspectedCounts::poolEmpty,
                     report.faults ? "pool empty or a call made to fail" : "pool empty"}};
    if (report.hooks.empty()) {
        return;
    }
    std::string reasons;
    for (const auto& why : kReasons) {
        const std::uint64_t frames = Total(report, [&why](const DirectionCounts& counts) {
            return counts.uninspected.*why.count;
        });
        if (frames > 0) {
            reasons += fmt::format("{} {} {}", reasons.empty() ? ":" : ",", frames, why.reason);
        }
    }
    const std::uint64_t total =
        Total(report, [](const DirectionCounts& counts) { return counts.uninspected.Total(); });
    text.Line("uninspected", "{}{}", Counted(total, "frame"), reasons);
}

void AddLines(SummaryText& text, const char* label, const std::vector<std::string>& lines) {
    for (const std::string& line : lines) {
        text.Line(label, "{}", host::VisibleText(line));
        label = "";
    }
}

void AddVariation(SummaryText& text, const ReplayReport& report) {
    if (const auto& varied = report.variation) {
        text.Line("varied", "by seed {}: {} of {} from DPCs, {} of the adapter, {}", report.seed,
                  varied->raisedCalls, Counted(varied->calls, "call"),
                  Counted(varied->adapterReturns, "return"),
                  Counted(varied->otherAdapters, "other adapter"));
    }
    if (const auto& faults = report.faults) {
        text.Line("faults", "{} of the platform made to fail, one in {}",
                  Counted(faults->failed, "call"), faults->oneIn);
        AddLines(text, "", faults->effects);
    }
}

void AddOutput(SummaryText& text, const ReplayReport& report) {
    if (report.output.empty()) {
        return;
    }
    if (report.outputFailure) {
        text.Line("output", "{}: not written to its end", report.output);
        return;
    }
    text.Line("output", "{}: {}", report.output, Counted(report.framesWritten, "frame"));
    if (report.notRepresentable > 0) {
        text.Line("", "{} not written, the first is frame {}: no room for such a time",
                  Counted(report.notRepresentable, "frame"), report.firstNotRepresentable);
    }
}

void AddVerifier(SummaryText& text, const ReplayReport& report) {
    if (report.abandoned) {
        text.Lines("run", "did not come to its end: " + *report.abandoned);
    }
    if (!report.verified && report.findings.empty()) {
        text.Line("verifier", "was off");
        return;
    }
    if (report.findings.empty()) {
        text.Line("verifier", "no rule broken");
        return;
    }
    text.Line("verifier", "{}, seed {}:", Counted(report.findings.size(), "violation"),
              report.seed);
    for (std::size_t i = 0; i < std::min(report.findings.size(), kFindingsShown); ++i) {
        text.Lines("", report.findings[i].text);
    }
    if (report.findings.size() > kFindingsShown) {
        text.Line("", "and {} more; --json shows all", report.findings.size() - kFindingsShown);
    }
}

void AddAccounting(SummaryText& text, const ReplayReport& report) {
    const auto total = [&](auto member) {
        return Total(report, [&](const DirectionCounts& counts) { return counts.*member; });
    };
    const std::uint64_t withheld =
        Total(report, [](const DirectionCounts& counts) { return counts.Withheld(); });
    std::string held;
    const auto add = [&](auto member, const char* name) {
        if (total(member) > 0) {
            held += fmt::format("{} {}, ", total(member), name);
        }
    };
    add(&DirectionCounts::reinjected, "re-injected");
    add(&DirectionCounts::dropped, "dropped");
    add(&DirectionCounts::flushed, "flushed");
    text.Line("accounting", "{} in; {} passed, {} withheld, {}{} injected, {} lost; {}{}",
              Counted(total(&DirectionCounts::frames), "frame"), total(&DirectionCounts::passed),
              withheld, held, total(&DirectionCounts::injected), TotalLost(report),
              report.leftover.value_or("everything was given back"),
              report.Balanced() ? "" : "; the account does not balance");
}

Json CountsJson(const DirectionCounts& counts) {
    const UninspectedCounts& uninspected = counts.uninspected;
    return {{"frames", counts.frames},
            {"passed", counts.passed},
            {"withheld", counts.Withheld()},
            {"reinjected", counts.reinjected},
            {"dropped", counts.dropped},
            {"flushed", counts.flushed},
            {"kept_by_hooks", counts.keptByHooks},
            {"injected", counts.injected},
            {"reordered", counts.reordered},
            {"lost", counts.Lost()},
            {"uninspected",
             {{"total", uninspected.Total()},
              {"pool_empty", uninspected.poolEmpty},
              {"too_large", uninspected.tooLarge},
              {"copy_failed", uninspected.copyFailed},
              {"not_addressed", uninspected.notAddressed}}}};
}

Json HooksJson(const ReplayReport& report) {
    Json hooks = Json::array();
    for (const HookReport& hook : report.hooks) {
        Json entry = {
            {"number", hook.number},     {"hook", hook.spec},         {"name", hook.name},
            {"priority", hook.priority}, {"offered", hook.offered},   {"selected", nullptr},
            {"passed", hook.passed},     {"withheld", hook.withheld}, {"marked", hook.marked},
            {"refused", hook.overflow},  {"injected", hook.injected}};
        if (hook.matched) {
            entry["selected"] = *hook.matched;
        }
        hooks.push_back(std::move(entry));
    }
    return hooks;
}

Json ProblemJson(const std::optional<CaptureFailure>& failure) {
    if (!failure) {
        return nullptr;
    }
    return {{"kind", FaultName(failure->fault)}, {"message", failure->message}};
}

Json InjectionJson(const ReplayReport& report) {
    if (report.inject.empty()) {
        return nullptr;
    }
    const InjectionCounts& counts = report.injection;
    return {{"path", report.inject},
            {"frames", counts.frames},
            {"sent", counts.sent},
            {"other_source", counts.otherSource},
            {"bad_length", counts.badLength},
            {"refused", counts.refused},
            {"problem", ProblemJson(report.injectFailure)}};
}

Json PauseJson(const ReplayReport& report) {
    if (!report.pauseAt) {
        return nullptr;
    }
    Json pause = {{"after_frame", *report.pauseAt}, {"flushed", nullptr}};
    if (report.flushedByPause) {
        pause["flushed"] = *report.flushedByPause;
    }
    return pause;
}

Json VariationJson(const ReplayReport& report) {
    if (!report.variation) {
        return nullptr;
    }
    const VariationCounts& varied = *report.variation;
    return {{"calls", varied.calls},
            {"raised_calls", varied.raisedCalls},
            {"adapter_returns", varied.adapterReturns},
            {"other_adapters", varied.otherAdapters}};
}

Json FaultsJson(const ReplayReport& report) {
    if (!report.faults) {
        return nullptr;
    }
    return {{"one_in", report.faults->oneIn},
            {"failed", report.faults->failed},
            {"effects", report.faults->effects}};
}

Json CaptureJson(const ReplayReport& report) {
    return {{"path", report.capture},
            {"format", report.pcapng ? "pcapng" : "pcap"},
            {"precision", PrecisionName(report.precision)},
            {"frames", report.framesRead},
            {"bytes", report.bytesRead},
            {"problem", ProblemJson(report.inputFailure)}};
}

Json OutputJson(const ReplayReport& report) {
    if (report.output.empty()) {
        return nullptr;
    }
    Json output = {{"path", report.output},
                   {"frames", report.framesWritten},
                   {"not_representable", report.notRepresentable},
                   {"problem", nullptr}};
    if (report.outputFailure) {
        output["frames"] = nullptr;  // how many of them reached the disk is not known
        output["problem"] = *report.outputFailure;
    }
    return output;
}

Json AdaptersJson(const ReplayReport& report) {
    Json adapters = Json::array();
    for (const AdapterReport& adapter : report.adapters) {
        adapters.push_back({{"name", adapter.name},
                            {"address", FormatMac(adapter.address)},
                            {"origin", OriginName(adapter.origin)},
                            {"votes", adapter.votes},
                            {"sent", CountsJson(adapter.sent)},
                            {"received", CountsJson(adapter.received)}});
    }
    return adapters;
}

Json VerifierJson(const ReplayReport& report) {
    Json findings = Json::array();
    for (const Finding& finding : report.findings) {
        findings.push_back({{"rule", finding.rule}, {"text", finding.text}});
    }
    return {{"enabled", report.verified}, {"seed", report.seed}, {"findings", findings}};
}

}  // namespace

bool ReplayReport::Balanced() const {
    return !abandoned && !leftover && TotalLost(*this) == 0 && AllAsOrdered(*this);
}

ExitStatus ReplayReport::Status() const {
    ExitStatus status = ExitStatus::kClean;
    const auto apply = [&](bool applies, ExitStatus candidate) {
        status = applies ? Graver(status, candidate) : status;
    };
    for (const auto& failure : {inputFailure, injectFailure}) {
        apply(failure.has_value(), failure && failure->fault == CaptureFault::kBrokenOff
                                       ? ExitStatus::kInputBrokenOff
                                       : ExitStatus::kInputUnreadable);
    }
    apply(notRepresentable > 0, ExitStatus::kNotRepresentable);
    apply(outputFailure || logFailure, ExitStatus::kOutputFailed);
    apply(driverFailure.has_value(), ExitStatus::kDriverNotLoaded);
    apply(!Balanced(), ExitStatus::kFramesLost);
    apply(!findings.empty(), ExitStatus::kRuleBroken);
    return status;
}

std::string FormatReport(const ReplayReport& report) {
    SummaryText text;
    text.Line("capture", "{}: {}, {}, {}, {}{}", report.capture,
              Counted(report.framesRead, "frame"), Counted(report.bytesRead, "byte"),
              report.pcapng ? "pcapng" : "pcap", PrecisionName(report.precision),
              report.inputFailure ? ", broken off" : "");
    text.Line("driver", "{}", report.driver);
    for (const AdapterReport& adapter : report.adapters) {
        AddAdapter(text, adapter);
    }
    AddHooks(text, report);
    AddUninspected(text, report);
    AddInjection(text, report);
    AddPause(text, report);
    AddVariation(text, report);
    AddOutput(text, report);
    AddLines(text, "trace", report.trace);
    AddVerifier(text, report);
    AddAccounting(text, report);
    return text.Take();
}

std::string FormatReportJson(const ReplayReport& report) {
    Json document = {{"capture", CaptureJson(report)},
                     {"driver", {{"source", report.driver}, {"problem", nullptr}}},
                     {"adapters", AdaptersJson(report)},
                     {"hooks", HooksJson(report)},
                     {"injection", InjectionJson(report)},
                     {"pause", PauseJson(report)},
                     {"variation", VariationJson(report)},
                     {"faults", FaultsJson(report)},
                     {"output", OutputJson(report)},
                     {"trace", report.trace},
                     {"verifier", VerifierJson(report)},
                     {"accounting",
                      {{"balanced", report.Balanced()},
                       {"lost", TotalLost(report)},
                       {"leftover", nullptr},
                       {"abandoned", nullptr}}},
                     {"exit_status", static_cast<int>(report.Status())}};
    if (report.driverFailure) {
        document["driver"]["problem"] = *report.driverFailure;
    }
    if (report.leftover) {
        document["accounting"]["leftover"] = *report.leftover;
    }
    if (report.abandoned) {
        document["accounting"]["abandoned"] = *report.abandoned;
    }
    // File names need not be UTF-8, JSON has to be.
    return document.dump(2, ' ', false, Json::error_handler_t::replace) + '\n';
}

}  // namespace netsieve::tool
