#include "tools/netsieve/records/held_frames.h"

#include <limits>

#include "platform/atomics.h"
#include "tools/netsieve/frame_exchange.h"
#include "tools/netsieve/frame_tag.h"
#include "tools/netsieve/records/driver_structures.h"

namespace netsieve::tool {
namespace {

constexpr std::int64_t kAtTheEnd = std::numeric_limits<std::int64_t>::max();
constexpr std::int64_t kNanosecondsPerSecond = 1'000'000'000;

CaptureStamp StampOf(std::int64_t nanoseconds) {
    std::int64_t rest = nanoseconds % kNanosecondsPerSecond;
    rest += rest < 0 ? kNanosecondsPerSecond : 0;
    return {(nanoseconds - rest) / kNanosecondsPerSecond, static_cast<std::uint32_t>(rest)};
}

}  // namespace

void HeldFrames::Add(NIRP* nirp,
                     Direction direction,
                     std::optional<CaptureStamp> due,
                     bool success) {
    const FrameTag& tag = TagOf(*nirp->NetBuffer, OriginatorOf(direction));
    Request& request =
        requests_.try_emplace(nirp, Request{direction, tag.number, tag.originalLength})
            .first->second;
    ++request.marks;
    marks_.emplace(due ? due->TotalNanoseconds() : kAtTheEnd, Mark{nirp, success});
}

std::optional<CaptureStamp> HeldFrames::NextDue() const {
    if (marks_.empty() || marks_.begin()->first == kAtTheEnd) {
        return std::nullopt;
    }
    return StampOf(marks_.begin()->first);
}

void HeldFrames::ReleaseNext(const HookExports& exports, FrameExchange& exchange) {
    const Mark mark = marks_.begin()->second;
    marks_.erase(marks_.begin());
    Complete(mark, exports, exchange);
}

void HeldFrames::Complete(const Mark& mark, const HookExports& exports, FrameExchange& exchange) {
    const auto at = requests_.find(mark.nirp);
    Request& request = at->second;
    // A hook driver may have marked the frame too. Its marks are not known here, but the NIRP
    // counts them.
    const bool othersHold = ReadAcquire(&mark.nirp->PendingCount) > request.marks;
    const bool othersFailed = !othersHold && mark.nirp->CompletionStatus != STATUS_SUCCESS;
    --request.marks;
    request.failed = request.failed || othersFailed || !mark.success;
    Release release{mark.nirp->Clone, request.number, request.originalLength};
    exchange.Expect(&release);
    exports.completeRequest(
        mark.nirp, static_cast<ULONG>(mark.success ? STATUS_SUCCESS : STATUS_UNSUCCESSFUL));
    exchange.Expect(nullptr);
    if (request.marks == 0) {
        Settle(request, release.deliveries != 0, othersHold);
        requests_.erase(at);
    }
}

void HeldFrames::Settle(const Request& request, bool cameOut, bool othersHold) {
    RequestCounts& counts = counts_[static_cast<std::size_t>(request.direction)];
    if (request.flushed) {
        ++counts.flushed;
    } else if (request.failed) {
        ++counts.dropped;
    } else if (!othersHold) {
        ++counts.reinjected;
        counts.missing += cameOut ? 0 : 1;
    }
}

std::uint64_t HeldFrames::NotePause(FILTER_MODULE& module) {
    std::uint64_t flushed = 0;
    for (const Direction direction : {Direction::kSent, Direction::kReceived}) {
        std::uint64_t others = UnpaidRequests(module, direction);
        flushed += others;
        for (auto& [nirp, request] : requests_) {
            // The driver has freed the clone: later completions only count the marks down.
            const ULONG list = ReadAcquire(&nirp->OnList);
            if (request.direction == direction &&
                (list == NIRP_LIST_UNPAID_SEND || list == NIRP_LIST_UNPAID_RECEIVE)) {
                request.flushed = true;
                --others;
            }
        }
        counts_[static_cast<std::size_t>(direction)].flushed += others;
    }
    return flushed;
}

}  // namespace netsieve::tool
