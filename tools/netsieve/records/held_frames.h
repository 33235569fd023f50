// The frames that the program's own hooks have marked pending and not completed.
#pragma once

#include <cstdint>
#include <map>
#include <optional>
#include <utility>

#include "module/filter_module.h"
#include "packet/nirp.h"
#include "tools/netsieve/capture_reader.h"
#include "tools/netsieve/driver_exports.h"
#include "tools/netsieve/offer_counts.h"

namespace netsieve::tool {

class FrameExchange;

/// How the pending requests of one direction ended.
struct RequestCounts {
    std::uint64_t reinjected = 0;  ///< every completion said success
    std::uint64_t dropped = 0;     ///< a completion said failure
    std::uint64_t flushed = 0;     ///< flushed by a pause before
    /// Of the re-injected ones: nothing arrived when the last completion was made.
    std::uint64_t missing = 0;
};

/// The marks that the program's own hooks have made and not completed. Used by the thread that
/// sends and indicates the frames, in which the driver calls those hooks.
class HeldFrames {
  public:
    /// How many frames may be held at once. Each takes two NIRPs, and without a free one the next
    /// frame would pass uninspected.
    void SetLimit(std::size_t frames) { limit_ = frames; }
    /// Whether the frame of `nirp` can be held within that limit.
    bool CanHold(const NIRP* nirp) const {
        return requests_.size() < limit_ || requests_.contains(nirp);
    }

    /// Notes a mark that the driver has accepted, from inside the handler. It is completed with
    /// success or failure at the capture's time `due`, or at the end of the capture.
    void Add(NIRP* nirp, Direction direction, std::optional<CaptureStamp> due, bool success);

    /// When the next mark is due; nothing when none is due before the end.
    std::optional<CaptureStamp> NextDue() const;
    /// Completes the mark that is due next; `exchange` gets its frame.
    /// IRQL <= DISPATCH_LEVEL.
    void ReleaseNext(const HookExports& exports, FrameExchange& exchange);
    /// Whether there are marks, those that wait for the end too.
    bool Any() const { return !marks_.empty(); }
    /// The adapter of `module` was paused: notes which requests were flushed, those of hook drivers
    /// too, and returns their number. Their marks stay to be completed.
    std::uint64_t NotePause(FILTER_MODULE& module);

    const RequestCounts& Counts(Direction direction) const {
        return counts_[static_cast<std::size_t>(direction)];
    }

  private:
    struct Request {
        Direction direction;
        std::uint64_t number;  ///< of the frame, in the capture
        std::uint32_t originalLength;
        unsigned marks = 0;
        bool failed = false;
        bool flushed = false;
    };
    struct Mark {
        NIRP* nirp;
        bool success;
    };
    /// Nanoseconds of the capture's time; the largest one is the end.
    using Due = std::int64_t;

    void Complete(const Mark& mark, const HookExports& exports, FrameExchange& exchange);
    void Settle(const Request& request, bool cameOut, bool othersHold);

    std::size_t limit_ = 0;
    std::multimap<Due, Mark> marks_;  ///< equal ones in the order in which they were made
    std::map<const NIRP*, Request> requests_;
    RequestCounts counts_[2];
};

}  // namespace netsieve::tool
