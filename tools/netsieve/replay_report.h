// The result of a replay, and its summary.
#pragma once

#include <algorithm>
#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "tools/netsieve/capture_reader.h"
#include "tools/netsieve/exit_status.h"
#include "tools/netsieve/injection_feed.h"
#include "tools/netsieve/mac_address.h"

namespace netsieve::tool {

/// Frames that passed the driver without being offered to its hooks, by the reason.
struct UninspectedCounts {
    std::uint64_t poolEmpty = 0;     ///< the driver had no NIRP or no context for it
    std::uint64_t tooLarge = 0;      ///< longer than any NIRP's buffer
    std::uint64_t copyFailed = 0;    ///< the frame could not be copied
    std::uint64_t notAddressed = 0;  ///< received, and not for the adapter

    std::uint64_t Total() const { return poolEmpty + tooLarge + copyFailed + notAddressed; }
};

/// What became of the frames of one direction.
struct DirectionCounts {
    std::uint64_t frames = 0;     ///< sent by the protocol or indicated by the adapter
    std::uint64_t passed = 0;     ///< arrived at the other end of the stack
    std::uint64_t cameBack = 0;   ///< came back to their owner without having arrived
    std::uint64_t injected = 0;   ///< arrived, and are not of the capture
    std::uint64_t reordered = 0;  ///< of the passed ones: arrived before an earlier frame

    // Of those that came back, the ones that a hook had marked pending.
    std::uint64_t reinjected = 0;  ///< arrived later, as the driver's clone
    std::uint64_t dropped = 0;     ///< completed with a failure
    std::uint64_t flushed = 0;     ///< dropped because the adapter was paused
    std::uint64_t missing = 0;     ///< completed with success, and nothing arrived

    /// What the hooks withheld or marked pending. Where it differs from `cameBack`, the driver did
    /// not do what the hooks decided.
    std::uint64_t keptByHooks = 0;
    /// What the hooks completed with success, in the same relation to `reinjected`.
    std::uint64_t reinjectedByHooks = 0;
    UninspectedCounts uninspected{};  ///< all 0 in a replay without hooks

    /// Came back, and nothing else became of it.
    std::uint64_t Withheld() const {
        return cameBack - std::min(cameBack, reinjected + dropped + flushed + missing);
    }
    /// Neither arrived nor came back, or did not arrive when it was due.
    std::uint64_t Lost() const { return frames - passed - cameBack + missing; }
    /// Whether the driver did with every frame what the hooks decided.
    bool AsOrdered() const {
        return cameBack == keptByHooks && reinjected + missing == reinjectedByHooks;
    }
};

enum class MacOrigin { kGiven, kVoted, kFallback };

struct AdapterReport {
    std::string name;
    MacAddress address{};
    MacOrigin origin = MacOrigin::kGiven;
    std::uint64_t votes = 0;  ///< frames the address occurs in, when it was voted
    DirectionCounts sent{};
    DirectionCounts received{};
};

/// What one hook did.
struct HookReport {
    unsigned number = 0;         ///< its place on the command line, from 1
    std::string spec{};          ///< as the user gave it
    std::string name{};          ///< as the hook driver registered it
    std::uint32_t priority = 0;  ///< smaller ones saw a frame first
    std::uint64_t offered = 0;
    std::uint64_t passed = 0;
    std::uint64_t withheld = 0;
    std::uint64_t marked = 0;    ///< marked pending
    std::uint64_t overflow = 0;  ///< could not be marked pending
    std::uint64_t injected = 0;  ///< frames that it injected
    /// Frames that the expression selects; of the program's own hooks only.
    std::optional<std::uint64_t> matched{};
};

/// What a varied replay did beside passing the frames.
struct VariationCounts {
    std::uint64_t calls = 0;           ///< of the stack and of the driver
    std::uint64_t raisedCalls = 0;     ///< of these, from a DPC
    std::uint64_t adapterReturns = 0;  ///< the adapter went and came back
    std::uint64_t otherAdapters = 0;   ///< a second adapter came
};

/// The allocations and calls of the platform that were made to fail.
struct FaultReport {
    std::uint32_t oneIn = 0;             ///< one call in so many
    std::uint64_t failed = 0;            ///< failed calls
    std::vector<std::string> effects{};  ///< what did not come up for that
};

/// A broken rule of the platform.
struct Finding {
    std::string rule;
    std::string text;
};

/// Everything the summary says. Filled by the command (the captures) and the engine (the rest).
struct ReplayReport {
    std::string capture;
    bool pcapng = false;
    TimePrecision precision = TimePrecision::kMicroseconds;
    std::uint64_t framesRead = 0;
    std::uint64_t bytesRead = 0;
    std::optional<CaptureFailure> inputFailure;

    std::string output;  ///< empty when nothing is written
    std::uint64_t framesWritten = 0;
    std::uint64_t notRepresentable = 0;
    std::uint64_t firstNotRepresentable = 0;  ///< number of the frame, from 1
    std::optional<std::string> outputFailure;

    std::string inject;  ///< the capture that is injected; empty when there is none
    std::optional<CaptureFailure> injectFailure;
    InjectionCounts injection;

    std::optional<std::uint64_t> pauseAt;         ///< as the user asked
    std::optional<std::uint64_t> flushedByPause;  ///< requests; nothing when it did not come to it

    std::string driver;
    std::optional<std::string> driverFailure;
    std::vector<AdapterReport> adapters;
    std::vector<HookReport> hooks;  ///< in the order of the command line
    std::optional<std::string> logFailure;
    std::vector<std::string> trace;  ///< what the driver printed, line by line

    bool ran = false;  ///< the driver was loaded and frames were given to it
    bool verified = false;
    std::uint64_t seed = 0;
    std::optional<VariationCounts> variation;  ///< nothing when the replay was not varied
    std::optional<FaultReport> faults;         ///< nothing when no call was made to fail
    std::vector<Finding> findings;
    std::optional<std::string> leftover;   ///< what was not given back at the end
    std::optional<std::string> abandoned;  ///< why the run did not come to its end

    /// True when every frame, NBL and block is accounted for.
    bool Balanced() const;
    /// The gravest status that applies.
    ExitStatus Status() const;
};

/// The summary for people, with a line feed at its end.
std::string FormatReport(const ReplayReport& report);

/// The same for programs: one JSON object, with a line feed at its end.
std::string FormatReportJson(const ReplayReport& report);

}  // namespace netsieve::tool
