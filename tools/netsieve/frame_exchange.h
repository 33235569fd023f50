// The two ends of the adapter's stack: where frames go in, come out, and come home.
#pragma once

#include <cstdint>
#include <memory>
#include <optional>
#include <span>
#include <vector>

#include "host/machine.h"
#include "host/ndis/nbl_factory.h"
#include "host/ndis/stack.h"
#include "host/sched/threaded_scheduler.h"
#include "packet/nirp.h"
#include "tools/netsieve/capture_writer.h"
#include "tools/netsieve/driver_exports.h"
#include "tools/netsieve/frame_merge.h"
#include "tools/netsieve/frame_tag.h"
#include "tools/netsieve/offer_counts.h"
#include "tools/netsieve/replay_clock.h"
#include "tools/netsieve/replay_options.h"
#include "tools/netsieve/replay_report.h"

namespace netsieve::tool {

/// A lock that costs a fraction of a mutex where nobody else wants it. Nothing is waited for inside
/// it, so that a simulated machine, which has one thread, does without.
class ExchangeLock {
  public:
    void lock() {
        if (!host::Machine::Current().scheduler().simulated()) {
            host::ThreadedScheduler::SpinUntilAcquired(&word_);
        }
    }
    void unlock() { host::ThreadedScheduler::ReleaseWord(&word_); }

  private:
    KSPIN_LOCK word_ = 0;
};

/// A frame that a hook lets go now. It comes out in an NBL of the driver's, with what is left in
/// its record.
struct Release {
    const NIRP* clone;             ///< the record of that NBL; null when nothing may come out
    std::uint64_t number;          ///< of the frame, in the capture
    std::uint32_t originalLength;  ///< of the frame
    unsigned deliveries = 0;       ///< how often it came out
};

/// Gathers frames into NBLs and calls, hands them to the protocol or the adapter of a stack,
/// writes what comes out at the other end, and keeps the account. Outlives the machine's run.
class FrameExchange {
  public:
    /// Notes in `report` the frames that could not be written.
    FrameExchange(const ReplayOptions& options, ReplayReport& report)
        : options_(options), report_(report) {}

    /// Takes the ends of `stack`. Once, before any frame.
    void Connect(host::Machine& machine, host::Stack& stack, ReplayClock& clock);
    /// Frames that come out go to `writer` from now on; null writes none.
    void SetWriter(CaptureWriter* writer) { writer_ = writer; }

    /// The next frame goes `way`: makes the call for those before it if they go the other way,
    /// unless both ways' calls are collected. At the time of the latest of them.
    void Turn(Direction way);
    /// Takes the frame, and makes the call when its last NBL is full. The bytes are copied.
    void Push(Direction way, const CaptureFrame& frame, std::uint64_t number);
    /// Makes the calls for the frames that wait for others.
    void Flush();

    /// From now on this release is what comes out; null when it is done.
    void Expect(Release* release);
    /// Has the driver send a frame of its own, from the calling context. True when it came out
    /// meanwhile.
    bool Inject(const HookExports& exports, const CaptureFrame& frame);

    /// What became of the frames. With hooks, `ledger` says what they were shown.
    DirectionCounts Counts(Direction way, const OfferCounts* offers) const;
    /// NBLs of both ends that are not home.
    int NblsOutstanding() const;

  private:
    /// One of the two ways through the stack.
    struct Way {
        Direction direction;
        Originator originator;
        host::NblPool* pool = nullptr;               ///< what the originator's NBLs are made from
        std::unique_ptr<host::NblFactory> frames{};  ///< the NBLs themselves
        DirectionCounts counts{};
        std::uint64_t latestOut = 0;

        // What waits to be handed in, by the one thread that does so.
        PNET_BUFFER_LIST head = nullptr;
        PNET_BUFFER_LIST tail = nullptr;
        std::uint32_t nbls = 0;
    };
    /// Frames that wait until their NBL is full.
    struct Gathered {
        std::vector<std::uint8_t> bytes;
        std::vector<std::uint32_t> lengths;
        std::vector<FrameTag> tags;
    };

    Way& Of(Direction way) { return ways_[static_cast<std::size_t>(way)]; }
    void CountFacts(Way& way, const CaptureFrame& frame) const;
    void CloseNbl();
    void AddNbl(std::span<const std::span<const std::uint8_t>> frames,
                std::span<const FrameTag> tags);
    void HandIn(Way& way);
    void Indicate(PNET_BUFFER_LIST chain);
    void Deliver(PNET_BUFFER_LIST chain, Way& way);
    void DeliverTagged(PNET_BUFFER buffer, FrameTag& tag, Way& way);
    void DeliverDriverNbl(PNET_BUFFER_LIST nbl, Way& way);
    void TakeBack(PNET_BUFFER_LIST chain, Way& way);
    void Write(PNET_BUFFER buffer,
               Direction way,
               const CaptureStamp& stamp,
               std::uint32_t originalLength,
               std::uint64_t number);

    const ReplayOptions& options_;
    ReplayReport& report_;
    std::uint32_t nblsPerCall_ = 1;
    host::Stack* stack_ = nullptr;
    ReplayClock* clock_ = nullptr;
    CaptureWriter* writer_ = nullptr;
    /// Guards the NBLs, the counts and the output: a driver may let go of a frame in any thread.
    ExchangeLock lock_;
    Way ways_[2] = {{.direction = Direction::kSent, .originator = Originator::kProtocol},
                    {.direction = Direction::kReceived, .originator = Originator::kAdapter}};
    /// Whether frames of one way wait while the other's come: the calls are fewer and longer, and
    /// what comes out of them is put back into the capture's order.
    bool mixes_ = false;
    FrameMerge merge_;
    std::uint64_t latestIn_ = 0;
    std::uint64_t latestOut_ = 0;
    Release* release_ = nullptr;
    std::optional<std::uint32_t> injector_;  ///< the context that injects a frame now
    std::uint64_t injectedNow_ = 0;          ///< what came out in it

    Direction turn_ = Direction::kSent;
    Gathered gathered_;  ///< goes `turn_`
};

}  // namespace netsieve::tool
