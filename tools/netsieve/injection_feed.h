// The second capture of a replay, whose frames are injected.
#pragma once

#include <cstdint>
#include <optional>
#include <string>

#include "tools/netsieve/capture_reader.h"
#include "tools/netsieve/mac_address.h"

namespace netsieve::tool {

/// What became of the frames of that capture.
struct InjectionCounts {
    std::uint64_t frames = 0;
    std::uint64_t sent = 0;         ///< sent by the adapter
    std::uint64_t otherSource = 0;  ///< the source is no adapter of the replay
    std::uint64_t badLength = 0;    ///< too short to have a source, or too long for any NIRP
    std::uint64_t refused = 0;      ///< the driver had no NIRP or NBL for it
};

/// Reads one frame ahead, so that its time is known before its turn comes.
class InjectionFeed {
  public:
    /// Returns what is wrong with the capture, or nothing.
    std::optional<CaptureFailure> Open(const std::string& path);

    /// When the next frame is to go; nothing when there is none.
    std::optional<CaptureStamp> NextDue() const;
    /// That frame. Its bytes are good until Advance.
    const CaptureFrame& Next() const { return next_; }
    /// Counts what became of it, with `sent` saying whether it was sent, and reads on.
    void Advance(const MacAddress& adapter, bool sent);

    const InjectionCounts& counts() const { return counts_; }
    const CaptureSource& source() const { return reader_.source(); }
    /// Why reading stopped before the end, or nothing.
    const std::optional<CaptureFailure>& failure() const { return failure_; }

  private:
    void Read();

    CaptureReader reader_;
    CaptureFrame next_;
    bool waiting_ = false;
    InjectionCounts counts_;
    std::optional<CaptureFailure> failure_;
};

}  // namespace netsieve::tool
