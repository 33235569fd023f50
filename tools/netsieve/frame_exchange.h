// Sends and indicates the frames of the capture, and counts what becomes of them.
#pragma once

#include <cstdint>
#include <memory>
#include <optional>
#include <span>
#include <vector>

#include "client/exports.h"
#include "host/machine.h"
#include "host/ndis/nbl_factory.h"
#include "host/ndis/offload.h"
#include "host/ndis/stack.h"
#include "host/sched/threaded_scheduler.h"
#include "tools/netsieve/capture_writer.h"
#include "tools/netsieve/driver_exports.h"
#include "tools/netsieve/frame_merge.h"
#include "tools/netsieve/frame_tag.h"
#include "tools/netsieve/offer_counts.h"
#include "tools/netsieve/replay_clock.h"
#include "tools/netsieve/replay_options.h"
#include "tools/netsieve/replay_report.h"
#include "tools/netsieve/replay_variation.h"

namespace netsieve::tool {

/// A spin lock, cheaper than a mutex when it is free. No scheduling point lies inside it, so that a
/// simulated machine, which has one thread, needs none.
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

/// A pending frame that is being completed. The driver sends or indicates its clone.
struct Release {
    const NIRP* clone;             ///< the clone's NIRP; null when no frame may arrive
    std::uint64_t number;          ///< of the frame, in the capture
    std::uint32_t originalLength;  ///< of the frame
    unsigned deliveries = 0;       ///< how often it arrived
};

/// Puts frames into NBLs and calls, has the protocol send or the adapter indicate them, writes the
/// frames that arrive at the other end of the stack, and counts them. Must outlive the machine's
/// run.
class FrameExchange {
  public:
    /// Notes in `report` the frames that could not be written. `variation` makes the calls.
    FrameExchange(const ReplayOptions& options, ReplayReport& report, ReplayVariation& variation)
        : options_(options), report_(report), variation_(variation) {}

    /// Sets the callbacks of the protocol and the adapter of `stack`, which take the place of those
    /// of an earlier stack. While no NBL is outstanding.
    void Connect(host::Machine& machine, host::Stack& stack, ReplayClock& clock);
    /// Frames that arrive are written to `writer` from now on; null writes none.
    void SetWriter(CaptureWriter* writer) { writer_ = writer; }

    /// Sets the direction of the next frame. Makes the call for the frames before it if their
    /// direction differs, unless both directions' calls are collected. At the time of the latest of
    /// them.
    void SetDirection(Direction direction);
    /// Adds the frame, and makes the call when its last NBL is full. The bytes are copied.
    void Push(Direction direction, const CaptureFrame& frame, std::uint64_t number);
    /// Makes the calls for the frames that were added and not sent or indicated yet.
    void Flush();
    /// Whether there are such frames.
    bool Waits() const {
        return !gathered_.tags.empty() || paths_[0].head != nullptr || paths_[1].head != nullptr;
    }

    /// Sets the pending frame whose clone arrives from now on; null for none.
    void Expect(Release* release);
    /// Has the driver inject a frame. True when it was sent meanwhile.
    bool Inject(const HookExports& exports, const CaptureFrame& frame);

    /// What became of the frames. With hooks, `offers` counts what they were offered.
    DirectionCounts Counts(Direction direction, const OfferCounts* offers) const;
    /// NBLs of the protocol and the adapter that are outstanding.
    int NblsOutstanding() const;

  private:
    /// The send path or the receive path.
    struct Path {
        Direction direction;
        Originator originator;
        host::NblPool* pool = nullptr;               ///< what the originator's NBLs are made from
        std::unique_ptr<host::NblFactory> frames{};  ///< the NBLs themselves
        DirectionCounts counts{};
        std::uint64_t latestOut = 0;

        // The NBLs of the next call, used by the thread that makes the calls.
        PNET_BUFFER_LIST head = nullptr;
        PNET_BUFFER_LIST tail = nullptr;
        std::uint32_t nbls = 0;
    };
    /// Frames that wait until their NBL is full.
    struct Gathered {
        std::vector<std::uint8_t> bytes;
        std::vector<std::uint32_t> lengths;
        std::vector<FrameTag> tags;
        host::OffloadInfo info;  ///< of all of them
    };

    Path& PathOf(Direction direction) { return paths_[static_cast<std::size_t>(direction)]; }
    void CountFacts(Path& path, const CaptureFrame& frame) const;
    void CloseNbl();
    void Gather(std::span<const std::uint8_t> frame,
                const FrameTag& tag,
                const host::OffloadInfo& info);
    void AddNbl(std::span<const std::span<const std::uint8_t>> frames,
                std::span<const FrameTag> tags,
                const host::OffloadInfo& info);
    void Submit(Path& path);
    void Indicate(PNET_BUFFER_LIST chain);
    void Deliver(PNET_BUFFER_LIST chain, Path& path);
    void DeliverTagged(PNET_BUFFER_LIST nbl, PNET_BUFFER buffer, Path& path);
    void DeliverDriverNbl(PNET_BUFFER_LIST nbl, Path& path);
    void TakeBack(PNET_BUFFER_LIST chain, Path& path);
    /// What is written about a frame, beside its bytes.
    struct Arrival {
        Direction direction;
        CaptureStamp stamp;
        std::optional<std::uint32_t> originalLength;  ///< nothing: as many bytes as it has
        std::uint64_t number;
    };
    void Write(PNET_BUFFER_LIST nbl, PNET_BUFFER buffer, const Arrival& arrival);
    void WriteMdls(PNET_BUFFER buffer, const Arrival& arrival);
    void WriteFinished(PNET_BUFFER_LIST nbl, PNET_BUFFER buffer, const Arrival& arrival);
    void BeginFrame(const Arrival& arrival, std::size_t length);
    void AppendBytes(const std::uint8_t* bytes, std::size_t size);

    const ReplayOptions& options_;
    ReplayReport& report_;
    ReplayVariation& variation_;
    std::uint32_t nblsPerCall_ = 1;
    host::Stack* stack_ = nullptr;
    ReplayClock* clock_ = nullptr;
    CaptureWriter* writer_ = nullptr;
    /// Guards the NBLs, the counts and the output: a driver may pass an NBL on in any thread.
    ExchangeLock lock_;
    Path paths_[2] = {{.direction = Direction::kSent, .originator = Originator::kProtocol},
                      {.direction = Direction::kReceived, .originator = Originator::kAdapter}};
    /// Whether frames of one direction wait for those of the other: the calls are fewer and have
    /// more NBLs, and the frames that arrive are put back into the capture's order.
    bool mergesDirections_ = false;
    FrameMerge merge_;
    std::uint64_t latestIn_ = 0;
    std::uint64_t latestOut_ = 0;
    Release* release_ = nullptr;
    std::optional<std::uint32_t> injector_;  ///< the context that injects a frame now
    std::uint64_t injectedNow_ = 0;          ///< frames that arrived in it

    Direction direction_ = Direction::kSent;
    Gathered gathered_;  ///< of `direction_`
};

}  // namespace netsieve::tool
