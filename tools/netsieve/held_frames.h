// The frames that the program's own hooks hold back, until they let them go.
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

/// How the requests of one direction ended.
struct RequestCounts {
    std::uint64_t reinjected = 0;  ///< every completion was a success
    std::uint64_t dropped = 0;     ///< one was not
    std::uint64_t flushed = 0;     ///< a pause came first
    /// Of the re-injected ones: nothing came out when the last completion was made.
    std::uint64_t missing = 0;
};

/// Every mark that the built-in hooks have made and not completed. Used by the thread that hands
/// the frames in, which is the one that the driver calls those hooks in.
class HeldFrames {
  public:
    /// How many frames may be held at once. Each occupies two of the driver's records, and without
    /// one to spare the next frame would pass without being shown to anyone.
    void SetRoom(std::size_t frames) { room_ = frames; }
    /// Whether the frame of `record` can be held, as far as that is known here.
    bool HasRoomFor(const NIRP* record) const {
        return requests_.size() < room_ || requests_.contains(record);
    }

    /// Notes a mark that the driver has taken, from inside the handler. It is completed with
    /// success or failure at `due` of the capture's time, or at the end of the capture.
    void Add(NIRP* record, Direction way, std::optional<CaptureStamp> due, bool success);

    /// When the next mark is due; nothing when none is due before the end.
    std::optional<CaptureStamp> NextDue() const;
    /// Completes the mark that is due next; its frame comes out of `exchange`. PASSIVE_LEVEL.
    void ReleaseNext(const HookExports& exports, FrameExchange& exchange);
    /// Completes everything that waits for the end, in the order in which it was marked.
    void ReleaseAll(const HookExports& exports, FrameExchange& exchange);
    /// The adapter of `record` was paused: notes which requests went with that, those of hook
    /// modules too, and gives how many they are. Their marks stay to be completed.
    std::uint64_t NotePause(FILTER_MODULE& record);

    const RequestCounts& Counts(Direction way) const {
        return counts_[static_cast<std::size_t>(way)];
    }

  private:
    struct Request {
        Direction way;
        std::uint64_t number;  ///< of the frame, in the capture
        std::uint32_t originalLength;
        unsigned marks = 0;
        bool failed = false;
        bool flushed = false;
    };
    struct Mark {
        NIRP* record;
        bool success;
    };
    /// Nanoseconds of the capture's time; the largest one is the end.
    using Due = std::int64_t;

    void Complete(const Mark& mark, const HookExports& exports, FrameExchange& exchange);
    void Settle(const Request& request, bool cameOut, bool othersHold);

    std::size_t room_ = 0;
    std::multimap<Due, Mark> marks_;  ///< equal ones in the order in which they were made
    std::map<const NIRP*, Request> requests_;
    RequestCounts counts_[2];
};

}  // namespace netsieve::tool
